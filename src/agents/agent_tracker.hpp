#pragma once

#include <cstdint>
#include <functional>
#include <optional>
#include <string>
#include <unordered_map>
#include <utility>
#include <vector>

#include "base/clock.hpp"
#include "sampling/records.hpp"
#include "sampling/stages.hpp"

namespace vistrel {

// Finds the running Claude Code and Codex processes in each process sample and groups each with
// the processes it started into a session, with their CPU, memory and busy or idle state. Runs on
// the sampler's queue, inside its read of a sample.
class AgentTracker {
 public:
  // What the tracker asks about a process: its argument vector and its working folder.
  struct Queries {
    std::function<std::vector<std::string>(int32_t)> arguments;
    std::function<std::optional<std::string>(int32_t)> workingFolder;
  };

  // A session above this much CPU (percent of one core, summed over its processes) is busy.
  static constexpr double kBusyPercent = 4.0;
  // Seconds a session stays "working" after it was last busy, so that pauses between tool calls
  // do not flicker it to idle.
  static constexpr double kWorkingHold = 8;

  AgentTracker(Queries queries, const Clock& clock);

  // "Claude Code", "Codex", or nothing; cached per process life (pid and start time).
  std::optional<std::string> tool(const ProcessSample& process);

  // The live sessions and the map from each session's root pid to its tool's name.
  std::pair<std::vector<AgentSession>, AgentRoots> sessions(
      const std::vector<ProcessSample>& processes);

 private:
  struct Recognised {
    std::optional<Date> started;
    std::string name;  // an exec (a shim, a wrapper script) keeps the pid and start time
    std::optional<std::string> tool;
  };

  Queries queries_;
  const Clock& clock_;
  std::unordered_map<int32_t, Date> busyAt_;
  std::unordered_map<int32_t, Recognised> argsCache_;
};

// Which agent a script path belongs to, from where the runtime was asked to run it: a package
// folder of either agent, or a launcher named after one in a bin folder.
std::optional<std::string> agentOfScript(std::string_view scriptPath);

}  // namespace vistrel
