// Temperatures, fans, power and the battery on Linux: hwmon, thermal zones, powercap (RAPL),
// power_supply, and NVML for an NVIDIA GPU. Devices that runtime power management has put to sleep
// are never read: reading would wake them.

#include <algorithm>
#include <cmath>
#include <optional>
#include <string>
#include <vector>

#include "base/files.hpp"
#include "sampling/linux/hwmon.hpp"
#include "sampling/linux/linux_sources.hpp"
#include "sampling/linux/nvml.hpp"
#include "sampling/sensor_parsers.hpp"
#include "sampling/sensor_sources.hpp"

namespace vistrel {

namespace {

// Slow files (see PacedReader) are read at most this often, seconds.
constexpr double kSlowTemperatureEvery = 60;
constexpr double kSlowFanEvery = 9.5;
constexpr double kSlowBatteryPowerEvery = 9.5;

// The chips, re-listed on the device clock.
class HwmonList {
 public:
  HwmonList(std::string root, const Clock& clock) : root_(std::move(root)), clock_(clock) {}
  const std::vector<HwmonChip>& chips() {
    const double now = clock_.uptime();
    if (!at_ || now < *at_ || now - *at_ >= kDeviceRecheckSeconds) {
      at_ = now;
      chips_ = listHwmon(root_);
    }
    return chips_;
  }

 private:
  std::string root_;
  const Clock& clock_;
  std::optional<double> at_;
  std::vector<HwmonChip> chips_;
};

bool chipAsleep(const HwmonChip& chip) {
  return !chip.device.empty() && deviceSuspended(chip.device);
}

class LinuxThermalSource final : public ThermalSource {
 public:
  LinuxThermalSource(std::string root, const Clock& clock, Stopwatch stopwatch)
      : root_(root),
        hwmon_(root, clock),
        reader_(clock, std::move(stopwatch)),
        useNvml_(root == "/") {}

  SensorStat read(std::vector<Fan> fans) override {
    std::vector<TemperatureReading> readings;
    bool cpu = false;
    for (const HwmonChip& chip : hwmon_.chips()) {
      if (chipAsleep(chip)) continue;
      for (const HwmonTemperature& t : chip.temperatures) {
        auto milli = reader_.read(t.input, kSlowTemperatureEvery);
        if (!milli) continue;
        readings.push_back({t.group, t.name, static_cast<double>(*milli) / 1000});
        cpu = cpu || t.group == SensorGroup::cpu;
      }
    }
    if (useNvml_) {
      if (Nvml* nvml = Nvml::shared()) {
        for (size_t i = 0; i < nvml->deviceCount(); ++i) {
          if (auto c = nvml->celsius(i)) {
            readings.push_back({SensorGroup::gpu, "nvml" + std::to_string(i), *c});
          }
        }
      }
    }
    if (!cpu) addThermalZones(readings);
    return summarizeTemperatures(readings, std::move(fans));
  }

 private:
  // The CPU from the thermal zones when no hwmon chip describes it (ARM boards, some VMs).
  void addThermalZones(std::vector<TemperatureReading>& readings) {
    const std::string base = joinPath(root_, "sys/class/thermal");
    for (const std::string& zone : listFolder(base)) {
      if (zone.rfind("thermal_zone", 0) != 0) continue;
      const std::string folder = joinPath(base, zone);
      auto type = readLine(joinPath(folder, "type"));
      if (!type || !isCPUThermalZone(*type)) continue;
      if (auto milli = reader_.read(joinPath(folder, "temp"), kSlowTemperatureEvery)) {
        readings.push_back({SensorGroup::cpu, zone, static_cast<double>(*milli) / 1000});
      }
    }
  }

  std::string root_;
  HwmonList hwmon_;
  PacedReader reader_;
  bool useNvml_;
};

// A RAPL zone's energy counter as a rate.
struct RaplZone {
  std::string energy;  // energy_uj
  std::optional<uint64_t> maxRange;
  std::optional<uint64_t> last;
  double lastAt = 0;
  std::optional<double> cachedWatts;  // the rate at lastAt, for a second ask in the same tick
};

// Power figures read every tick: fans, whole-machine power, package power.
class LinuxPowerSource final : public SMCSource {
 public:
  LinuxPowerSource(std::string root, const Clock& clock, Stopwatch stopwatch)
      : root_(root), clock_(clock), hwmon_(root, clock), reader_(clock, std::move(stopwatch)) {}

  std::vector<Fan> fans() override {
    std::vector<Fan> fans;
    for (const HwmonChip& chip : hwmon_.chips()) {
      if (chipAsleep(chip)) continue;
      for (const HwmonFan& f : chip.fans) {
        auto rpm = reader_.read(f.input, kSlowFanEvery);
        if (!rpm || *rpm < 0) continue;
        Fan fan;
        fan.rpm = static_cast<double>(*rpm);
        fan.min = static_cast<double>(std::max<int64_t>(0, reader_.read(f.min, 1e9).value_or(0)));
        fan.max = static_cast<double>(std::max<int64_t>(0, reader_.read(f.max, 1e9).value_or(0)));
        // Boards list a header for every fan socket; an empty socket reads 0 with no maximum.
        if (fan.rpm == 0 && fan.max == 0) continue;
        fans.push_back(fan);
      }
    }
    return fans;
  }

  std::optional<double> systemPower() override {
    refreshZones();
    // One source for the figure, so that it never jumps between two ways of measuring: RAPL's psys
    // zone (the whole platform), else its packages, else the battery while it discharges.
    if (!psys_.empty()) return watts(psys_);
    if (!packages_.empty()) return watts(packages_);
    return batteryDischargeWatts();
  }

  std::optional<double> packagePower() override {
    refreshZones();
    return watts(packages_);
  }

 private:
  void refreshZones() {
    const double now = clock_.uptime();
    if (zonesAt_ && now >= *zonesAt_ && now - *zonesAt_ < kDeviceRecheckSeconds) return;
    zonesAt_ = now;
    std::vector<RaplZone> psys, packages;
    const std::string base = joinPath(root_, "sys/class/powercap");
    std::vector<std::string> names = listFolder(base);
    std::sort(names.begin(), names.end());
    for (const std::string& zone : names) {
      // Top-level zones only ("intel-rapl:0", not its sub-zone "intel-rapl:0:0" nor the MMIO copy).
      if (zone.rfind("intel-rapl:", 0) != 0 || zone.find(':', 11) != std::string::npos) continue;
      const std::string folder = joinPath(base, zone);
      const std::string name = readLine(joinPath(folder, "name")).value_or("");
      RaplZone z;
      z.energy = joinPath(folder, "energy_uj");
      z.maxRange = readNumber(joinPath(folder, "max_energy_range_uj"));
      // Usually readable by root only: then there is no RAPL figure at all.
      if (!readNumber(z.energy)) continue;
      if (name == "psys") {
        psys.push_back(std::move(z));
      } else if (name.rfind("package", 0) == 0) {
        packages.push_back(std::move(z));
      }
    }
    keepHistory(psys_, psys);
    keepHistory(packages_, packages);
    psys_ = std::move(psys);
    packages_ = std::move(packages);
  }

  // A re-listed zone keeps its last reading, so that the rate does not restart.
  static void keepHistory(const std::vector<RaplZone>& old, std::vector<RaplZone>& fresh) {
    for (auto& z : fresh) {
      for (const auto& o : old) {
        if (o.energy == z.energy) {
          z.last = o.last;
          z.lastAt = o.lastAt;
        }
      }
    }
  }

  // The zones' summed rate since their last reading; nullopt for the first reading, an unreadable
  // counter, or a clock that did not move.
  std::optional<double> watts(std::vector<RaplZone>& zones) {
    if (zones.empty()) return std::nullopt;
    const double now = clock_.uptime();
    double total = 0;
    bool complete = true;
    for (RaplZone& z : zones) {
      if (z.last && z.lastAt == now && z.cachedWatts) {
        total += *z.cachedWatts;
        continue;
      }
      auto value = readNumber(z.energy);
      std::optional<double> w;
      if (value && z.last && now > z.lastAt) {
        if (auto delta = wrappingDelta(*z.last, *value, z.maxRange)) {
          w = static_cast<double>(*delta) / 1e6 / (now - z.lastAt);
        }
      }
      if (value) {
        z.last = value;
        z.lastAt = now;
      }
      z.cachedWatts = w;
      if (!w) complete = false;
      total += w.value_or(0);
    }
    if (!complete) return std::nullopt;
    return total;
  }

  // The battery's draw while the machine runs on it: the whole machine's power then.
  std::optional<double> batteryDischargeWatts() {
    const double now = clock_.uptime();
    if (!batteryAt_ || now < *batteryAt_ || now - *batteryAt_ >= kDeviceRecheckSeconds) {
      batteryAt_ = now;
      battery_.clear();
      const std::string base = joinPath(root_, "sys/class/power_supply");
      std::vector<std::string> names = listFolder(base);
      std::sort(names.begin(), names.end());
      for (const std::string& name : names) {
        const std::string folder = joinPath(base, name);
        if (readLine(joinPath(folder, "type")).value_or("") != "Battery") continue;
        if (readLine(joinPath(folder, "scope")).value_or("") == "Device") continue;
        battery_ = folder;
        break;
      }
    }
    if (battery_.empty()) return std::nullopt;
    // Status is a word, not a number: read it only when the power figure is fresh.
    PowerSupplyInfo info;
    info.powerNow = reader_.read(joinPath(battery_, "power_now"), kSlowBatteryPowerEvery);
    if (!info.powerNow) {
      info.currentNow = reader_.read(joinPath(battery_, "current_now"), kSlowBatteryPowerEvery);
      info.voltageNow = reader_.read(joinPath(battery_, "voltage_now"), kSlowBatteryPowerEvery);
    }
    if (!statusAt_ || now < *statusAt_ || now - *statusAt_ >= kSlowBatteryPowerEvery ||
        !reader_.slow(joinPath(battery_, "power_now"))) {
      statusAt_ = now;
      discharging_ = readLine(joinPath(battery_, "status")).value_or("") == "Discharging";
    }
    if (!discharging_) return std::nullopt;
    return batteryWatts(info);
  }

  std::string root_;
  const Clock& clock_;
  HwmonList hwmon_;
  PacedReader reader_;
  std::optional<double> zonesAt_;
  std::vector<RaplZone> psys_, packages_;
  std::optional<double> batteryAt_;
  std::string battery_;
  std::optional<double> statusAt_;
  bool discharging_ = false;
};

// GPU power: amdgpu's hwmon power figure and NVML. A sleeping GPU counts as drawing nothing.
class LinuxGPUPowerSource final : public EnergySource {
 public:
  LinuxGPUPowerSource(std::string root, const Clock& clock)
      : hwmon_(root, clock), useNvml_(root == "/") {}

  std::optional<double> gpuWatts() override {
    std::optional<double> total;
    for (const HwmonChip& chip : hwmon_.chips()) {
      if (chip.name != "amdgpu" || chip.power.empty()) continue;
      if (chipAsleep(chip)) {
        total = total.value_or(0);
        continue;
      }
      if (auto micro = readNumber(chip.power)) {
        total = total.value_or(0) + static_cast<double>(*micro) / 1e6;
      }
    }
    if (useNvml_) {
      if (Nvml* nvml = Nvml::shared()) {
        for (size_t i = 0; i < nvml->deviceCount(); ++i) {
          if (nvml->asleep(i)) {
            total = total.value_or(0);
          } else if (auto w = nvml->watts(i)) {
            total = total.value_or(0) + *w;
          }
        }
      }
    }
    return total;
  }

 private:
  HwmonList hwmon_;
  bool useNvml_;
};

class LinuxBatterySource final : public BatterySource {
 public:
  explicit LinuxBatterySource(std::string root) : root_(std::move(root)) {}

  BatteryStat read(std::optional<double> temperature) override {
    const std::string base = joinPath(root_, "sys/class/power_supply");
    std::vector<std::string> names = listFolder(base);
    std::sort(names.begin(), names.end());
    std::vector<PowerSupplyInfo> batteries;
    std::optional<bool> plugged;
    for (const std::string& name : names) {
      const std::string folder = joinPath(base, name);
      if (!readFile(joinPath(folder, "uevent"), buffer_, 1 << 14)) continue;
      PowerSupplyInfo info = parsePowerSupplyUevent(buffer_);
      // Older kernels leave the type and scope out of the uevent.
      if (info.type.empty()) info.type = readLine(joinPath(folder, "type")).value_or("");
      if (info.scope.empty()) info.scope = readLine(joinPath(folder, "scope")).value_or("");
      if (info.type == "Battery") {
        if (isSystemBattery(info)) batteries.push_back(std::move(info));
      } else if (info.scope != "Device" && info.online) {
        // Mains, USB, USB-C and wireless chargers: online means the machine is on external power.
        plugged = plugged.value_or(false) || *info.online;
      }
    }
    if (batteries.empty()) return {};
    return batteryFromPowerSupply(combineBatteries(batteries), plugged, temperature);
  }

 private:
  std::string root_;
  std::string buffer_;
};

}  // namespace

std::unique_ptr<ThermalSource> makeLinuxThermalSource(std::string root, const Clock& clock,
                                                      Stopwatch stopwatch) {
  return std::make_unique<LinuxThermalSource>(std::move(root), clock, std::move(stopwatch));
}

std::unique_ptr<SMCSource> makeLinuxPowerSource(std::string root, const Clock& clock,
                                                Stopwatch stopwatch) {
  return std::make_unique<LinuxPowerSource>(std::move(root), clock, std::move(stopwatch));
}

std::unique_ptr<EnergySource> makeLinuxGPUPowerSource(std::string root, const Clock& clock) {
  return std::make_unique<LinuxGPUPowerSource>(std::move(root), clock);
}

std::unique_ptr<BatterySource> makeLinuxBatterySource(std::string root) {
  return std::make_unique<LinuxBatterySource>(std::move(root));
}

std::unique_ptr<SMCSource> makeSMCSource() {
  return makeLinuxPowerSource("/");
}
std::unique_ptr<ThermalSource> makeThermalSource() {
  return makeLinuxThermalSource("/");
}
std::unique_ptr<BatterySource> makeBatterySource() {
  return makeLinuxBatterySource("/");
}
std::unique_ptr<EnergySource> makeEnergySource() {
  return makeLinuxGPUPowerSource("/");
}

}  // namespace vistrel
