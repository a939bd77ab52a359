#include "processes/process_stages.hpp"

namespace vistrel {

namespace {

class ProcessStageAdapter final : public ProcessStage {
 public:
  explicit ProcessStageAdapter(std::shared_ptr<ProcessLayer> layer) : layer_(std::move(layer)) {}
  std::vector<ProcessSample> sample(bool network, double psEvery, bool gpu) override {
    return layer_->sampler.sample(network, psEvery, gpu);
  }
  int hidden() const override { return layer_->sampler.hidden(); }
  bool measuresEnergy() const override { return layer_->sampler.measuresEnergy(); }

 private:
  std::shared_ptr<ProcessLayer> layer_;
};

class AppStageAdapter final : public AppStage {
 public:
  explicit AppStageAdapter(std::shared_ptr<ProcessLayer> layer) : layer_(std::move(layer)) {}
  std::vector<AppUsage> group(const std::vector<ProcessSample>& processes,
                              const AgentRoots& agentRoots, const CPUStat& cpu,
                              const MemoryStat& memory, int hidden) override {
    return layer_->grouper.group(processes, layer_->queries, agentRoots, cpu, memory, hidden);
  }

 private:
  std::shared_ptr<ProcessLayer> layer_;
};

}  // namespace

ProcessLayer::ProcessLayer(std::unique_ptr<ProcessSource> source,
                           std::unique_ptr<AppBundles> appBundles, const Clock& clock)
    : bundles(std::move(appBundles)),
      sampler(std::move(source), clock),
      grouper(*bundles),
      queries(sampler) {}

std::shared_ptr<ProcessLayer> makeProcessLayer(const Clock& clock) {
  return std::make_shared<ProcessLayer>(makeProcessSource(), makeAppBundles(), clock);
}

void installProcessStages(SamplerParts& parts, std::shared_ptr<ProcessLayer> layer) {
  parts.processes = std::make_unique<ProcessStageAdapter>(layer);
  parts.apps = std::make_unique<AppStageAdapter>(std::move(layer));
}

}  // namespace vistrel
