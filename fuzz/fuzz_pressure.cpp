// Feeds arbitrary bytes to the /proc/pressure/memory parser: it must neither crash nor read out of
// bounds.
#include <cstddef>
#include <cstdint>
#include <string_view>

#include "sampling/proc_parsers.hpp"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  std::string_view text(reinterpret_cast<const char*>(data), size);
  (void)vistrel::parseMemoryPressure(text);
  (void)vistrel::parseLoadavg(text);
  int cpus = vistrel::countCPUList(text);
  if (cpus < 0) __builtin_trap();
  (void)vistrel::parseSysfsNumber(text);
  return 0;
}
