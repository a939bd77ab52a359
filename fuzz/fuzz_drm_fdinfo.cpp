// Feeds arbitrary bytes to the DRM fdinfo parser.
#include <cstddef>
#include <cstdint>
#include <string_view>

#include "processes/process_parsers.hpp"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  std::string_view text(reinterpret_cast<const char*>(data), size);
  auto client = vistrel::parseDrmFdinfo(text);
  if (client && text.find("drm-client-id") == std::string_view::npos) __builtin_trap();
  return 0;
}
