// Feeds arbitrary bytes to the integer sysctl decoder as if the system had returned them, and
// checks the decoded value against an independent reading of the same bytes.

#include <cstddef>
#include <cstdint>
#include <cstring>
#include <memory>
#include <optional>

#include "sampling/mac_decoders.hpp"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  // An exact-size heap copy: a read past the reported length is caught by the address sanitizer.
  std::unique_ptr<uint8_t[]> buffer(new uint8_t[size > 0 ? size : 1]);
  if (size > 0) std::memcpy(buffer.get(), data, size);

  const std::optional<int64_t> value = vistrel::decodeSysctlInteger(buffer.get(), size);
  if (size == 4) {
    int32_t expected = 0;
    std::memcpy(&expected, data, 4);
    if (!value || *value != expected) __builtin_trap();
  } else if (size == 8) {
    int64_t expected = 0;
    std::memcpy(&expected, data, 8);
    if (!value || *value != expected) __builtin_trap();
  } else if (value) {
    __builtin_trap();
  }

  // The pressure mapping takes whatever came out, including unreadable values.
  const vistrel::Pressure pressure = vistrel::pressureFromLevel(value);
  const bool known = pressure == vistrel::Pressure::normal ||
                     pressure == vistrel::Pressure::warning ||
                     pressure == vistrel::Pressure::critical;
  if (!known) __builtin_trap();
  return 0;
}
