// Feeds arbitrary bytes to the network-tool listing parser: no crash, no read out of bounds, and
// no more entries than there are lines after the header.
#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <string_view>

#include "processes/process_parsers.hpp"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  std::string_view text(reinterpret_cast<const char*>(data), size);
  const auto bytes = vistrel::parseNettop(text);
  const auto lines = static_cast<size_t>(std::count(text.begin(), text.end(), '\n'));
  if (bytes.size() > lines) __builtin_trap();
  for (const auto& [pid, counts] : bytes) {
    if (pid < 0) __builtin_trap();
  }
  return 0;
}
