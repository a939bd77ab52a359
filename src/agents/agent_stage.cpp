#include "agents/agent_stage.hpp"

#include "agents/agent_tracker.hpp"

namespace vistrel {

namespace {

class AgentStageAdapter final : public AgentStage {
 public:
  AgentStageAdapter(std::shared_ptr<ProcessLayer> layer, const Clock& clock)
      : layer_(std::move(layer)),
        tracker_(AgentTracker::Queries{
                     [l = layer_.get()](int32_t pid) { return l->sampler.arguments(pid); },
                     [l = layer_.get()](int32_t pid) { return l->sampler.workingFolder(pid); }},
                 clock) {}

  std::pair<std::vector<AgentSession>, AgentRoots> sessions(
      const std::vector<ProcessSample>& processes) override {
    return tracker_.sessions(processes);
  }

 private:
  std::shared_ptr<ProcessLayer> layer_;  // keeps the process sampler alive for the queries
  AgentTracker tracker_;
};

}  // namespace

void installAgentStage(SamplerParts& parts, std::shared_ptr<ProcessLayer> layer,
                       const Clock& clock) {
  parts.agents = std::make_unique<AgentStageAdapter>(std::move(layer), clock);
}

}  // namespace vistrel
