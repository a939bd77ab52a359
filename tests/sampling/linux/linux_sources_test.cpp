#include "sampling/linux/linux_sources.hpp"

#include <gtest/gtest.h>
#include <stdio.h>
#include <stdlib.h>
#include <sys/sysinfo.h>
#include <unistd.h>

#include <algorithm>
#include <map>
#include <string>
#include <vector>

#include "base/files.hpp"

namespace vistrel {
namespace {

constexpr uint64_t KiB = 1024;
const std::string kFixtures = std::string(VISTREL_FIXTURES) + "/linux/";
const std::string kMachine1 = kFixtures + "machine1";
const std::string kLaptop = kFixtures + "laptop";
const std::string kHybrid = kFixtures + "hybrid";
const std::string kBroken = kFixtures + "broken";
const std::string kMissing = kFixtures + "no-such-machine";

// A scratch root folder the test writes a machine into, removed afterwards.
class TempRoot {
 public:
  TempRoot() {
    std::string pattern = ::testing::TempDir() + "vistrel-root-XXXXXX";
    char* made = ::mkdtemp(pattern.data());
    EXPECT_NE(made, nullptr);
    path_ = pattern;
  }
  ~TempRoot() {
    std::string command = "rm -rf '" + path_ + "'";
    EXPECT_EQ(::system(command.c_str()), 0);
  }
  const std::string& path() const { return path_; }
  void write(const std::string& relative, const std::string& text) const {
    std::string full = joinPath(path_, relative);
    ASSERT_TRUE(makeFolders(full.substr(0, full.rfind('/'))));
    FILE* f = ::fopen(full.c_str(), "wb");
    ASSERT_NE(f, nullptr);
    ASSERT_EQ(::fwrite(text.data(), 1, text.size(), f), text.size());
    ::fclose(f);
  }
  void remove(const std::string& relative) const { ::unlink(joinPath(path_, relative).c_str()); }

 private:
  std::string path_;
};

TEST(LinuxCPUSource, Fixtures) {
  struct Case {
    std::string root;
    bool readable;
    size_t cores;
    int performance, efficiency;
    std::array<double, 3> load;
  };
  const Case cases[] = {
      {kMachine1, true, 2, 2, 0, {1.15, 0.38, 0.13}},
      {kHybrid, true, 6, 4, 2, {0.10, 0.20, 0.30}},
      {kLaptop, true, 4, 4, 0, {1.25, 0.80, 0.50}},
      // /proc/stat cut short, a garbled hybrid core list, a loadavg holding something else.
      {kBroken, false, 0, 0, 0, {0, 0, 0}},
      {kMissing, false, 0, 0, 0, {0, 0, 0}},
  };
  for (const auto& c : cases) {
    auto source = makeLinuxCPUSource(c.root);
    std::vector<CoreTicks> ticks(3);
    EXPECT_EQ(source->coreTicks(ticks), c.readable) << c.root;
    EXPECT_EQ(ticks.size(), c.cores) << c.root;
    EXPECT_EQ(source->performanceCores(), c.performance) << c.root;
    EXPECT_EQ(source->efficiencyCores(), c.efficiency) << c.root;
    EXPECT_EQ(source->loadAverages(), c.load) << c.root;
  }
}

TEST(LinuxCPUSource, FollowsTheFileAsCoresComeAndGo) {
  TempRoot root;
  root.write("proc/stat", "cpu0 1 2 3 4\ncpu1 1 2 3 4\n");
  auto source = makeLinuxCPUSource(root.path());
  std::vector<CoreTicks> ticks;
  ASSERT_TRUE(source->coreTicks(ticks));
  EXPECT_EQ(ticks.size(), 2u);
  root.write("proc/stat", "cpu0 5 2 3 4\n");
  ASSERT_TRUE(source->coreTicks(ticks));
  ASSERT_EQ(ticks.size(), 1u);
  EXPECT_EQ(ticks[0].user, 5u);
  root.remove("proc/stat");
  EXPECT_FALSE(source->coreTicks(ticks));
  EXPECT_TRUE(ticks.empty());
}

TEST(LinuxMemorySource, Fixtures) {
  struct Case {
    std::string root;
    uint64_t total;
    std::optional<MemoryFigures> figures;
  };
  MemoryFigures laptop;
  laptop.app = 6000000 * KiB;
  laptop.wired =
      (150000 + 20000 + 60000 + 50000) * KiB;  // SUnreclaim+KernelStack+PageTables+Unevictable
  laptop.compressed = 30000 * KiB + 65536;     // Zswap + zram0's mem_used_total
  laptop.cached = (200000 + 5000000 + 400000 - 700000) * KiB;
  laptop.swapTotal = 8388604 * KiB;
  laptop.swapUsed = 1000000 * KiB;
  laptop.pressure = Pressure::warning;  // some avg10 12.50

  MemoryFigures machine1;
  machine1.app = 496740 * KiB;
  machine1.wired = (20536 + 1420 + 4360 + 13616) * KiB;
  machine1.cached = (2512 + 408740 + 17800 - 8856) * KiB;

  const Case cases[] = {
      {kLaptop, 16106944 * KiB, laptop},
      {kMachine1, 24684092 * KiB, machine1},
      {kBroken, 0, std::nullopt},  // an empty meminfo
      {kMissing, 0, std::nullopt},
  };
  for (const auto& c : cases) {
    auto source = makeLinuxMemorySource(c.root);
    EXPECT_EQ(source->totalMemory(), c.total) << c.root;
    EXPECT_EQ(source->figures(), c.figures) << c.root;
  }
}

TEST(LinuxMemorySource, ZramListIsRecheckedOnTheSlowClock) {
  TempRoot root;
  ManualClock clock;
  root.write("proc/meminfo", "MemTotal: 100 kB\nAnonPages: 10 kB\n");
  auto source = makeLinuxMemorySource(root.path(), clock);
  auto figures = source->figures();
  ASSERT_TRUE(figures);
  EXPECT_EQ(figures->compressed, 0u);
  EXPECT_EQ(figures->pressure, Pressure::normal);  // no pressure file at all

  // A zram device set up later is found only once the cached list is re-made.
  root.write("sys/block/zram0/mm_stat", "8192 2048 4096 0 4096 0 0 0 0\n");
  root.write("proc/pressure/memory", "some avg10=0.00\nfull avg10=20.00\n");
  figures = source->figures();
  EXPECT_EQ(figures->compressed, 0u);
  EXPECT_EQ(figures->pressure, Pressure::critical);
  clock.advance(kDeviceRecheckSeconds);
  EXPECT_EQ(source->figures()->compressed, 4096u);

  // The device's statistics cut short: it adds nothing, the rest still reads.
  root.write("sys/block/zram0/mm_stat", "8192 20");
  EXPECT_EQ(source->figures()->compressed, 0u);
  // meminfo cut short before MemTotal: nothing can be said.
  root.write("proc/meminfo", "MemTo");
  EXPECT_EQ(source->figures(), std::nullopt);
}

TEST(LinuxGPUSource, Fixtures) {
  struct Case {
    std::string root;
    std::vector<AcceleratorStats> expected;
  };
  AcceleratorStats amd;
  amd.deviceUtilization = 37;
  amd.vramUsedBytes = 536870912;
  const Case cases[] = {
      {kLaptop, {amd}},  // card1 is amdgpu; card0 (a framebuffer) and card1-eDP-1 are not GPUs
      {kMachine1, {}},   // no DRM devices at all
      {kBroken, {}},     // binary noise and a negative number in the attributes
      {kMissing, {}},
  };
  for (const auto& c : cases) {
    auto source = makeLinuxGPUSource(c.root);
    EXPECT_EQ(source->name(), "GPU") << c.root;
    EXPECT_EQ(source->accelerators(), c.expected) << c.root;
  }
}

TEST(LinuxGPUSource, SuspendedCardIsIdleWithoutBeingRead) {
  TempRoot root;
  ManualClock clock;
  root.write("sys/class/drm/card0/device/gpu_busy_percent", "80\n");
  root.write("sys/class/drm/card0/device/mem_info_vram_used", "1000\n");
  root.write("sys/class/drm/card0/device/power/runtime_status", "suspended\n");
  auto source = makeLinuxGPUSource(root.path(), clock);
  auto stats = source->accelerators();
  ASSERT_EQ(stats.size(), 1u);
  EXPECT_EQ(stats[0].deviceUtilization, 0.0);
  EXPECT_EQ(stats[0].vramUsedBytes, std::nullopt);

  root.write("sys/class/drm/card0/device/power/runtime_status", "active\n");
  root.remove("sys/class/drm/card0/device/mem_info_vram_used");
  stats = source->accelerators();
  ASSERT_EQ(stats.size(), 1u);
  EXPECT_EQ(stats[0].deviceUtilization, 80.0);
  EXPECT_EQ(stats[0].vramUsedBytes, std::nullopt);
}

TEST(LinuxDiskSource, Counters) {
  struct Case {
    std::string root;
    DiskCounters expected;
  };
  const Case cases[] = {
      // nvme0n1 and the USB disk sdb; not their partitions, loop0, zram0 or dm-0.
      {kLaptop, {(4000000 + 80000) * 512ull, (6000000 + 160) * 512ull}},
      {kMachine1, {1741858 * 512ull, 587368 * 512ull}},
      {kBroken, {}},  // the only line is cut short
      {kMissing, {}},
  };
  for (const auto& c : cases) {
    EXPECT_EQ(makeLinuxDiskSource(c.root)->counters(), c.expected) << c.root;
  }
}

TEST(LinuxDiskSource, NewDiskCountsAfterTheRecheck) {
  TempRoot root;
  ManualClock clock;
  root.write("proc/diskstats",
             "8 0 sda 1 0 10 0 1 0 20 0 0 0 0\n8 16 sdb 1 0 100 0 1 0 200 0 0 0 0\n");
  root.write("sys/block/sda/device/uevent", "");
  auto source = makeLinuxDiskSource(root.path(), clock);
  EXPECT_EQ(source->counters(), (DiskCounters{10 * 512, 20 * 512}));
  root.write("sys/block/sdb/device/uevent", "");
  EXPECT_EQ(source->counters(), (DiskCounters{10 * 512, 20 * 512}));
  clock.advance(kDeviceRecheckSeconds);
  EXPECT_EQ(source->counters(), (DiskCounters{110 * 512, 220 * 512}));
  root.write("proc/diskstats", "");
  EXPECT_EQ(source->counters(), DiskCounters{});
}

TEST(LinuxDiskSource, Volumes) {
  constexpr uint64_t GB = 1000 * 1000 * 1000;
  // statvfs cannot be faked in a captured tree: sizes by mount point, and a mount that fails.
  std::map<std::string, FilesystemSize> sizes = {
      {"/", {500 * GB, 120 * GB}},
      {"/boot/efi", {GB / 2, GB / 4}},
      {"/media/me/My Data", {64 * GB, 10 * GB}},
      {"/srv/shared", {500 * GB, 120 * GB}},
  };
  FilesystemSizer sizer = [&sizes](const std::string& path) -> std::optional<FilesystemSize> {
    auto it = sizes.find(path);
    if (it == sizes.end()) return std::nullopt;
    return it->second;
  };
  auto volume = [](const char* path, const char* name, FilesystemSize size, bool root) {
    VolumeInfo v;
    v.path = path;
    v.name = name;
    v.total = size.total;
    v.available = size.available;
    v.browsable = true;
    v.isRoot = root;
    return v;
  };
  struct Case {
    std::string root;
    std::vector<VolumeInfo> expected;
  };
  const Case cases[] = {
      // The root is unlabelled; the USB stick's label has an escaped space; the bind mount of the
      // root's device, the docker overlay, the snap, tmpfs and the kernel's file systems are out.
      {kLaptop,
       {volume("/", "System", sizes["/"], true),
        volume("/boot/efi", "EFI", sizes["/boot/efi"], false),
        volume("/media/me/My Data", "My Data", sizes["/media/me/My Data"], false)}},
      {kMachine1, {volume("/", "System", sizes["/"], true)}},
      {kBroken, {}},  // the root's line stops before its source
      {kMissing, {}},
  };
  for (const auto& c : cases) {
    EXPECT_EQ(makeLinuxDiskSource(c.root, Clock::system(), sizer)->volumes(), c.expected) << c.root;
  }

  // A volume whose size cannot be read is left out; the others stay.
  sizes.erase("/boot/efi");
  auto volumes = makeLinuxDiskSource(kLaptop, Clock::system(), sizer)->volumes();
  ASSERT_EQ(volumes.size(), 2u);
  EXPECT_EQ(volumes[1].path, "/media/me/My Data");
}

TEST(LinuxDiskSource, DuplicateDevicesAndOverlayRoot) {
  TempRoot root;
  // A container: overlay at "/", a host disk bound in twice (the first bind wins), and the host's
  // root bound in before and after under other names.
  root.write("proc/self/mountinfo",
             "600 500 0:80 / / rw - overlay overlay rw,lowerdir=/a\n"
             "601 600 8:1 /data /data rw - ext4 /dev/sda1 rw\n"
             "602 600 8:1 /data /again rw - ext4 /dev/sda1 rw\n"
             "603 600 0:80 / /also-root rw - overlay overlay rw\n"
             "604 600 0:81 / /scratch rw - tmpfs tmpfs rw\n");
  FilesystemSizer sizer = [](const std::string&) { return FilesystemSize{2000, 1000}; };
  auto volumes = makeLinuxDiskSource(root.path(), Clock::system(), sizer)->volumes();
  ASSERT_EQ(volumes.size(), 2u);
  EXPECT_EQ(volumes[0].path, "/");
  EXPECT_TRUE(volumes[0].isRoot);
  EXPECT_EQ(volumes[0].name, "System");
  EXPECT_EQ(volumes[1].path, "/data");
  EXPECT_EQ(volumes[1].name, "data");
  EXPECT_FALSE(volumes[1].isRoot);
}

TEST(LinuxNetworkSource, Fixtures) {
  struct Case {
    std::string root;
    NetworkCounters counters;
    std::optional<std::string> primary;
  };
  const Case cases[] = {
      // Wi-Fi and Ethernet only: loopback, the docker bridge, the veth pair and the VPN are out.
      // Ethernet has the lower metric; the VPN's default route is not up.
      {kLaptop, {5000000000 + 1234, 700000000 + 5678}, "enp3s0"},
      {kMachine1, {18442547, 25040}, "eth0"},
      {kBroken, {0, 0}, std::nullopt},  // garbage and an empty file; a route line cut short
      {kMissing, {0, 0}, std::nullopt},
  };
  for (const auto& c : cases) {
    auto source = makeLinuxNetworkSource(c.root);
    EXPECT_EQ(source->counters(), c.counters) << c.root;
    EXPECT_EQ(source->primaryInterface(), c.primary) << c.root;
  }

  const std::pair<std::string, std::string> names[] = {
      {"wlp2s0", "Wi-Fi"}, {"enp3s0", "Ethernet"}, {"docker0", ""},   {"tun0", ""},
      {"lo", ""},          {"gone0", ""},          {"../wlp2s0", ""}, {"", ""},
  };
  auto laptop = makeLinuxNetworkSource(kLaptop);
  for (const auto& [interface, display] : names) {
    EXPECT_EQ(laptop->displayName(interface), display) << interface;
  }
  EXPECT_EQ(makeLinuxNetworkSource(kMachine1)->displayName("eth0"), "Ethernet");
}

TEST(LinuxNetworkSource, InterfacesAreRelistedOnChangeOrClock) {
  TempRoot root;
  ManualClock clock;
  root.write("sys/class/net/eth0/device/uevent", "");
  root.write("sys/class/net/eth0/statistics/rx_bytes", "100\n");
  root.write("sys/class/net/eth0/statistics/tx_bytes", "200\n");
  auto source = makeLinuxNetworkSource(root.path(), clock);
  EXPECT_EQ(source->counters(), (NetworkCounters{100, 200}));

  // A USB adapter plugged in: counted once the list is re-made.
  root.write("sys/class/net/usb0/device/uevent", "");
  root.write("sys/class/net/usb0/statistics/rx_bytes", "1\n");
  root.write("sys/class/net/usb0/statistics/tx_bytes", "2\n");
  EXPECT_EQ(source->counters(), (NetworkCounters{100, 200}));
  source->interfacesChanged();
  EXPECT_EQ(source->counters(), (NetworkCounters{101, 202}));

  // Unplugged again: its files vanish and add nothing, even before the re-check.
  root.remove("sys/class/net/usb0/statistics/rx_bytes");
  root.remove("sys/class/net/usb0/statistics/tx_bytes");
  EXPECT_EQ(source->counters(), (NetworkCounters{100, 200}));
  root.write("sys/class/net/eth0/statistics/rx_bytes", "10");
  clock.advance(kDeviceRecheckSeconds);
  EXPECT_EQ(source->counters(), (NetworkCounters{10, 200}));
}

// The real sources on the machine running the tests agree with the kernel's own figures.
TEST(LinuxSources, ThisMachine) {
  struct sysinfo info {};
  ASSERT_EQ(::sysinfo(&info), 0);
  auto memory = makeMemorySource();
  EXPECT_EQ(memory->totalMemory(), uint64_t{info.totalram} * info.mem_unit);
  EXPECT_TRUE(memory->figures().has_value());

  auto cpu = makeCPUSource();
  std::vector<CoreTicks> ticks;
  ASSERT_TRUE(cpu->coreTicks(ticks));
  EXPECT_EQ(static_cast<long>(ticks.size()), ::sysconf(_SC_NPROCESSORS_ONLN));
  EXPECT_GE(cpu->performanceCores() + cpu->efficiencyCores(), 1);

  auto volumes = makeDiskSource()->volumes();
  if (!readFile("/proc/self/mountinfo")) GTEST_SKIP() << "no mountinfo";
  ASSERT_FALSE(volumes.empty());
  EXPECT_EQ(volumes.front().path, "/");
  EXPECT_TRUE(volumes.front().isRoot);
  EXPECT_GT(volumes.front().total.value_or(0), 0u);
}

}  // namespace
}  // namespace vistrel
