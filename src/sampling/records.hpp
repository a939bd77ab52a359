#pragma once

// The records of one sample of the machine. Plain copyable values compared field by field; the
// default of each is what a consumer sees before the first tick. Units: fractions 0...1 unless a
// field says percent; byte counts unsigned 64-bit; rates bytes per second; temperatures degrees
// Celsius; power watts; times wall-clock dates.

#include <array>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "base/clock.hpp"

namespace vistrel {

enum class Metric { cpu, memory, gpu, disk, network, battery, heat };
inline constexpr std::array<Metric, 7> kAllMetrics = {
    Metric::cpu,     Metric::memory,  Metric::gpu, Metric::disk,
    Metric::network, Metric::battery, Metric::heat};
std::string_view rawValue(Metric m);
std::optional<Metric> metricFromRaw(std::string_view raw);

struct CPUStat {
  double total = 0;           // busy fraction of all cores (user + system)
  double user = 0;            // user fraction, nice time included
  double system = 0;          // system fraction
  std::vector<double> cores;  // busy fraction per logical core, in core order
  int performanceCores = 0;
  int efficiencyCores = 0;
  std::array<double, 3> load{};  // 1-, 5- and 15-minute load averages
  bool operator==(const CPUStat&) const = default;
};

enum class Pressure { normal, warning, critical };
std::string_view rawValue(Pressure p);

struct MemoryStat {
  uint64_t total = 0;
  uint64_t app = 0;
  uint64_t wired = 0;
  uint64_t compressed = 0;
  uint64_t cached = 0;
  uint64_t free = 0;
  uint64_t swapUsed = 0;
  uint64_t swapTotal = 0;
  Pressure pressure = Pressure::normal;

  uint64_t used() const { return app + wired + compressed; }
  double fraction() const {
    return total == 0 ? 0.0 : static_cast<double>(used()) / static_cast<double>(total);
  }
  bool operator==(const MemoryStat&) const = default;
};

struct GPUStat {
  double utilization = 0;    // 0...1
  uint64_t memoryInUse = 0;  // bytes
  std::string name;
  bool operator==(const GPUStat&) const = default;
};

struct PowerStat {
  std::optional<double> system;  // watts drawn by the whole machine
  std::optional<double> gpu;     // GPU watts
  // The sum of the energy figure of every sampled process, watts; absent where the machine gives
  // no per-process energy (then each process's `energy` is 0 and means "unknown", not "none").
  std::optional<double> apps;
  bool operator==(const PowerStat&) const = default;
};

struct Volume {
  std::string name;
  std::string path;  // mount point
  uint64_t total = 0;
  uint64_t free = 0;
  bool isMain = false;  // the startup volume
  bool operator==(const Volume&) const = default;
};

struct DiskStat {
  double readRate = 0;  // bytes per second, all physical disks together
  double writeRate = 0;
  std::vector<Volume> volumes;

  // The startup volume's figures: the first volume marked main, else the first volume, else 0.
  uint64_t mainFree() const;
  uint64_t mainTotal() const;
  bool operator==(const DiskStat&) const = default;
};

struct NetworkStat {
  double inRate = 0;  // bytes per second
  double outRate = 0;
  std::string interface;  // display name of the primary interface, its system name, or "Offline"
  bool operator==(const NetworkStat&) const = default;
};

struct BatteryStat {
  bool present = false;
  double percent = 0;  // 0...100
  bool charging = false;
  bool pluggedIn = false;
  std::optional<int> minutesLeft;
  std::optional<double> watts;
  std::optional<double> health;  // percent
  std::optional<int> cycles;
  std::optional<double> temperature;  // degrees Celsius
  bool operator==(const BatteryStat&) const = default;
};

struct Fan {
  double rpm = 0;
  double min = 0;
  double max = 0;
  bool operator==(const Fan&) const = default;
};

struct SensorStat {
  std::optional<double> cpu;
  std::optional<double> cpuMax;  // the hottest CPU core
  std::optional<double> gpu;
  std::optional<double> ssd;
  std::optional<double> battery;
  std::vector<Fan> fans;

  // The larger of the CPU (its hottest core when known) and the GPU. SSD and battery temperatures
  // deliberately do not count: they run hot without the machine being under strain.
  std::optional<double> hottest() const;
  bool operator==(const SensorStat&) const = default;
};

struct BluetoothDevice {
  std::string name;
  int percent = 0;
  bool operator==(const BluetoothDevice&) const = default;
};

struct AudioUse {
  int32_t pid = 0;
  std::string name;
  std::optional<std::string> bundlePath;
  bool output = false;  // playing
  bool input = false;   // recording
  bool operator==(const AudioUse&) const = default;
};

struct ProcessSample {
  int32_t pid = 0;
  int32_t ppid = 0;
  std::string name;
  std::string path;
  std::optional<std::string> appPath;
  double cpu = 0;       // percent of one core
  uint64_t memory = 0;  // bytes
  double energy = 0;
  double diskRead = 0;  // bytes per second
  double diskWrite = 0;
  double netIn = 0;
  double netOut = 0;
  double gpu = 0;  // share of the GPU, 0...1
  uint32_t uid = 0;
  std::optional<Date> started;
  bool operator==(const ProcessSample&) const = default;
};

enum class Lean { cpu, memory, gpu, disk, network };
std::string_view rawValue(Lean l);

struct AppUsage {
  std::string id;  // the grouping key
  std::string name;
  std::optional<std::string> bundlePath;
  std::optional<std::string> bundleID;
  std::vector<int32_t> pids;  // the main process first
  double cpu = 0;
  uint64_t memory = 0;
  double energy = 0;
  double diskRead = 0;
  double diskWrite = 0;
  double netIn = 0;
  double netOut = 0;
  double gpu = 0;
  double impact = 0;
  Lean lean = Lean::cpu;
  bool isSystem = false;
  std::optional<std::string> path;

  int helperCount() const { return pids.empty() ? 0 : static_cast<int>(pids.size()) - 1; }
  bool operator==(const AppUsage&) const = default;
};

// One live coding-agent process group (filled by the agent tracker).
struct AgentSession {
  int32_t pid = 0;
  std::string tool;  // "Claude Code" or "Codex"
  std::optional<std::string> folder;
  std::optional<Date> started;
  int64_t processCount = 0;
  double cpu = 0;  // percent
  uint64_t memory = 0;
  bool working = false;
  std::optional<Date> idleSince;
  bool operator==(const AgentSession&) const = default;
};

struct Snapshot {
  enum class Mood { calm, busy, strained };

  Date time{};  // when the tick began
  CPUStat cpu;
  MemoryStat memory;
  GPUStat gpu;
  PowerStat power;
  DiskStat disk;
  NetworkStat network;
  BatteryStat battery;
  SensorStat sensors;
  std::vector<ProcessSample> processes;
  std::vector<AppUsage> apps;
  int hiddenProcesses = 0;
  std::vector<BluetoothDevice> bluetooth;
  std::vector<AudioUse> audio;
  std::vector<AgentSession> agents;

  // 0...1: what drives gauges, the live series and the menu-bar meters.
  double level(Metric m) const;
  // The metric in its natural unit (percent, bytes, bytes per second, degrees).
  double value(Metric m) const;
  Mood mood() const;
  bool operator==(const Snapshot&) const = default;
};

std::string_view rawValue(Snapshot::Mood m);
// "All good", "Busy", "Under strain".
std::string_view label(Snapshot::Mood m);

// Full-scale points of the level gauges: product constants, not properties of the machine.
inline constexpr double kDiskFullScale = 500'000'000;    // bytes per second
inline constexpr double kNetworkFullScale = 50'000'000;  // bytes per second
inline constexpr double kHeatFullScale = 105;            // degrees Celsius

}  // namespace vistrel
