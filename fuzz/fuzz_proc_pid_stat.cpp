// Feeds arbitrary bytes to the /proc/<pid>/stat parser: it must neither crash nor read out of
// bounds, and a name it finds lies inside the text.
#include <cstddef>
#include <cstdint>
#include <string_view>

#include "processes/process_parsers.hpp"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  std::string_view text(reinterpret_cast<const char*>(data), size);
  auto stat = vistrel::parseProcPidStat(text);
  if (stat && (stat->comm.size() + 4 > size || text.find(stat->comm) == std::string_view::npos)) {
    __builtin_trap();
  }
  return 0;
}
