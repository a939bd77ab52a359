#pragma once

// The platform's sensor sources for the sampler's stages, defined under linux/ and macos/.

#include <memory>

#include "sampling/stages.hpp"

namespace vistrel {

std::unique_ptr<SMCSource> makeSMCSource();          // fans, whole-machine and package power
std::unique_ptr<ThermalSource> makeThermalSource();  // temperatures
std::unique_ptr<BatterySource> makeBatterySource();
std::unique_ptr<EnergySource> makeEnergySource();  // GPU power
// Apps playing or recording sound. Holds its own thread where the platform's sound server needs
// one; create it only in the application (it loads the sound library).
std::unique_ptr<AudioSource> makeAudioSource();

}  // namespace vistrel
