#include <arpa/inet.h>
#include <netinet/in.h>
#include <signal.h>
#include <stdio.h>
#include <stdlib.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include <algorithm>
#include <chrono>
#include <filesystem>
#include <functional>
#include <map>
#include <string>
#include <thread>
#include <vector>

#include "base/files.hpp"
#include "processes/app_grouper.hpp"
#include "processes/linux/linux_process_source.hpp"
#include "processes/process_sampler.hpp"
#include "processes/process_stages.hpp"

namespace vistrel {
namespace {

namespace fs = std::filesystem;

const fs::path kFixture = fs::path(VISTREL_FIXTURES) / "linux/proc-processes";

uint64_t nsOfTicks(uint64_t ticks) {
  return ticks * 1'000'000'000 / static_cast<uint64_t>(::sysconf(_SC_CLK_TCK));
}
uint64_t bytesOfPages(uint64_t pages) {
  return pages * static_cast<uint64_t>(::sysconf(_SC_PAGESIZE));
}

// A private copy of the fixture tree, so that tests can change files under a live source.
class Tree {
 public:
  Tree() {
    char name[] = "/tmp/vistrel-proc-XXXXXX";
    root_ = ::mkdtemp(name);
    fs::copy(kFixture, root_, fs::copy_options::recursive | fs::copy_options::copy_symlinks);
  }
  ~Tree() {
    std::error_code ignored;
    fs::remove_all(root_, ignored);
  }
  std::string path(const std::string& relative) const { return (root_ / relative).string(); }
  // Rewrites a file in place: a descriptor the source holds sees the new text.
  void overwrite(const std::string& relative, const std::string& text) const {
    FILE* file = ::fopen(path(relative).c_str(), "w");
    ASSERT_NE(file, nullptr) << relative;
    ::fwrite(text.data(), 1, text.size(), file);
    ::fclose(file);
  }
  std::vector<std::string> desktopFolders() const {
    return {path("xdg/data-home/applications"), path("xdg/usr/local/share/applications"),
            path("xdg/usr/share/applications"), path("xdg/flatpak/exports/share/applications"),
            path("xdg/snapd/desktop/applications")};
  }
  std::unique_ptr<ProcessSource> source(const Clock& clock, PsRunner ps = {},
                                        TcpDumper tcp = {}) const {
    return makeLinuxProcessSource(root_.string(), desktopFolders(), clock, std::move(ps),
                                  std::move(tcp));
  }

 private:
  fs::path root_;
};

std::string statText(int pid, const char* comm, uint64_t utime, uint64_t starttime, int ppid = 1,
                     uint32_t flags = 4194304) {
  return std::to_string(pid) + " (" + comm + ") S " + std::to_string(ppid) + " 1 1 0 -1 " +
         std::to_string(flags) + " 0 0 0 0 " + std::to_string(utime) + " 0 0 0 20 0 1 0 " +
         std::to_string(starttime) + " 0 0\n";
}

TEST(LinuxProcessSource, ListsNumericEntriesOnly) {
  Tree tree;
  ManualClock clock;
  auto source = tree.source(clock);
  std::vector<int32_t> pids = {-5};  // stale contents must not survive
  source->listPids(pids);
  std::sort(pids.begin(), pids.end());
  const std::vector<int32_t> expected = {1,    2,    14,   4001, 4002, 4003, 4004,
                                         4005, 4006, 4007, 4008, 9109, 13356};
  EXPECT_EQ(pids, expected);
}

TEST(LinuxProcessSource, CountersFromTheTree) {
  Tree tree;
  ManualClock clock;
  auto source = tree.source(clock);
  struct Case {
    int32_t pid;
    bool readable;
    uint64_t ticks, anonPages, read, write, startKey;
    bool kernel;
  };
  const Case cases[] = {
      {4001, true, 300, 2048, 4096, 8192, 5000, false},  // ") (" and a newline in the name
      {4002, true, 1200, 30000, 1048576, 0, 6000, false},
      {4003, true, 10, 0, 0, 0, 7000, false},      // statm garbage: no memory figure
      {4004, false, 0, 0, 0, 0, 0, false},         // stat cut short
      {4005, true, 13, 0, 0, 0, 300, true},        // PF_KTHREAD alone
      {14, true, 4, 0, 0, 0, 24, true},            // captured kernel thread
      {2, true, 0, 0, 0, 0, 24, true},             // kthreadd itself
      {4006, true, 100, 2000, 0, 0, 8000, false},  // io without write_bytes
      {4007, true, 2, 40, 0, 0, 9000, false},      // no io file
      {9109, true, 7, 1037 - 774, 1122304, 9994240, 91879, false},  // captured shell
      {99999, false, 0, 0, 0, 0, 0, false},                         // no such process
  };
  for (int round = 0; round < 2; ++round) {  // the second round reads the held descriptors
    for (const auto& c : cases) {
      auto counters = source->counters(c.pid);
      ASSERT_EQ(counters.has_value(), c.readable) << c.pid;
      if (!counters) continue;
      EXPECT_EQ(counters->cpuNs, nsOfTicks(c.ticks)) << c.pid;
      EXPECT_EQ(counters->memory, bytesOfPages(c.anonPages)) << c.pid;
      EXPECT_EQ(counters->diskRead, c.read) << c.pid;
      EXPECT_EQ(counters->diskWrite, c.write) << c.pid;
      EXPECT_EQ(counters->startKey, c.startKey) << c.pid;
      EXPECT_EQ(counters->kernelThread, c.kernel) << c.pid;
      EXPECT_EQ(counters->energyNj, 0u) << c.pid;
    }
  }
}

// Only the kernel-thread flag makes a kernel thread. In a container pid 2 is an ordinary process
// and its children are too.
TEST(LinuxProcessSource, KernelThreadsAreKnownByTheirFlagAlone) {
  struct Case {
    const char* what;
    int32_t pid;
    std::optional<std::string> stat;  // replaces the captured file when set
    bool kernel;
  };
  const Case cases[] = {
      {"captured kthreadd", 2, std::nullopt, true},
      {"captured worker under kthreadd", 14, std::nullopt, true},
      {"a container's pid 2", 2, statText(2, "node", 50, 400, 1, 0x400100), false},
      {"a child of a container's pid 2", 4007, statText(4007, "npm", 5, 9000, 2, 0x400000), false},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.what);
    Tree tree;
    if (c.stat) tree.overwrite("proc/" + std::to_string(c.pid) + "/stat", *c.stat);
    ManualClock clock;
    auto counters = tree.source(clock)->counters(c.pid);
    ASSERT_TRUE(counters);
    EXPECT_EQ(counters->kernelThread, c.kernel);
  }
}

TEST(LinuxProcessSource, IdentityFromTheTree) {
  Tree tree;
  ManualClock clock;
  auto source = tree.source(clock);
  const double boot = 1795239232;  // btime of the captured /proc/stat
  const double tick = 1.0 / static_cast<double>(::sysconf(_SC_CLK_TCK));
  struct Case {
    int32_t pid;
    bool readable;
    int32_t ppid;
    uint32_t uid;
    std::string path, baseName;
    std::optional<std::string> appPath;
    double startTicks;
  };
  const Case cases[] = {
      {4001, true, 4000, 1000, "/opt/odd/tool", "a) (b\nc",
       tree.path("xdg/usr/share/applications/org.gnome.Terminal.desktop"), 5000},
      // A folder named like the entry earlier in the search order is not the entry.
      {4002, true, 4001, 1000, "/app/lib/firefox/firefox", "firefox",
       tree.path("xdg/flatpak/exports/share/applications/org.mozilla.firefox.desktop"), 6000},
      {4003, true, 1, 1000, "/snap/spotify/80/usr/share/spotify/spotify", "spotify",
       tree.path("xdg/snapd/desktop/applications/spotify_spotify.desktop"), 7000},
      // The first folder that has the entry wins.
      {4006, true, 1500, 1000, "/usr/bin/gnome-system-monitor", "gnome-system-mo",
       tree.path("xdg/data-home/applications/gnome-system-monitor.desktop"), 8000},
      {4007, true, 1500, 1000, "/usr/bin/missing", "missing", std::nullopt, 9000},
      {1, true, 0, 0, "", "process_api", std::nullopt, 24},  // exe unreadable
      {13356, true, 13353, 0, "/usr/bin/sleep", "sleep", std::nullopt, 120626},
      {4004, false, 0, 0, "", "", std::nullopt, 0},  // stat cut short
      {4008, false, 0, 0, "", "", std::nullopt, 0},  // status gone
      {99999, false, 0, 0, "", "", std::nullopt, 0},
  };
  for (const auto& c : cases) {
    auto id = source->identity(c.pid);
    ASSERT_EQ(id.has_value(), c.readable) << c.pid;
    if (!id) continue;
    EXPECT_EQ(id->ppid, c.ppid) << c.pid;
    EXPECT_EQ(id->uid, c.uid) << c.pid;
    EXPECT_EQ(id->path, c.path) << c.pid;
    EXPECT_EQ(id->baseName, c.baseName) << c.pid;
    EXPECT_EQ(id->appPath, c.appPath) << c.pid;
    ASSERT_TRUE(id->started) << c.pid;
    EXPECT_NEAR(secondsSince1970(*id->started), boot + c.startTicks * tick, 1e-3) << c.pid;
  }
  EXPECT_EQ(source->responsibleFor(4001), std::nullopt);
}

TEST(LinuxProcessSource, ArgumentsAndWorkingFolder) {
  Tree tree;
  ManualClock clock;
  auto source = tree.source(clock);
  EXPECT_EQ(source->arguments(4001),
            (std::vector<std::string>{"/opt/odd/tool", "--flag", "", "last"}));
  EXPECT_TRUE(source->arguments(14).empty());  // kernel threads have none
  EXPECT_TRUE(source->arguments(99999).empty());
  EXPECT_EQ(source->workingFolder(4001), "/home/user/project");
  EXPECT_EQ(source->workingFolder(4002), std::nullopt);  // "/"
  EXPECT_EQ(source->workingFolder(4003), std::nullopt);  // unreadable
  EXPECT_EQ(source->workingFolder(99999), std::nullopt);
}

TEST(LinuxProcessSource, ReReadsHeldFilesAndNoticesAReusedPid) {
  Tree tree;
  ManualClock clock;
  auto source = tree.source(clock);
  ASSERT_TRUE(source->counters(4001));
  ASSERT_TRUE(source->counters(4006));

  tree.overwrite("proc/4001/stat", statText(4001, "tool", 900, 5000));
  auto later = source->counters(4001);
  ASSERT_TRUE(later);
  EXPECT_EQ(later->cpuNs, nsOfTicks(900));
  EXPECT_EQ(later->diskWrite, 8192u);

  // Another process under the same pid: its own start time, its own counters.
  tree.overwrite("proc/4001/stat", statText(4001, "other", 3, 777777));
  auto reused = source->counters(4001);
  ASSERT_TRUE(reused);
  EXPECT_EQ(reused->startKey, 777777u);
  EXPECT_EQ(reused->cpuNs, nsOfTicks(3));

  // io that once failed to parse is not read again for the process's life.
  tree.overwrite("proc/4006/io", "read_bytes: 5\nwrite_bytes: 6\n");
  auto io = source->counters(4006);
  ASSERT_TRUE(io);
  EXPECT_EQ(io->diskRead, 0u);
  source->forget(4006);
  io = source->counters(4006);
  ASSERT_TRUE(io);
  EXPECT_EQ(io->diskRead, 5u);
  EXPECT_EQ(io->diskWrite, 6u);

  // A stat emptied or turned to garbage under a held descriptor: unreadable, then readable again.
  tree.overwrite("proc/4001/stat", "");
  EXPECT_FALSE(source->counters(4001));
  tree.overwrite("proc/4001/stat", statText(4001, "tool", 1, 5000));
  EXPECT_TRUE(source->counters(4001));
}

// A shim or wrapper script that ends in exec keeps its pid and start time: the new program is
// noticed by the short name that every tick reads anyway.
TEST(LinuxProcessSource, AnExecIsNoticedAndTheIdentityReadAgain) {
  Tree tree;
  ManualClock clock{100};
  ProcessSampler sampler(tree.source(clock), clock, [] { return 7; });
  auto sampleOf = [&](int32_t pid) {
    std::optional<ProcessSample> found;
    for (auto& s : sampler.sample(false, 9.5, false)) {
      if (s.pid == pid) found = s;
    }
    return found;
  };
  auto before = sampleOf(4007);
  ASSERT_TRUE(before);
  EXPECT_EQ(before->name, "missing");

  const std::string python = "/home/user/.pyenv/versions/3.12.1/bin/python3.12";
  tree.overwrite("proc/4007/stat", statText(4007, "python3.12", 40, 9000, 1500));
  fs::remove(tree.path("proc/4007/exe"));
  fs::create_symlink(python, tree.path("proc/4007/exe"));
  clock.advance(2);
  auto after = sampleOf(4007);
  ASSERT_TRUE(after);
  EXPECT_EQ(after->name, "python3.12");
  EXPECT_EQ(after->path, python);
  EXPECT_EQ(after->started, before->started);
}

// Descriptors this process holds on files under `folder`.
size_t descriptorsUnder(const std::string& folder) {
  size_t n = 0;
  for (const auto& fd : listFolder("/proc/self/fd")) {
    auto target = readLink("/proc/self/fd/" + fd);
    if (target && target->starts_with(folder)) ++n;
  }
  return n;
}

// Whatever the source holds for a pid goes when the pid leaves the listing, also for pids the
// sampler keeps nothing for: kernel threads, and processes whose identity could not be read.
TEST(LinuxProcessSource, EveryExitedPidLetsGoOfItsDescriptors) {
  Tree tree;
  ManualClock clock{100};
  ProcessSampler sampler(tree.source(clock), clock, [] { return 7; });  // no random sweep
  sampler.sample(false, 9.5, false);
  struct Case {
    const char* what;
    int32_t pid;
  } cases[] = {{"kernel thread", 14}, {"identity unreadable (no status)", 4008}, {"process", 4002}};
  for (const auto& c : cases) {
    SCOPED_TRACE(c.what);
    const std::string folder = tree.path("proc/" + std::to_string(c.pid));
    ASSERT_GT(descriptorsUnder(folder + "/"), 0u);
    fs::remove_all(folder);
    clock.advance(2);
    sampler.sample(false, 9.5, false);
    EXPECT_EQ(descriptorsUnder(folder + "/"), 0u);
  }
}

TEST(LinuxProcessSource, AnIdleProcessKeepsItsLastMemoryAndStorageFigures) {
  Tree tree;
  ManualClock clock;
  auto source = tree.source(clock);
  std::vector<int32_t> pids;
  source->listPids(pids);
  tree.overwrite("proc/4001/stat", statText(4001, "tool", 100, 5000));
  auto first = source->counters(4001);
  ASSERT_TRUE(first);
  EXPECT_EQ(first->memory, bytesOfPages(2560 - 512));
  EXPECT_EQ(first->diskWrite, 8192u);

  struct Step {
    const char* name;
    double advance;
    uint64_t utime;
    uint64_t statmResident;
    uint64_t writeBytes;
    uint64_t expectMemoryPages;
    uint64_t expectWrite;
  } steps[] = {
      // Not run since the last tick: the files are not read again.
      {"idle", 2, 100, 3000, 9000, 2560 - 512, 8192},
      {"still idle within the refresh period", 12, 100, 3100, 9100, 2560 - 512, 8192},
      // It ran: everything is read.
      {"ran", 1, 101, 3200, 9200, 3200 - 512, 9200},
      // Idle, but the slow refresh is due (memory may shrink under reclaim).
      {"idle for longer than the refresh period", 16, 101, 2000, 9200, 2000 - 512, 9200},
  };
  for (const auto& step : steps) {
    SCOPED_TRACE(step.name);
    clock.advance(step.advance);
    source->listPids(pids);
    tree.overwrite("proc/4001/stat", statText(4001, "tool", step.utime, 5000));
    tree.overwrite("proc/4001/statm", std::to_string(step.statmResident + 2000) + " " +
                                          std::to_string(step.statmResident) +
                                          " 512 10 0 3000 0\n");
    tree.overwrite("proc/4001/io",
                   "read_bytes: 4096\nwrite_bytes: " + std::to_string(step.writeBytes) + "\n");
    auto c = source->counters(4001);
    ASSERT_TRUE(c);
    EXPECT_EQ(c->memory, bytesOfPages(step.expectMemoryPages));
    EXPECT_EQ(c->diskWrite, step.expectWrite);
  }
}

TEST(LinuxProcessSource, GpuTimesFromDrmDescriptorsOnASlowRescan) {
  Tree tree;
  ManualClock clock;
  auto source = tree.source(clock);
  EXPECT_TRUE(source->gpuTimes().empty());  // no process seen yet
  std::vector<int32_t> pids;
  source->listPids(pids);
  for (int32_t pid : pids) source->counters(pid);

  const uint64_t amd = 4203500000u + 1200000u + 35000u;  // client 7, on two descriptors
  const uint64_t intel = 987654321u + 1000u + 50000u;    // client 12
  using Times = std::unordered_map<int32_t, uint64_t>;
  EXPECT_EQ(source->gpuTimes(), (Times{{4002, amd + intel}}));

  // A descriptor opened later is found only at the next scan of the fd folder.
  fs::create_symlink("/dev/dri/renderD129", tree.path("proc/4002/fd/11"));
  tree.overwrite("proc/4002/fdinfo/11",
                 "drm-driver:\tnouveau\ndrm-client-id:\t20\n"
                 "drm-engine-gr:\t1000 ns\n");
  fs::create_directories(tree.path("proc/4001/fd"));
  fs::create_directories(tree.path("proc/4001/fdinfo"));
  tree.overwrite("proc/4001/fdinfo/4", "drm-client-id:\t30\ndrm-engine-gfx:\t5 ns\n");
  fs::create_symlink("/dev/dri/card0", tree.path("proc/4001/fd/4"));
  clock.advance(kDrmRecheckSeconds * 0.5);
  EXPECT_EQ(source->gpuTimes(), (Times{{4002, amd + intel}}));
  clock.advance(kDrmRecheckSeconds * 0.8);
  EXPECT_EQ(source->gpuTimes(), (Times{{4001, 5}, {4002, amd + intel + 1000}}));

  // A closed descriptor stops counting at once.
  fs::remove(tree.path("proc/4002/fdinfo/9"));
  fs::remove(tree.path("proc/4002/fd/9"));
  EXPECT_EQ(source->gpuTimes(), (Times{{4001, 5}, {4002, amd + 1000}}));
  EXPECT_EQ(source->gpuTimes(), (Times{{4001, 5}, {4002, amd + 1000}}));

  source->forget(4001);
  EXPECT_EQ(source->gpuTimes(), (Times{{4002, amd + 1000}}));

  // A process found without any is scanned less and less often: its third scan comes a doubled
  // period after its second.
  fs::create_directories(tree.path("proc/4003/fd"));
  fs::create_directories(tree.path("proc/4003/fdinfo"));
  tree.overwrite("proc/4003/fdinfo/7", "drm-client-id:\t40\ndrm-engine-gfx:\t8 ns\n");
  fs::create_symlink("/dev/dri/renderD128", tree.path("proc/4003/fd/7"));
  clock.advance(kDrmRecheckSeconds * 1.3);
  EXPECT_EQ(source->gpuTimes().count(4003), 0u);
  clock.advance(kDrmRecheckSeconds * 1.3 * (1 << kDrmBackoffSteps));
  EXPECT_EQ(source->gpuTimes().at(4003), 8u);
}

TEST(LinuxProcessSource, DesktopEntryMissesAreRecheckedLate) {
  Tree tree;
  ManualClock clock;
  auto source = tree.source(clock);
  ASSERT_TRUE(source->identity(4007));
  EXPECT_EQ(source->identity(4007)->appPath, std::nullopt);
  const std::string entry = tree.path("xdg/usr/share/applications/org.example.Missing.desktop");
  tree.overwrite("xdg/usr/share/applications/org.example.Missing.desktop",
                 "[Desktop Entry]\nName=Missing\n");
  EXPECT_EQ(source->identity(4007)->appPath, std::nullopt);
  clock.advance(kDesktopMissSeconds + 1);
  EXPECT_EQ(source->identity(4007)->appPath, entry);
  // Found entries are kept.
  fs::remove(entry);
  clock.advance(kDesktopMissSeconds + 1);
  EXPECT_EQ(source->identity(4007)->appPath, entry);
}

TEST(LinuxProcessSource, PsListingRunsTheInjectedTool) {
  Tree tree;
  ManualClock clock;
  int runs = 0;
  std::string output =
      "    1     0     0  0.0  1024 /sbin/init\n   77     1  1000 12.5  2048 my tool\n"
      "garbage\n";
  auto source = tree.source(clock, [&] {
    ++runs;
    return output;
  });
  auto rows = source->psListing();
  EXPECT_EQ(runs, 1);
  ASSERT_EQ(rows.size(), 2u);
  auto tool = std::find_if(rows.begin(), rows.end(), [](const PsRow& r) { return r.pid == 77; });
  ASSERT_NE(tool, rows.end());
  EXPECT_EQ(tool->path, "my tool");
  EXPECT_EQ(tool->rss, 2048u * 1024);
  output.clear();  // the tool could not run
  EXPECT_TRUE(source->psListing().empty());
  EXPECT_TRUE(tree.source(clock)->psListing().empty());  // no tool at all
}

// Runs in a child: the lowered limit must not leak into the other tests. 0 when every readable
// process was read.
int readEveryProcessWithFewDescriptors(const Tree& tree) {
  rlimit low{48, 48};
  if (::setrlimit(RLIMIT_NOFILE, &low) != 0) return 2;
  ManualClock clock;
  auto source = tree.source(clock);
  // Use up every descriptor but two: holding files must give way to open-read-close.
  std::vector<int> filler;
  for (int fd = ::dup(0); fd >= 0; fd = ::dup(0)) filler.push_back(fd);
  for (int i = 0; i < 2 && !filler.empty(); ++i) {
    ::close(filler.back());
    filler.pop_back();
  }
  std::vector<int32_t> pids;
  source->listPids(pids);
  int read = 0;
  for (int round = 0; round < 3; ++round) {
    read = 0;
    for (int32_t pid : pids) read += source->counters(pid) ? 1 : 0;
  }
  return read == static_cast<int>(pids.size()) - 1 ? 0 : 1;  // all but the cut stat
}

TEST(LinuxProcessSource, FewDescriptorsStillReadEveryProcess) {
  Tree tree;
  EXPECT_EXIT(::_exit(readEveryProcessWithFewDescriptors(tree)), ::testing::ExitedWithCode(0), "");
}

// Sockets are found among a process's descriptors once, and again only when a socket moves bytes
// without a known owner, for processes that have run since they were last looked at.
TEST(LinuxProcessSource, NetworkBytesOfOwnSocketsByTheirOwners) {
  Tree tree;
  ManualClock clock;
  std::vector<TcpSocketBytes> dump;
  bool dumpWorks = true;
  auto source = tree.source(clock, {}, [&](std::vector<TcpSocketBytes>& out) {
    out = dump;
    return dumpWorks;
  });
  const uint32_t me = ::geteuid();
  auto link = [&](int32_t pid, int fd, uint64_t inode) {
    fs::create_directories(tree.path("proc/" + std::to_string(pid) + "/fd"));
    fs::create_symlink("socket:[" + std::to_string(inode) + "]",
                       tree.path("proc/" + std::to_string(pid) + "/fd/" + std::to_string(fd)));
  };
  link(4001, 3, 501);
  link(4002, 20, 502);
  link(4002, 21, 503);  // another user's socket passed to us: not counted
  std::vector<int32_t> pids;
  source->listPids(pids);
  for (int32_t pid : pids) source->counters(pid);

  struct Step {
    const char* what;
    std::vector<TcpSocketBytes> dump;
    std::function<void()> before;
    ProcessNetBytes tool, firefox;  // pids 4001 and 4002
  };
  const Step steps[] = {
      {"the first dump is the base", {{501, me, 100, 10}, {502, me, 0, 0}}, {}, {}, {}},
      {"bytes go to the processes holding the sockets",
       {{501, me, 300, 20}, {502, me, 50, 5}, {503, me + 1, 1000, 1000}},
       {},
       {200, 10},
       {50, 5}},
      {"a socket opened by a process that has not run since its listing is not looked for",
       {{501, me, 300, 20}, {502, me, 50, 5}, {504, me, 70, 7}},
       [&] { link(4001, 4, 504); },
       {200, 10},
       {50, 5}},
      {"once it has run, and the socket is looked for again, its descriptors are listed again",
       {{501, me, 300, 20}, {502, me, 50, 5}, {504, me, 90, 9}},
       [&] {
         clock.advance(kSocketSearchRetrySeconds);
         tree.overwrite("proc/4001/stat", statText(4001, "tool", 999, 5000, 4000));
         source->counters(4001);
       },
       {220, 12},
       {50, 5}},
      {"a closed socket keeps what it moved", {{502, me, 60, 5}}, {}, {220, 12}, {60, 5}},
  };
  for (const auto& step : steps) {
    SCOPED_TRACE(step.what);
    if (step.before) step.before();
    dump = step.dump;
    auto bytes = source->networkBytes();
    EXPECT_EQ(bytes[4001], step.tool);
    EXPECT_EQ(bytes[4002], step.firefox);
    EXPECT_EQ(bytes.count(14), 0u);  // kernel threads own no sockets
  }
  dumpWorks = false;  // no socket diagnostics (a kernel without them): nothing, and no error
  EXPECT_TRUE(source->networkBytes().empty());
}

// A terminal (kitty) and an editor (VS Code) that run every tab in the app's one scope, as
// /proc shows them: what was started from a shell in them is not the app. The shells and the
// editor's helpers stay with their app; coding agents form their own groups with what they
// started (but not what their shells start); other tools stand alone, a tool's children with it.
TEST(LinuxProcessSource, WhatAShellInsideAnAppStartsIsNotTheApp) {
  const fs::path root = fs::path(VISTREL_FIXTURES) / "linux/terminal-scopes";
  const std::string desktops = (root / "applications").string();
  ManualClock clock{100};
  ProcessLayer layer(makeLinuxProcessSource(root.string(), {desktops}, clock, {}), makeAppBundles(),
                     clock);
  AppGrouper grouper(*layer.bundles, SystemAccounts{1000, 1000}, true);
  auto samples = layer.sampler.sample(false, 9.5, false);
  const AgentRoots agents = {{2901, "Claude Code"}, {3150, "Codex"}};
  std::map<std::string, std::vector<int32_t>> groups;
  std::map<std::string, std::string> names;
  for (const auto& app : grouper.group(samples, layer.queries, agents, {}, {}, 0)) {
    auto pids = app.pids;
    std::sort(pids.begin(), pids.end());
    groups[app.id] = pids;
    names[app.id] = app.name;
  }
  const std::string kitty = desktops + "/kitty.desktop", code = desktops + "/code.desktop";
  const std::map<std::string, std::vector<int32_t>> expected = {
      {kitty, {2841, 2850, 2860}},
      {"agent:Claude Code", {2901, 2920, 2921}},
      {"proc:cargo", {2922}},  // started by the agent's shell: stands alone, as on macOS
      {"proc:python3 http.server", {2870}},
      {code, {3100, 3110, 3120, 3130, 3140}},
      {"agent:Codex", {3150, 3160}},
      {"proc:make", {3170, 3171}},
      {"proc:bash", {3200}},
      {"proc:htop", {3210}},
  };
  EXPECT_EQ(groups, expected);
  EXPECT_EQ(names[kitty], "kitty");
  EXPECT_EQ(names[code], "Visual Studio Code");
}

// --- this machine ---

size_t openDescriptors() {
  return listFolder("/proc/self/fd").size();
}

// A child that spins (or sleeps) until killed.
pid_t startChild(bool spin) {
  pid_t pid = ::fork();
  if (pid == 0) {
    volatile uint64_t n = 0;
    while (true) {
      if (spin) {
        n = n + 1;
      } else {
        ::pause();
      }
    }
  }
  return pid;
}

void endChild(pid_t pid) {
  ::kill(pid, SIGKILL);
  ::waitpid(pid, nullptr, 0);
}

TEST(LinuxProcessSourceLive, FindsASpinningChildWithGrowingCpuTime) {
  auto source = makeLinuxProcessSource("/", {});
  pid_t child = startChild(true);
  ASSERT_GT(child, 0);
  std::vector<int32_t> pids;
  source->listPids(pids);
  EXPECT_NE(std::find(pids.begin(), pids.end(), child), pids.end());
  auto first = source->counters(child);
  ASSERT_TRUE(first);
  EXPECT_FALSE(first->kernelThread);
  EXPECT_GT(first->memory, 0u);
  auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(30);
  std::optional<ProcessCounters> later;
  do {
    std::this_thread::sleep_for(std::chrono::milliseconds(50));
    later = source->counters(child);
  } while (later && later->cpuNs < first->cpuNs + 100'000'000 &&
           std::chrono::steady_clock::now() < deadline);
  ASSERT_TRUE(later);
  EXPECT_GE(later->cpuNs, first->cpuNs + 100'000'000);
  EXPECT_EQ(later->startKey, first->startKey);

  auto id = source->identity(child);
  ASSERT_TRUE(id);
  EXPECT_EQ(id->ppid, ::getpid());
  EXPECT_EQ(id->uid, ::getuid());
  EXPECT_EQ(id->path, readLink("/proc/self/exe").value_or("?"));
  ASSERT_TRUE(id->started);
  double age = secondsSince1970(std::chrono::system_clock::now()) - secondsSince1970(*id->started);
  EXPECT_GT(age, -2.0);
  EXPECT_LT(age, 120.0);
  endChild(child);
}

TEST(LinuxProcessSourceLive, CountsTheBytesOfThisProcesssOwnConnection) {
  auto source = makeLinuxProcessSource("/", {});
  int listener = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
  ASSERT_GE(listener, 0);
  sockaddr_in address{};
  address.sin_family = AF_INET;
  address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  socklen_t length = sizeof address;
  ASSERT_EQ(::bind(listener, reinterpret_cast<sockaddr*>(&address), sizeof address), 0);
  ASSERT_EQ(::listen(listener, 1), 0);
  ASSERT_EQ(::getsockname(listener, reinterpret_cast<sockaddr*>(&address), &length), 0);
  int client = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
  ASSERT_EQ(::connect(client, reinterpret_cast<sockaddr*>(&address), sizeof address), 0);
  int server = ::accept(listener, nullptr, nullptr);
  ASSERT_GE(server, 0);
  auto transfer = [&](size_t bytes) {
    std::vector<char> data(bytes, 'x');
    size_t sent = 0, got = 0;
    while (sent < bytes)
      sent += static_cast<size_t>(::send(client, data.data() + sent, bytes - sent, 0));
    while (got < bytes) got += static_cast<size_t>(::recv(server, data.data(), bytes - got, 0));
  };
  const int32_t me = ::getpid();
  source->counters(me);
  transfer(5000);
  auto first = source->networkBytes();
  if (first.empty()) GTEST_SKIP() << "no socket diagnostics here";
  transfer(20000);
  source->counters(me);
  auto second = source->networkBytes();  // the connection moved bytes: our descriptors are read
  transfer(30000);
  source->counters(me);
  auto third = source->networkBytes();
  // Both ends are ours: what one sent and had acknowledged, the other received.
  EXPECT_GE(third[me].in - second[me].in, 30000u);
  EXPECT_LT(third[me].in - second[me].in, 31000u);
  EXPECT_GE(third[me].out - second[me].out, 30000u);
  EXPECT_GE(second[me].in, first[me].in);
  ::close(server);
  ::close(client);
  ::close(listener);
  auto after = source->networkBytes();
  EXPECT_GE(after[me].in, third[me].in);  // closed connections take nothing away
}

TEST(LinuxProcessSourceLive, ForgetClosesTheHeldFiles) {
  auto source = makeLinuxProcessSource("/", {});
  pid_t child = startChild(false);
  ASSERT_GT(child, 0);
  size_t before = openDescriptors();
  ASSERT_TRUE(source->counters(child));
  EXPECT_GT(openDescriptors(), before);
  source->forget(child);
  EXPECT_EQ(openDescriptors(), before);
  endChild(child);
}

TEST(LinuxProcessSourceLive, AProcessThatEndsBeforeItsReadingIsUnreadable) {
  auto source = makeLinuxProcessSource("/", {});
  pid_t held = startChild(false);
  pid_t unseen = startChild(false);
  ASSERT_GT(held, 0);
  ASSERT_GT(unseen, 0);
  std::vector<int32_t> pids;
  source->listPids(pids);
  EXPECT_NE(std::find(pids.begin(), pids.end(), unseen), pids.end());
  size_t before = openDescriptors();
  ASSERT_TRUE(source->counters(held));
  endChild(held);
  endChild(unseen);
  EXPECT_FALSE(source->counters(held));  // its held files now fail
  EXPECT_FALSE(source->counters(unseen));
  EXPECT_EQ(openDescriptors(), before);  // and were let go
}

}  // namespace
}  // namespace vistrel
