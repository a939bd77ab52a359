#include "sampling/sampler.hpp"

#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "sampling/fakes.hpp"

namespace vistrel {
namespace {

using testing::FakeCPU;
using testing::FakeDisk;
using testing::FakeGPU;
using testing::FakeMemory;
using testing::FakeNetwork;

// Records which slow stage ran on which tick.
struct Log {
  int tick = 0;
  std::vector<int> thermal, battery, energy, audio, bluetooth, fans;
  struct ProcessCall {
    int tick;
    bool network;
    double psEvery;
    bool gpu;
  };
  std::vector<ProcessCall> processes;
};

struct LoggingSMC : SMCSource {
  Log& log;
  explicit LoggingSMC(Log& l) : log(l) {}
  std::vector<Fan> fans() override {
    log.fans.push_back(log.tick);
    return {{1000.0 + log.tick, 0, 5000}};
  }
  std::optional<double> systemPower() override { return 12.5; }
  std::optional<double> package;
  std::optional<double> packagePower() override { return package; }
};
struct LoggingThermal : ThermalSource {
  Log& log;
  explicit LoggingThermal(Log& l) : log(l) {}
  SensorStat read(std::vector<Fan> fans) override {
    log.thermal.push_back(log.tick);
    SensorStat s;
    s.cpu = 50.0 + log.tick;
    s.battery = 30;
    s.fans = std::move(fans);
    return s;
  }
};
struct LoggingBattery : BatterySource {
  Log& log;
  std::optional<double> lastTemperature;
  explicit LoggingBattery(Log& l) : log(l) {}
  BatteryStat read(std::optional<double> temperature) override {
    log.battery.push_back(log.tick);
    lastTemperature = temperature;
    BatteryStat b;
    b.present = true;
    b.percent = 90;
    return b;
  }
};
struct LoggingEnergy : EnergySource {
  Log& log;
  bool known = true;
  explicit LoggingEnergy(Log& l) : log(l) {}
  std::optional<double> gpuWatts() override {
    log.energy.push_back(log.tick);
    return known ? std::optional<double>(3.0) : std::nullopt;
  }
};
struct LoggingAudio : AudioSource {
  Log& log;
  explicit LoggingAudio(Log& l) : log(l) {}
  std::vector<AudioUse> read() override {
    log.audio.push_back(log.tick);
    return {{log.tick, "Music", {}, true, false}};
  }
};
struct LoggingBluetooth : BluetoothSource {
  Log& log;
  explicit LoggingBluetooth(Log& l) : log(l) {}
  std::vector<BluetoothDevice> read() override {
    log.bluetooth.push_back(log.tick);
    return {{"Keyboard", 80}};
  }
};
struct LoggingProcesses : ProcessStage {
  Log& log;
  explicit LoggingProcesses(Log& l) : log(l) {}
  std::vector<ProcessSample> sample(bool network, double psEvery, bool gpu) override {
    log.processes.push_back({log.tick, network, psEvery, gpu});
    ProcessSample a, b;
    a.pid = log.tick;
    a.energy = 1.5;
    a.cpu = 25;
    b.pid = 1000 + log.tick;
    b.energy = 2.0;
    b.cpu = 75;
    return {a, b};
  }
  int hidden() const override { return 7; }
  bool measured = true;
  bool measuresEnergy() const override { return measured; }
};
struct TaggingAgents : AgentStage {
  std::pair<std::vector<AgentSession>, AgentRoots> sessions(
      const std::vector<ProcessSample>& processes) override {
    AgentSession s;
    s.pid = processes.empty() ? 0 : processes.front().pid;
    s.tool = "Codex";
    return {{s}, {{s.pid, "Codex"}}};
  }
};
struct GroupingApps : AppStage {
  AgentRoots lastRoots;
  int lastHidden = 0;
  std::vector<AppUsage> group(const std::vector<ProcessSample>& processes, const AgentRoots& roots,
                              const CPUStat&, const MemoryStat&, int hidden) override {
    lastRoots = roots;
    lastHidden = hidden;
    AppUsage app;
    app.id = "app-" + std::to_string(processes.front().pid);
    return {app};
  }
};

class SamplerTest : public ::testing::Test {
 protected:
  SamplerTest() {
    SamplerParts parts;
    auto cpu = std::make_unique<FakeCPU>();
    for (int i = 0; i < 1000; ++i) cpu->script.push_back(std::vector<CoreTicks>{{0, 0, 0, 0}});
    parts.cpu = std::move(cpu);
    auto memory = std::make_unique<FakeMemory>();
    memory->total = 1000;
    parts.memory = std::move(memory);
    parts.gpu = std::make_unique<FakeGPU>();
    auto disk = std::make_unique<FakeDisk>();
    disk->mounted = {{"/", "System", 4'000'000'000, 1, 1, true, true}};
    diskSource = disk.get();
    parts.disk = std::move(disk);
    parts.network = std::make_unique<FakeNetwork>();
    auto smc = std::make_unique<LoggingSMC>(log);
    smcSource = smc.get();
    parts.smc = std::move(smc);
    parts.thermal = std::make_unique<LoggingThermal>(log);
    auto battery = std::make_unique<LoggingBattery>(log);
    batterySource = battery.get();
    parts.battery = std::move(battery);
    auto energy = std::make_unique<LoggingEnergy>(log);
    energySource = energy.get();
    parts.energy = std::move(energy);
    parts.audio = std::make_unique<LoggingAudio>(log);
    parts.bluetooth = std::make_unique<LoggingBluetooth>(log);
    auto processes = std::make_unique<LoggingProcesses>(log);
    processStage = processes.get();
    parts.processes = std::move(processes);
    parts.agents = std::make_unique<TaggingAgents>();
    auto apps = std::make_unique<GroupingApps>();
    appStage = apps.get();
    parts.apps = std::move(apps);
    sampler = Sampler::create(std::move(parts), main, clock);
    sampler->setOnSnapshot([this](Snapshot s) { delivered.push_back(std::move(s)); });
  }

  // Runs ticks 1..n, `step` seconds apart, as the timer would.
  void ticks(int n, double step) {
    for (int i = 0; i < n; ++i) {
      ++log.tick;
      sampler->tickNow();
      clock.advance(step);
    }
  }

  static std::vector<int> range(int from, int to, int by = 1) {
    std::vector<int> v;
    for (int i = from; i <= to; i += by) v.push_back(i);
    return v;
  }

  Log log;
  ManualClock clock{5000};
  ManualMainQueue main;
  FakeDisk* diskSource = nullptr;
  LoggingSMC* smcSource = nullptr;
  LoggingProcesses* processStage = nullptr;
  LoggingBattery* batterySource = nullptr;
  LoggingEnergy* energySource = nullptr;
  GroupingApps* appStage = nullptr;
  std::shared_ptr<Sampler> sampler;
  std::vector<Snapshot> delivered;
};

TEST_F(SamplerTest, ForegroundCadences) {
  ticks(12, 2);                                          // ticks at t = 0, 2, ..., 22
  EXPECT_EQ(log.fans, range(1, 12));                     // live on every tick
  EXPECT_EQ(log.thermal, (std::vector<int>{1, 6, 11}));  // > 9.5 s: t = 0, 10, 20
  EXPECT_EQ(log.battery, (std::vector<int>{1, 6, 11}));
  EXPECT_EQ(log.audio, (std::vector<int>{1, 6, 11}));
  EXPECT_EQ(log.bluetooth, (std::vector<int>{1}));
  EXPECT_EQ(log.energy, range(1, 12));
  ASSERT_EQ(log.processes.size(), 12u);
  std::vector<int> networkTicks;
  for (const auto& call : log.processes) {
    EXPECT_DOUBLE_EQ(call.psEvery, 9.5);
    EXPECT_TRUE(call.gpu);
    if (call.network) networkTicks.push_back(call.tick);
  }
  EXPECT_EQ(networkTicks, (std::vector<int>{1, 4, 7, 10}));  // > 5.5 s: t = 0, 6, 12, 18
  // The battery reader is handed the battery temperature of the sensor reading.
  EXPECT_EQ(batterySource->lastTemperature, 30);
}

TEST_F(SamplerTest, BackgroundCadences) {
  sampler->setBackground(true);
  ticks(13, 5);  // t = 0, 5, ..., 60
  std::vector<int> processTicks, gpuTicks, networkTicks;
  for (const auto& call : log.processes) {
    processTicks.push_back(call.tick);
    EXPECT_DOUBLE_EQ(call.psEvery, 29.5);
    if (call.gpu) gpuTicks.push_back(call.tick);
    if (call.network) networkTicks.push_back(call.tick);
  }
  EXPECT_EQ(processTicks, (std::vector<int>{1, 2, 4, 6, 8, 10, 12}));
  EXPECT_EQ(gpuTicks, (std::vector<int>{6, 12}));
  // The network clock advances on every tick that crosses 29.5 s, sampled or not (tick 7, at
  // t = 30, is a carried-over tick).
  EXPECT_EQ(networkTicks, (std::vector<int>{1}));
  EXPECT_EQ(log.thermal, (std::vector<int>{1, 7, 13}));  // > 29.5 s
  EXPECT_EQ(log.battery, (std::vector<int>{1, 7, 13}));
  EXPECT_EQ(log.audio, (std::vector<int>{}));    // never polled in the background
  EXPECT_EQ(log.energy, (std::vector<int>{1}));  // only until a value is known
  EXPECT_EQ(log.fans, range(1, 13));

  // Carried-over ticks repeat the last sampled tick's processes, apps and agents.
  main.drain();
  ASSERT_EQ(delivered.size(), 13u);
  const Snapshot& t2 = delivered[1];
  const Snapshot& t3 = delivered[2];
  EXPECT_EQ(t3.processes, t2.processes);
  EXPECT_EQ(t3.apps, t2.apps);
  EXPECT_EQ(t3.agents, t2.agents);
  EXPECT_EQ(t3.hiddenProcesses, 7);
  EXPECT_EQ(t3.power.apps, 3.5);
  EXPECT_NE(t3.time, t2.time);  // the machine's own figures are fresh
  EXPECT_EQ(t3.sensors.fans, (std::vector<Fan>{{1003, 0, 5000}}));
}

// Without the platform's own per-process energy, the package power is shared out by CPU time; with
// no package power either, energy is unknown rather than zero.
TEST_F(SamplerTest, EstimatedProcessEnergy) {
  processStage->measured = false;
  smcSource->package = 10;
  ticks(1, 2);
  smcSource->package.reset();
  ticks(1, 2);
  main.drain();
  ASSERT_EQ(delivered.size(), 2u);
  ASSERT_EQ(delivered[0].processes.size(), 2u);
  EXPECT_DOUBLE_EQ(delivered[0].processes[0].energy, 2.5);  // 25 of 100 % of CPU time
  EXPECT_DOUBLE_EQ(delivered[0].processes[1].energy, 7.5);
  EXPECT_EQ(delivered[0].power.apps, 10.0);
  EXPECT_EQ(delivered[1].power.apps, std::nullopt);
  EXPECT_EQ(delivered[1].processes[0].energy, 0);
}

TEST_F(SamplerTest, BackgroundKeepsAskingForGpuPowerUntilKnown) {
  energySource->known = false;
  sampler->setBackground(true);
  ticks(3, 5);
  EXPECT_EQ(log.energy, (std::vector<int>{1, 2, 3}));
  energySource->known = true;
  ticks(3, 5);
  EXPECT_EQ(log.energy, (std::vector<int>{1, 2, 3, 4}));
}

TEST_F(SamplerTest, BackToForegroundRereadsWhatIsDue) {
  ticks(1, 5);  // foreground t = 0: everything read
  sampler->setBackground(true);
  ticks(2, 5);  // t = 5, 10: temperatures not due (29.5), audio never
  EXPECT_EQ(log.thermal, (std::vector<int>{1}));
  EXPECT_EQ(log.audio, (std::vector<int>{1}));
  sampler->setBackground(false);
  ticks(1, 5);  // t = 15: more than 9.5 s since the last readings
  EXPECT_EQ(log.thermal, (std::vector<int>{1, 4}));
  EXPECT_EQ(log.audio, (std::vector<int>{1, 4}));
}

TEST_F(SamplerTest, VolumeListFollowsTheBackgroundPeriod) {
  ticks(1, 30);  // t = 0: listed; foreground period 30
  ticks(1, 30);  // t = 30: listed again
  EXPECT_EQ(diskSource->volumeListings, 2);
  sampler->setBackground(true);
  ticks(1, 30);  // t = 60: still the foreground period from the last tick -> listed; now 120
  ticks(3, 30);  // t = 90, 120, 150: 120 s not yet reached until t = 180
  EXPECT_EQ(diskSource->volumeListings, 3);
  ticks(1, 30);  // t = 180
  EXPECT_EQ(diskSource->volumeListings, 4);
}

TEST_F(SamplerTest, SnapshotAssembly) {
  ticks(1, 2);
  EXPECT_TRUE(delivered.empty());  // handed over through the main queue, never inline
  main.drain();
  ASSERT_EQ(delivered.size(), 1u);
  const Snapshot& s = delivered[0];
  EXPECT_EQ(s.time, dateFromSeconds(1'700'000'000.0));
  EXPECT_EQ(s.memory.total, 1000u);
  EXPECT_EQ(s.processes.size(), 2u);
  EXPECT_EQ(s.hiddenProcesses, 7);
  EXPECT_EQ(s.power.apps, 3.5);
  EXPECT_EQ(s.power.system, 12.5);
  EXPECT_EQ(s.power.gpu, 3.0);
  ASSERT_EQ(s.agents.size(), 1u);
  EXPECT_EQ(appStage->lastRoots, (AgentRoots{{1, "Codex"}}));
  EXPECT_EQ(appStage->lastHidden, 7);
  ASSERT_EQ(s.apps.size(), 1u);
  EXPECT_EQ(s.apps[0].id, "app-1");
  EXPECT_EQ(s.audio.size(), 1u);
  EXPECT_EQ(s.bluetooth.size(), 1u);
  EXPECT_EQ(s.battery.percent, 90);
  EXPECT_EQ(sampler->lastSnapshot(), s);
}

TEST_F(SamplerTest, SampleNowDoesNotDeliverAndWithoutConsumerTicksStillRun) {
  Snapshot fresh = sampler->sampleNow();
  main.drain();
  EXPECT_TRUE(delivered.empty());
  EXPECT_EQ(fresh.memory.total, 1000u);
  sampler->setOnSnapshot(nullptr);
  ticks(2, 2);
  main.drain();
  EXPECT_TRUE(delivered.empty());
  EXPECT_TRUE(sampler->lastSnapshot().has_value());
}

TEST_F(SamplerTest, DebugTimingLine) {
  std::vector<std::string> lines;
  sampler->setDebugSink([&](std::string_view line) { lines.emplace_back(line); });
  ticks(1, 2);
  sampler->setBackground(true);
  ticks(1, 2);
  ASSERT_EQ(lines.size(), 2u);
  double self = -1, children = -1;
  char bg[4] = {};
  ASSERT_EQ(std::sscanf(lines[0].c_str(), "tick self %lf ms, children %lf ms, bg %3s", &self,
                        &children, bg),
            3);
  EXPECT_GE(self, 0);
  EXPECT_GE(children, 0);
  EXPECT_STREQ(bg, "no");
  EXPECT_NE(lines[1].find("bg yes\n"), std::string::npos);
}

// start() ticks at once, not one period later, and that first tick reads everything: every slow
// reader is due, and the process table is read with network and GPU.
TEST_F(SamplerTest, TheFirstTickAfterStartComesAtOnceAndReadsEverything) {
  sampler->start(3600);
  auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(10);
  while (!sampler->lastSnapshot() && std::chrono::steady_clock::now() < deadline) {
    std::this_thread::sleep_for(std::chrono::milliseconds(5));
  }
  ASSERT_TRUE(sampler->lastSnapshot());
  main.drain();
  ASSERT_EQ(delivered.size(), 1u);
  EXPECT_EQ(log.thermal, std::vector<int>{0});
  EXPECT_EQ(log.battery, std::vector<int>{0});
  EXPECT_EQ(log.audio, std::vector<int>{0});
  EXPECT_EQ(log.bluetooth, std::vector<int>{0});
  ASSERT_EQ(log.processes.size(), 1u);
  EXPECT_TRUE(log.processes[0].network);
  EXPECT_TRUE(log.processes[0].gpu);
  EXPECT_EQ(delivered[0].apps.size(), 1u);
  EXPECT_EQ(delivered[0].battery.percent, 90);
}

TEST_F(SamplerTest, SetIntervalKeepsOrReplacesTheTimer) {
  sampler->start(3600);  // first tick at once, the next an hour away
  auto first = sampler->timer();
  ASSERT_TRUE(first);
  EXPECT_DOUBLE_EQ(sampler->interval(), 3600);

  sampler->setInterval(3600);  // same period: the very same timer
  EXPECT_EQ(sampler->timer(), first);
  EXPECT_FALSE(first->cancelled());

  auto before = std::chrono::steady_clock::now();
  sampler->setInterval(1800);
  auto second = sampler->timer();
  EXPECT_NE(second, first);
  EXPECT_TRUE(first->cancelled());
  EXPECT_DOUBLE_EQ(second->period(), 1800);
  // The next tick is one new period away, not immediate.
  EXPECT_GE(second->nextDeadline(), before + std::chrono::seconds(1799));
  EXPECT_EQ(second->fireCount(), 0u);
}

TEST(SamplerLifetime, DestroyingTheSamplerStopsTicksAndDropsPendingHandOffs) {
  ManualMainQueue main;
  ManualClock clock;
  int delivered = 0;
  {
    auto sampler = Sampler::create(SamplerParts{}, main, clock);
    sampler->setOnSnapshot([&](Snapshot) { ++delivered; });
    sampler->tickNow();
  }
  main.drain();  // the posted hand-off finds no sampler and does nothing
  EXPECT_EQ(delivered, 0);
}

// A CPU source whose read blocks until released, to hold a tick under way.
struct BlockingCPU : FakeCPU {
  std::mutex lock;
  std::condition_variable changed;
  bool reading = false, released = false;
  bool coreTicks(std::vector<CoreTicks>& out) override {
    std::unique_lock hold(lock);
    reading = true;
    changed.notify_all();
    changed.wait(hold, [this] { return released; });
    return FakeCPU::coreTicks(out);
  }
};

// Stopping while a tick reads (a termination signal mid-tick) waits for that tick, and no tick
// is posted to the main queue afterwards, even when asked to start again.
TEST(SamplerLifetime, StopWaitsForTheTickUnderWayAndEndsTicking) {
  ManualMainQueue main;
  SamplerParts parts;
  auto cpu = std::make_unique<BlockingCPU>();
  BlockingCPU* blocking = cpu.get();
  parts.cpu = std::move(cpu);
  auto sampler = Sampler::create(std::move(parts), main);
  sampler->start(1);
  {
    std::unique_lock hold(blocking->lock);
    blocking->changed.wait(hold, [&] { return blocking->reading; });
  }
  std::atomic<bool> stopped{false};
  std::thread stopper([&] {
    sampler->stop();
    stopped = true;
  });
  std::this_thread::sleep_for(std::chrono::milliseconds(50));
  EXPECT_FALSE(stopped);  // still waiting for the read
  {
    std::lock_guard hold(blocking->lock);
    blocking->released = true;
  }
  blocking->changed.notify_all();
  stopper.join();
  EXPECT_EQ(main.drain(), 1u);  // the tick under way was finished and handed off
  sampler->start(1);
  sampler->setInterval(2);
  EXPECT_FALSE(main.waitForTask(1.5));
}

}  // namespace
}  // namespace vistrel
