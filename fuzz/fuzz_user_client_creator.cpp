// Feeds arbitrary bytes to the GPU client creator-text parser: no crash, and a pid only when the
// last space-separated piece before the first comma is that pid's decimal digits.
#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>

#include "processes/process_parsers.hpp"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  std::string_view text(reinterpret_cast<const char*>(data), size);
  const auto pid = vistrel::parseUserClientCreator(text);
  if (!pid) return 0;
  if (*pid < 0) __builtin_trap();
  std::string_view head = text.substr(0, text.find(','));
  while (!head.empty() && head.back() == ' ') head.remove_suffix(1);
  std::string_view last = head.substr(head.rfind(' ') + 1);  // npos + 1 wraps to 0: the whole head
  while (last.size() > 1 && last.front() == '0') last.remove_prefix(1);
  if (last != std::to_string(*pid)) __builtin_trap();
  return 0;
}
