#pragma once

// Folds the snapshots of one wall-clock minute into the averages and peaks that become that
// minute's rows. Plain arithmetic, no database: the store owns one on its queue.

#include <array>
#include <cstdint>
#include <map>
#include <optional>
#include <string>
#include <vector>

#include "sampling/records.hpp"

namespace vistrel {

// What one Snapshot contributes to the history, taken on the caller's thread so that the store's
// queue receives a few hundred bytes instead of the whole process table.
struct MinuteSample {
  struct App {
    std::string id;
    std::string name;
    double cpu = 0;     // percent of one core
    double mem = 0;     // bytes
    double energy = 0;  // energy impact
    double disk = 0;    // bytes per second, read plus write
    double diskW = 0;   // bytes per second written
    double net = 0;     // bytes per second, in plus out
    double gpu = 0;     // share of the GPU, 0...1
  };

  int64_t time = 0;                // seconds since 1970, rounded down
  std::array<double, 7> values{};  // Snapshot::value per Metric, in kAllMetrics order
  double diskWrite = 0;            // bytes per second
  double netIn = 0;                // bytes per second
  double netOut = 0;               // bytes per second
  std::optional<double> power;     // watts drawn by the machine, when measured
  std::vector<App> apps;           // the first kAppsPerSnapshot apps, highest impact first

  // Only the busiest apps of each snapshot are kept: the cap bounds the app tables' growth.
  static constexpr size_t kAppsPerSnapshot = 30;
  static MinuteSample of(const Snapshot& snapshot);
};

// One minute ready to be written: the sys_min row and the app_min rows.
struct MinuteRows {
  struct App {
    std::string id;
    std::string name;
    double cpu = 0, mem = 0, energy = 0, disk = 0, net = 0, gpu = 0, diskW = 0;
  };
  int64_t t = 0;  // seconds since 1970 at the start of the minute
  std::array<double, 7> average{};
  std::array<double, 7> peak{};
  double diskWrite = 0, netIn = 0, netOut = 0;
  std::optional<double> power;  // absent when no snapshot of the minute had a reading
  std::vector<App> apps;
};

class MinuteAccumulator {
 public:
  // Minutes since 1970 of a time in seconds (rounded down, also before 1970).
  static int64_t minuteOf(int64_t seconds);

  // True when the sample belongs to another minute than the one under way; the caller writes the
  // current minute (`rows`, then `reset`) before adding it.
  bool startsNewMinute(const MinuteSample& sample) const;
  void add(const MinuteSample& sample);

  bool empty() const { return count_ == 0; }
  int64_t minute() const { return minute_; }
  int count() const { return count_; }

  // The minute's rows: sums divided by the number of snapshots. An app seen in only part of the
  // minute is averaged over the whole minute on purpose, so that hourly sums stay comparable.
  MinuteRows rows() const;
  void reset();

 private:
  struct AppSums {
    std::string name;
    double cpu = 0, mem = 0, energy = 0, disk = 0, diskW = 0, net = 0, gpu = 0;
    int n = 0;  // snapshots of this minute that included the app
  };

  int64_t minute_ = 0;
  int count_ = 0;
  std::array<double, 7> sums_{};
  std::array<double, 7> peaks_{};
  double diskWrite_ = 0, netIn_ = 0, netOut_ = 0;
  double power_ = 0;
  int powerCount_ = 0;
  std::map<std::string, AppSums> apps_;
};

}  // namespace vistrel
