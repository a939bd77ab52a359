// Feeds arbitrary bytes to the /proc/meminfo parser: it must neither crash nor read out of bounds.
#include <cstddef>
#include <cstdint>
#include <string_view>

#include "sampling/proc_parsers.hpp"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  std::string_view text(reinterpret_cast<const char*>(data), size);
  vistrel::MemInfo info = vistrel::parseMeminfo(text);
  vistrel::MemoryFigures figures = vistrel::memoryFromMeminfo(info, size);
  if (figures.swapUsed > figures.swapTotal) __builtin_trap();
  (void)vistrel::parseZramUsed(text);
  return 0;
}
