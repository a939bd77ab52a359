#pragma once

// The kernel's hardware-monitoring chips (/sys/class/hwmon) as the sensor sources use them, and
// reads whose cost is measured: a file that is slow to read (an NVMe drive's temperature, an
// embedded controller's fan) is read on a slower clock so that a tick stays cheap.

#include <cstdint>
#include <functional>
#include <optional>
#include <string>
#include <unordered_map>
#include <vector>

#include "base/clock.hpp"
#include "sampling/thermal_reader.hpp"

namespace vistrel {

struct HwmonTemperature {
  std::string input;  // tempN_input, millidegrees Celsius
  std::string name;   // identifies the sensor: "hwmon3/Core 0"
  SensorGroup group = SensorGroup::cpu;
};

struct HwmonFan {
  std::string input, min, max;  // fanN_input, fanN_min, fanN_max: revolutions per minute
};

struct HwmonChip {
  std::string folder;
  std::string name;    // the chip's `name`: "coretemp", "k10temp", "amdgpu", "nvme", ...
  std::string device;  // the device it monitors, for its runtime power status; empty when none
  std::vector<HwmonTemperature> temperatures;  // only those of a known group
  std::vector<HwmonFan> fans;
  std::string power;  // power1_average, else power1_input (micro-watts); empty when neither
};

// Every chip under `root`/sys/class/hwmon, in name order.
std::vector<HwmonChip> listHwmon(const std::string& root);

// Monotonic seconds with sub-millisecond resolution, for timing reads. Injected in tests.
using Stopwatch = std::function<double()>;
Stopwatch systemStopwatch();

// A read slower than this is slow.
inline constexpr double kSlowReadSeconds = 0.001;

// Reads integer sysfs files, timing each file's first read. A slow file is read again only after
// `slowEvery` seconds of the clock; between, its last value stands.
class PacedReader {
 public:
  PacedReader(const Clock& clock, Stopwatch stopwatch);
  std::optional<int64_t> read(const std::string& path, double slowEvery);
  // Whether the first read of `path` was slow.
  bool slow(const std::string& path) const;

 private:
  struct Entry {
    bool slow = false;
    double readAt = 0;
    std::optional<int64_t> value;
  };
  const Clock& clock_;
  Stopwatch stopwatch_;
  std::unordered_map<std::string, Entry> entries_;
  std::string buffer_;
};

}  // namespace vistrel
