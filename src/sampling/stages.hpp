#pragma once

// The sampler's stages whose readers live elsewhere (temperatures, fans, battery, power, audio,
// Bluetooth) or in later layers (processes, agents, apps). Each is an interface here so that the
// sampler depends on nothing above it; the empty implementations give the records' empty values
// until a real one is installed.

#include <cstdint>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "sampling/records.hpp"

namespace vistrel {

// Fan speeds and whole-machine power (the SMC on a Mac).
class SMCSource {
 public:
  virtual ~SMCSource() = default;
  virtual std::vector<Fan> fans() { return {}; }
  virtual std::optional<double> systemPower() { return std::nullopt; }
  // Watts drawn by the processor package(s), where the platform measures them apart from the
  // machine (RAPL on Linux); per-process energy is apportioned from it. Asked once per tick.
  virtual std::optional<double> packagePower() { return std::nullopt; }
};

// Temperatures; the result carries the given fans.
class ThermalSource {
 public:
  virtual ~ThermalSource() = default;
  virtual SensorStat read(std::vector<Fan> fans) {
    SensorStat s;
    s.fans = std::move(fans);
    return s;
  }
};

class BatterySource {
 public:
  virtual ~BatterySource() = default;
  // `temperature`: the battery temperature from the last sensor reading.
  virtual BatteryStat read(std::optional<double> /*temperature*/) { return {}; }
};

class EnergySource {
 public:
  virtual ~EnergySource() = default;
  virtual std::optional<double> gpuWatts() { return std::nullopt; }
};

class AudioSource {
 public:
  virtual ~AudioSource() = default;
  virtual std::vector<AudioUse> read() { return {}; }
};

class BluetoothSource {
 public:
  virtual ~BluetoothSource() = default;
  virtual std::vector<BluetoothDevice> read() { return {}; }
};

// Lists and measures every process.
class ProcessStage {
 public:
  virtual ~ProcessStage() = default;
  // `network`: measure per-process network this time; `psEvery`: seconds between full refreshes of
  // the unreadable processes through ps; `gpu`: measure per-process GPU time this time.
  virtual std::vector<ProcessSample> sample(bool /*network*/, double /*psEvery*/, bool /*gpu*/) {
    return {};
  }
  // Processes that could not be read in the last sample.
  virtual int hidden() const { return 0; }
  // Whether the samples carry the platform's own per-process energy (macOS). Otherwise the sampler
  // apportions the package power by CPU time, or leaves energy unknown.
  virtual bool measuresEnergy() const { return false; }
};

// Map from the process id of an agent's root process to the tool's name.
using AgentRoots = std::map<int32_t, std::string>;

class AgentStage {
 public:
  virtual ~AgentStage() = default;
  virtual std::pair<std::vector<AgentSession>, AgentRoots> sessions(
      const std::vector<ProcessSample>& /*processes*/) {
    return {};
  }
};

// Groups processes into apps.
class AppStage {
 public:
  virtual ~AppStage() = default;
  virtual std::vector<AppUsage> group(const std::vector<ProcessSample>& /*processes*/,
                                      const AgentRoots& /*agentRoots*/, const CPUStat& /*cpu*/,
                                      const MemoryStat& /*memory*/, int /*hidden*/) {
    return {};
  }
};

}  // namespace vistrel
