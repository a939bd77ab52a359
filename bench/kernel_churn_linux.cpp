#include <stdlib.h>

#include <algorithm>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <string>

#include "base/clock.hpp"
#include "base/files.hpp"
#include "children.hpp"
#include "kernel_churn.hpp"
#include "machine.hpp"
#include "processes/linux/linux_process_source.hpp"
#include "processes/process_sampler.hpp"

namespace vistrel::bench {

namespace {

namespace fs = std::filesystem;

constexpr int kWorkers = 40;     // kernel workers alive at any time
constexpr int kUnreadable = 10;  // processes with a stat but no status
constexpr int kWarmup = 200;

void write(const fs::path& file, const std::string& text) {
  std::ofstream(file) << text;
}

// A /proc/<pid> folder: a kernel worker (the kernel-thread flag set), or a process whose status
// cannot be read.
void create(const fs::path& proc, int pid, bool kernel) {
  fs::path dir = proc / std::to_string(pid);
  fs::create_directories(dir);
  const char* flags = kernel ? "69238880" : "4194304";
  write(dir / "stat", std::to_string(pid) + (kernel ? " (kworker/u8:1) I 2 " : " (gone) S 1 ") +
                          "0 0 0 -1 " + flags + " 0 0 0 0 3 4 0 0 20 0 1 0 " +
                          std::to_string(1000 + pid) + " 0 0\n");
  if (!kernel) write(dir / "statm", "100 50 10 1 0 40 0\n");
}

size_t openDescriptors() {
  return listFolder("/proc/self/fd").size();
}

}  // namespace

ChurnFigures soakKernelChurn(int ticks) {
  char name[] = "/tmp/vistrel-churn-XXXXXX";
  if (!::mkdtemp(name)) return {};
  const fs::path root = name;
  const fs::path proc = root / "proc";
  fs::create_directories(proc);
  write(proc / "stat", "cpu 1 1 1 1\nbtime 1700000000\n");
  int next = 100;
  std::vector<std::pair<int, bool>> alive;  // oldest first
  for (int i = 0; i < kWorkers + kUnreadable; ++i) {
    bool kernel = i < kWorkers;
    create(proc, next, kernel);
    alive.push_back({next++, kernel});
  }

  ManualClock clock{1000};
  ProcessSampler sampler(makeLinuxProcessSource(root.string(), {}, clock, {}), clock);
  ChurnFigures out;
  out.ran = true;
  for (int i = 0; i < ticks; ++i) {
    // One of each kind ends and another starts between ticks.
    for (bool kernel : {true, false}) {
      auto oldest = std::find_if(alive.begin(), alive.end(),
                                 [&](const auto& entry) { return entry.second == kernel; });
      fs::remove_all(proc / std::to_string(oldest->first));
      alive.erase(oldest);
      create(proc, next, kernel);
      alive.push_back({next++, kernel});
    }
    clock.advance(2);
    sampler.sample(i % 3 == 0, 9.5, i % 3 == 0);
    size_t fds = openDescriptors();
    if (i >= kWarmup) out.descriptorsMax = std::max(out.descriptorsMax, fds);
    if (i == kWarmup) {
      out.descriptorsAfterWarmup = fds;
      out.rssAfterWarmup = residentBytes();
    }
  }
  out.descriptorsAtEnd = openDescriptors();
  out.rssAtEnd = residentBytes();
  out.hiddenAtEnd = sampler.hidden();
  std::error_code ignored;
  fs::remove_all(root, ignored);
  return out;
}

}  // namespace vistrel::bench
