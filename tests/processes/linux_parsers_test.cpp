#include <gtest/gtest.h>

#include <optional>
#include <string>
#include <vector>

#include "base/files.hpp"
#include "processes/process_parsers.hpp"

namespace vistrel {
namespace {

const std::string kProc = std::string(VISTREL_FIXTURES) + "/linux/proc-processes/proc/";

std::string fixture(const std::string& path) {
  auto text = readFile(kProc + path);
  EXPECT_TRUE(text.has_value()) << path;
  return text.value_or("");
}

// The fields after the name up to starttime, with utime 7, stime 3, starttime 1234, flags 64.
const std::string kStatTail = " S 1 9 9 0 -1 64 5 0 0 0 7 3 0 0 20 0 1 0 1234 4096 10 1 2 3";

struct StatCase {
  const char* name;
  std::string text;
  std::optional<ProcStat> expected;
};

TEST(ProcPidStat, FindsTheFieldsAfterTheLastParenthesis) {
  const StatCase cases[] = {
      {"plain", "42 (bash)" + kStatTail, ProcStat{"bash", 'S', 1, 7, 3, 1234, 64}},
      {"a name holding \") (\" and a newline", "42 (a) (b\nc)" + kStatTail,
       ProcStat{"a) (b\nc", 'S', 1, 7, 3, 1234, 64}},
      {"a name that looks like fields", "42 (x) R 5 5 5)" + kStatTail,
       ProcStat{"x) R 5 5 5", 'S', 1, 7, 3, 1234, 64}},
      {"an empty name", "42 ()" + kStatTail, ProcStat{"", 'S', 1, 7, 3, 1234, 64}},
      {"no trailing newline needed, tabs are blanks",
       "42 (t)\tS\t1 9 9 0 -1 64 5 0 0 0 7 3 0 0 20 0 "
       "1 0 1234",
       ProcStat{"t", 'S', 1, 7, 3, 1234, 64}},
      {"cut short before starttime", "42 (bash) S 1 9 9 0 -1 64 5 0 0 0 7 3 0 0 20 0 1 0",
       std::nullopt},
      {"cut inside the name", "42 (ba", std::nullopt},
      {"no pid", "(bash)" + kStatTail, std::nullopt},
      {"no space before the name", "42(bash)" + kStatTail, std::nullopt},
      {"a negative utime is garbage", "42 (b) S 1 9 9 0 -1 64 5 0 0 0 -7 3 0 0 20 0 1 0 1234",
       std::nullopt},
      {"a state of two letters", "42 (b) SS 1 9 9 0 -1 64 5 0 0 0 7 3 0 0 20 0 1 0 1234",
       std::nullopt},
      {"a number with trailing garbage", "42 (b) S 1x 9 9 0 -1 64 5 0 0 0 7 3 0 0 20 0 1 0 1234",
       std::nullopt},
      {"empty", "", std::nullopt},
      {"binary noise", std::string("42 (\0\xff) S \0", 11), std::nullopt},
  };
  for (const auto& c : cases) {
    EXPECT_EQ(parseProcPidStat(c.text), c.expected) << c.name;
  }
}

TEST(ProcPidStat, ReadsCapturedFiles) {
  struct Case {
    const char* pid;
    const char* comm;
    int32_t ppid;
    bool kernelFlag;
  };
  const Case cases[] = {
      {"1", "process_api", 0, false},
      {"2", "kthreadd", 0, true},
      {"14", "ksoftirqd/0", 2, true},
      {"9109", "bash", 9106, false},
      {"4005", "kworker/u8:3-events_unbound", 7, true},
  };
  for (const auto& c : cases) {
    auto stat = parseProcPidStat(fixture(std::string(c.pid) + "/stat"));
    ASSERT_TRUE(stat) << c.pid;
    EXPECT_EQ(stat->comm, c.comm);
    EXPECT_EQ(stat->ppid, c.ppid) << c.pid;
    EXPECT_EQ((stat->flags & 0x00200000) != 0, c.kernelFlag) << c.pid;
    EXPECT_GT(stat->starttime, 0u) << c.pid;
  }
  EXPECT_FALSE(parseProcPidStat(fixture("4004/stat")));
}

TEST(ProcFiles, StatmStatusAndIo) {
  struct StatmCase {
    std::string text;
    std::optional<uint64_t> anon;
  };
  const StatmCase statm[] = {
      {"5000 2560 512 10 0 3000 0\n", 2048},
      {"1 5 9", 0},  // shared read after resident grew past it: never wraps
      {"0 0 0 0 0 0 0\n", 0},
      {"5000 2560", std::nullopt},
      {"5000 x 1 1 1 1 1", std::nullopt},
      {"", std::nullopt},
  };
  for (const auto& c : statm) EXPECT_EQ(parseStatmAnonPages(c.text), c.anon) << c.text;
  auto sleep = parseStatmAnonPages(fixture("13356/statm"));
  ASSERT_TRUE(sleep);
  EXPECT_LT(*sleep, 10000u);

  struct UidCase {
    std::string text;
    std::optional<uint32_t> uid;
  };
  const UidCase status[] = {
      {"Name:\tbash\nUid:\t1000\t1001\t1002\t1003\nGid:\t5\t5\t5\t5\n", 1000},
      {"Name:\tUid: 7\nUid:\t12\t0\t0\t0\n", 12},  // the name is not the Uid line
      {"Uid:\t-1\t0\t0\t0\n", std::nullopt},
      {"Uid:\n", std::nullopt},
      {"Name:\tbash\nGid:\t5\n", std::nullopt},
      {"Uid:\t4294967296\n", std::nullopt},
  };
  for (const auto& c : status) EXPECT_EQ(parseStatusUid(c.text), c.uid) << c.text;
  EXPECT_EQ(parseStatusUid(fixture("9109/status")), 0u);
  EXPECT_EQ(parseStatusUid(fixture("4001/status")), 1000u);

  struct IoCase {
    std::string text;
    std::optional<ProcIo> io;
  };
  const IoCase io[] = {
      {"rchar: 1\nread_bytes: 4096\nwrite_bytes: 8192\ncancelled_write_bytes: 100\n",
       ProcIo{4096, 8192}},
      {"write_bytes: 2\r\nread_bytes: 1\r\n", ProcIo{1, 2}},
      {"read_bytes: 4096\n", std::nullopt},  // write_bytes missing: cut short
      {"read_bytes: 4096\nwrite_bytes: lots\n", std::nullopt},
      {"read_bytes 1\nwrite_bytes 2\n", std::nullopt},
      {"", std::nullopt},
  };
  for (const auto& c : io) EXPECT_EQ(parseProcIo(c.text), c.io) << c.text;
  auto shell = parseProcIo(fixture("9109/io"));
  ASSERT_TRUE(shell);
  EXPECT_GT(shell->writeBytes, 0u);
}

TEST(CgroupAppId, NamesTheAppOfTheInnermostUnit) {
  const std::string app = "0::/user.slice/user-1000.slice/user@1000.service/app.slice/";
  struct Case {
    const char* name;
    std::string text;
    std::optional<std::string> id;
  };
  const Case cases[] = {
      {"GNOME launch", app + "app-gnome-org.gnome.Terminal-1234.scope\n", "org.gnome.Terminal"},
      {"KDE launch with a uuid tail",
       app + "app-org.kde.konsole-6b4c1f0e2f7a4b3b9d6f1c2e3a4b5c6d.scope", "org.kde.konsole"},
      {"no launcher", app + "app-firefox-4242.scope", "firefox"},
      {"no instance tail", app + "app-gnome-firefox.scope", "firefox"},
      {"escaped dashes belong to the id", app + "app-gnome-gnome\\x2dsystem\\x2dmonitor-77.scope",
       "gnome-system-monitor"},
      {"Flatpak", app + "app-flatpak-org.mozilla.firefox-12345.scope", "org.mozilla.firefox"},
      {"service instance", app + "app-org.gnome.Evince@12345.service", "org.gnome.Evince"},
      {"service with launcher", app + "app-gnome-org.gnome.Nautilus@autostart.service",
       "org.gnome.Nautilus"},
      {"D-Bus activation", app + "app-dbus-:1.2-org.gnome.Calculator@0.service",
       "org.gnome.Calculator"},
      {"D-Bus activation without app prefix", app + "dbus-:1.42-org.gnome.Nautilus@0.service",
       "org.gnome.Nautilus"},
      {"Snap", app + "snap.spotify.spotify-0f6d7c2e-8d6b-4c1e-9a63-1f0f1a2b3c4d.scope", "spotify"},
      {"a cgroup below the scope", app + "app-gnome-org.gnome.Epiphany-99.scope/web-process",
       "org.gnome.Epiphany"},
      {"hybrid: the name=systemd line",
       "4:memory:/\n1:name=systemd:" + app.substr(3) +
           "app-gnome-org.gnome.Terminal-1.scope\n0::/\n",
       "org.gnome.Terminal"},
      {"a terminal's tab inside the terminal's slice",
       app + "app-org.gnome.Terminal.slice/vte-spawn-8f1c2b3a-aaaa-bbbb-cccc-0123456789ab.scope",
       std::nullopt},
      {"login session", "0::/user.slice/user-1000.slice/session-3.scope\n", std::nullopt},
      {"user service", app + "dbus.service", std::nullopt},
      {"system service", "0::/system.slice/cron.service\n", std::nullopt},
      {"user manager itself", "0::/user.slice/user-1000.slice/user@1000.service/init.scope",
       std::nullopt},
      {"Snap daemon", "0::/system.slice/snap.lxd.daemon.service", std::nullopt},
      {"cgroup v1 controllers only", "4:memory:/user.slice/app-gnome-x-1.scope\n1:cpu:/\n",
       std::nullopt},
      {"container root", "0::/\n", std::nullopt},
      {"an escape that smuggles a slash", app + "app-gnome-..\\x2f..\\x2fetc\\x2fpasswd-1.scope",
       std::nullopt},
      {"a raw escape left undecoded", app + "app-gnome-bad\\xZZ-1.scope", std::nullopt},
      {"empty id", app + "app--1.scope", std::nullopt},
      {"no colons", "garbage", std::nullopt},
      {"empty", "", std::nullopt},
  };
  for (const auto& c : cases) EXPECT_EQ(parseCgroupAppId(c.text), c.id) << c.name;
  // Captured on this machine: no systemd scopes at all.
  EXPECT_EQ(parseCgroupAppId(fixture("9109/cgroup")), std::nullopt);
  EXPECT_EQ(parseCgroupAppId(fixture("4002/cgroup")), "org.mozilla.firefox");
}

TEST(DrmFdinfo, SumsEngineTimeOfOneClient) {
  struct Case {
    const char* name;
    std::string text;
    std::optional<DrmClient> client;
  };
  const Case cases[] = {
      {"engines in ns; capacity, memory and cycles are not time",
       "drm-driver:\txe\ndrm-client-id:\t3\ndrm-engine-rcs:\t100 ns\ndrm-engine-capacity-rcs:\t2\n"
       "drm-memory-vram:\t100 KiB\ndrm-cycles-rcs:\t999\ndrm-engine-bcs:\t20 ns\n",
       DrmClient{3, 120}},
      {"a client with no engine lines yet", "drm-driver:\tv3d\ndrm-client-id:\t9\n",
       DrmClient{9, 0}},
      {"an engine value without its unit is skipped",
       "drm-client-id:\t1\ndrm-engine-gfx:\t100\ndrm-engine-dma:\t5 ns\n", DrmClient{1, 5}},
      {"a garbage engine value is skipped",
       "drm-client-id:\t1\ndrm-engine-gfx:\t-4 ns\ndrm-engine-dma:\t5 ns\n", DrmClient{1, 5}},
      {"sums saturate",
       "drm-client-id:\t1\ndrm-engine-a:\t18446744073709551615 ns\ndrm-engine-b:\t9 ns\n",
       DrmClient{1, 18446744073709551615u}},
      {"a bare drm-engine- key is no engine", "drm-client-id:\t1\ndrm-engine-:\t9 ns\n",
       DrmClient{1, 0}},
      {"not a DRM descriptor", "pos:\t0\nflags:\t0100002\nmnt_id:\t22\n", std::nullopt},
      {"a garbage client id", "drm-client-id:\tseven\ndrm-engine-gfx:\t1 ns\n", std::nullopt},
      {"empty", "", std::nullopt},
  };
  for (const auto& c : cases) EXPECT_EQ(parseDrmFdinfo(c.text), c.client) << c.name;
  EXPECT_EQ(parseDrmFdinfo(fixture("4002/fdinfo/5")),
            (DrmClient{7, 4203500000u + 1200000u + 35000u}));
  EXPECT_EQ(parseDrmFdinfo(fixture("4002/fdinfo/9")), (DrmClient{12, 987654321u + 1000u + 50000u}));
}

TEST(Cmdline, SplitsAtZeroBytes) {
  using Args = std::vector<std::string>;
  struct Case {
    const char* name;
    std::string text;
    Args args;
  };
  const Case cases[] = {
      {"ended by a zero byte",
       std::string("/bin/sh\0-c\0echo hi\0", 19),
       {"/bin/sh", "-c", "echo hi"}},
      {"empty arguments kept", std::string("a\0\0b\0", 5), {"a", "", "b"}},
      {"a rewritten title without zero bytes", "nginx: worker process", {"nginx: worker process"}},
      {"no final zero byte", std::string("a\0b", 3), {"a", "b"}},
      {"kernel threads have none", "", {}},
      {"a single zero byte", std::string("\0", 1), {}},
      {"invalid UTF-8 repaired", std::string("a\xff\0", 3), {"a\xEF\xBF\xBD"}},
  };
  for (const auto& c : cases) EXPECT_EQ(parseCmdline(c.text), c.args) << c.name;
  EXPECT_EQ(parseCmdline(fixture("4001/cmdline")), (Args{"/opt/odd/tool", "--flag", "", "last"}));
  EXPECT_EQ(parseCmdline(fixture("14/cmdline")), Args{});
}

}  // namespace
}  // namespace vistrel
