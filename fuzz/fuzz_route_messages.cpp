// Feeds arbitrary bytes to the NET_RT_IFLIST2 walk. The first input byte picks a misalignment of
// the buffer's start (0-7 bytes), since the kernel's buffer carries no alignment promise for the
// decoder; the rest is the routing-message buffer itself. Interfaces with an even index are
// called "en0", odd ones "lo0", so that both the counted and the ignored path run.

#include <cstddef>
#include <cstdint>
#include <cstring>
#include <string_view>
#include <vector>

#include "sampling/mac_decoders.hpp"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  if (size == 0) return 0;
  const size_t shift = data[0] % 8;
  ++data;
  --size;
  // An exact-size copy so that the address sanitizer catches any read past the end.
  std::vector<uint8_t> buffer(shift + size);
  if (size > 0) std::memcpy(buffer.data() + shift, data, size);
  const uint8_t* start = buffer.data() + shift;

  const vistrel::NetworkCounters totals = vistrel::sumInterfaceMessages(
      start, size,
      [](uint16_t index) -> std::string_view { return index % 2 == 0 ? "en0" : "lo0"; });

  // Nothing can be counted from a buffer shorter than one interface message.
  if (size < vistrel::kMinInterfaceMessage && (totals.in != 0 || totals.out != 0)) __builtin_trap();
  return 0;
}
