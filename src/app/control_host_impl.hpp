#pragma once

// What the control requests need of the application, answered by the model, the history store and
// the agents monitor. The request side sees only ControlHost; this is the one place that knows the
// model behind it.

#include <atomic>
#include <functional>
#include <optional>
#include <vector>

#include "agents/agent_records.hpp"
#include "app/model.hpp"
#include "control/control_host.hpp"
#include "history/history_store.hpp"

namespace vistrel {

class ModelControlHost final : public ControlHost {
 public:
  // `history` may be null (the application runs without history); `agentsNow` reads both agents
  // now (on the calling thread) and may be empty, in which case nothing is known of the agents.
  // `sampleNow` takes a Snapshot on demand (the sampler's `sampleNow`; may be empty). The model and
  // the store must outlive the host.
  ModelControlHost(Model& model, HistoryStore* history, std::function<AgentsSnapshot()> agentsNow,
                   std::function<std::optional<Snapshot>()> sampleNow = {});

  // Main thread: a Snapshot has reached the model; on-demand samples are no longer taken.
  void snapshotArrived() { warm_.store(true, std::memory_order_release); }

  // Main thread only.
  const std::optional<Snapshot>& latestSnapshot() override { return model_.latest(); }
  const std::vector<AlertEvent>& keptAlerts() override;
  bool canQuit(const AppUsage& app) override { return model_.canQuit(app); }
  // Files the request on the model, which holds it until the person answers in the window.
  void confirmQuit(const AppUsage& app) override { model_.confirmQuit(app); }

  // Any thread.
  HistoryStore* history() override { return history_; }
  AgentsSnapshot agentsNow() override;
  std::optional<Snapshot> coldSnapshot() override;

 private:
  Model& model_;
  HistoryStore* history_;
  std::function<AgentsSnapshot()> agentsNow_;
  std::function<std::optional<Snapshot>()> sampleNow_;
  std::atomic<bool> warm_{false};
};

}  // namespace vistrel
