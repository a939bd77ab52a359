#include "sampling/records.hpp"

#include <algorithm>

namespace vistrel {

std::string_view rawValue(Metric m) {
  switch (m) {
    case Metric::cpu:
      return "cpu";
    case Metric::memory:
      return "memory";
    case Metric::gpu:
      return "gpu";
    case Metric::disk:
      return "disk";
    case Metric::network:
      return "network";
    case Metric::battery:
      return "battery";
    case Metric::heat:
      return "heat";
  }
  return "cpu";
}

std::optional<Metric> metricFromRaw(std::string_view raw) {
  for (Metric m : kAllMetrics) {
    if (rawValue(m) == raw) return m;
  }
  return std::nullopt;
}

std::string_view rawValue(Pressure p) {
  switch (p) {
    case Pressure::normal:
      return "normal";
    case Pressure::warning:
      return "warning";
    case Pressure::critical:
      return "critical";
  }
  return "normal";
}

std::string_view rawValue(Lean l) {
  switch (l) {
    case Lean::cpu:
      return "cpu";
    case Lean::memory:
      return "memory";
    case Lean::gpu:
      return "gpu";
    case Lean::disk:
      return "disk";
    case Lean::network:
      return "network";
  }
  return "cpu";
}

std::string_view rawValue(Snapshot::Mood m) {
  switch (m) {
    case Snapshot::Mood::calm:
      return "calm";
    case Snapshot::Mood::busy:
      return "busy";
    case Snapshot::Mood::strained:
      return "strained";
  }
  return "calm";
}

std::string_view label(Snapshot::Mood m) {
  switch (m) {
    case Snapshot::Mood::calm:
      return "All good";
    case Snapshot::Mood::busy:
      return "Busy";
    case Snapshot::Mood::strained:
      return "Under strain";
  }
  return "All good";
}

namespace {

const Volume* mainVolume(const std::vector<Volume>& volumes) {
  for (const auto& v : volumes) {
    if (v.isMain) return &v;
  }
  return volumes.empty() ? nullptr : &volumes.front();
}

}  // namespace

uint64_t DiskStat::mainFree() const {
  const Volume* v = mainVolume(volumes);
  return v ? v->free : 0;
}

uint64_t DiskStat::mainTotal() const {
  const Volume* v = mainVolume(volumes);
  return v ? v->total : 0;
}

std::optional<double> SensorStat::hottest() const {
  std::optional<double> cpuFigure = cpuMax ? cpuMax : cpu;
  if (cpuFigure && gpu) return std::max(*cpuFigure, *gpu);
  return cpuFigure ? cpuFigure : gpu;
}

double Snapshot::level(Metric m) const {
  switch (m) {
    case Metric::cpu:
      return cpu.total;
    case Metric::memory:
      return memory.fraction();
    case Metric::gpu:
      return gpu.utilization;
    case Metric::disk:
      return std::min((disk.readRate + disk.writeRate) / kDiskFullScale, 1.0);
    case Metric::network:
      return std::min((network.inRate + network.outRate) / kNetworkFullScale, 1.0);
    case Metric::battery:
      return battery.percent / 100;
    case Metric::heat: {
      auto hot = sensors.hottest();
      return hot ? std::min(*hot / kHeatFullScale, 1.0) : 0.0;
    }
  }
  return 0;
}

double Snapshot::value(Metric m) const {
  switch (m) {
    case Metric::cpu:
      return cpu.total * 100;
    case Metric::memory:
      return static_cast<double>(memory.used());
    case Metric::gpu:
      return gpu.utilization * 100;
    case Metric::disk:
      return disk.readRate + disk.writeRate;
    case Metric::network:
      return network.inRate + network.outRate;
    case Metric::battery:
      return battery.percent;
    case Metric::heat:
      return sensors.hottest().value_or(0);
  }
  return 0;
}

Snapshot::Mood Snapshot::mood() const {
  auto hot = sensors.hottest();
  // Strict comparisons throughout: a value exactly at a threshold does not raise the mood.
  if (memory.pressure == Pressure::critical || cpu.total > 0.9 || (hot && *hot > 98)) {
    return Mood::strained;
  }
  if (memory.pressure == Pressure::warning || cpu.total > 0.6 || (hot && *hot > 88)) {
    return Mood::busy;
  }
  return Mood::calm;
}

}  // namespace vistrel
