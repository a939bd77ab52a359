#include "sampling/proc_parsers.hpp"

#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "base/files.hpp"

namespace vistrel {
namespace {

constexpr uint64_t KiB = 1024;
const std::string kMachine1 = std::string(VISTREL_FIXTURES) + "/linux/machine1";

std::string fixture(const std::string& path) {
  auto text = readFile(kMachine1 + "/" + path);
  EXPECT_TRUE(text.has_value()) << path;
  return text.value_or("");
}

struct ProcStatCase {
  const char* name;
  std::string text;
  std::vector<CoreTicks> expected;  // {user, system, idle, nice}
};

TEST(ProcStat, ParsesCoreLines) {
  const uint64_t wrap = uint64_t{1} << 32;
  const ProcStatCase cases[] = {
      {"irq and softirq count as system, iowait as idle; steal and guest ignored",
       "cpu  9 9 9 9 9 9 9 9 9 9\n"
       "cpu0 100 5 30 1000 7 2 3 50 40 1\n"
       "cpu1 200 0 60 2000 0 0 0 0 0 0\n",
       {{100, 35, 1007, 5}, {200, 60, 2000, 0}}},
      {"old kernels write four fields", "cpu0 1 2 3 4\ncpu1 5 6 7 8", {{1, 3, 4, 2}, {5, 7, 8, 6}}},
      {"a line with fewer than four fields is skipped",
       "cpu0 1 2 3\ncpu1 5 6 7 8\n",
       {{5, 7, 8, 6}}},
      {"lines that merely start with cpu are skipped",
       "cpufreq 1 2 3 4\ncpu 1 2 3 4\ncpux 1 2 3 4\ncpu0 --user 5 -j 2 /usr/bin/cc\n"
       "cpu1 1 2 3 4\n",
       {{1, 3, 4, 2}}},
      {"a number with trailing garbage spoils its line",
       "cpu0 1 2 3 4x\ncpu1 1 2 3 4\n",
       {{1, 3, 4, 2}}},
      {"64-bit counters are truncated to 32 bits",
       "cpu0 " + std::to_string(wrap + 5) + " 1 " + std::to_string(wrap - 1) + " " +
           std::to_string(3 * wrap + 9) + " 1 1 0\n",
       {{5, 0, 10, 1}}},
      {"tabs and carriage returns separate fields", "cpu0\t1\t2\t3\t4\r\n", {{1, 3, 4, 2}}},
      {"a negative counter is garbage", "cpu0 -1 2 3 4\n", {}},
      {"only the aggregate line", "cpu  1 2 3 4\nintr 5\n", {}},
      {"empty", "", {}},
      {"binary noise", std::string("cpu0 \0\xff 1 2 3", 13), {}},
  };
  for (const auto& c : cases) {
    std::vector<CoreTicks> out = {{9, 9, 9, 9}};  // stale contents must not survive
    bool ok = parseProcStat(c.text, out);
    EXPECT_EQ(ok, !c.expected.empty()) << c.name;
    EXPECT_EQ(out, c.expected) << c.name;
  }
}

TEST(ProcStat, CapturedFileAndChangingCoreCount) {
  std::vector<CoreTicks> out;
  ASSERT_TRUE(parseProcStat(fixture("proc/stat"), out));
  // The captured machine has two cores; its cpu0 line is "5213 0 985 46102 9 0 4 5 0 0".
  ASSERT_EQ(out.size(), 2u);
  EXPECT_EQ(out[0], (CoreTicks{5213, 985 + 0 + 4, 46102 + 9, 0}));

  // A core taken offline: the same vector, reused, now holds one entry.
  ASSERT_TRUE(parseProcStat("cpu  1 1 1 1\ncpu1 1 2 3 4\n", out));
  EXPECT_EQ(out.size(), 1u);
  ASSERT_TRUE(parseProcStat("cpu0 1 2 3 4\ncpu1 1 2 3 4\ncpu2 1 2 3 4\n", out));
  EXPECT_EQ(out.size(), 3u);
}

struct MemCase {
  const char* name;
  std::string text;
  uint64_t zram;
  MemoryFigures expected;
};

TEST(Meminfo, ClassifiesIntoBuckets) {
  const MemCase cases[] = {
      {"every field",
       "MemTotal: 1000 kB\nAnonPages: 100 kB\nSUnreclaim: 10 kB\nKernelStack: 2 kB\n"
       "PageTables: 3 kB\nUnevictable: 4 kB\nZswap: 20 kB\nBuffers: 5 kB\nCached: 200 kB\n"
       "SReclaimable: 30 kB\nShmem: 35 kB\nSwapTotal: 500 kB\nSwapFree: 400 kB\n",
       4096,
       {100 * KiB, 19 * KiB, 20 * KiB + 4096, 200 * KiB, 100 * KiB, 500 * KiB}},
      {"missing fields count as zero",
       "MemTotal: 1000 kB\nCached: 50 kB\n",
       0,
       {0, 0, 0, 50 * KiB, 0, 0}},
      {"cached never below zero when Shmem is large (a big tmpfs)",
       "Buffers: 1 kB\nCached: 100 kB\nSReclaimable: 10 kB\nShmem: 5000 kB\n",
       0,
       {}},
      {"swap free above total reads as nothing used",
       "SwapTotal: 10 kB\nSwapFree: 20 kB\n",
       0,
       {0, 0, 0, 0, 0, 10 * KiB}},
      {"lines cut short, wrong units and garbage are skipped",
       "AnonPages:\nBuffers: 7 MB\nCached: abc kB\nShmem 5 kB\nSUnreclaim: 8 kB\nKernelSt",
       0,
       {0, 8 * KiB, 0, 0, 0, 0}},
      {"an absurd value saturates instead of wrapping",
       "AnonPages: 18446744073709551615 kB\nSUnreclaim: 18446744073709551615 kB\n"
       "KernelStack: 5 kB\n",
       0,
       {UINT64_MAX, UINT64_MAX, 0, 0, 0, 0}},
  };
  for (const auto& c : cases) {
    EXPECT_EQ(memoryFromMeminfo(parseMeminfo(c.text), c.zram), c.expected) << c.name;
  }
}

TEST(Meminfo, CapturedFile) {
  MemInfo info = parseMeminfo(fixture("proc/meminfo"));
  EXPECT_EQ(info.memTotal, 24684092 * KiB);
  EXPECT_EQ(info.shmem, 8856 * KiB);
  EXPECT_EQ(info.zswap, 0u);
  // "Cached:" must not be confused with "SwapCached:".
  EXPECT_EQ(info.cached, 408740 * KiB);
  EXPECT_EQ(parseMeminfo("").memTotal, std::nullopt);
}

TEST(MemoryPressure, Thresholds) {
  struct Case {
    const char* text;
    Pressure expected;
  };
  auto text = [](const char* some, const char* full) {
    return std::string("some avg10=") + some +
           " avg60=0.00 avg300=0.00 total=1\nfull avg10=" + full +
           " avg60=0.00 avg300=0.00 total=1\n";
  };
  const std::pair<std::string, Pressure> cases[] = {
      {text("0.00", "20.00"), Pressure::critical},
      {text("0.00", "19.99"), Pressure::warning},
      {text("0.00", "5.00"), Pressure::warning},
      {text("9.99", "4.99"), Pressure::normal},
      {text("10.00", "0.00"), Pressure::warning},
      {text("99.00", "0.00"), Pressure::warning},
      {"full avg10=25.00 avg60=0 avg300=0 total=0", Pressure::critical},
      {"some avg10=abc avg60=0\nfull avg10=-30 avg60=0\n", Pressure::normal},
      {"some avg10=", Pressure::normal},
      {"some avg60=50.00 avg10=50.00\n", Pressure::normal},  // avg10 must come first
      {"", Pressure::normal},
  };
  for (const auto& [input, expected] : cases) {
    EXPECT_EQ(parseMemoryPressure(input), expected) << input;
  }
  EXPECT_EQ(parseMemoryPressure(fixture("proc/pressure/memory")), Pressure::normal);
}

TEST(Diskstats, SumsAcceptedDevices) {
  const std::string text =
      "   8       0 sda 10 0 100 0 20 0 200 0 0 0 0\n"
      "   8       1 sda1 9 0 90 0 19 0 190 0 0 0 0\n"
      "   8      16 sdb 1 0 1 0 1 0 3 0 0 0 0 0 0 0 0 0 0\n"
      "   7       0 loop0 1 0 5000 0 1 0 5000 0 0 0 0\n"
      "   8      32 sdc 1 0 7\n"                    // cut short
      "   8      48 sdd 1 0 x 0 1 0 8 0 0 0 0\n"    // garbage number
      "   8      64 sde 1 0 -4 0 1 0 8 0 0 0 0\n";  // negative
  auto wholeDisks = [](std::string_view name) {
    return name == "sda" || name == "sdb" || name == "sdc" || name == "sdd" || name == "sde";
  };
  EXPECT_EQ(sumDiskstats(text, wholeDisks), (DiskCounters{101 * 512, 203 * 512}));
  EXPECT_EQ(sumDiskstats(text, nullptr), DiskCounters{});
  EXPECT_EQ(sumDiskstats("", wholeDisks), DiskCounters{});

  auto vda = [](std::string_view name) { return name == "vda"; };
  EXPECT_EQ(sumDiskstats(fixture("proc/diskstats"), vda),
            (DiskCounters{uint64_t{1741858} * 512, uint64_t{587368} * 512}));
}

TEST(Mountinfo, ParsesLines) {
  const std::string text =
      "27 1 254:0 / / rw,relatime - ext4 /dev/vda rw\n"
      "50 26 8:17 / /media/me/My\\040Data rw shared:50 master:3 - exfat /dev/sdb1 rw\n"
      "51 26 0:46 / /tmp rw - tmpfs tmpfs rw\n"
      "52 26 8:18 / /no/separator rw ext4 /dev/sdb2 rw\n"
      "53 26 8x18 / /bad/device rw - ext4 /dev/sdb2 rw\n"
      "54 26 8:19 / /no/type rw -\n"
      "55 26\n"
      "56 26 259:3 / /srv/tab\\011and\\134slash rw - xfs /dev/nvme0n1p3 rw";
  const std::vector<MountEntry> expected = {
      {254, 0, "/", "ext4", "/dev/vda"},
      {8, 17, "/media/me/My Data", "exfat", "/dev/sdb1"},
      {0, 46, "/tmp", "tmpfs", "tmpfs"},
      {259, 3, "/srv/tab\tand\\slash", "xfs", "/dev/nvme0n1p3"},
  };
  EXPECT_EQ(parseMountinfo(text), expected);
  EXPECT_TRUE(parseMountinfo("").empty());

  auto captured = parseMountinfo(fixture("proc/self/mountinfo"));
  ASSERT_FALSE(captured.empty());
  int roots = 0;
  for (const auto& m : captured) roots += m.mountPoint == "/";
  EXPECT_EQ(roots, 1);
}

TEST(Mountinfo, RealFilesystems) {
  struct Case {
    const char* type;
    const char* mountPoint;
    bool real;
  };
  const Case cases[] = {
      {"ext4", "/", true},
      {"btrfs", "/home", true},
      {"vfat", "/boot/efi", true},
      {"fuseblk", "/mnt/win", true},
      {"nfs4", "/net/home", true},
      {"overlay", "/", true},
      {"overlay", "/var/lib/docker/overlay2/x/merged", false},
      {"tmpfs", "/tmp", false},
      {"tmpfs", "/", false},
      {"squashfs", "/snap/x", false},
      {"proc", "/proc", false},
      {"sysfs", "/sys", false},
      {"cgroup2", "/sys/fs/cgroup", false},
      {"", "/", false},
      {"ext", "/", false},
  };
  for (const auto& c : cases) {
    EXPECT_EQ(isRealFilesystem(c.type, c.mountPoint), c.real) << c.type << " at " << c.mountPoint;
  }
}

TEST(Route, DefaultRoute) {
  const std::string header = "Iface\tDestination\tGateway \tFlags\tRefCnt\tUse\tMetric\tMask\n";
  auto line = [](const char* iface, const char* dest, const char* flags, const char* metric) {
    return std::string(iface) + "\t" + dest + "\t0101A8C0\t" + flags + "\t0\t0\t" + metric +
           "\t00000000\t0\t0\t0\n";
  };
  struct Case {
    const char* name;
    std::string text;
    std::optional<std::string> expected;
  };
  const Case cases[] = {
      {"lowest metric wins, whatever the order",
       header + line("wlan0", "00000000", "0003", "600") + line("eth0", "00000000", "0003", "100"),
       "eth0"},
      {"equal metrics: the first stays",
       header + line("eth0", "00000000", "0003", "100") + line("eth1", "00000000", "0003", "100"),
       "eth0"},
      {"a default route that is not up is ignored",
       header + line("tun0", "00000000", "0002", "0") + line("wlan0", "00000000", "0003", "600"),
       "wlan0"},
      {"no default route", header + line("eth0", "0001A8C0", "0001", "0"), std::nullopt},
      {"only a route that is down", header + line("eth0", "00000000", "0000", "0"), std::nullopt},
      {"header only", header, std::nullopt},
      {"garbage fields",
       header + line("eth0", "0000000G", "0003", "0") + line("eth1", "00000000", "zz", "0") +
           line("eth2", "00000000", "0003", "-1"),
       std::nullopt},
      {"cut short", header + "eth0\t00000000\t0101A8C0\t0003\t0", std::nullopt},
      {"empty", "", std::nullopt},
  };
  for (const auto& c : cases) EXPECT_EQ(parseDefaultRoute(c.text), c.expected) << c.name;
  EXPECT_EQ(parseDefaultRoute(fixture("proc/net/route")), "eth0");
}

TEST(Escapes, Decoding) {
  struct Case {
    const char* in;
    const char* octal;
    const char* label;
  };
  const Case cases[] = {
      {"My\\040Data", "My Data", "My Data"},
      {"back\\134slash", "back\\slash", "back\\slash"},
      {"My\\x20Data", "My\\x20Data", "My Data"},
      {"cut\\04", "cut\\04", "cut\\04"},
      {"cut\\x2", "cut\\x2", "cut\\x2"},
      {"big\\777", "big\\777", "big\\777"},
      {"not\\089", "not\\089", "not\\089"},
      {"\\", "\\", "\\"},
      {"", "", ""},
  };
  for (const auto& c : cases) {
    EXPECT_EQ(decodeOctalEscapes(c.in), c.octal) << c.in;
    EXPECT_EQ(decodeDeviceLabel(c.in), c.label) << c.in;
  }
}

TEST(SmallFiles, Numbers) {
  struct ListCase {
    const char* text;
    int count;
  };
  const ListCase lists[] = {
      {"0-7,16\n", 9}, {"0-15", 16}, {"3", 1},   {"0,2,4-5", 4},      {"", 0},
      {"7-3", 0},      {"0-", 0},    {"a-b", 0}, {"0-4294967295", 0}, {"1,,2", 0},
  };
  for (const auto& c : lists) EXPECT_EQ(countCPUList(c.text), c.count) << c.text;

  using Load = std::array<double, 3>;
  EXPECT_EQ(parseLoadavg("0.50 1.25 2.00 3/400 1234\n"), (Load{0.5, 1.25, 2.0}));
  EXPECT_EQ(parseLoadavg("0.50 1.25"), Load{});
  EXPECT_EQ(parseLoadavg("0.50 x 2.00"), Load{});
  EXPECT_EQ(parseLoadavg("0.50 -1 2.00"), Load{});

  EXPECT_EQ(parseZramUsed("  4096  1024  65536  0  70000  12  0  0  0\n"), 65536u);
  EXPECT_EQ(parseZramUsed("4096 1024"), 0u);
  EXPECT_EQ(parseZramUsed("4096 1024 -5"), 0u);
  EXPECT_EQ(parseZramUsed(fixture("sys/block/zram0/mm_stat")), 0u);

  EXPECT_EQ(parseSysfsNumber(" 42\n"), 42u);
  EXPECT_EQ(parseSysfsNumber("42 43"), std::nullopt);
  EXPECT_EQ(parseSysfsNumber("-1"), std::nullopt);
  EXPECT_EQ(parseSysfsNumber(""), std::nullopt);
  EXPECT_EQ(parseSysfsNumber("18446744073709551616"), std::nullopt);
}

}  // namespace
}  // namespace vistrel
