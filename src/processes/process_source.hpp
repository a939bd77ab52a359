#pragma once

#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <unordered_map>
#include <vector>

#include "base/clock.hpp"

namespace vistrel {

// Counters of one process, read every tick. Cumulative values only: the process sampler turns them
// into rates between ticks.
struct ProcessCounters {
  uint64_t cpuNs = 0;      // user + system CPU time over the process's life, nanoseconds
  uint64_t energyNj = 0;   // energy over the process's life, nanojoules (0 where there is none)
  uint64_t diskRead = 0;   // bytes read from storage over the process's life
  uint64_t diskWrite = 0;  // bytes written
  uint64_t memory = 0;     // footprint now, bytes
  uint64_t startKey = 0;   // the process's start time in the platform's units: a new value means
                           // the pid now names another process
  // The kernel's short name of the program the process runs (Linux: the comm field of stat). It
  // changes when the process execs another program (shims, wrapper scripts ending in exec), which
  // keeps its pid and start time: its identity must then be read again. Empty where the platform
  // does not report it per tick.
  std::string program;
  bool kernelThread = false;  // a kernel task with no program of its own (Linux): counted with the
                              // system's unattributed share, never shown as an app
};

// Who a process is. Read once per process life (per pid and startKey).
struct ProcessIdentity {
  int32_t ppid = 0;
  uint32_t uid = 0;
  std::string path;      // executable path; empty when unknown
  std::string baseName;  // the kernel's short name for it, used when there is no path
  std::optional<Date> started;
  // The app the process belongs to: the outermost .app bundle on macOS, the desktop entry of its
  // app scope on Linux; absent for command-line tools and services.
  std::optional<std::string> appPath;
};

// Network bytes a process has moved, cumulative.
struct ProcessNetBytes {
  uint64_t in = 0;
  uint64_t out = 0;
  bool operator==(const ProcessNetBytes&) const = default;
};

// One row of the process-status tool's listing: the fallback for processes the kernel will not
// describe to us.
struct PsRow {
  int32_t pid = 0;
  int32_t ppid = 0;
  uint32_t uid = 0;
  double cpu = 0;    // percent of one core, as the tool reports it
  uint64_t rss = 0;  // bytes
  std::string path;  // the command: executable path (may hold spaces)
  bool operator==(const PsRow&) const = default;
};

// What the platform must provide to the process sampler. Called only on the sampler's queue,
// except `arguments` and `workingFolder`, which hold no state and may be called from any thread.
class ProcessSource {
 public:
  virtual ~ProcessSource() = default;

  // Every pid above 0, into `out` (reusing its capacity).
  virtual void listPids(std::vector<int32_t>& out) = 0;
  // nullopt: the process cannot be read (gone, or not ours to read).
  virtual std::optional<ProcessCounters> counters(int32_t pid) = 0;
  // nullopt when the process cannot be described.
  virtual std::optional<ProcessIdentity> identity(int32_t pid) = 0;
  // The argument vector; empty on any failure.
  virtual std::vector<std::string> arguments(int32_t pid) = 0;
  // The current folder; absent when unreadable, empty or "/".
  virtual std::optional<std::string> workingFolder(int32_t pid) = 0;
  // The system's answer to "which process is responsible for pid" (raw: may be pid itself or
  // below 1); nullopt when the platform has no such notion.
  virtual std::optional<int32_t> responsibleFor(int32_t pid) = 0;
  // Accumulated GPU time per pid, nanoseconds. Empty when unknown.
  virtual std::unordered_map<int32_t, uint64_t> gpuTimes() = 0;
  // Cumulative network bytes per pid. Empty where the platform has no cheap per-process figure.
  virtual std::unordered_map<int32_t, ProcessNetBytes> networkBytes() = 0;
  // The process-status tool's listing, parsed; empty when the tool cannot run.
  virtual std::vector<PsRow> psListing() = 0;
  // Logical cores the system has online.
  virtual double cores() = 0;
  // Whether `ProcessCounters::energyNj` is measured (macOS); where it is not, energy is estimated
  // elsewhere from the package power, or unknown.
  virtual bool measuresEnergy() const { return false; }
  // The pid is gone: drop whatever the source keeps for it (open files, cached paths).
  virtual void forget(int32_t /*pid*/) {}
  // Called once per tick with that tick's listing (sorted, unique): drop whatever the source keeps
  // for every pid not in it, whether or not the sampler ever kept anything for that pid (kernel
  // threads, processes whose identity could not be read).
  virtual void retainOnly(const std::vector<int32_t>& /*livePids*/) {}
};

std::unique_ptr<ProcessSource> makeProcessSource();

// The user id below which accounts belong to the system (macOS 500, Linux 1000).
uint32_t firstUserId();

}  // namespace vistrel
