// Feeds arbitrary bytes to the /proc/stat parser: it must neither crash nor read out of bounds.
#include <cstddef>
#include <cstdint>
#include <string_view>

#include "sampling/proc_parsers.hpp"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  std::string_view text(reinterpret_cast<const char*>(data), size);
  std::vector<vistrel::CoreTicks> ticks;
  bool ok = vistrel::parseProcStat(text, ticks);
  if (ok == ticks.empty()) __builtin_trap();  // success exactly when a core was found
  return 0;
}
