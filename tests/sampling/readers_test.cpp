#include <gtest/gtest.h>

#include "sampling/cpu_reader.hpp"
#include "sampling/disk_reader.hpp"
#include "sampling/fakes.hpp"
#include "sampling/gpu_reader.hpp"
#include "sampling/memory_reader.hpp"
#include "sampling/network_reader.hpp"
#include "sampling/rate_meter.hpp"

namespace vistrel {
namespace {

using testing::FakeCPU;
using testing::FakeDisk;
using testing::FakeGPU;
using testing::FakeMemory;
using testing::FakeNetwork;

std::unique_ptr<FakeCPU> cpuWith(std::initializer_list<std::optional<std::vector<CoreTicks>>> s) {
  auto fake = std::make_unique<FakeCPU>();
  for (auto& step : s) fake->script.push_back(step);
  return fake;
}

TEST(CPUReader, FirstReadPrimesThenFractionsPerCore) {
  auto fake = cpuWith({
      std::vector<CoreTicks>{{100, 50, 800, 0}, {0, 0, 0, 0}},
      // core 0: user +30, nice +10, system +20, idle +40 -> busy 60 of 100
      // core 1: nothing moved -> 0, not a division error
      std::vector<CoreTicks>{{130, 70, 840, 10}, {0, 0, 0, 0}},
  });
  CPUReader reader(std::move(fake));
  CPUStat first = reader.read();
  EXPECT_EQ(first.total, 0);
  EXPECT_TRUE(first.cores.empty());
  EXPECT_EQ(first.load, (std::array<double, 3>{1.5, 1.0, 0.5}));
  EXPECT_EQ(first.performanceCores, 4);
  EXPECT_EQ(first.efficiencyCores, 2);

  CPUStat second = reader.read();
  ASSERT_EQ(second.cores.size(), 2u);
  EXPECT_DOUBLE_EQ(second.cores[0], 0.6);
  EXPECT_DOUBLE_EQ(second.cores[1], 0.0);
  EXPECT_DOUBLE_EQ(second.user, 0.4);  // nice counts as user
  EXPECT_DOUBLE_EQ(second.system, 0.2);
  EXPECT_DOUBLE_EQ(second.total, 0.6);
}

TEST(CPUReader, Deltas) {
  struct Case {
    const char* name;
    CoreTicks before, after;
    double fraction;
  } cases[] = {
      {"user counter wrapped: 4294967290 -> 10 is 16 ticks",
       {4294967290u, 0, 0, 0},
       {10, 0, 16, 0},
       0.5},
      {"all idle", {5, 5, 5, 5}, {5, 5, 105, 5}, 0.0},
      {"all busy", {0, 0, 0, 0}, {50, 50, 0, 0}, 1.0},
      {"idle wrapped", {0, 0, 4294967295u, 0}, {1, 0, 0, 0}, 0.5},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.name);
    CPUReader reader(cpuWith({std::vector<CoreTicks>{c.before}, std::vector<CoreTicks>{c.after}}));
    reader.read();
    CPUStat stat = reader.read();
    ASSERT_EQ(stat.cores.size(), 1u);
    EXPECT_DOUBLE_EQ(stat.cores[0], c.fraction);
    EXPECT_DOUBLE_EQ(stat.total, c.fraction);
  }
}

TEST(CPUReader, FailuresAndCoreCountChangesReprime) {
  std::vector<CoreTicks> two{{0, 0, 0, 0}, {0, 0, 0, 0}};
  std::vector<CoreTicks> twoLater{{10, 0, 10, 0}, {10, 0, 10, 0}};
  std::vector<CoreTicks> three{{20, 0, 20, 0}, {20, 0, 20, 0}, {0, 0, 0, 0}};
  std::vector<CoreTicks> threeLater{{30, 0, 30, 0}, {30, 0, 30, 0}, {10, 0, 10, 0}};
  CPUReader reader(cpuWith({two, std::nullopt, twoLater, three, threeLater}));
  reader.read();
  CPUStat failed = reader.read();
  EXPECT_EQ(failed, CPUStat{});  // unreadable: the empty record, load averages included
  EXPECT_EQ(reader.read().cores.size(), 2u);  // the failure did not lose the primed counters
  CPUStat changed = reader.read();            // a core came online: re-prime, no figures
  EXPECT_TRUE(changed.cores.empty());
  EXPECT_EQ(changed.total, 0);
  CPUStat after = reader.read();
  ASSERT_EQ(after.cores.size(), 3u);
  EXPECT_DOUBLE_EQ(after.total, 0.5);
}

TEST(MemoryReader, FreeAndFailure) {
  struct Case {
    const char* name;
    uint64_t total;
    std::optional<MemoryFigures> figures;
    uint64_t free;
  } cases[] = {
      {"normal", 1000, MemoryFigures{300, 100, 100, 200, 5, 10, Pressure::warning}, 500},
      {"used equals total", 1000, MemoryFigures{500, 300, 200, 0, 0, 0, Pressure::normal}, 0},
      {"used above total", 1000, MemoryFigures{900, 300, 200, 0, 0, 0, Pressure::normal}, 0},
      {"buckets that would overflow", 1000,
       MemoryFigures{UINT64_MAX, UINT64_MAX, 1, 0, 0, 0, Pressure::normal}, 0},
      {"statistics unreadable", 1000, std::nullopt, 0},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.name);
    auto fake = std::make_unique<FakeMemory>();
    fake->total = c.total;
    fake->next = c.figures;
    FakeMemory* raw = fake.get();
    MemoryReader reader(std::move(fake));
    MemoryStat stat = reader.read();
    reader.read();
    EXPECT_EQ(raw->totalAsked, 1);  // physical memory is asked once
    EXPECT_EQ(stat.total, c.total);
    EXPECT_EQ(stat.free, c.free);
    if (c.figures) {
      EXPECT_EQ(stat.app, c.figures->app);
      EXPECT_EQ(stat.cached, c.figures->cached);
      EXPECT_EQ(stat.swapTotal, c.figures->swapTotal);
      EXPECT_EQ(stat.pressure, c.figures->pressure);
    } else {
      EXPECT_EQ(stat.app + stat.wired + stat.compressed + stat.cached, 0u);
      EXPECT_EQ(stat.pressure, Pressure::normal);
    }
  }
}

TEST(GPUReader, ChoosesTheBusiestAcceleratorWithItsOwnMemory) {
  using A = AcceleratorStats;
  struct Case {
    const char* name;
    std::vector<A> accelerators;
    double utilization;
    uint64_t memory;
  } cases[] = {
      {"none", {}, 0, 0},
      {"tie keeps the first", {A{40, {}, 100, {}}, A{40, {}, 200, {}}}, 0.4, 100},
      {"busier second wins with its memory", {A{40, {}, 100, {}}, A{55, {}, 200, {}}}, 0.55, 200},
      {"activity key when utilisation missing", {A{{}, 30, {}, 7}}, 0.3, 7},
      {"no figures at all still counts as first", {A{}, A{}}, 0, 0},
      {"over 100 percent is capped", {A{250, {}, 1, {}}}, 1, 1},
      {"in-use memory preferred over vram", {A{10, {}, 5, 9}}, 0.1, 5},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.name);
    auto fake = std::make_unique<FakeGPU>();
    fake->stats = c.accelerators;
    FakeGPU* raw = fake.get();
    GPUReader reader(std::move(fake));
    GPUStat stat = reader.read();
    reader.read();
    EXPECT_EQ(raw->nameAsked, 1);
    EXPECT_EQ(stat.name, "Test GPU");
    EXPECT_DOUBLE_EQ(stat.utilization, c.utilization);
    EXPECT_EQ(stat.memoryInUse, c.memory);
  }
}

TEST(RateMeter, Rules) {
  struct Step {
    uint64_t a, b;
    double now;
    double rateA, rateB;
  };
  struct Case {
    const char* name;
    std::vector<Step> steps;
  } cases[] = {
      {"first reading is zero, then bytes per second",
       {{1000, 500, 10, 0, 0}, {3000, 1500, 12, 1000, 500}}},
      {"a counter that went down gives zero, then rates resume from the new base",
       {{5000, 5000, 1, 0, 0}, {100, 6000, 2, 0, 0}, {300, 6500, 4, 100, 250}}},
      {"a clock that did not advance gives zero",
       {{0, 0, 5, 0, 0}, {100, 100, 5, 0, 0}, {200, 200, 6, 100, 100}}},
      {"a clock that went back gives zero", {{0, 0, 5, 0, 0}, {100, 100, 4, 0, 0}}},
      {"unchanged counters are zero, not an error", {{7, 7, 1, 0, 0}, {7, 7, 2, 0, 0}}},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.name);
    RateMeter meter;
    for (const auto& s : c.steps) {
      auto [a, b] = meter.update(s.a, s.b, s.now);
      EXPECT_DOUBLE_EQ(a, s.rateA);
      EXPECT_DOUBLE_EQ(b, s.rateB);
    }
  }
}

TEST(DiskReader, BuildVolumes) {
  auto vol = [](std::string path, std::optional<std::string> name, std::optional<uint64_t> total,
                std::optional<int64_t> important, std::optional<uint64_t> available,
                std::optional<bool> browsable, bool root) {
    return VolumeInfo{path, name, total, important, available, browsable, root};
  };
  std::vector<VolumeInfo> infos = {
      vol("/Volumes/Backup", "Backup", 2'000'000'000'000, 5, 9, true, false),
      vol("/Volumes/Small", "Small", 500'000'000, 1, 1, true, false),        // under 1 GB
      vol("/Volumes/Exactly", "Exactly", 1'000'000'000, 1, 1, true, false),  // not above 1 GB
      vol("/Volumes/NoSize", "NoSize", std::nullopt, 1, 1, true, false),
      vol("/System/Volumes/VM", "VM", 2'000'000'000, 1, 1, false, false),  // not browsable
      vol("/Volumes/Unknown", std::nullopt, 3'000'000'000, std::nullopt, 77, std::nullopt, false),
      vol("/", "Macintosh HD", 4'000'000'000, -5, 99, true, true),
      vol("/Volumes/Empty", "", 5'000'000'000, std::nullopt, std::nullopt, true, false),
  };
  auto volumes = buildVolumes(infos);
  ASSERT_EQ(volumes.size(), 4u);
  EXPECT_EQ(volumes[0], (Volume{"Macintosh HD", "/", 4'000'000'000, 0, true}));  // negative -> 0
  EXPECT_EQ(volumes[1], (Volume{"Backup", "/Volumes/Backup", 2'000'000'000'000, 5, false}));
  EXPECT_EQ(volumes[2], (Volume{"Unknown", "/Volumes/Unknown", 3'000'000'000, 77, false}));
  EXPECT_EQ(volumes[3], (Volume{"Empty", "/Volumes/Empty", 5'000'000'000, 0, false}));
}

TEST(DiskReader, RatesAndVolumeCache) {
  ManualClock clock(100);
  auto fake = std::make_unique<FakeDisk>();
  FakeDisk* disk = fake.get();
  disk->mounted = {{"/", "System", 4'000'000'000, 1000, 2000, true, true}};
  DiskReader reader(std::move(fake), clock);

  disk->next = {1000, 2000};
  DiskStat first = reader.read();
  EXPECT_EQ(first.readRate, 0);
  EXPECT_EQ(first.volumes.size(), 1u);
  EXPECT_EQ(disk->volumeListings, 1);

  clock.advance(29);  // within volumeEvery: the cached list
  disk->next = {1000 + 29 * 10, 2000 + 29 * 20};
  DiskStat second = reader.read();
  EXPECT_DOUBLE_EQ(second.readRate, 10);
  EXPECT_DOUBLE_EQ(second.writeRate, 20);
  EXPECT_EQ(disk->volumeListings, 1);

  clock.advance(1);     // 30 s since the listing: re-list
  disk->next = {0, 0};  // a disk was removed: the counters fell
  DiskStat third = reader.read();
  EXPECT_EQ(third.readRate, 0);
  EXPECT_EQ(third.writeRate, 0);
  EXPECT_EQ(disk->volumeListings, 2);

  reader.volumeEvery = 120;
  clock.advance(60);
  reader.read();
  EXPECT_EQ(disk->volumeListings, 2);
  clock.advance(60);
  reader.read();
  EXPECT_EQ(disk->volumeListings, 3);

  // An empty list is re-listed on every read until something is found.
  disk->mounted.clear();
  clock.advance(120);
  EXPECT_TRUE(reader.read().volumes.empty());
  clock.advance(1);
  disk->mounted = {{"/", "System", 4'000'000'000, 1000, 2000, true, true}};
  EXPECT_EQ(reader.read().volumes.size(), 1u);
}

TEST(NetworkReader, InterfaceNameFollowsThePrimaryInterface) {
  ManualClock clock(500);
  auto fake = std::make_unique<FakeNetwork>();
  FakeNetwork* net = fake.get();
  net->displayNames = {{"en0", "Wi-Fi"}};
  NetworkReader reader(std::move(fake), clock);

  // Offline first.
  EXPECT_EQ(reader.read().interface, "Offline");
  // The interface comes up: the name follows within 10 seconds, not before.
  net->primary = "en0";
  clock.advance(10);
  EXPECT_EQ(reader.read().interface, "Offline");
  clock.advance(0.5);
  EXPECT_EQ(reader.read().interface, "Wi-Fi");
  int changes = net->changes;
  // The same interface again: the cached name, no cache flush.
  clock.advance(11);
  EXPECT_EQ(reader.read().interface, "Wi-Fi");
  EXPECT_EQ(net->changes, changes);
  // An interface without a display name shows its system name.
  net->primary = "utun3";
  clock.advance(11);
  EXPECT_EQ(reader.read().interface, "utun3");
  EXPECT_EQ(net->changes, changes + 1);
  net->primary = std::nullopt;
  clock.advance(11);
  EXPECT_EQ(reader.read().interface, "Offline");
}

TEST(NetworkReader, RatesFromCounters) {
  ManualClock clock(500);
  auto fake = std::make_unique<FakeNetwork>();
  FakeNetwork* net = fake.get();
  NetworkReader reader(std::move(fake), clock);
  net->next = {1'000'000, 2'000'000};
  NetworkStat first = reader.read();
  EXPECT_EQ(first.inRate, 0);
  clock.advance(2);
  net->next = {3'000'000, 2'500'000};
  NetworkStat second = reader.read();
  EXPECT_DOUBLE_EQ(second.inRate, 1'000'000);
  EXPECT_DOUBLE_EQ(second.outRate, 250'000);
  clock.advance(2);
  net->next = {0, 0};  // the interface restarted
  EXPECT_EQ(reader.read().inRate, 0);
}

}  // namespace
}  // namespace vistrel
