// Feeds arbitrary bytes to the cmdline splitter: no more arguments than zero bytes allow.
#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <string_view>

#include "processes/process_parsers.hpp"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  std::string_view text(reinterpret_cast<const char*>(data), size);
  auto args = vistrel::parseCmdline(text);
  size_t zeros = static_cast<size_t>(std::count(text.begin(), text.end(), '\0'));
  if (args.size() > zeros + 1 || (size > 0 && text != std::string_view("\0", 1) && args.empty())) {
    __builtin_trap();
  }
  return 0;
}
