// The sensor stages on a Mac: the SMC for fans and power, the HID event system for temperatures,
// the smart-battery service, and the energy report for the GPU.

#include "sampling/battery_reader.hpp"
#include "sampling/energy_reader.hpp"
#include "sampling/sensor_sources.hpp"
#include "sampling/smc.hpp"
#include "sampling/thermal_reader.hpp"

namespace vistrel {

std::unique_ptr<SMCSource> makeSMCSource() {
  return std::make_unique<SMC>(makeSMCConnection());
}
std::unique_ptr<ThermalSource> makeThermalSource() {
  return std::make_unique<ThermalReader>(makeHIDTemperatureSource());
}
std::unique_ptr<BatterySource> makeBatterySource() {
  return std::make_unique<BatteryReader>(makeBatteryPropertiesSource());
}
std::unique_ptr<EnergySource> makeEnergySource() {
  return std::make_unique<EnergyReader>(makeEnergyChannelSource(), Clock::system());
}

}  // namespace vistrel
