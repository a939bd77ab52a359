#include "app/control_host_impl.hpp"

#include "alerts/alert_log.hpp"

namespace vistrel {

ModelControlHost::ModelControlHost(Model& model, HistoryStore* history,
                                   std::function<AgentsSnapshot()> agentsNow,
                                   std::function<std::optional<Snapshot>()> sampleNow)
    : model_(model),
      history_(history),
      agentsNow_(std::move(agentsNow)),
      sampleNow_(std::move(sampleNow)) {}

const std::vector<AlertEvent>& ModelControlHost::keptAlerts() {
  return model_.alerts().alerts();
}

AgentsSnapshot ModelControlHost::agentsNow() {
  if (agentsNow_) return agentsNow_();
  // Without a reader nothing is known. The model's own copy is not read here: this runs on a
  // connection's thread while the main thread may be replacing it.
  return AgentsSnapshot{};
}

}  // namespace vistrel

namespace vistrel {

std::optional<Snapshot> ModelControlHost::coldSnapshot() {
  // Read before sampling: a Snapshot that arrives meanwhile is no reason to throw the sample away.
  if (warm_.load(std::memory_order_acquire) || !sampleNow_) return std::nullopt;
  return sampleNow_();
}

}  // namespace vistrel
