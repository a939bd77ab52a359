#include "sampling/battery_reader.hpp"

#include <algorithm>
#include <cmath>

namespace vistrel {

namespace {

constexpr double kUnknownMinutes = 65535;  // what the battery reports when it cannot tell

// A number from the top level, else from "BatteryData".
std::optional<double> numberAnywhere(const Properties& p, const std::string& key) {
  if (auto v = propertyNumber(p, key)) return v;
  if (const Properties* data = propertyDictionary(p, "BatteryData")) {
    return propertyNumber(*data, key);
  }
  return std::nullopt;
}

std::optional<int> minutesIfKnown(std::optional<double> minutes) {
  if (!minutes || !(*minutes > 0 && *minutes < kUnknownMinutes)) return std::nullopt;
  return static_cast<int>(*minutes);
}

}  // namespace

std::optional<double> propertyNumber(const Properties& p, const std::string& key) {
  auto it = p.find(key);
  if (it == p.end()) return std::nullopt;
  if (auto i = std::get_if<int64_t>(&it->second.value)) return static_cast<double>(*i);
  if (auto d = std::get_if<double>(&it->second.value)) {
    if (std::isfinite(*d)) return *d;
  }
  return std::nullopt;
}

std::optional<bool> propertyBool(const Properties& p, const std::string& key) {
  auto it = p.find(key);
  if (it == p.end()) return std::nullopt;
  if (auto b = std::get_if<bool>(&it->second.value)) return *b;
  return std::nullopt;
}

const Properties* propertyDictionary(const Properties& p, const std::string& key) {
  auto it = p.find(key);
  if (it == p.end()) return nullptr;
  return std::get_if<Properties>(&it->second.value);
}

BatteryStat batteryFromProperties(const std::optional<Properties>& properties,
                                  std::optional<double> temperature) {
  BatteryStat b;
  if (!properties || propertyBool(*properties, "BatteryInstalled") == false) return b;
  const Properties& p = *properties;
  b.present = true;

  const double current = propertyNumber(p, "CurrentCapacity").value_or(0);
  double max = propertyNumber(p, "MaxCapacity").value_or(0);
  if (!(max > 0)) max = 100;
  b.percent = std::clamp(current / max * 100, 0.0, 100.0);

  b.charging = propertyBool(p, "IsCharging").value_or(false);
  b.pluggedIn = propertyBool(p, "ExternalConnected").value_or(false);
  if (auto cycles = numberAnywhere(p, "CycleCount"); cycles && *cycles >= 0 && *cycles < 1e6) {
    b.cycles = static_cast<int>(*cycles);
  }

  // Full charge against design: the raw figure first (on Apple silicon "MaxCapacity" is a
  // percentage, not milliampere-hours), then the nominal one, then the full-charge one.
  std::optional<double> full = propertyNumber(p, "AppleRawMaxCapacity");
  if (!full) full = numberAnywhere(p, "NominalChargeCapacity");
  if (!full) full = numberAnywhere(p, "FullChargeCapacity");
  const std::optional<double> design = numberAnywhere(p, "DesignCapacity");
  if (full && design && *design > 0) b.health = std::min(*full / *design * 100, 100.0);

  // Millivolts times signed milliamperes.
  std::optional<double> amperage = propertyNumber(p, "InstantAmperage");
  if (!amperage) amperage = propertyNumber(p, "Amperage");
  const std::optional<double> voltage = numberAnywhere(p, "Voltage");
  if (amperage && voltage) b.watts = std::fabs(*voltage * *amperage) / 1e6;

  b.minutesLeft = minutesIfKnown(propertyNumber(p, "TimeRemaining"));
  if (!b.minutesLeft) {
    b.minutesLeft =
        minutesIfKnown(propertyNumber(p, b.charging ? "AvgTimeToFull" : "AvgTimeToEmpty"));
  }

  if (temperature) {
    b.temperature = temperature;
  } else if (auto t = numberAnywhere(p, "Temperature")) {
    b.temperature = *t / 100;
  } else if (auto v = numberAnywhere(p, "VirtualTemperature")) {
    b.temperature = *v / 100;
  }
  return b;
}

BatteryReader::BatteryReader(std::unique_ptr<BatteryPropertiesSource> source)
    : source_(std::move(source)) {}

BatteryStat BatteryReader::read(std::optional<double> temperature) {
  return batteryFromProperties(source_ ? source_->properties() : std::nullopt, temperature);
}

}  // namespace vistrel
