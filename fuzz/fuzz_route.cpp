// Feeds arbitrary bytes to the /proc/net/route parser: it must neither crash nor read out of
// bounds.
#include <cstddef>
#include <cstdint>
#include <string_view>

#include "sampling/proc_parsers.hpp"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  std::string_view text(reinterpret_cast<const char*>(data), size);
  auto interface = vistrel::parseDefaultRoute(text);
  if (interface && interface->size() > size) __builtin_trap();
  return 0;
}
