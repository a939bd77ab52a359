#include "sampling/records.hpp"

#include <gtest/gtest.h>

#include <tuple>

namespace vistrel {
namespace {

TEST(Snapshot, DefaultIsEmptyAndCalm) {
  Snapshot s;
  for (Metric m : kAllMetrics) {
    SCOPED_TRACE(std::string(rawValue(m)));
    EXPECT_EQ(s.level(m), 0.0);
    EXPECT_EQ(s.value(m), 0.0);
  }
  EXPECT_EQ(s.mood(), Snapshot::Mood::calm);
  EXPECT_FALSE(s.sensors.hottest());
  EXPECT_EQ(s.disk.mainFree(), 0u);
  EXPECT_EQ(s.disk.mainTotal(), 0u);
}

TEST(Snapshot, Mood) {
  struct Case {
    const char* name;
    double cpu;
    Pressure pressure;
    std::optional<double> cpuTemp, cpuMax, gpuTemp, ssd;
    Snapshot::Mood mood;
  } cases[] = {
      {"idle", 0.1, Pressure::normal, {}, {}, {}, {}, Snapshot::Mood::calm},
      {"cpu exactly 0.6", 0.6, Pressure::normal, {}, {}, {}, {}, Snapshot::Mood::calm},
      {"cpu above 0.6", 0.6000001, Pressure::normal, {}, {}, {}, {}, Snapshot::Mood::busy},
      {"cpu exactly 0.9", 0.9, Pressure::normal, {}, {}, {}, {}, Snapshot::Mood::busy},
      {"cpu above 0.9", 0.9000001, Pressure::normal, {}, {}, {}, {}, Snapshot::Mood::strained},
      {"pressure warning", 0, Pressure::warning, {}, {}, {}, {}, Snapshot::Mood::busy},
      {"pressure critical", 0, Pressure::critical, {}, {}, {}, {}, Snapshot::Mood::strained},
      {"gpu 91 beats cpu 70", 0, Pressure::normal, 70, {}, 91, {}, Snapshot::Mood::busy},
      {"exactly 88", 0, Pressure::normal, 88, {}, {}, {}, Snapshot::Mood::calm},
      {"exactly 98", 0, Pressure::normal, 98, {}, {}, {}, Snapshot::Mood::busy},
      {"hottest core 99", 0, Pressure::normal, 60, 99, {}, {}, Snapshot::Mood::strained},
      {"ssd alone never counts", 0, Pressure::normal, {}, {}, {}, 99, Snapshot::Mood::calm},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.name);
    Snapshot s;
    s.cpu.total = c.cpu;
    s.memory.pressure = c.pressure;
    s.sensors.cpu = c.cpuTemp;
    s.sensors.cpuMax = c.cpuMax;
    s.sensors.gpu = c.gpuTemp;
    s.sensors.ssd = c.ssd;
    EXPECT_EQ(s.mood(), c.mood);
  }
}

TEST(Snapshot, MoodLabelsAndRawValues) {
  const std::tuple<Snapshot::Mood, const char*, const char*> moods[] = {
      {Snapshot::Mood::calm, "All good", "calm"},
      {Snapshot::Mood::busy, "Busy", "busy"},
      {Snapshot::Mood::strained, "Under strain", "strained"},
  };
  for (const auto& [mood, text, raw] : moods) {
    EXPECT_EQ(label(mood), text);
    EXPECT_EQ(rawValue(mood), raw);
  }
}

TEST(Snapshot, HottestPrefersTheHottestCoreAndIgnoresSsdAndBattery) {
  struct Case {
    std::optional<double> cpu, cpuMax, gpu, ssd, battery, hottest;
  } cases[] = {
      {70, {}, 91, {}, {}, 91}, {70, 95, 91, {}, {}, 95}, {70, {}, {}, {}, {}, 70},
      {{}, {}, 50, {}, {}, 50}, {{}, {}, {}, 99, 45, {}}, {{}, 80, {}, {}, {}, 80},
  };
  for (const auto& c : cases) {
    SensorStat s;
    s.cpu = c.cpu;
    s.cpuMax = c.cpuMax;
    s.gpu = c.gpu;
    s.ssd = c.ssd;
    s.battery = c.battery;
    EXPECT_EQ(s.hottest(), c.hottest);
  }
}

TEST(Snapshot, LevelsAndValuesSaturateAtFullScale) {
  Snapshot s;
  s.cpu.total = 0.25;
  s.memory.total = 1000;
  s.memory.app = 300;
  s.memory.wired = 100;
  s.memory.compressed = 100;
  s.gpu.utilization = 0.5;
  s.disk.readRate = 600e6;
  s.disk.writeRate = 400e6;  // 1 GB/s: level 1, not 2
  s.network.inRate = 10e6;
  s.network.outRate = 15e6;
  s.battery.percent = 80;
  s.sensors.cpu = 210;  // a broken sensor must not push the gauge past full
  struct Case {
    Metric m;
    double level, value;
  } cases[] = {
      {Metric::cpu, 0.25, 25}, {Metric::memory, 0.5, 500},   {Metric::gpu, 0.5, 50},
      {Metric::disk, 1, 1e9},  {Metric::network, 0.5, 25e6}, {Metric::battery, 0.8, 80},
      {Metric::heat, 1, 210},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(std::string(rawValue(c.m)));
    EXPECT_DOUBLE_EQ(s.level(c.m), c.level);
    EXPECT_DOUBLE_EQ(s.value(c.m), c.value);
  }
}

TEST(DiskStat, MainVolumeFigures) {
  DiskStat d;
  d.volumes = {{"Data", "/data", 100, 10, false}, {"System", "/", 500, 50, true}};
  EXPECT_EQ(d.mainFree(), 50u);
  EXPECT_EQ(d.mainTotal(), 500u);
  d.volumes[1].isMain = false;  // none marked: the first volume
  EXPECT_EQ(d.mainFree(), 10u);
  EXPECT_EQ(d.mainTotal(), 100u);
}

TEST(AppUsage, HelperCount) {
  AppUsage a;
  EXPECT_EQ(a.helperCount(), 0);
  a.pids = {10};
  EXPECT_EQ(a.helperCount(), 0);
  a.pids = {10, 11, 12};
  EXPECT_EQ(a.helperCount(), 2);
}

TEST(Metric, RawValuesRoundTripInOrder) {
  const char* names[] = {"cpu", "memory", "gpu", "disk", "network", "battery", "heat"};
  for (size_t i = 0; i < kAllMetrics.size(); ++i) {
    EXPECT_EQ(rawValue(kAllMetrics[i]), names[i]);
    EXPECT_EQ(metricFromRaw(names[i]), kAllMetrics[i]);
  }
  EXPECT_EQ(metricFromRaw("fans"), std::nullopt);
}

}  // namespace
}  // namespace vistrel
