#pragma once

#include <functional>
#include <memory>
#include <mutex>
#include <vector>

#include "agents/agent_records.hpp"
#include "agents/claude_reader.hpp"
#include "agents/codex_reader.hpp"
#include "agents/status_line_bridge.hpp"
#include "base/clock.hpp"
#include "base/main_queue.hpp"
#include "base/serial_queue.hpp"

namespace vistrel {

// Where the agents monitor reads from; the defaults are the agents' own folders.
struct AgentsMonitorOptions {
  std::vector<std::string> claudeFolders = ClaudeReader::defaultFolders();
  std::string codexFolder = CodexReader::defaultFolder();
  BridgePaths bridge = BridgePaths::defaults();
  std::function<Date(Date)> startOfDay;  // local midnight unless replaced (tests)
};

// Owns the two agents' readers, runs them off the main thread on its own queue, merges their
// results with the status-line bridge's records into one AgentsSnapshot, and hands it back on the
// main queue. Refreshes never pile up: one at a time, and none sooner than the caller's gap.
class AgentsMonitor {
 public:
  using Options = AgentsMonitorOptions;

  AgentsMonitor(MainQueue& main, const Clock& clock, Options options = {});
  ~AgentsMonitor();

  // Reads both agents on the monitor's queue and calls `done` on the main queue with the result,
  // unless a refresh is under way or less than `minimumGap` seconds passed since the last one began
  // (then nothing happens). `processes`: the tracker's live sessions.
  void refresh(std::vector<AgentSession> processes, double minimumGap,
               std::function<void(AgentsSnapshot)> done);

  // The same work, waited for: for answers needed at once (agent requests). Runs on the monitor's
  // queue, so the readers never run twice at the same time. Never call it from that queue.
  AgentsSnapshot readNow(const std::vector<AgentSession>& processes);

  // Points Claude Code's status line at this executable again if it moved (an app update), in the
  // background.
  void repairStatusLinePath();

 private:
  AgentsSnapshot read(const std::vector<AgentSession>& processes);

  MainQueue& main_;
  const Clock& clock_;
  Options options_;
  std::unique_ptr<ClaudeReader> claude_;
  std::unique_ptr<CodexReader> codex_;
  std::mutex lock_;  // guards running_ and lastRun_ only; never held while reading files
  bool running_ = false;
  double lastRun_ = -1e18;  // uptime seconds when the last refresh began
  std::shared_ptr<bool> alive_ = std::make_shared<bool>(true);
  SerialQueue queue_;  // last: stopped first, before the readers go
};

}  // namespace vistrel
