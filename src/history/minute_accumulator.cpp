#include "history/minute_accumulator.hpp"

#include <algorithm>
#include <cmath>

namespace vistrel {

MinuteSample MinuteSample::of(const Snapshot& snapshot) {
  MinuteSample s;
  s.time = static_cast<int64_t>(std::floor(secondsSince1970(snapshot.time)));
  for (size_t i = 0; i < kAllMetrics.size(); ++i) s.values[i] = snapshot.value(kAllMetrics[i]);
  s.diskWrite = snapshot.disk.writeRate;
  s.netIn = snapshot.network.inRate;
  s.netOut = snapshot.network.outRate;
  s.power = snapshot.power.system;
  size_t n = std::min(snapshot.apps.size(), kAppsPerSnapshot);
  s.apps.reserve(n);
  for (size_t i = 0; i < n; ++i) {
    const AppUsage& a = snapshot.apps[i];
    s.apps.push_back({a.id, a.name, a.cpu, static_cast<double>(a.memory), a.energy,
                      a.diskRead + a.diskWrite, a.diskWrite, a.netIn + a.netOut, a.gpu});
  }
  return s;
}

int64_t MinuteAccumulator::minuteOf(int64_t seconds) {
  int64_t m = seconds / 60;
  return (seconds % 60 < 0) ? m - 1 : m;
}

bool MinuteAccumulator::startsNewMinute(const MinuteSample& sample) const {
  return count_ > 0 && minuteOf(sample.time) != minute_;
}

void MinuteAccumulator::add(const MinuteSample& sample) {
  minute_ = minuteOf(sample.time);
  for (size_t i = 0; i < sums_.size(); ++i) {
    sums_[i] += sample.values[i];
    peaks_[i] = count_ == 0 ? sample.values[i] : std::max(peaks_[i], sample.values[i]);
  }
  diskWrite_ += sample.diskWrite;
  netIn_ += sample.netIn;
  netOut_ += sample.netOut;
  if (sample.power) {
    power_ += *sample.power;
    ++powerCount_;
  }
  // The sample already holds at most kAppsPerSnapshot apps; the cap is applied again here so that
  // a hand-made sample cannot grow the tables either.
  size_t n = std::min(sample.apps.size(), MinuteSample::kAppsPerSnapshot);
  for (size_t i = 0; i < n; ++i) {
    const MinuteSample::App& a = sample.apps[i];
    AppSums& sums = apps_[a.id];
    sums.name = a.name;
    sums.cpu += a.cpu;
    sums.mem += a.mem;
    sums.energy += a.energy;
    sums.disk += a.disk;
    sums.diskW += a.diskW;
    sums.net += a.net;
    sums.gpu += a.gpu;
    ++sums.n;
  }
  ++count_;
}

MinuteRows MinuteAccumulator::rows() const {
  MinuteRows r;
  if (count_ == 0) return r;
  double c = count_;
  r.t = minute_ * 60;
  for (size_t i = 0; i < sums_.size(); ++i) {
    r.average[i] = sums_[i] / c;
    r.peak[i] = peaks_[i];
  }
  r.diskWrite = diskWrite_ / c;
  r.netIn = netIn_ / c;
  r.netOut = netOut_ / c;
  if (powerCount_ > 0) r.power = power_ / powerCount_;
  r.apps.reserve(apps_.size());
  for (const auto& [id, s] : apps_) {
    r.apps.push_back({id, s.name, s.cpu / c, s.mem / c, s.energy / c, s.disk / c, s.net / c,
                      s.gpu / c, s.diskW / c});
  }
  return r;
}

void MinuteAccumulator::reset() {
  *this = MinuteAccumulator();
}

}  // namespace vistrel
