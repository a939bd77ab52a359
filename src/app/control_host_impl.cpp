#include "app/control_host_impl.hpp"

#include "alerts/alert_log.hpp"

namespace vistrel {

ModelControlHost::ModelControlHost(Model& model, HistoryStore* history,
                                   std::function<AgentsSnapshot()> agentsNow)
    : model_(model), history_(history), agentsNow_(std::move(agentsNow)) {}

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
