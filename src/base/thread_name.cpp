#include "base/thread_name.hpp"

namespace vistrel {

std::string threadNamePrefix(std::string_view name, size_t maxBytes) {
  if (name.size() <= maxBytes) return std::string(name);
  size_t end = maxBytes;
  // Back off over continuation bytes (10xxxxxx) so that the cut falls before a lead byte.
  while (end > 0 && (static_cast<unsigned char>(name[end]) & 0xC0) == 0x80) --end;
  return std::string(name.substr(0, end));
}

}  // namespace vistrel
