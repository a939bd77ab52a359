#include <string_view>

#include "agents/executable_path.hpp"
#include "base/files.hpp"

namespace vistrel {

std::optional<std::string> runningExecutablePath() {
  auto path = readLink("/proc/self/exe");
  if (!path || path->empty() || path->front() != '/') return std::nullopt;
  // A binary replaced on disk while running reads as "/path (deleted)"; the path is still where
  // the next run will be found.
  constexpr std::string_view kDeleted = " (deleted)";
  if (path->size() > kDeleted.size() && path->ends_with(kDeleted)) {
    path->resize(path->size() - kDeleted.size());
  }
  return path;
}

}  // namespace vistrel
