#include "sampling/sensor_parsers.hpp"

#include <algorithm>
#include <charconv>
#include <cmath>

namespace vistrel {

namespace {

constexpr double kUnknownMinutes = 65535;

bool startsWith(std::string_view s, std::string_view prefix) {
  return s.substr(0, prefix.size()) == prefix;
}

std::optional<int64_t> parseInteger(std::string_view s) {
  while (!s.empty() && (s.back() == ' ' || s.back() == '\r' || s.back() == '\t'))
    s.remove_suffix(1);
  int64_t v = 0;
  auto [end, ec] = std::from_chars(s.data(), s.data() + s.size(), v);
  if (ec != std::errc() || end != s.data() + s.size() || s.empty()) return std::nullopt;
  return v;
}

// Whole minutes, kept only when at least one and below the battery's "unknown" value.
std::optional<int> minutesIfKnown(std::optional<double> minutes) {
  if (!minutes || !(*minutes >= 1 && *minutes < kUnknownMinutes)) return std::nullopt;
  return static_cast<int>(*minutes);
}

}  // namespace

std::optional<SensorGroup> hwmonGroup(std::string_view chip, std::string_view label,
                                      bool batteryChip) {
  if (batteryChip) return SensorGroup::battery;
  if (chip == "coretemp") {
    if (startsWith(label, "Package id") || startsWith(label, "Core")) return SensorGroup::cpu;
    return std::nullopt;
  }
  if (chip == "k10temp" || chip == "zenpower") {
    if (label == "Tdie" || label == "Tctl" || startsWith(label, "Tccd")) return SensorGroup::cpu;
    return std::nullopt;
  }
  if (chip == "cpu_thermal") return SensorGroup::cpu;
  if (chip == "amdgpu") {
    if (label == "edge" || label == "junction") return SensorGroup::gpu;
    return std::nullopt;
  }
  if (chip == "nvme") {
    if (label == "Composite" || label.empty()) return SensorGroup::ssd;
    return std::nullopt;
  }
  if (chip == "drivetemp") return SensorGroup::ssd;
  return std::nullopt;
}

bool isCPUThermalZone(std::string_view type) {
  if (type == "x86_pkg_temp") return true;
  std::string lower(type);
  for (char& c : lower) c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
  return lower.find("cpu") != std::string::npos || lower.find("soc") != std::string::npos;
}

std::optional<uint64_t> wrappingDelta(uint64_t before, uint64_t after,
                                      std::optional<uint64_t> maxRange) {
  if (after >= before) return after - before;
  if (!maxRange || *maxRange < before) return std::nullopt;
  return (*maxRange - before) + after;
}

PowerSupplyInfo parsePowerSupplyUevent(std::string_view text) {
  PowerSupplyInfo info;
  while (!text.empty()) {
    size_t nl = text.find('\n');
    std::string_view line = text.substr(0, nl);
    text = nl == std::string_view::npos ? std::string_view{} : text.substr(nl + 1);
    constexpr std::string_view prefix = "POWER_SUPPLY_";
    if (!startsWith(line, prefix)) continue;
    line.remove_prefix(prefix.size());
    size_t eq = line.find('=');
    if (eq == std::string_view::npos) continue;
    std::string_view key = line.substr(0, eq);
    std::string_view value = line.substr(eq + 1);
    struct Field {
      std::string_view key;
      std::optional<int64_t> PowerSupplyInfo::*member;
    };
    static constexpr Field kNumbers[] = {
        {"CAPACITY", &PowerSupplyInfo::capacity},
        {"CYCLE_COUNT", &PowerSupplyInfo::cycleCount},
        {"ENERGY_NOW", &PowerSupplyInfo::energyNow},
        {"ENERGY_FULL", &PowerSupplyInfo::energyFull},
        {"ENERGY_FULL_DESIGN", &PowerSupplyInfo::energyFullDesign},
        {"CHARGE_NOW", &PowerSupplyInfo::chargeNow},
        {"CHARGE_FULL", &PowerSupplyInfo::chargeFull},
        {"CHARGE_FULL_DESIGN", &PowerSupplyInfo::chargeFullDesign},
        {"POWER_NOW", &PowerSupplyInfo::powerNow},
        {"CURRENT_NOW", &PowerSupplyInfo::currentNow},
        {"VOLTAGE_NOW", &PowerSupplyInfo::voltageNow},
        {"TIME_TO_EMPTY_NOW", &PowerSupplyInfo::timeToEmpty},
        {"TIME_TO_FULL_NOW", &PowerSupplyInfo::timeToFull},
        {"TEMP", &PowerSupplyInfo::temp},
    };
    bool matched = false;
    for (const Field& f : kNumbers) {
      if (key == f.key) {
        info.*(f.member) = parseInteger(value);
        matched = true;
        break;
      }
    }
    if (matched) continue;
    if (key == "TYPE") {
      info.type = value;
    } else if (key == "STATUS") {
      info.status = value;
    } else if (key == "SCOPE") {
      info.scope = value;
    } else if (key == "PRESENT") {
      if (auto v = parseInteger(value)) info.present = *v != 0;
    } else if (key == "ONLINE") {
      if (auto v = parseInteger(value)) info.online = *v != 0;
    }
  }
  return info;
}

PowerSupplyInfo combineBatteries(const std::vector<PowerSupplyInfo>& batteries) {
  if (batteries.empty()) return {};
  if (batteries.size() == 1) return batteries.front();
  PowerSupplyInfo all = batteries.front();
  const auto sum = [&](std::optional<int64_t> PowerSupplyInfo::*field, bool magnitude) {
    std::optional<int64_t> total = 0;
    for (const auto& b : batteries) {
      if (!(b.*field)) return std::optional<int64_t>{};
      const int64_t v = magnitude && *(b.*field) < 0 ? -*(b.*field) : *(b.*field);
      if (__builtin_add_overflow(*total, v, &*total)) return std::optional<int64_t>{};
    }
    return total;
  };
  for (auto field : {&PowerSupplyInfo::energyNow, &PowerSupplyInfo::energyFull,
                     &PowerSupplyInfo::energyFullDesign, &PowerSupplyInfo::chargeNow,
                     &PowerSupplyInfo::chargeFull, &PowerSupplyInfo::chargeFullDesign}) {
    all.*field = sum(field, false);
  }
  all.powerNow = sum(&PowerSupplyInfo::powerNow, true);
  all.currentNow = sum(&PowerSupplyInfo::currentNow, true);
  all.timeToEmpty.reset();
  all.timeToFull.reset();

  // Capacity: weighted by full energy (or charge) where every battery has it.
  double weighted = 0, weights = 0, plain = 0;
  int counted = 0;
  bool weighable = true;
  for (const auto& b : batteries) {
    if (!b.capacity) continue;
    const std::optional<int64_t> full = b.energyFull ? b.energyFull : b.chargeFull;
    if (full && *full > 0) {
      weighted += static_cast<double>(*b.capacity) * static_cast<double>(*full);
      weights += static_cast<double>(*full);
    } else {
      weighable = false;
    }
    plain += static_cast<double>(*b.capacity);
    ++counted;
  }
  if (counted == 0) {
    all.capacity.reset();
  } else {
    all.capacity = static_cast<int64_t>(
        std::lround(weighable && weights > 0 ? weighted / weights : plain / counted));
  }

  const auto any = [&](std::string_view status) {
    return std::any_of(batteries.begin(), batteries.end(),
                       [&](const PowerSupplyInfo& b) { return b.status == status; });
  };
  if (any("Charging")) {
    all.status = "Charging";
  } else if (any("Discharging")) {
    all.status = "Discharging";
  }
  for (const auto& b : batteries) {
    if (b.cycleCount && (!all.cycleCount || *b.cycleCount > *all.cycleCount)) {
      all.cycleCount = b.cycleCount;
    }
    if (b.temp && (!all.temp || *b.temp > *all.temp)) all.temp = b.temp;
  }
  return all;
}

bool isSystemBattery(const PowerSupplyInfo& info) {
  return info.type == "Battery" && info.scope != "Device" && info.present != false;
}

std::optional<double> batteryWatts(const PowerSupplyInfo& info) {
  if (info.powerNow) return std::fabs(static_cast<double>(*info.powerNow)) / 1e6;
  if (info.currentNow && info.voltageNow) {
    return std::fabs(static_cast<double>(*info.currentNow) *
                     static_cast<double>(*info.voltageNow)) /
           1e12;
  }
  return std::nullopt;
}

BatteryStat batteryFromPowerSupply(const PowerSupplyInfo& s, std::optional<bool> pluggedIn,
                                   std::optional<double> temperature) {
  BatteryStat b;
  b.present = true;
  const auto ratio = [](std::optional<int64_t> a,
                        std::optional<int64_t> b) -> std::optional<double> {
    if (!a || !b || *b <= 0 || *a < 0) return std::nullopt;
    return static_cast<double>(*a) / static_cast<double>(*b);
  };
  if (s.capacity) {
    b.percent = std::clamp(static_cast<double>(*s.capacity), 0.0, 100.0);
  } else if (auto r = ratio(s.energyNow, s.energyFull)) {
    b.percent = std::min(*r * 100, 100.0);
  } else if (auto r2 = ratio(s.chargeNow, s.chargeFull)) {
    b.percent = std::min(*r2 * 100, 100.0);
  }
  b.charging = s.status == "Charging";
  b.pluggedIn = pluggedIn.value_or(b.charging || s.status == "Full" || s.status == "Not charging");
  if (s.cycleCount && *s.cycleCount > 0 && *s.cycleCount < 1'000'000) {
    b.cycles = static_cast<int>(*s.cycleCount);
  }
  auto health = ratio(s.energyFull, s.energyFullDesign);
  if (!health) health = ratio(s.chargeFull, s.chargeFullDesign);
  if (health) b.health = std::min(*health * 100, 100.0);
  b.watts = batteryWatts(s);

  // The kernel's own estimate first, then the remaining energy (or charge) over the present draw.
  std::optional<double> minutes;
  const auto seconds = b.charging ? s.timeToFull : s.timeToEmpty;
  if (seconds) minutes = static_cast<double>(*seconds) / 60;
  if (!minutesIfKnown(minutes) && (b.charging || s.status == "Discharging")) {
    minutes.reset();
    auto remaining = [&](std::optional<int64_t> now, std::optional<int64_t> full,
                         std::optional<int64_t> rate) -> std::optional<double> {
      if (!now || !rate || *rate == 0) return std::nullopt;
      double left = static_cast<double>(*now);
      if (b.charging) {
        if (!full) return std::nullopt;
        left = static_cast<double>(*full) - static_cast<double>(*now);
      }
      return left / std::fabs(static_cast<double>(*rate)) * 60;
    };
    minutes = remaining(s.energyNow, s.energyFull, s.powerNow);
    if (!minutes) minutes = remaining(s.chargeNow, s.chargeFull, s.currentNow);
  }
  b.minutesLeft = minutesIfKnown(minutes);

  if (temperature) {
    b.temperature = temperature;
  } else if (s.temp) {
    b.temperature = static_cast<double>(*s.temp) / 10;
  }
  return b;
}

}  // namespace vistrel
