#include "processes/app_grouper.hpp"

#include <gtest/gtest.h>

#include <cmath>
#include <map>
#include <set>
#include <string>
#include <vector>

#include "base/files.hpp"
#include "format/platform_text.hpp"

namespace vistrel {
namespace {

constexpr SystemAccounts kMacAccounts{500, std::nullopt};
constexpr SystemAccounts kLinuxAccounts{1000, 1000};

struct FakeQueries : ProcessQueries {
  std::map<int32_t, int32_t> responsible;
  std::map<int32_t, std::vector<std::string>> args;
  double coreCount = 8;
  int argumentCalls = 0;
  std::optional<int32_t> responsiblePid(int32_t pid) override {
    auto it = responsible.find(pid);
    if (it == responsible.end()) return std::nullopt;
    return it->second;
  }
  std::vector<std::string> arguments(int32_t pid) override {
    ++argumentCalls;
    auto it = args.find(pid);
    return it == args.end() ? std::vector<std::string>{} : it->second;
  }
  double cores() const override { return coreCount; }
};

struct FakeBundles : AppBundles {
  std::set<std::string> system;
  int nameCalls = 0;
  int idCalls = 0;
  std::string displayName(const std::string& path) override {
    ++nameCalls;
    return "Name of " + std::string(lastComponent(path));
  }
  std::optional<std::string> identifier(const std::string& path) override {
    ++idCalls;
    return "id." + std::string(lastComponent(path));
  }
  bool isSystemApp(const std::string& path) override { return system.count(path) > 0; }
};

ProcessSample proc(int32_t pid, int32_t ppid, std::string name, uint32_t uid = 501,
                   std::string path = "", std::optional<std::string> app = std::nullopt) {
  ProcessSample s;
  s.pid = pid;
  s.ppid = ppid;
  s.name = std::move(name);
  s.uid = uid;
  s.path = path.empty() ? "/usr/bin/" + s.name : std::move(path);
  s.appPath = std::move(app);
  return s;
}

const std::string kSafari = "/Applications/Safari.app";
const std::string kTerminal = "/Applications/Utilities/Terminal.app";

struct KeyCase {
  const char* what;
  std::vector<ProcessSample> samples;
  AgentRoots agents;
  std::map<int32_t, int32_t> responsible;
  std::map<std::string, std::vector<int32_t>> expected;  // app id to its pids in order
};

std::map<std::string, std::vector<int32_t>> groupIds(const std::vector<AppUsage>& apps) {
  std::map<std::string, std::vector<int32_t>> out;
  for (const auto& app : apps) out[app.id] = app.pids;
  return out;
}

TEST(AppGrouperTest, KeyRules) {
  const std::string webkit = "/System/Library/Frameworks/WebKit.framework/XPCServices/WebContent";
  const std::string xpc = "/Applications/Safari.app.bak/x.xpc/Contents/MacOS/x";
  std::vector<ProcessSample> chain;  // leaf first, so that the walk starts at the deep end
  for (int i = 14; i >= 0; --i) {
    chain.push_back(proc(100 + i, i == 0 ? 1 : 99 + i, "t" + std::to_string(i)));
  }
  const std::vector<KeyCase> cases = {
      {"an app's helpers join it, main process first",
       {proc(10, 1, "Safari", 501, "", kSafari), proc(11, 10, "Helper", 501, "", kSafari)},
       {},
       {},
       {{kSafari, {10, 11}}}},
      {"web content joins the responsible browser; a plain tool does not",
       {proc(10, 1, "Safari", 501, "", kSafari), proc(20, 1, "WebContent", 501, webkit),
        proc(21, 1, "curl"), proc(22, 1, "helper", 501, xpc)},
       {},
       {{20, 10}, {21, 10}, {22, 10}},
       {{kSafari, {10, 20, 22}}, {"proc:curl", {21}}}},
      {"web content whose responsible process has no app stands alone",
       {proc(30, 1, "node"), proc(20, 1, "WebContent", 501, webkit)},
       {},
       {{20, 30}},
       {{"proc:node", {30}}, {"proc:WebContent", {20}}}},
      {"a shell's child stands alone; a tool's child joins it; another user's does not",
       {proc(10, 1, "zsh"), proc(11, 10, "vim"), proc(20, 1, "make"), proc(21, 20, "cc"),
        proc(22, 20, "sudo", 0), proc(40, 1, "dash"), proc(41, 40, "cc")},
       {},
       {},
       {{"proc:zsh", {10}},
        {"proc:vim", {11}},
        {"proc:make", {20, 21}},
        {"proc:sudo", {22}},
        {"proc:dash", {40}},
        {"proc:cc", {41}}}},
      {"an app's own children stand alone",
       {proc(10, 1, "Terminal", 501, "", kTerminal), proc(11, 10, "login"), proc(12, 11, "zsh")},
       {},
       {},
       {{kTerminal, {10}}, {"proc:login", {11}}, {"proc:zsh", {12}}}},
      {"an agent root gathers its tree, even when started from a shell",
       {proc(10, 1, "zsh"), proc(30, 10, "node"), proc(31, 30, "git"), proc(32, 31, "ssh"),
        proc(33, 30, "zsh"), proc(34, 33, "rg")},
       {{30, "Claude Code"}},
       {},
       {{"proc:zsh", {10}}, {"agent:Claude Code", {30, 31, 32, 33}}, {"proc:rg", {34}}}},
      {"an agent root inside an app keeps the app; its children join it",
       {proc(40, 1, "Cursor", 501, "", "/Applications/Cursor.app"), proc(41, 40, "git")},
       {{40, "Cursor Agent"}},
       {},
       {{"/Applications/Cursor.app", {40, 41}}}},
      {"launchd's children and orphans stand alone",
       {proc(1, 0, "launchd", 0), proc(50, 1, "cron"), proc(51, 999, "lost")},
       {},
       {},
       {{"proc:launchd", {1}}, {"proc:cron", {50}}, {"proc:lost", {51}}}},
      {"scripts under their label; a script's child joins it",
       {proc(10, 1, "zsh"), proc(60, 10, "python3"), proc(61, 60, "python3"), proc(62, 60, "ls")},
       {},
       {},
       {{"proc:zsh", {10}}, {"proc:python3 http.server", {60, 61, 62}}}},
      {"a cyclic parent chain ends at the depth bound",
       {proc(70, 71, "a"), proc(71, 70, "b"), proc(72, 72, "self")},
       {},
       {},
       {{"proc:a", {70, 71}}, {"proc:self", {72}}}},
      {"a long chain is followed twelve steps",
       chain,
       {},
       {},
       {{"proc:t2", {114, 113, 112, 111, 110, 109, 108, 107, 106, 105, 104, 103, 102}},
        {"proc:t0", {101, 100}}}},
  };
  for (const auto& c : cases) {
    FakeBundles bundles;
    FakeQueries queries;
    queries.responsible = c.responsible;
    queries.args[60] = {"python3", "-m", "http.server", "8000"};
    AppGrouper grouper(bundles, kMacAccounts);
    auto apps = grouper.group(c.samples, queries, c.agents, {}, {}, 0);
    EXPECT_EQ(groupIds(apps), c.expected) << c.what;
  }
}

TEST(AppGrouperTest, AggregatesNamesAndIdentifiers) {
  FakeBundles bundles;
  FakeQueries queries;
  AppGrouper grouper(bundles, kMacAccounts);
  auto main = proc(10, 1, "Safari", 501, kSafari + "/Contents/MacOS/Safari", kSafari);
  main.cpu = 10, main.memory = 1000, main.energy = 1, main.diskRead = 5, main.diskWrite = 6;
  main.netIn = 7, main.netOut = 8, main.gpu = 0.25;
  auto helper = proc(11, 10, "Helper", 501, "/h", kSafari);
  helper.cpu = 2.5, helper.memory = 24, helper.energy = 0.5, helper.diskRead = 1;
  helper.diskWrite = 2, helper.netIn = 3, helper.netOut = 4, helper.gpu = 0.5;
  auto tool = proc(20, 1, "ls", 501, "");
  tool.path.clear();

  for (int round = 0; round < 2; ++round) {
    auto apps = grouper.group({main, helper, tool}, queries, {}, {}, {}, 0);
    ASSERT_EQ(apps.size(), 2u);
    const AppUsage& app = apps[0];
    EXPECT_EQ(app.name, "Name of Safari.app");
    EXPECT_EQ(app.bundlePath, kSafari);
    EXPECT_EQ(app.bundleID, "id.Safari.app");
    EXPECT_EQ(app.path, main.path);
    EXPECT_EQ(app.pids, (std::vector<int32_t>{10, 11}));
    EXPECT_DOUBLE_EQ(app.cpu, 12.5);
    EXPECT_EQ(app.memory, 1024u);
    EXPECT_DOUBLE_EQ(app.energy, 1.5);
    EXPECT_DOUBLE_EQ(app.diskRead + app.diskWrite, 14);
    EXPECT_DOUBLE_EQ(app.netIn + app.netOut, 22);
    EXPECT_DOUBLE_EQ(app.gpu, 0.75);
    EXPECT_EQ(apps[1].bundleID, std::nullopt);
    EXPECT_EQ(apps[1].path, std::nullopt);
  }
  EXPECT_EQ(bundles.nameCalls, 1);  // once per path for the program's life
  EXPECT_EQ(bundles.idCalls, 1);
  EXPECT_EQ(grouper.appName(kSafari), "Name of Safari.app");
  EXPECT_EQ(bundles.nameCalls, 1);
}

TEST(AppGrouperTest, SystemMembership) {
  struct Case {
    const char* what;
    SystemAccounts accounts;
    std::vector<ProcessSample> samples;
    std::map<std::string, bool> expected;
  };
  const std::string systemApp = "/System/Library/CoreServices/Finder.app";
  const std::vector<Case> cases = {
      {"macOS: the account range decides tools",
       kMacAccounts,
       {proc(1, 0, "launchd", 0), proc(2, 1, "mds", 499), proc(3, 1, "vim", 500),
        proc(4, 1, "vim", 501)},
       {{"proc:launchd", true}, {"proc:mds", true}, {"proc:vim", false}}},
      {"any system process makes a tool system, in either order",
       kMacAccounts,
       {proc(5, 1, "cupsd", 501), proc(6, 1, "cupsd", 0), proc(7, 1, "git", 0),
        proc(8, 1, "git", 501)},
       {{"proc:cupsd", true}, {"proc:git", true}}},
      {"macOS: a bundle decides by itself, not by its processes' accounts",
       kMacAccounts,
       {proc(10, 1, "Finder", 501, "", systemApp), proc(11, 1, "Safari", 0, "", kSafari)},
       {{systemApp, true}, {kSafari, false}}},
      {"Linux: another user's processes are the system's, app or not",
       kLinuxAccounts,
       {proc(20, 1, "vim", 1000), proc(21, 1, "htop", 1001), proc(22, 1, "sshd", 999),
        proc(23, 1, "Safari", 1001, "", kSafari), proc(24, 1, "Terminal", 1000, "", kTerminal),
        proc(25, 1, "Finder", 1000, "", systemApp)},
       {{"proc:vim", false},
        {"proc:htop", true},
        {"proc:sshd", true},
        {kSafari, true},
        {kTerminal, false},
        {systemApp, true}}},
      {"Linux run by root: root's own programs are the person's, everyone else's the system's",
       SystemAccounts{1000, 0},
       {proc(30, 1, "spin", 0), proc(31, 1, "postgres", 999), proc(32, 1, "vim", 1000)},
       {{"proc:spin", false}, {"proc:postgres", true}, {"proc:vim", true}}},
  };
  for (const auto& c : cases) {
    FakeBundles bundles;
    bundles.system = {systemApp};
    FakeQueries queries;
    AppGrouper grouper(bundles, c.accounts);
    std::map<std::string, bool> got;
    for (const auto& app : grouper.group(c.samples, queries, {}, {}, {}, 0)) {
      got[app.id] = app.isSystem;
    }
    EXPECT_EQ(got, c.expected) << c.what;
  }
}

TEST(AppGrouperTest, SystemServicesEntry) {
  struct Case {
    const char* what;
    int hidden;
    double cpuTotal;     // busy fraction of the machine
    double appCpu;       // percent of one core, in the one visible process
    uint64_t appMemory;  // bytes
    std::optional<double> systemCpu;
    uint64_t systemMemory;
  };
  // 8 cores; memory used = 4000 + 1000 wired + 500 compressed = 5500.
  const std::vector<Case> cases = {
      {"five unreadable: no entry", 5, 0.5, 100, 100, std::nullopt, 0},
      {"six: the remainder", 6, 0.5, 100, 5000, 300, 500},
      {"memory remainder capped at wired", 6, 0.5, 100, 100, 300, 1000},
      {"apps above the machine: never negative", 40, 0.1, 900, 5500, 0, 0},
      {"apps' memory above used", 6, 0.5, 0, 9000, 400, 0},
  };
  for (const auto& c : cases) {
    FakeBundles bundles;
    FakeQueries queries;
    AppGrouper grouper(bundles, kMacAccounts);
    auto tool = proc(10, 1, "tool");
    tool.cpu = c.appCpu;
    tool.memory = c.appMemory;
    CPUStat cpu;
    cpu.total = c.cpuTotal;
    MemoryStat memory;
    memory.total = 16000, memory.app = 4000, memory.wired = 1000, memory.compressed = 500;
    auto apps = grouper.group({tool}, queries, {}, cpu, memory, c.hidden);
    const AppUsage* system = nullptr;
    for (const auto& app : apps) {
      if (app.id == "system") system = &app;
    }
    ASSERT_EQ(system != nullptr, c.systemCpu.has_value()) << c.what;
    if (!system) continue;
    EXPECT_EQ(system->name, runningOnLinux() ? "Linux system services" : "macOS system services");
    EXPECT_TRUE(system->isSystem);
    EXPECT_TRUE(system->pids.empty());
    EXPECT_EQ(system->bundlePath, std::nullopt);
    EXPECT_NEAR(system->cpu, *c.systemCpu, 1e-9) << c.what;
    EXPECT_EQ(system->memory, c.systemMemory) << c.what;
  }
}

TEST(AppGrouperTest, ImpactAndLean) {
  struct Case {
    const char* what;
    double cores;
    uint64_t memoryTotal;
    AppUsage app;
    double impact;
    Lean lean;
  };
  auto usage = [](double cpu, uint64_t memory, double gpu, double disk, double net) {
    AppUsage a;
    a.cpu = cpu, a.memory = memory, a.gpu = gpu, a.diskRead = disk / 2, a.diskWrite = disk / 2;
    a.netIn = net / 4, a.netOut = net * 3 / 4;
    return a;
  };
  const std::vector<Case> cases = {
      {"one full core of eight", 8, 1000, usage(100, 0, 0, 0, 0), 17.5, Lean::cpu},
      {"all memory", 8, 1000, usage(0, 1000, 0, 0, 0), 49.5, Lean::memory},
      {"whole GPU", 8, 1000, usage(0, 0, 1, 0, 0), 48, Lean::gpu},
      {"disk at half scale", 8, 1000, usage(0, 0, 0, 75e6, 0), 12.5, Lean::disk},
      {"disk above scale adds at most 25", 8, 1000, usage(0, 0, 0, 900e6, 0), 25, Lean::disk},
      {"network above scale adds at most 20", 8, 1000, usage(0, 0, 0, 0, 1e9), 20, Lean::network},
      {"everything at once stops at 100", 8, 1000, usage(800, 1000, 1, 1e9, 1e9), 100,
       Lean::network},
      {"one component alone reaches 100", 1, 1000, usage(800, 0, 0, 0, 0), 100, Lean::cpu},
      {"lean reads disk uncapped", 8, 1000, usage(1600, 0, 0, 450e6, 0), 100, Lean::disk},
      {"idle: lean cpu", 8, 1000, usage(0, 0, 0, 0, 0), 0, Lean::cpu},
      {"tie cpu, disk, network: cpu", 8, 1000, usage(400, 0, 0, 75e6, 6e6), 92.5, Lean::cpu},
      {"tie disk, network: disk", 8, 1000, usage(0, 0, 0, 75e6, 6e6), 22.5, Lean::disk},
      {"tie memory, disk: memory", 8, 1000, usage(0, 500, 0, 67.5e6, 0), 36, Lean::memory},
      {"disk just above memory", 8, 1000, usage(0, 500, 0, 69e6, 0), 36.25, Lean::disk},
      {"tie gpu, network: gpu", 8, 1000, usage(0, 0, 0.5, 0, 4.8e6), 32, Lean::gpu},
      {"no memory total counts as 1 byte", 8, 1, usage(0, 1, 0, 0, 0), 49.5, Lean::memory},
      {"no cores counts as one", 0, 1000, usage(50, 0, 0, 0, 0), 70, Lean::cpu},
      {"not a number scores 0", 8, 1000, usage(std::nan(""), 0, 0, 0, 0), 0, Lean::cpu},
  };
  for (const auto& c : cases) {
    const AppScore score = scoreApp(c.app, c.cores, c.memoryTotal);
    EXPECT_NEAR(score.impact, c.impact, 1e-9) << c.what;
    EXPECT_EQ(score.lean, c.lean) << c.what;
  }
}

TEST(AppGrouperTest, SortsByImpactKeepingTies) {
  FakeBundles bundles;
  FakeQueries queries;
  AppGrouper grouper(bundles, kMacAccounts);
  std::vector<ProcessSample> samples;
  const std::vector<std::pair<const char*, double>> cpus = {{"a", 10},  {"b", 50}, {"c", 10},
                                                            {"d", 200}, {"e", 10}, {"f", 50}};
  for (size_t i = 0; i < cpus.size(); ++i) {
    samples.push_back(proc(10 + static_cast<int32_t>(i), 1, cpus[i].first));
    samples.back().cpu = cpus[i].second;
  }
  MemoryStat memory;
  memory.total = 1 << 30;
  std::vector<std::string> order;
  for (const auto& app : grouper.group(samples, queries, {}, {}, memory, 0)) {
    order.push_back(app.name);
  }
  EXPECT_EQ(order, (std::vector<std::string>{"d", "b", "f", "a", "c", "e"}));
}

TEST(AppGrouperTest, ScriptLabelCache) {
  FakeBundles bundles;
  FakeQueries queries;
  AppGrouper grouper(bundles, kMacAccounts);
  auto script = proc(60, 1, "python3");
  script.started = dateFromSeconds(1000);
  queries.args[60] = {"python3", "a.py"};

  EXPECT_EQ(grouper.scriptLabel(script, queries), "a");
  queries.args[60] = {"python3", "b.py"};
  EXPECT_EQ(grouper.scriptLabel(script, queries), "a");  // same process life: cached
  EXPECT_EQ(queries.argumentCalls, 1);

  script.path = "/usr/bin/python3.12";  // the process exec'd: same pid and start time
  EXPECT_EQ(grouper.scriptLabel(script, queries), "b");
  EXPECT_EQ(queries.argumentCalls, 2);
  queries.args[60] = {"python3", "c.py"};
  script.started = dateFromSeconds(2000);  // the pid now names another process
  EXPECT_EQ(grouper.scriptLabel(script, queries), "c");
  script.started.reset();
  EXPECT_EQ(grouper.scriptLabel(script, queries), "c");
  EXPECT_EQ(queries.argumentCalls, 4);
  EXPECT_EQ(grouper.scriptLabel(script, queries), "c");  // both absent: equal
  EXPECT_EQ(queries.argumentCalls, 4);

  // Nothing readable: the process's own name.
  auto unreadable = proc(61, 1, "ruby", 0, "");
  unreadable.path.clear();
  EXPECT_EQ(grouper.scriptLabel(unreadable, queries), "ruby");

  // More than 4000 entries when a new label is stored: the cache starts over.
  for (int32_t pid = 1000; pid < 1000 + 3999; ++pid)
    grouper.scriptLabel(proc(pid, 1, "node"), queries);
  const int before = queries.argumentCalls;
  grouper.scriptLabel(script, queries);  // 4001 entries, still cached
  EXPECT_EQ(queries.argumentCalls, before);
  grouper.scriptLabel(proc(9000, 1, "node"), queries);  // clears, then stores one
  grouper.scriptLabel(script, queries);
  EXPECT_EQ(queries.argumentCalls, before + 2);
}

}  // namespace
}  // namespace vistrel
