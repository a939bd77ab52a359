// Feeds arbitrary bytes to the cgroup app-id parser. The id names a file in an applications
// folder, so whatever it returns must be a plain file name.
#include <cstddef>
#include <cstdint>
#include <string_view>

#include "processes/process_parsers.hpp"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  std::string_view text(reinterpret_cast<const char*>(data), size);
  auto id = vistrel::parseCgroupAppId(text);
  if (!id) return 0;
  if (id->empty() || id->find('/') != std::string::npos || id->find('\0') != std::string::npos ||
      id->find("..") != std::string::npos || id->front() == '.') {
    __builtin_trap();
  }
  return 0;
}
