// The process layer on this machine's real processes, with children the test starts and ends.
// Bounds are loose or measured against the kernel's own figures, so other load cannot break them.

#include <fcntl.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/mman.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <optional>
#include <string>
#include <string_view>
#include <thread>

#include "base/decimal.hpp"
#include "base/files.hpp"
#include "base/subprocess.hpp"
#include "format/platform_text.hpp"
#include "processes/process_parsers.hpp"
#include "processes/process_stages.hpp"

namespace vistrel {
namespace {

using namespace std::chrono_literals;

// A forked child running `body`; killed and reaped at the end of the test.
struct ForkedChild {
  pid_t pid = -1;
  template <class F>
  explicit ForkedChild(F body) {
    pid = ::fork();
    if (pid == 0) {
      body();
      ::_exit(0);
    }
  }
  ~ForkedChild() {
    if (pid > 0) {
      ::kill(pid, SIGKILL);
      ::waitpid(pid, nullptr, 0);
    }
  }
};

// A program started with arguments in a process group of its own; the whole group (whatever it
// started) is killed and the program reaped at the end of the test.
struct Program {
  pid_t pid = -1;
  explicit Program(std::vector<std::string> argv) {
    pid = ::fork();
    if (pid == 0) {
      ::setpgid(0, 0);
      int devnull = ::open("/dev/null", O_RDWR);
      ::dup2(devnull, 0);
      ::dup2(devnull, 1);
      ::dup2(devnull, 2);
      std::vector<char*> args;
      for (auto& a : argv) args.push_back(a.data());
      args.push_back(nullptr);
      ::execvp(args[0], args.data());
      ::_exit(127);
    }
  }
  ~Program() {
    if (pid > 0) {
      ::kill(-pid, SIGKILL);
      ::waitpid(pid, nullptr, 0);
    }
  }
};

// ps's cumulative CPU time, "[[dd-]hh:]mm:ss[.cc]" ("0:01.23" on macOS); nullopt when malformed.
std::optional<double> psTimeSeconds(std::string_view text) {
  while (!text.empty() && (text.back() == '\n' || text.back() == ' ')) text.remove_suffix(1);
  while (!text.empty() && text.front() == ' ') text.remove_prefix(1);
  double days = 0;
  if (const size_t dash = text.find('-'); dash != std::string_view::npos) {
    const auto d = parseDecimal(text.substr(0, dash));
    if (!d) return std::nullopt;
    days = *d;
    text.remove_prefix(dash + 1);
  }
  double total = 0;
  for (size_t start = 0;;) {
    const size_t colon = text.find(':', start);
    const auto part =
        parseDecimal(text.substr(start, colon == std::string_view::npos ? colon : colon - start));
    if (!part) return std::nullopt;
    total = total * 60 + *part;
    if (colon == std::string_view::npos) break;
    start = colon + 1;
  }
  return days * 86400 + total;
}

// CPU seconds the kernel has charged to `pid`: from /proc where there is one, else from ps (in
// the C locale, so that the fraction is written with a point).
double cpuSeconds(pid_t pid) {
  if (auto text = readFile("/proc/" + std::to_string(pid) + "/stat")) {
    auto stat = parseProcPidStat(*text);
    if (!stat) return 0;
    return static_cast<double>(stat->utime + stat->stime) /
           static_cast<double>(sysconf(_SC_CLK_TCK));
  }
  const SubprocessResult ps = runSubprocess("/bin/ps", {"-o", "time=", "-p", std::to_string(pid)},
                                            std::nullopt, 1 << 16, {"LC_ALL=C"});
  return psTimeSeconds(ps.output).value_or(0);
}

const ProcessSample* find(const std::vector<ProcessSample>& samples, int32_t pid) {
  for (const auto& s : samples) {
    if (s.pid == pid) return &s;
  }
  return nullptr;
}

const AppUsage* appOf(const std::vector<AppUsage>& apps, int32_t pid) {
  for (const auto& a : apps) {
    if (std::find(a.pids.begin(), a.pids.end(), pid) != a.pids.end()) return &a;
  }
  return nullptr;
}

class RealProcesses : public ::testing::Test {
 protected:
  std::vector<ProcessSample> sample() { return layer->sampler.sample(false, 9.5, false); }
  std::vector<AppUsage> group(const std::vector<ProcessSample>& samples) {
    CPUStat cpu;
    MemoryStat memory;
    memory.total = 1ull << 34;
    return layer->grouper.group(samples, layer->queries, {}, cpu, memory, layer->sampler.hidden());
  }
  // Samples until `done` holds for the result, for at most ~20 s.
  template <class F>
  std::vector<ProcessSample> sampleUntil(F done) {
    std::vector<ProcessSample> samples;
    for (int i = 0; i < 40; ++i) {
      samples = sample();
      if (done(samples)) break;
      std::this_thread::sleep_for(500ms);
    }
    return samples;
  }
  std::shared_ptr<ProcessLayer> layer = makeProcessLayer();
};

TEST_F(RealProcesses, SpinningChildReadsAsOneCore) {
  ForkedChild spinner([] {
    volatile uint64_t x = 0;
    for (;;) x = x + 1;
  });
  sample();
  double before = cpuSeconds(spinner.pid);
  auto start = std::chrono::steady_clock::now();
  std::this_thread::sleep_for(1s);
  auto samples = sample();
  double kernel = (cpuSeconds(spinner.pid) - before) /
                  std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count() *
                  100;
  const ProcessSample* s = find(samples, spinner.pid);
  ASSERT_NE(s, nullptr);
  // The kernel's own account of the same second, within the clock tick's resolution.
  EXPECT_NEAR(s->cpu, kernel, 15);
  if (kernel >= 90) {
    EXPECT_GE(s->cpu, 80);
    EXPECT_LE(s->cpu, 120);
  }
}

TEST_F(RealProcesses, TouchedMemoryShows) {
  constexpr size_t kBytes = 500u << 20;
  int ready[2];
  ASSERT_EQ(::pipe(ready), 0);
  ForkedChild holder([&] {
    void* block =
        ::mmap(nullptr, kBytes, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
    std::memset(block, 0x5a, kBytes);
    (void)!::write(ready[1], "r", 1);
    for (;;) ::pause();
  });
  char c;
  ASSERT_EQ(::read(ready[0], &c, 1), 1);
  auto samples = sample();
  const ProcessSample* s = find(samples, holder.pid);
  ASSERT_NE(s, nullptr);
  EXPECT_NEAR(static_cast<double>(s->memory), static_cast<double>(kBytes), kBytes * 0.1);
  ::close(ready[0]);
  ::close(ready[1]);
}

TEST_F(RealProcesses, WritingWithFsyncShowsAsDiskWrite) {
  std::string path = std::string(VISTREL_BINARY) + ".proc-write-test";
  int go[2], done[2];
  ASSERT_EQ(::pipe(go), 0);
  ASSERT_EQ(::pipe(done), 0);
  ForkedChild writer([&] {
    char c;
    if (::read(go[0], &c, 1) != 1) ::_exit(1);
    int fd = ::open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0600);
    std::string chunk(1 << 20, 'v');
    for (int i = 0; i < 50; ++i) (void)!::write(fd, chunk.data(), chunk.size());
    ::fsync(fd);
    ::close(fd);
    (void)!::write(done[1], "d", 1);
    for (;;) ::pause();
  });
  sample();
  auto start = std::chrono::steady_clock::now();
  ASSERT_EQ(::write(go[1], "g", 1), 1);
  char c;
  ASSERT_EQ(::read(done[0], &c, 1), 1);
  auto samples = sample();
  double seconds = std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
  ::unlink(path.c_str());
  const ProcessSample* s = find(samples, writer.pid);
  ASSERT_NE(s, nullptr);
  EXPECT_GE(s->diskWrite * seconds, 40e6);  // 50 MB reached storage inside the interval
  for (int fd : {go[0], go[1], done[0], done[1]}) ::close(fd);
}

TEST_F(RealProcesses, ScriptLabelsAndParentRules) {
  char tmpl[] = "/tmp/vistrel-scripts-XXXXXX";
  std::string dir = ::mkdtemp(tmpl);
  std::string spawner = dir + "/spawner.py";
  std::ofstream(spawner) << "import subprocess, time\n"
                            "subprocess.Popen(['sleep', '60'])\n"
                            "time.sleep(60)\n";
  // Started from a shell, as people start them: each stands on its own.
  Program shell({"bash", "-c",
                 "python3 -m http.server 0 --bind 127.0.0.1 & python3 " + spawner +
                     " & bash -c 'sleep 61; true' & wait"});

  int32_t server = 0, script = 0, innerShell = 0;
  auto samples = sampleUntil([&](const std::vector<ProcessSample>& s) {
    server = script = innerShell = 0;
    for (const auto& p : s) {
      if (p.ppid != shell.pid) continue;
      auto args = layer->sampler.arguments(p.pid);
      if (p.name == "bash") innerShell = p.pid;
      if (args.size() > 2 && args[1] == "-m") server = p.pid;
      if (args.size() > 1 && args[1] == spawner) script = p.pid;
    }
    int sleeps = 0;
    for (const auto& p : s) {
      if (p.name == "sleep" &&
          ((script && p.ppid == script) || (innerShell && p.ppid == innerShell)))
        ++sleeps;
    }
    return server && sleeps == 2;
  });
  ASSERT_TRUE(server && script && innerShell);
  auto apps = group(samples);
  const AppUsage* serverApp = appOf(apps, server);
  ASSERT_NE(serverApp, nullptr);
  EXPECT_EQ(serverApp->name, "python3 http.server");
  const AppUsage* scriptApp = appOf(apps, script);
  ASSERT_NE(scriptApp, nullptr);
  EXPECT_EQ(scriptApp->name, "spawner");
  const AppUsage* shellApp = appOf(apps, innerShell);
  ASSERT_NE(shellApp, nullptr);
  int checked = 0;
  for (const auto& p : samples) {
    if (p.name != "sleep") continue;
    if (p.ppid == script) {
      EXPECT_EQ(appOf(apps, p.pid), scriptApp) << "a script's child joins it";
      ++checked;
    }
    if (p.ppid == innerShell) {
      EXPECT_NE(appOf(apps, p.pid), shellApp) << "a shell's child stands on its own";
      ++checked;
    }
  }
  EXPECT_EQ(checked, 2);
  std::system(("rm -rf '" + dir + "'").c_str());
}

TEST_F(RealProcesses, KernelThreadsAndOtherUsersAreTheSystems) {
  if (!runningOnLinux()) {
    GTEST_SKIP() << "kernel threads are Linux's; on macOS ps describes the processes libproc "
                    "cannot, so few are hidden";
  }
  std::unique_ptr<ForkedChild> stranger;
  if (::getuid() == 0) {
    stranger = std::make_unique<ForkedChild>([] {
      if (::setgid(65534) != 0 || ::setuid(65534) != 0) ::_exit(1);
      char sleepPath[] = "/bin/sleep", seconds[] = "60";
      char* argv[] = {sleepPath, seconds, nullptr};
      ::execv(sleepPath, argv);
      ::_exit(127);
    });
  }
  std::this_thread::sleep_for(300ms);
  auto samples = sample();
  auto apps = group(samples);
  // Kernel threads (kthreadd and its children) are never listed as processes or apps.
  EXPECT_EQ(find(samples, 2), nullptr);
  EXPECT_EQ(appOf(apps, 2), nullptr);
  for (const auto& p : samples) EXPECT_NE(p.ppid, 2) << p.name;
  // They are counted with the system's unattributed share.
  EXPECT_GT(layer->sampler.hidden(), 5);
  bool systemEntry = false;
  for (const auto& a : apps) systemEntry = systemEntry || (a.id == "system" && a.isSystem);
  EXPECT_TRUE(systemEntry);
  if (stranger) {
    const AppUsage* app = appOf(apps, stranger->pid);
    ASSERT_NE(app, nullptr);
    EXPECT_TRUE(app->isSystem);
    // Not merged under the test's own process, whose child it is.
    EXPECT_NE(app, appOf(apps, ::getpid()));
  }
}

}  // namespace
}  // namespace vistrel
