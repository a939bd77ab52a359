#pragma once

// The battery from the smart-battery service's properties (macOS), decoded portably so that it is
// tested from captured dictionaries.

#include <cstdint>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <variant>

#include "sampling/records.hpp"
#include "sampling/stages.hpp"

namespace vistrel {

// A property list value as far as the battery needs it: numbers (integers kept exact), booleans,
// strings and nested dictionaries. Arrays and data are not kept.
struct PropertyValue;
using Properties = std::map<std::string, PropertyValue>;
struct PropertyValue {
  std::variant<std::monostate, int64_t, double, bool, std::string, Properties> value;
};

// A number under `key` (an integer or a floating-point value); nullopt when missing or another
// type.
std::optional<double> propertyNumber(const Properties& p, const std::string& key);
std::optional<bool> propertyBool(const Properties& p, const std::string& key);
const Properties* propertyDictionary(const Properties& p, const std::string& key);

// The record from the "AppleSmartBattery" properties; `properties` nullopt means no such service.
// `temperature` is the battery temperature of the last sensor reading, preferred when present.
// Amperages are signed (negative while discharging); "Temperature" and "VirtualTemperature" are
// hundredths of a degree; the capacities may sit only inside "BatteryData".
BatteryStat batteryFromProperties(const std::optional<Properties>& properties,
                                  std::optional<double> temperature);

// The platform's side: the service's properties in one call; nullopt when there is no battery
// service.
class BatteryPropertiesSource {
 public:
  virtual ~BatteryPropertiesSource() = default;
  virtual std::optional<Properties> properties() = 0;
};

// The I/O registry's "AppleSmartBattery" (macOS); defined under macos/.
std::unique_ptr<BatteryPropertiesSource> makeBatteryPropertiesSource();

class BatteryReader final : public BatterySource {
 public:
  explicit BatteryReader(std::unique_ptr<BatteryPropertiesSource> source);
  BatteryStat read(std::optional<double> temperature) override;

 private:
  std::unique_ptr<BatteryPropertiesSource> source_;
};

}  // namespace vistrel
