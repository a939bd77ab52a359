#pragma once

// Readable labels for script processes: "python3 http.server" rather than "python3", "vite" rather
// than "node". Stateless; the app grouper caches the answers per process life.

#include <string>
#include <string_view>
#include <vector>

namespace vistrel {

class ScriptLabel {
 public:
  // Program names (lower-cased) that run a script named by their arguments. Any name beginning
  // with "python" counts as well ("python3.12").
  static bool isInterpreter(std::string_view lowerName);
  // Interactive shells and terminal multiplexers: a tool started from one stands on its own rather
  // than joining the shell's group.
  static bool isShell(std::string_view name);

  // The label for a process running the executable at `path` with the argument vector `args`
  // (args[0] as the process set it). Never throws; may be empty only when `path` and `args` say
  // nothing at all.
  static std::string describe(std::string_view path, const std::vector<std::string>& args);
};

}  // namespace vistrel
