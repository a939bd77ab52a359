#pragma once

#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace vistrel {

struct SubprocessResult {
  bool started = false;  // false: the program could not be started (missing, not executable)
  int exitStatus = -1;   // the exit code; -1 when it ended by a signal or did not start
  std::string output;    // everything it wrote to standard output
};

// Runs `program` (an absolute path, or a name looked up in PATH) with `arguments` (not including
// argv[0]), writes `input` to its standard input when given (closed after; no stdin at all
// otherwise), reads its standard output to the end, discards its standard error, and waits for it.
// A program that cannot start gives an empty result (`started` false, empty output). Output beyond
// `maxOutput` bytes is read and dropped so that the child never blocks on a full pipe. The child
// has this process's environment with `environment` ("NAME=value") added or replacing a variable
// of the same name, and inherits no descriptor but its three standard streams.
SubprocessResult runSubprocess(const std::string& program,
                               const std::vector<std::string>& arguments,
                               std::optional<std::string_view> input = std::nullopt,
                               size_t maxOutput = 64 << 20,
                               const std::vector<std::string>& environment = {});

}  // namespace vistrel
