// Feeds arbitrary bytes to the desktop entry parser and the app id of a path: neither may crash,
// read out of bounds, or produce more text than it was given.
#include <cstddef>
#include <cstdint>
#include <string_view>

#include "processes/desktop_entry.hpp"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  std::string_view text(reinterpret_cast<const char*>(data), size);
  auto entry = vistrel::parseDesktopEntry(text);
  if (entry && entry->name && entry->name->size() > size) __builtin_trap();
  if (vistrel::desktopAppId(text).size() > size) __builtin_trap();
  return 0;
}
