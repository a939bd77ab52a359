// The readers on this machine's own counters, with bounds loose enough that no other load on the
// machine can break them.

#include <fcntl.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <cstdlib>
#include <string>
#include <thread>

#include "base/clock.hpp"
#include "base/files.hpp"
#include "base/subprocess.hpp"
#include "sampling/cpu_reader.hpp"
#include "sampling/disk_reader.hpp"
#include "sampling/memory_reader.hpp"
#include "sampling/network_reader.hpp"
#include "sampling/proc_parsers.hpp"

namespace vistrel {
namespace {

TEST(RealMachine, BusyLoopShowsInCpuTotal) {
  CPUReader reader(makeCPUSource());
  std::atomic<bool> stop{false};
  std::thread spinner([&] {
    volatile uint64_t x = 0;
    while (!stop.load(std::memory_order_relaxed)) x = x + 1;
  });
  reader.read();
  std::this_thread::sleep_for(std::chrono::seconds(1));
  CPUStat stat = reader.read();
  stop = true;
  spinner.join();
  unsigned cores = std::thread::hardware_concurrency();
  ASSERT_EQ(stat.cores.size(), cores);
  // One core of `cores` spun for the whole second: at least 0.4 on a 2-core machine.
  EXPECT_GE(stat.total, 0.8 / cores);
  EXPECT_LE(stat.total, 1.0);
  EXPECT_NEAR(stat.total, stat.user + stat.system, 1e-9);
  EXPECT_GT(stat.performanceCores + stat.efficiencyCores, 0);
}

// The total is the system's own: physical pages times the page size, which is MemTotal on Linux
// and hw.memsize on macOS (both whole pages).
TEST(RealMachine, MemoryTotalIsThePhysicalMemory) {
  MemoryReader reader(makeMemorySource());
  MemoryStat stat = reader.read();
  const long pages = ::sysconf(_SC_PHYS_PAGES), pageSize = ::sysconf(_SC_PAGESIZE);
  ASSERT_GT(pages, 0);
  ASSERT_GT(pageSize, 0);
  EXPECT_EQ(stat.total, static_cast<uint64_t>(pages) * static_cast<uint64_t>(pageSize));
  if (auto meminfo = readFile("/proc/meminfo")) {
    auto info = parseMeminfo(*meminfo);
    ASSERT_TRUE(info.memTotal);
    EXPECT_EQ(stat.total, *info.memTotal);
  }
  EXPECT_GT(stat.app, 0u);
  EXPECT_LE(stat.used(), stat.total);
  EXPECT_EQ(stat.free, stat.total - stat.used());
}

TEST(RealMachine, VolumesStartWithRootAndNetworkHasAName) {
  DiskReader disk(makeDiskSource(), Clock::system());
  DiskStat stat = disk.read();
  ASSERT_FALSE(stat.volumes.empty());
  EXPECT_EQ(stat.volumes.front().path, "/");
  EXPECT_TRUE(stat.volumes.front().isMain);
  EXPECT_GT(stat.mainTotal(), 1'000'000'000u);
  EXPECT_LE(stat.mainFree(), stat.mainTotal());

  NetworkReader net(makeNetworkSource(), Clock::system());
  EXPECT_FALSE(net.read().interface.empty());
}

TEST(RealMachine, DiskWriteRateFollowsAFileBeingWritten) {
  // Written next to the build (a real disk; /tmp may be memory).
  std::string path = std::string(VISTREL_BINARY) + ".ddtest";
  DiskReader reader(makeDiskSource(), Clock::system());
  double start = Clock::system().uptime();
  reader.read();
  auto dd = runSubprocess("dd", {"if=/dev/zero", "of=" + path, "bs=1M", "count=50", "conv=fsync"});
  DiskStat stat = reader.read();
  double elapsed = Clock::system().uptime() - start;
  ::unlink(path.c_str());
  ASSERT_TRUE(dd.started);
  ASSERT_EQ(dd.exitStatus, 0);
  if (stat.writeRate == 0 && stat.readRate == 0) {
    GTEST_SKIP() << "no physical disk counters on this machine";
  }
  // 50 MB reached the disk within the interval; allow for compression or thin provisioning below.
  EXPECT_GE(stat.writeRate * elapsed, 25e6);
}

}  // namespace
}  // namespace vistrel
