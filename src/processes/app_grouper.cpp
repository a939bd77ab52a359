#include "processes/app_grouper.hpp"

#include <unistd.h>

#include <algorithm>
#include <array>
#include <cctype>
#include <cmath>

#include "format/platform_text.hpp"
#include "processes/process_source.hpp"
#include "processes/script_label.hpp"

namespace vistrel {

namespace {

// A parent chain longer than this (or a cycle) stops being followed: the process then stands on
// its own.
constexpr int kMaxDepth = 12;
// The label cache is emptied when it holds more than this many pids as a new label is stored.
constexpr size_t kLabelCacheLimit = 4000;
// The system entry appears only when more processes than this were unreadable: a few unreadable
// processes leave the remainder unattributed rather than blaming it on the system.
constexpr int kHiddenThreshold = 5;

// Full scale of the capped impact components, bytes per second.
constexpr double kDiskScale = 150'000'000;
constexpr double kNetworkScale = 12'000'000;

std::string lowered(std::string_view text) {
  std::string out(text);
  std::transform(out.begin(), out.end(), out.begin(),
                 [](unsigned char c) { return static_cast<char>(std::tolower(c)); });
  return out;
}

void addMeasures(AppUsage& app, const ProcessSample& s) {
  app.cpu += s.cpu;
  app.memory += s.memory;
  app.energy += s.energy;
  app.diskRead += s.diskRead;
  app.diskWrite += s.diskWrite;
  app.netIn += s.netIn;
  app.netOut += s.netOut;
  app.gpu += s.gpu;
}

}  // namespace

SystemAccounts platformSystemAccounts() {
  SystemAccounts accounts;
  accounts.firstUserId = firstUserId();
  if (runningOnLinux()) accounts.onlyUser = static_cast<uint32_t>(::getuid());
  return accounts;
}

bool isSystemProcess(uint32_t uid, bool inApp, const SystemAccounts& accounts) {
  // On Linux the person's own processes are never the system's, even when that person is root
  // (a server watched by its administrator); everyone else's always are.
  if (accounts.onlyUser) return uid != *accounts.onlyUser;
  return !inApp && uid < accounts.firstUserId;
}

AppScore scoreApp(const AppUsage& app, double cores, uint64_t memoryTotal) {
  const double cpuScale = (std::isfinite(cores) && cores > 0 ? cores : 1.0) * 100;
  const double memTotal = memoryTotal < 2 ? 1.0 : static_cast<double>(memoryTotal);
  // Each component in the order that breaks ties in the lean: cpu, memory, gpu, disk, network.
  const std::array<double, 5> values = {
      app.cpu / cpuScale,
      static_cast<double>(app.memory) / memTotal * 0.9,
      app.gpu * 0.8,
      (app.diskRead + app.diskWrite) / kDiskScale,
      (app.netIn + app.netOut) / kNetworkScale,
  };
  const double sum = 1.4 * values[0] + 0.55 * values[1] + 0.6 * values[2] +
                     0.25 * std::min(values[3], 1.0) + 0.2 * std::min(values[4], 1.0);
  AppScore score;
  const double impact = 100 * sum;
  score.impact = std::isnan(impact) ? 0 : std::clamp(impact, 0.0, 100.0);
  size_t best = 0;
  for (size_t i = 1; i < values.size(); ++i) {
    if (values[i] > values[best]) best = i;
  }
  score.lean = static_cast<Lean>(best);
  return score;
}

// The state of one call of `group`.
struct AppGrouper::Call {
  ProcessQueries& queries;
  const AgentRoots& agentRoots;
  std::unordered_map<int32_t, const ProcessSample*> byPid;
  std::unordered_map<int32_t, Keyed> memo;      // the first answer for each pid
  std::unordered_map<int32_t, bool> fromShell;  // startedFromShellInApp, per pid
};

AppGrouper::AppGrouper(AppBundles& bundles, SystemAccounts accounts, bool appScopes)
    : bundles_(bundles), accounts_(accounts), appScopes_(appScopes) {}

const std::optional<std::string>& AppGrouper::appOf(const ProcessSample& sample, Call& call) {
  static const std::optional<std::string> kNone;
  if (!appScopes_ || !sample.appPath) return sample.appPath;
  return startedFromShellInApp(sample, 0, call) ? kNone : sample.appPath;
}

// Some ancestor inside the same app, up to the app's own processes, is a shell. The shell itself
// stays with the app (a terminal's tab is the terminal's), and so do the app's helpers.
bool AppGrouper::startedFromShellInApp(const ProcessSample& sample, int depth, Call& call) {
  if (auto it = call.fromShell.find(sample.pid); it != call.fromShell.end()) return it->second;
  bool result = false;
  if (depth < kMaxDepth && sample.ppid > 1) {
    if (auto it = call.byPid.find(sample.ppid); it != call.byPid.end()) {
      const ProcessSample& parent = *it->second;
      if (parent.appPath == sample.appPath) {
        result =
            ScriptLabel::isShell(parent.name) || startedFromShellInApp(parent, depth + 1, call);
      }
    }
  }
  call.fromShell.emplace(sample.pid, result);
  return result;
}

const AppGrouper::Keyed& AppGrouper::keyFor(const ProcessSample& sample, int depth, Call& call) {
  if (auto it = call.memo.find(sample.pid); it != call.memo.end()) return it->second;
  Keyed keyed = computeKey(sample, depth, call);
  // Node-based map: the reference stays valid while later entries are added.
  return call.memo.try_emplace(sample.pid, std::move(keyed)).first->second;
}

AppGrouper::Keyed AppGrouper::computeKey(const ProcessSample& sample, int depth, Call& call) {
  // 1. A process inside an app belongs to it.
  if (const auto& app = appOf(sample, call)) return {*app, appName(*app), app};

  // 2. A coding agent's root process heads its own group.
  if (auto agent = call.agentRoots.find(sample.pid); agent != call.agentRoots.end()) {
    return {"agent:" + agent->second, agent->second, std::nullopt};
  }

  // 3. A child joins its parent's group, unless the parent is an app's own process (what an app
  // starts outside its bundle, such as a terminal's login shell, is not the app), the parent is an
  // interactive shell (what people start from a terminal stands alone), or the child runs as
  // another user. An agent root inside an app still gathers its children.
  if (depth < kMaxDepth && sample.ppid > 1) {
    if (auto it = call.byPid.find(sample.ppid); it != call.byPid.end()) {
      const ProcessSample& parent = *it->second;
      const bool parentIsAgent = call.agentRoots.count(parent.pid) > 0;
      const bool parentInApp = appOf(parent, call).has_value();
      if ((!parentInApp || parentIsAgent) && (parentInApp || !ScriptLabel::isShell(parent.name)) &&
          sample.uid == parent.uid) {
        return keyFor(parent, depth + 1, call);
      }
    }
  }

  // 4. XPC services and web content belong to the app responsible for them. Other processes are
  // deliberately not grouped by responsibility: a terminal is "responsible" for every tool run in
  // it.
  const bool service = sample.path.find(".xpc/") != std::string::npos ||
                       sample.path.find("WebKit") != std::string::npos;
  if (service) {
    if (auto owner = call.queries.responsiblePid(sample.pid)) {
      if (auto it = call.byPid.find(*owner); it != call.byPid.end() && appOf(*it->second, call)) {
        const std::string& app = *it->second->appPath;
        return {app, appName(app), app};
      }
    }
  }

  // 5. Interpreters are named after what they run.
  if (ScriptLabel::isInterpreter(lowered(sample.name))) {
    std::string label = scriptLabel(sample, call.queries);
    return {"proc:" + label, label, std::nullopt};
  }

  // 6. Anything else under its own name.
  return {"proc:" + sample.name, sample.name, std::nullopt};
}

std::vector<AppUsage> AppGrouper::group(const std::vector<ProcessSample>& samples,
                                        ProcessQueries& queries, const AgentRoots& agentRoots,
                                        const CPUStat& cpu, const MemoryStat& memory, int hidden) {
  Call call{queries, agentRoots, {}, {}, {}};
  call.byPid.reserve(samples.size());
  for (const ProcessSample& s : samples) call.byPid.emplace(s.pid, &s);

  std::vector<AppUsage> apps;
  std::unordered_map<std::string, size_t> index;  // key to position in `apps`
  for (const ProcessSample& s : samples) {
    const Keyed& keyed = keyFor(s, 0, call);
    const bool systemProcess = isSystemProcess(s.uid, keyed.bundlePath.has_value(), accounts_);
    auto [it, isNew] = index.try_emplace(keyed.key, apps.size());
    if (isNew) {
      AppUsage app;
      app.id = keyed.key;
      app.name = keyed.name;
      app.bundlePath = keyed.bundlePath;
      if (keyed.bundlePath) app.bundleID = identifier(*keyed.bundlePath);
      app.pids = {s.pid};
      addMeasures(app, s);
      app.isSystem = systemProcess || (keyed.bundlePath && isSystemApp(*keyed.bundlePath));
      // The main process is the first one met; its executable stands for the app.
      if (!s.path.empty()) app.path = s.path;
      apps.push_back(std::move(app));
    } else {
      AppUsage& app = apps[it->second];
      app.pids.push_back(s.pid);
      addMeasures(app, s);
      if (systemProcess) app.isSystem = true;
    }
  }

  const double cores = queries.cores();
  if (hidden > kHiddenThreshold) {
    double cpuSum = 0;
    uint64_t memorySum = 0;
    for (const AppUsage& app : apps) {
      cpuSum += app.cpu;
      memorySum += app.memory;
    }
    AppUsage system;
    system.id = "system";
    system.name = platformText("macOS system services");
    system.isSystem = true;
    // What the whole machine used beyond what the visible processes account for.
    system.cpu = std::max(0.0, cores * cpu.total * 100 - cpuSum);
    const uint64_t used = memory.used();
    system.memory = memorySum >= used ? 0 : std::min(used - memorySum, memory.wired);
    if (index.try_emplace(system.id, apps.size()).second) apps.push_back(std::move(system));
  }

  for (AppUsage& app : apps) {
    const AppScore score = scoreApp(app, cores, memory.total);
    app.impact = score.impact;
    app.lean = score.lean;
  }
  std::stable_sort(apps.begin(), apps.end(),
                   [](const AppUsage& a, const AppUsage& b) { return a.impact > b.impact; });
  return apps;
}

std::string AppGrouper::appName(const std::string& appPath) {
  std::lock_guard lock(nameLock_);
  if (auto it = nameCache_.find(appPath); it != nameCache_.end()) return it->second;
  std::string name = bundles_.displayName(appPath);
  nameCache_.emplace(appPath, name);
  return name;
}

std::optional<std::string> AppGrouper::identifier(const std::string& appPath) {
  if (auto it = idCache_.find(appPath); it != idCache_.end()) return it->second;
  std::optional<std::string> id;
  {
    std::lock_guard lock(nameLock_);
    id = bundles_.identifier(appPath);
  }
  idCache_.emplace(appPath, id);
  return id;
}

bool AppGrouper::isSystemApp(const std::string& appPath) {
  if (auto it = systemCache_.find(appPath); it != systemCache_.end()) return it->second;
  bool system = false;
  {
    std::lock_guard lock(nameLock_);
    system = bundles_.isSystemApp(appPath);
  }
  systemCache_.emplace(appPath, system);
  return system;
}

std::string AppGrouper::scriptLabel(const ProcessSample& sample, ProcessQueries& queries) {
  if (auto it = labelCache_.find(sample.pid); it != labelCache_.end() &&
                                              it->second.started == sample.started &&
                                              it->second.path == sample.path) {
    return it->second.label;
  }
  std::string label = ScriptLabel::describe(sample.path, queries.arguments(sample.pid));
  // Nothing to go on (another user's process whose executable and arguments are unreadable):
  // the process's own name is the best label.
  if (label.empty()) label = sample.name;
  if (labelCache_.size() > kLabelCacheLimit) labelCache_.clear();
  labelCache_.insert_or_assign(sample.pid, CachedLabel{sample.started, sample.path, label});
  return label;
}

}  // namespace vistrel
