#pragma once

#include <memory>

#include "base/clock.hpp"
#include "processes/app_bundles.hpp"
#include "processes/app_grouper.hpp"
#include "processes/process_sampler.hpp"
#include "processes/process_source.hpp"
#include "sampling/sampler.hpp"

namespace vistrel {

// The process sampler and the app grouper together, shared by the sampler's process and app
// stages (grouping asks the process sampler about responsibility and arguments).
struct ProcessLayer {
  ProcessLayer(std::unique_ptr<ProcessSource> source, std::unique_ptr<AppBundles> appBundles,
               const Clock& clock);

  std::unique_ptr<AppBundles> bundles;
  ProcessSampler sampler;
  AppGrouper grouper;
  SamplerQueries queries;
};

// The platform's process source and app bundles.
std::shared_ptr<ProcessLayer> makeProcessLayer(const Clock& clock = Clock::system());

// Makes `layer` the sampler's process and app stages.
void installProcessStages(SamplerParts& parts, std::shared_ptr<ProcessLayer> layer);

}  // namespace vistrel
