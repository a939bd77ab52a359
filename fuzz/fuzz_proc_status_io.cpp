// Feeds arbitrary bytes to the status, io and statm parsers of /proc/<pid>.
#include <cstddef>
#include <cstdint>
#include <string_view>

#include "processes/process_parsers.hpp"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  std::string_view text(reinterpret_cast<const char*>(data), size);
  auto uid = vistrel::parseStatusUid(text);
  if (uid && text.find("Uid") == std::string_view::npos) __builtin_trap();
  auto io = vistrel::parseProcIo(text);
  if (io && text.find("write_bytes") == std::string_view::npos) __builtin_trap();
  (void)vistrel::parseStatmAnonPages(text);
  return 0;
}
