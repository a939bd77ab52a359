#pragma once

#include <memory>

#include "base/clock.hpp"
#include "processes/process_stages.hpp"
#include "sampling/sampler.hpp"

namespace vistrel {

// Makes an AgentTracker the sampler's agent stage, asking `layer`'s process sampler for arguments
// and working folders. Its agent roots then feed the app grouper's agent rule.
void installAgentStage(SamplerParts& parts, std::shared_ptr<ProcessLayer> layer,
                       const Clock& clock = Clock::system());

}  // namespace vistrel
