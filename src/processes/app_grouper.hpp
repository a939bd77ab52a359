#pragma once

// Turns one tick's processes into the apps people know: helpers, renderers and children under the
// app that owns them, scripts under a readable label, coding-agent trees under their agent, and
// what no visible process accounts for under one system entry. Each app is scored for impact
// (0...100) and given the resource it leans on most.

#include <cstdint>
#include <mutex>
#include <optional>
#include <string>
#include <unordered_map>
#include <utility>
#include <vector>

#include "base/clock.hpp"
#include "format/platform_text.hpp"
#include "processes/app_bundles.hpp"
#include "processes/process_sampler.hpp"
#include "sampling/records.hpp"
#include "sampling/stages.hpp"

namespace vistrel {

// What grouping asks of the process sampler, so that grouping is testable without processes.
class ProcessQueries {
 public:
  virtual ~ProcessQueries() = default;
  // The process the system holds responsible for `pid` (macOS); absent when none or unknown.
  virtual std::optional<int32_t> responsiblePid(int32_t pid) = 0;
  // The argument vector; empty on any failure.
  virtual std::vector<std::string> arguments(int32_t pid) = 0;
  // Logical cores: the machine's full CPU is `cores() × 100` percent of one core.
  virtual double cores() const = 0;
};

class SamplerQueries : public ProcessQueries {
 public:
  explicit SamplerQueries(ProcessSampler& sampler) : sampler_(sampler) {}
  std::optional<int32_t> responsiblePid(int32_t pid) override {
    return sampler_.responsiblePid(pid);
  }
  std::vector<std::string> arguments(int32_t pid) override { return sampler_.arguments(pid); }
  double cores() const override { return sampler_.cores(); }

 private:
  ProcessSampler& sampler_;
};

// Which user ids belong to the system rather than to the person at the computer.
struct SystemAccounts {
  uint32_t firstUserId = 500;  // ids below it are system accounts (when `onlyUser` is unset)
  // When set (Linux), the person at the computer runs as this id: their processes are never the
  // system's, whatever the id (root on a server included), and every other user's always are, so
  // a multi-user machine never shows another person's programs as this user's apps. Unset on
  // macOS, where the rule is the account range alone.
  std::optional<uint32_t> onlyUser;
};

// This platform's rule: the first user id, plus the running user's id on Linux.
SystemAccounts platformSystemAccounts();

// Whether a process running as `uid` makes its app part of the system. `inApp`: the process
// belongs to an app path, whose own system membership then decides, except that another user's
// process is never counted as this user's.
bool isSystemProcess(uint32_t uid, bool inApp, const SystemAccounts& accounts);

// The score of one app, given the machine's logical cores and total memory in bytes.
struct AppScore {
  double impact = 0;  // 0...100
  Lean lean = Lean::cpu;
};
AppScore scoreApp(const AppUsage& app, double cores, uint64_t memoryTotal);

class AppGrouper {
 public:
  // `bundles` answers display names, identifiers and system membership of app paths; it must
  // outlive the grouper. Every call into it is made under one lock.
  //
  // `appScopes`: an app path comes from the app's scope, which everything started inside the app
  // shares (Linux: the systemd scope of a desktop app), rather than from where the executable
  // lies (macOS: the .app bundle). Then what someone starts from a shell inside an app (a tab of
  // a terminal, an editor's integrated terminal) is not the app: it stands on its own, or joins
  // the coding agent that started it, as a tool started from a terminal does on macOS.
  explicit AppGrouper(AppBundles& bundles, SystemAccounts accounts = platformSystemAccounts(),
                      bool appScopes = runningOnLinux());

  // The apps of one tick, highest impact first (a stable sort). `agentRoots`: live coding-agent
  // root pids to the agent's name (empty disables agent grouping); `hidden`: processes the sampler
  // could not read, which brings in the system entry when above 5. Runs on the sampler's queue.
  std::vector<AppUsage> group(const std::vector<ProcessSample>& samples, ProcessQueries& queries,
                              const AgentRoots& agentRoots, const CPUStat& cpu,
                              const MemoryStat& memory, int hidden);

  // The display name of an app path, read once per path. Callable from any thread.
  std::string appName(const std::string& appPath);

  // The label of an interpreter process, computed once per process life (pid and start time).
  std::string scriptLabel(const ProcessSample& sample, ProcessQueries& queries);

 private:
  struct Keyed {
    std::string key;
    std::string name;
    std::optional<std::string> bundlePath;
  };
  struct Call;

  const Keyed& keyFor(const ProcessSample& sample, int depth, Call& call);
  // The app a process counts under: its app path, unless it was started from a shell inside
  // that app (app scopes only).
  const std::optional<std::string>& appOf(const ProcessSample& sample, Call& call);
  bool startedFromShellInApp(const ProcessSample& sample, int depth, Call& call);
  Keyed computeKey(const ProcessSample& sample, int depth, Call& call);
  std::optional<std::string> identifier(const std::string& appPath);
  bool isSystemApp(const std::string& appPath);

  AppBundles& bundles_;
  SystemAccounts accounts_;
  bool appScopes_;

  // Sampler queue only.
  struct CachedLabel {
    std::optional<Date> started;
    std::string path;  // an exec keeps the pid and start time but changes the executable
    std::string label;
  };
  std::unordered_map<int32_t, CachedLabel> labelCache_;
  std::unordered_map<std::string, std::optional<std::string>> idCache_;
  std::unordered_map<std::string, bool> systemCache_;

  std::mutex nameLock_;  // guards nameCache_ and every call into bundles_
  std::unordered_map<std::string, std::string> nameCache_;
};

}  // namespace vistrel
