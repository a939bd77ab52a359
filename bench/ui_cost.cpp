// What the application costs with its window: whole-process figures of the real executable on
// Qt's offscreen platform, from its own /proc entries.
//
//   ui_overview_cpu   CPU over 60 s with the window open on the overview, 2 s interval
//   ui_day_range_cpu  CPU over 60 s on a metric page showing the day range of its history
//   ui_closed_cpu     CPU over 60 s with the window closed (started as a login launch starts):
//                     the menu-bar items alone, redrawn on each sample at the 5 s background
//                     interval (offscreen there is no tray; the items are drawn all the same)
//   ui_panel_cpu      CPU over 60 s with the menu-bar panel open and the window closed
//   ui_apps_cpu       CPU over 60 s with the apps page open, 2 s interval, about 450 processes
//                     on the machine (idle children fill the process table up to that)
//   ui_tour_rss       resident memory after every page has been shown once
//   ui_launch         launch to the first painted window, median of 5 starts
//
// CPU is in percent of one core and includes any child processes the application waited for.
// The application runs with its own home folder, whose history holds eight days of minute rows
// (30 apps a minute), so that the day range reads a realistic table. Linux only (/proc).

#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <spawn.h>
#include <stdlib.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cmath>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include "base/main_queue.hpp"
#include "children.hpp"
#include "history/history_store.hpp"
#include "machine.hpp"

namespace {

namespace fs = std::filesystem;
using Timer = std::chrono::steady_clock;

constexpr int kSettleSeconds = 8;    // start-up, first samples and first history reads
constexpr int kMeasureSeconds = 60;  // each CPU window
constexpr int kLaunchRuns = 5;

struct Child {
  pid_t pid = -1;
  int err = -1;  // its standard error
};

Child spawn(const std::string& home, const std::string& show, bool debug) {
  std::vector<std::string> env = {"HOME=" + home, "PATH=/usr/bin:/bin", "QT_QPA_PLATFORM=offscreen",
                                  "VISTREL_SHOW=" + show};
  if (debug) env.push_back("VISTREL_DEBUG=1");
  std::vector<char*> envp;
  for (auto& e : env) envp.push_back(e.data());
  envp.push_back(nullptr);
  std::string binary = VISTREL_BINARY;
  char* argv[] = {binary.data(), nullptr};
  int err[2];
  if (::pipe(err) != 0) return {};
  posix_spawn_file_actions_t actions;
  posix_spawn_file_actions_init(&actions);
  posix_spawn_file_actions_adddup2(&actions, err[1], 2);
  posix_spawn_file_actions_addclose(&actions, err[0]);
  posix_spawn_file_actions_addopen(&actions, 1, "/dev/null", O_WRONLY, 0);
  Child child;
  if (::posix_spawn(&child.pid, argv[0], &actions, nullptr, argv, envp.data()) != 0) child.pid = -1;
  posix_spawn_file_actions_destroy(&actions);
  ::close(err[1]);
  child.err = err[0];
  return child;
}

void stop(Child& c) {
  if (c.pid <= 0) return;
  ::kill(c.pid, SIGTERM);
  int status = 0;
  ::waitpid(c.pid, &status, 0);
  ::close(c.err);
  c.pid = -1;
}

// Reads standard error until `text` appears; false after `seconds`.
bool waitForLine(Child& c, const std::string& text, double seconds, std::string& seen) {
  auto deadline = Timer::now() + std::chrono::duration<double>(seconds);
  char buffer[4096];
  while (seen.find(text) == std::string::npos) {
    auto left = std::chrono::duration_cast<std::chrono::milliseconds>(deadline - Timer::now());
    if (left.count() <= 0) return false;
    pollfd p{c.err, POLLIN, 0};
    if (::poll(&p, 1, static_cast<int>(left.count())) <= 0) continue;
    ssize_t n = ::read(c.err, buffer, sizeof buffer);
    if (n <= 0) return false;
    seen.append(buffer, static_cast<size_t>(n));
  }
  return true;
}

// CPU seconds of the process and the children it waited for.
double cpuSeconds(pid_t pid) {
  std::ifstream file("/proc/" + std::to_string(pid) + "/stat");
  std::string text((std::istreambuf_iterator<char>(file)), {});
  size_t close = text.rfind(')');
  if (close == std::string::npos) return -1;
  std::istringstream rest(text.substr(close + 2));
  std::string field;
  std::vector<std::string> fields;
  while (rest >> field) fields.push_back(field);
  // After the name: state is field 3 of the file, utime 14, stime 15, cutime 16, cstime 17.
  if (fields.size() < 15) return -1;
  double ticks =
      std::stod(fields[11]) + std::stod(fields[12]) + std::stod(fields[13]) + std::stod(fields[14]);
  return ticks / static_cast<double>(::sysconf(_SC_CLK_TCK));
}

double residentMB(pid_t pid) {
  std::ifstream file("/proc/" + std::to_string(pid) + "/status");
  for (std::string line; std::getline(file, line);) {
    if (line.rfind("VmRSS:", 0) == 0) return std::stod(line.substr(6)) / 1024.0;
  }
  return -1;
}

// Percent of one core the application uses over the measuring window, after it has settled.
double cpuPercent(const std::string& home, const std::string& show) {
  Child c = spawn(home, show, false);
  if (c.pid <= 0) return -1;
  std::this_thread::sleep_for(std::chrono::seconds(kSettleSeconds));
  double before = cpuSeconds(c.pid);
  auto start = Timer::now();
  std::this_thread::sleep_for(std::chrono::seconds(kMeasureSeconds));
  double after = cpuSeconds(c.pid);
  double wall = std::chrono::duration<double>(Timer::now() - start).count();
  stop(c);
  if (before < 0 || after < 0) return -1;
  return (after - before) / wall * 100;
}

// Processes on the machine while the apps page is measured: a busy developer's Mac.
constexpr size_t kAppsProcesses = 450;

// Eight days of minute rows for the machine and 30 apps, as a week of use leaves them.
void fillHistory(const std::string& support) {
  vistrel::ManualMainQueue main;
  vistrel::HistoryStore store(support, main);
  const int64_t now = std::chrono::duration_cast<std::chrono::seconds>(
                          std::chrono::system_clock::now().time_since_epoch())
                          .count();
  const int64_t first = (now - 8 * 86400) / 60 * 60;
  store.withDatabase([&](vistrel::Database* db) {
    if (!db) return;
    db->exec("BEGIN");
    auto sys =
        db->prepare("INSERT OR REPLACE INTO sys_min VALUES(?,?,?,?,?,?,?,?,?,?,?,?,?,?,?,?,?,?,?)");
    auto app = db->prepare(
        "INSERT OR REPLACE INTO app_min(t, app, name, cpu, mem, energy, disk, net, gpu, disk_w) "
        "VALUES(?,?,?,?,?,?,?,?,?,?)");
    for (int64_t t = first; t < now / 60 * 60; t += 60) {
      double wave = 0.5 + 0.4 * std::sin(static_cast<double>(t) / 3600.0);
      sys.reset();
      sys.bindAll(t, 30 * wave, 60 * wave, 8e9 * wave, 9e9 * wave, 10 * wave, 20 * wave, 1e6 * wave,
                  5e6 * wave, 2e5 * wave, 9e5 * wave, 80.0, 80.0, 50 * wave, 60 * wave, 5e5 * wave,
                  1e5 * wave, 5e4 * wave, 12 * wave);
      sys.run();
      for (int a = 0; a < 30; ++a) {
        std::string id = "app" + std::to_string(a);
        app.reset();
        app.bindAll(t, id, "App " + std::to_string(a), wave * 30 / (a + 1), 1e8 * (30 - a), wave,
                    1e4 * a, 1e3 * a, 0.01 * wave, 5e3 * a);
        app.run();
      }
    }
    db->exec("COMMIT");
  });
}

}  // namespace

int main() {
  std::printf("machine: %s\n", vistrel::bench::describeMachine().c_str());
  if (!fs::exists("/proc/self/stat")) {
    std::printf("ui_cost: skipped, needs /proc\n");
    return 0;
  }
  char tmpl[] = "/tmp/vistrel-ui-cost-XXXXXX";
  const std::string home = ::mkdtemp(tmpl);
  fs::create_directories(home + "/.config/vistrel");
  std::ofstream(home + "/.config/vistrel/defaults.json") << R"({"welcomed": true, "interval": 2})";
  fillHistory(home + "/.local/share/Vistrel");

  // Launch to the first painted window.
  std::vector<double> launches;
  for (int i = 0; i < kLaunchRuns; ++i) {
    auto start = Timer::now();
    Child c = spawn(home, "overview", true);
    std::string seen;
    bool painted = c.pid > 0 && waitForLine(c, "window painted", 20, seen);
    double ms = std::chrono::duration<double, std::milli>(Timer::now() - start).count();
    stop(c);
    if (!painted) {
      std::fprintf(stderr, "ui_cost: the window never said it was painted:\n%s\n", seen.c_str());
      fs::remove_all(home);
      return 1;
    }
    launches.push_back(ms);
  }
  std::sort(launches.begin(), launches.end());
  std::printf("ui_launch: %.0f ms (median of %d; min %.0f, max %.0f)\n",
              launches[launches.size() / 2], kLaunchRuns, launches.front(), launches.back());

  // Memory after a visit to every page.
  {
    Child c = spawn(home, "tour", false);
    std::this_thread::sleep_for(std::chrono::seconds(kSettleSeconds + 2));
    std::printf("ui_tour_rss: %.1f MB\n", residentMB(c.pid));
    stop(c);
  }

  std::fflush(stdout);
  std::printf("ui_overview_cpu: %.2f %% of one core\n", cpuPercent(home, "overview"));
  std::fflush(stdout);
  std::printf("ui_day_range_cpu: %.2f %% of one core\n", cpuPercent(home, "cpu:day"));
  std::fflush(stdout);
  std::printf("ui_closed_cpu: %.2f %% of one core\n", cpuPercent(home, "hidden"));
  std::fflush(stdout);
  std::printf("ui_panel_cpu: %.2f %% of one core\n", cpuPercent(home, "panel"));
  std::fflush(stdout);
  {
    vistrel::bench::IdleChildren children;
    children.fillTo(kAppsProcesses);
    size_t processes = vistrel::bench::countProcesses();
    double apps = cpuPercent(home, "apps");
    std::printf("ui_apps_cpu: %.2f %% of one core (%zu processes)\n", apps, processes);
  }
  fs::remove_all(home);
  return 0;
}
