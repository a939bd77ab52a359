#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <unordered_map>
#include <unordered_set>
#include <vector>

#include "base/clock.hpp"
#include "processes/process_source.hpp"
#include "sampling/records.hpp"

namespace vistrel {

// Turns the running processes into one list of ProcessSample per tick. Rates need two readings, so
// it keeps per-pid memories between ticks, validated by each process's start time; identity (names,
// paths, app) is read once per process life. Processes the kernel will not describe come from the
// process-status tool instead, at most once per `psEvery` seconds. Used only on the sampler's queue
// (except `arguments` and `workingFolder`).
class ProcessSampler {
 public:
  // `random` returns a uniform integer in [0, 30) for the pruning draw; injectable for tests.
  ProcessSampler(std::unique_ptr<ProcessSource> source, const Clock& clock,
                 std::function<int()> random = {});

  std::vector<ProcessSample> sample(bool network, double psEvery, bool gpu);

  // Processes at the last tick that could be read by no means.
  int hidden() const { return hidden_; }

  // The process the system holds responsible for `pid`; absent when none, itself, or unknown.
  // Read once per pid.
  std::optional<int32_t> responsiblePid(int32_t pid);
  std::vector<std::string> arguments(int32_t pid) const { return source_->arguments(pid); }
  std::optional<std::string> workingFolder(int32_t pid) const {
    return source_->workingFolder(pid);
  }
  double cores() const { return cores_; }
  bool measuresEnergy() const { return source_->measuresEnergy(); }

  // Sizes of the per-pid memories, for the soak benchmark and tests.
  struct MemorySizes {
    size_t last, info, gpuLast, netLast, netRate, gpuShare, responsible;
  };
  MemorySizes memorySizes() const;

 private:
  struct Last {
    uint64_t cpuNs, energyNj, read, write;
    double time;
  };
  struct Info {
    ProcessIdentity identity;
    std::string name;
    uint64_t startKey;
    std::string program;  // ProcessCounters::program when the identity was read
  };
  struct TimedNs {
    uint64_t ns;
    double time;
  };
  struct TimedNet {
    ProcessNetBytes bytes;
    double time;
  };

  const Info* infoFor(int32_t pid, const ProcessCounters& counters);
  double gpuShareFor(int32_t pid, const std::unordered_map<int32_t, uint64_t>& gpuTimes,
                     double now);
  void prune(const std::vector<int32_t>& pids);

  std::unique_ptr<ProcessSource> source_;
  const Clock& clock_;
  std::function<int()> random_;
  double cores_;
  int hidden_ = 0;

  std::unordered_map<int32_t, Last> last_;
  std::unordered_map<int32_t, Info> info_;
  std::unordered_map<int32_t, TimedNs> gpuLast_;
  std::unordered_map<int32_t, TimedNet> netLast_;
  std::unordered_map<int32_t, std::pair<double, double>> netRate_;
  std::unordered_map<int32_t, double> gpuShare_;
  std::unordered_map<int32_t, int32_t> responsibleCache_;
  std::unordered_map<int32_t, PsRow> psCache_;
  double psAt_ = -1000;  // uptime seconds of the last ps run; far past so the first need runs it

  // Reused between ticks so that a tick allocates only its result.
  std::vector<int32_t> pids_;
  std::vector<int32_t> unreadable_;
};

}  // namespace vistrel
