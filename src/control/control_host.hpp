#pragma once

#include <optional>
#include <vector>

#include "agents/agent_records.hpp"
#include "alerts/alert_event.hpp"
#include "history/history_store.hpp"
#include "sampling/records.hpp"

namespace vistrel {

struct QuitRequest;

// What the control requests need of the application. The application model implements it (the
// control layer sits below the application and cannot see the model itself).
class ControlHost {
 public:
  virtual ~ControlHost() = default;

  // --- Main thread only ---
  // The newest snapshot; absent before the first tick.
  virtual const std::optional<Snapshot>& latestSnapshot() = 0;
  // The kept alerts, newest first.
  virtual const std::vector<AlertEvent>& keptAlerts() = 0;
  // Whether the app may be quit from Vistrel at all (not the system's, not another user's).
  virtual bool canQuit(const AppUsage& app) = 0;
  // Files a quit request for the person to confirm in the window. Never quits anything itself.
  virtual void confirmQuit(const AppUsage& app) = 0;

  // --- Any thread (a connection's own) ---
  // The history store; null when the application runs without history.
  virtual HistoryStore* history() = 0;
  // Both agents read now (waits for the agents monitor's queue).
  virtual AgentsSnapshot agentsNow() = 0;
  // While no Snapshot has reached the application yet (the socket opens before the first tick is
  // handed over, and `--mcp` starts the application for the very call it is answering): one read
  // now, on demand (waits for the sampler's queue). Absent once a Snapshot has arrived.
  virtual std::optional<Snapshot> coldSnapshot() = 0;
};

}  // namespace vistrel
