// Feeds arbitrary bytes to the /proc/diskstats parser: it must neither crash nor read out of
// bounds.
#include <cstddef>
#include <cstdint>
#include <string_view>

#include "sampling/proc_parsers.hpp"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  std::string_view text(reinterpret_cast<const char*>(data), size);
  vistrel::DiskCounters all = vistrel::sumDiskstats(text, [](std::string_view) { return true; });
  vistrel::DiskCounters none = vistrel::sumDiskstats(text, [](std::string_view) { return false; });
  if (none.read != 0 || none.write != 0) __builtin_trap();
  (void)all;
  return 0;
}
