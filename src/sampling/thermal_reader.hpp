#pragma once

// Temperatures: sensors sorted into the CPU, GPU, SSD and battery groups, and the groups summed up
// into a SensorStat. The grouping is portable; where the readings come from (the HID event system
// on a Mac, hwmon on Linux) is the platform's.

#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "base/clock.hpp"
#include "sampling/records.hpp"
#include "sampling/stages.hpp"

namespace vistrel {

enum class SensorGroup { cpu, gpu, ssd, battery };

// One temperature as a sensor reported it, in degrees Celsius. `name` identifies the sensor:
// readings that share a name are one sensor seen through several services.
struct TemperatureReading {
  SensorGroup group = SensorGroup::cpu;
  std::string name;
  double celsius = 0;
  bool operator==(const TemperatureReading&) const = default;
};

// Readings outside the open interval (-20, 150) are dropped as misreads; of readings sharing a name
// the largest counts. `cpu` is the mean of the CPU group and `cpuMax` its largest value; `gpu`,
// `ssd` and `battery` are the largest of their groups; each is absent when its group is empty.
SensorStat summarizeTemperatures(const std::vector<TemperatureReading>& readings,
                                 std::vector<Fan> fans);

// The group of a HID temperature service by its "Product" name; nullopt for a sensor of no
// interest. CPU: contains "tdie", begins with "CPU", contains "PECPU", or contains "pACC" or
// "eACC" in any case (the core clusters of the M1 family: "pACC MTR Temp Sensor3"). GPU: begins
// with "PMU TP" and ends with "g", or begins with "GPU". SSD: contains "NAND". Battery: contains
// "battery" or "Battery".
std::optional<SensorGroup> hidSensorGroup(std::string_view product);

// One HID temperature service's product name and reading, as the platform lists them.
struct HIDTemperature {
  std::string product;
  double celsius = 0;
};

// The platform's side of the HID temperature sensors: the current reading of every service whose
// product name `wanted` accepts. The platform refreshes its list of services on its own clock.
class HIDTemperatureSource {
 public:
  virtual ~HIDTemperatureSource() = default;
  virtual std::vector<HIDTemperature> readAll() = 0;
};

// The HID event system's sensors (macOS); defined under macos/.
std::unique_ptr<HIDTemperatureSource> makeHIDTemperatureSource();

class ThermalReader final : public ThermalSource {
 public:
  explicit ThermalReader(std::unique_ptr<HIDTemperatureSource> source);
  SensorStat read(std::vector<Fan> fans) override;

 private:
  std::unique_ptr<HIDTemperatureSource> source_;
};

}  // namespace vistrel
