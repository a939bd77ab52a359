#include <mach-o/dyld.h>
#include <stdlib.h>

#include <cstdint>
#include <vector>

#include "agents/executable_path.hpp"

namespace vistrel {

std::optional<std::string> runningExecutablePath() {
  std::vector<char> buffer(1024, '\0');
  auto size = static_cast<uint32_t>(buffer.size());
  if (_NSGetExecutablePath(buffer.data(), &size) != 0) {
    // Too small: `size` now holds the length the path needs.
    buffer.assign(size + 1, '\0');
    size = static_cast<uint32_t>(buffer.size());
    if (_NSGetExecutablePath(buffer.data(), &size) != 0) return std::nullopt;
  }
  // The path may go through symbolic links or hold "..": resolve it to the file's real place.
  char* real = ::realpath(buffer.data(), nullptr);
  if (!real) return std::string(buffer.data());
  std::string path(real);
  ::free(real);
  return path;
}

}  // namespace vistrel
