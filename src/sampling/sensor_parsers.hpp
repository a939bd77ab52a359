#pragma once

// Parsers and arithmetic of the Linux sensor files (hwmon, power_supply, powercap). Pure
// functions, tested and fuzzed from captured text.

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "sampling/records.hpp"
#include "sampling/thermal_reader.hpp"

namespace vistrel {

// The group of one hwmon temperature by its chip's `name` and the input's label (empty when the
// input has none); nullopt for a temperature of no interest. CPU: coretemp "Package id N" and
// "Core N", k10temp "Tdie", "Tctl" and "TccdN", zenpower's "Tdie"/"Tccd", "cpu_thermal"; GPU:
// amdgpu "edge" and "junction"; SSD: nvme "Composite" (or its unlabelled first input), drivetemp;
// battery: a chip that belongs to a battery (`batteryChip`). k10temp's "Tctl" carries an offset on
// some parts: the caller drops it when the chip also has "Tdie".
std::optional<SensorGroup> hwmonGroup(std::string_view chip, std::string_view label,
                                      bool batteryChip);

// Whether a thermal zone's `type` stands for the CPU (the fallback when hwmon has no CPU sensor):
// x86_pkg_temp, and types naming the CPU or the SoC.
bool isCPUThermalZone(std::string_view type);

// The energy counted between two readings of a wrapping counter (RAPL's energy_uj): after - before,
// or across one wrap at `maxRange` (max_energy_range_uj) when the counter went down. nullopt when
// it went down and the range is unknown, or when the values make no sense.
std::optional<uint64_t> wrappingDelta(uint64_t before, uint64_t after,
                                      std::optional<uint64_t> maxRange);

// The fields of a power supply's uevent (POWER_SUPPLY_*), in the kernel's units: micro-watt-hours,
// micro-ampere-hours, micro-watts, micro-amperes, micro-volts, seconds, tenths of a degree.
struct PowerSupplyInfo {
  std::string type;    // "Battery", "Mains", "USB", ...
  std::string status;  // "Charging", "Discharging", "Full", "Not charging", "Unknown"
  std::string scope;   // "Device" for a peripheral's battery (a mouse), else empty or "System"
  std::optional<bool> present;
  std::optional<bool> online;
  std::optional<int64_t> capacity;  // percent
  std::optional<int64_t> cycleCount;
  std::optional<int64_t> energyNow, energyFull, energyFullDesign;
  std::optional<int64_t> chargeNow, chargeFull, chargeFullDesign;
  std::optional<int64_t> powerNow, currentNow, voltageNow;
  std::optional<int64_t> timeToEmpty, timeToFull;
  std::optional<int64_t> temp;
  bool operator==(const PowerSupplyInfo&) const = default;
};
PowerSupplyInfo parsePowerSupplyUevent(std::string_view text);

// Several batteries of one machine (ThinkPads with an internal and a removable one) as one: energy,
// charge, power and current summed when every battery reports them (voltage from the first),
// capacity weighted by each battery's full energy (or charge) when known, else averaged; charging
// when any charges, else discharging when any discharges; the highest cycle count and temperature.
// The kernel's time estimates are dropped so that the minutes come from the sums. One battery is
// returned as it is.
PowerSupplyInfo combineBatteries(const std::vector<PowerSupplyInfo>& batteries);

// A laptop battery (not a peripheral's): type Battery and scope not Device.
bool isSystemBattery(const PowerSupplyInfo& info);

// The watts flowing through a battery: power_now, else |current_now x voltage_now|; nullopt when
// neither is known.
std::optional<double> batteryWatts(const PowerSupplyInfo& info);

// The battery record. `pluggedIn`: an online mains or USB supply was found (nullopt when the
// machine lists none: the battery's status decides). `temperature`: the battery's temperature from
// the sensors, preferred to the supply's own.
BatteryStat batteryFromPowerSupply(const PowerSupplyInfo& battery, std::optional<bool> pluggedIn,
                                   std::optional<double> temperature);

}  // namespace vistrel
