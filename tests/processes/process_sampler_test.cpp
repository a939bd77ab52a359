#include "processes/process_sampler.hpp"

#include <gtest/gtest.h>

#include <array>
#include <map>

namespace vistrel {
namespace {

// A machine of processes the test edits between ticks.
struct FakeProcesses : ProcessSource {
  struct Proc {
    ProcessCounters counters;
    ProcessIdentity identity;
    std::vector<std::string> args;
    bool readable = true;
  };
  std::map<int32_t, Proc> procs;
  std::vector<int32_t> extraPids;  // listed but absent (exited mid-tick)
  std::unordered_map<int32_t, uint64_t> gpu;
  std::unordered_map<int32_t, ProcessNetBytes> net;
  std::vector<PsRow> ps;
  std::map<int32_t, int32_t> responsible;
  int identityReads = 0, argumentReads = 0, psRuns = 0, gpuReads = 0, netReads = 0;
  std::vector<int32_t> retained;  // the last tick's listing, as handed to retainOnly

  void listPids(std::vector<int32_t>& out) override {
    out.clear();
    for (auto& [pid, _] : procs) out.push_back(pid);
    out.insert(out.end(), extraPids.begin(), extraPids.end());
  }
  std::optional<ProcessCounters> counters(int32_t pid) override {
    auto it = procs.find(pid);
    if (it == procs.end() || !it->second.readable) return std::nullopt;
    return it->second.counters;
  }
  std::optional<ProcessIdentity> identity(int32_t pid) override {
    ++identityReads;
    auto it = procs.find(pid);
    if (it == procs.end()) return std::nullopt;
    return it->second.identity;
  }
  std::vector<std::string> arguments(int32_t pid) override {
    ++argumentReads;
    auto it = procs.find(pid);
    return it == procs.end() ? std::vector<std::string>{} : it->second.args;
  }
  std::optional<std::string> workingFolder(int32_t) override { return std::nullopt; }
  std::optional<int32_t> responsibleFor(int32_t pid) override {
    auto it = responsible.find(pid);
    if (it == responsible.end()) return 0;
    return it->second;
  }
  std::unordered_map<int32_t, uint64_t> gpuTimes() override {
    ++gpuReads;
    return gpu;
  }
  std::unordered_map<int32_t, ProcessNetBytes> networkBytes() override {
    ++netReads;
    return net;
  }
  std::vector<PsRow> psListing() override {
    ++psRuns;
    return ps;
  }
  double cores() override { return 8; }
  void retainOnly(const std::vector<int32_t>& live) override { retained = live; }

  Proc& add(int32_t pid, std::string path, uint64_t startKey = 1) {
    Proc& p = procs[pid];
    p.identity.path = std::move(path);
    p.identity.ppid = 1;
    p.identity.uid = 501;
    p.counters.startKey = startKey;
    return p;
  }
};

class ProcessSamplerTest : public ::testing::Test {
 protected:
  ProcessSamplerTest() {
    auto source = std::make_unique<FakeProcesses>();
    fake = source.get();
    sampler = std::make_unique<ProcessSampler>(std::move(source), clock, [this] { return draw; });
  }
  std::map<int32_t, ProcessSample> tick(bool network = false, bool gpu = false,
                                        double psEvery = 9.5) {
    std::map<int32_t, ProcessSample> out;
    for (auto& s : sampler->sample(network, psEvery, gpu)) out[s.pid] = s;
    return out;
  }
  ManualClock clock{100};
  int draw = 7;  // no random sweep unless a test asks for one
  FakeProcesses* fake = nullptr;
  std::unique_ptr<ProcessSampler> sampler;
};

TEST_F(ProcessSamplerTest, RatesFromCounters) {
  struct Case {
    const char* name;
    std::array<uint64_t, 4> before, after;  // cpuNs, energyNj, diskRead, diskWrite
    double dt;
    double cpu, energy, read, write;
  } cases[] = {
      {"one core busy for two seconds", {0, 0, 0, 0}, {2'000'000'000, 0, 0, 0}, 2, 100, 0, 0, 0},
      {"four cores read 400", {0, 0, 0, 0}, {4'000'000'000, 0, 0, 0}, 1, 400, 0, 0, 0},
      {"energy and disk",
       {0, 1'000'000'000, 100, 200},
       {0, 4'000'000'000, 1100, 2200},
       2,
       0,
       1.5,
       500,
       1000},
      {"one counter went down: only that field is 0",
       {500, 10, 5000, 5000},
       {1'000'000'500, 5, 6000, 4000},
       1,
       100,
       0,
       1000,
       0},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.name);
    fake->procs.clear();
    auto& p = fake->add(42, "/usr/bin/tool");
    auto set = [&p](const std::array<uint64_t, 4>& c) {
      p.counters.cpuNs = c[0];
      p.counters.energyNj = c[1];
      p.counters.diskRead = c[2];
      p.counters.diskWrite = c[3];
    };
    set(c.before);
    auto first = tick();
    ASSERT_EQ(first.count(42), 1u);
    EXPECT_EQ(first[42].cpu, 0);  // first sight: no rate
    EXPECT_EQ(first[42].diskRead, 0);
    clock.advance(c.dt);
    set(c.after);
    auto second = tick();
    EXPECT_DOUBLE_EQ(second[42].cpu, c.cpu);
    EXPECT_DOUBLE_EQ(second[42].energy, c.energy);
    EXPECT_DOUBLE_EQ(second[42].diskRead, c.read);
    EXPECT_DOUBLE_EQ(second[42].diskWrite, c.write);
    clock.advance(100);  // let the next case start fresh
    fake->procs.clear();
    draw = 0;
    tick();
    draw = 7;
  }
}

TEST_F(ProcessSamplerTest, SameInstantGivesNoRate) {
  auto& p = fake->add(7, "/bin/x");
  tick();
  p.counters.cpuNs = 5'000'000'000;
  auto same = tick();  // clock did not move
  EXPECT_EQ(same[7].cpu, 0);
  clock.advance(1);
  p.counters.cpuNs = 6'000'000'000;
  EXPECT_DOUBLE_EQ(tick()[7].cpu, 100);
}

TEST_F(ProcessSamplerTest, IdentityIsReadOncePerProgramAProcessRuns) {
  auto& p = fake->add(9, "/usr/bin/bash", 111);
  p.counters.program = "python3";  // a pyenv shim: a bash script named python3
  p.counters.memory = 4096;
  auto a = tick();
  tick();
  EXPECT_EQ(fake->identityReads, 1);
  EXPECT_EQ(a[9].name, "bash");
  EXPECT_EQ(a[9].memory, 4096u);
  struct Step {
    const char* what;
    std::string path, program;
    uint64_t startKey;
    int reads;
    std::string name;
  } steps[] = {
      // exec keeps the pid and the start time; the kernel's short name tells.
      {"the shim execs pyenv", "/usr/bin/bash", "pyenv", 111, 2, "bash"},
      {"which execs the real interpreter", "/home/u/.pyenv/versions/3.12.1/bin/python3.12",
       "python3.12", 111, 3, "python3.12"},
      {"nothing changed", "/home/u/.pyenv/versions/3.12.1/bin/python3.12", "python3.12", 111, 3,
       "python3.12"},
      {"the pid names another process", "/usr/bin/second", "second", 222, 4, "second"},
      {"no short name reported (macOS): the start key alone decides", "/usr/bin/third", "", 222, 5,
       "third"},
      {"and an empty one stays empty", "/usr/bin/fourth", "", 222, 5, "third"},
  };
  for (const auto& step : steps) {
    SCOPED_TRACE(step.what);
    p.identity.path = step.path;
    p.counters.program = step.program;
    p.counters.startKey = step.startKey;
    clock.advance(2);
    auto s = tick();
    EXPECT_EQ(fake->identityReads, step.reads);
    EXPECT_EQ(s[9].name, step.name);
  }
}

TEST_F(ProcessSamplerTest, Names) {
  struct Case {
    const char* name;
    std::string path, baseName;
    std::vector<std::string> args;
    std::string expected;
  } cases[] = {
      {"last path component", "/Applications/Foo.app/Contents/MacOS/Foo", "Fo", {}, "Foo"},
      {"kernel's name without a path", "", "launchd", {}, "launchd"},
      {"version-numbered file takes its first argument",
       "/Users/a/.local/share/claude/2.1.0",
       "",
       {"/usr/local/bin/claude", "--resume"},
       "claude"},
      {"numeric name without arguments stays", "/opt/x/2.1.0", "", {}, "2.1.0"},
      {"numeric name with an empty first argument stays", "/opt/x/3", "", {"", "y"}, "3"},
  };
  int32_t pid = 100;
  for (const auto& c : cases) {
    SCOPED_TRACE(c.name);
    auto& p = fake->add(++pid, c.path);
    p.identity.baseName = c.baseName;
    p.args = c.args;
    EXPECT_EQ(tick()[pid].name, c.expected);
  }
}

TEST_F(ProcessSamplerTest, GpuShares) {
  fake->add(1, "/a");
  fake->add(2, "/b");
  fake->gpu = {{1, 1'000'000'000}, {2, 0}};
  tick(false, true);
  EXPECT_EQ(fake->gpuReads, 1);
  clock.advance(2);
  fake->gpu = {{1, 2'000'000'000}, {2, 10'000'000'000}};  // 0.5 and an impossible 5.0
  auto g = tick(false, true);
  EXPECT_DOUBLE_EQ(g[1].gpu, 0.5);
  EXPECT_DOUBLE_EQ(g[2].gpu, 1.0);  // never above 1
  // A non-GPU tick reuses the last shares without asking.
  clock.advance(2);
  auto reuse = tick(false, false);
  EXPECT_EQ(fake->gpuReads, 2);
  EXPECT_DOUBLE_EQ(reuse[1].gpu, 0.5);
  // A process absent from the last GPU listing reports 0.
  clock.advance(2);
  fake->gpu = {{1, 3'000'000'000}};
  auto next = tick(false, true);
  EXPECT_DOUBLE_EQ(next[2].gpu, 0);
  EXPECT_DOUBLE_EQ(next[1].gpu, 0.25);
}

TEST_F(ProcessSamplerTest, NetworkRatesOnlyOnNetworkTicks) {
  fake->add(5, "/net");
  fake->net = {{5, {1000, 100}}};
  tick(true);
  clock.advance(4);
  fake->net = {{5, {5000, 900}}};
  auto n = tick(true);
  EXPECT_DOUBLE_EQ(n[5].netIn, 1000);
  EXPECT_DOUBLE_EQ(n[5].netOut, 200);
  clock.advance(1);
  auto kept = tick(false);
  EXPECT_EQ(fake->netReads, 2);
  EXPECT_DOUBLE_EQ(kept[5].netIn, 1000);
  clock.advance(1);
  fake->net = {{5, {10, 10}}};  // counters went down: 0, and a new base
  EXPECT_EQ(tick(true)[5].netIn, 0);
  clock.advance(1);
  fake->net = {{5, {110, 10}}};
  EXPECT_DOUBLE_EQ(tick(true)[5].netIn, 100);
}

TEST_F(ProcessSamplerTest, UnreadableProcessesFallBackToPsAtMostOncePerPeriod) {
  fake->add(1, "/mine");
  auto& root = fake->add(2, "/usr/sbin/daemon");
  root.readable = false;
  fake->extraPids = {3};  // listed, then gone before it could be read
  fake->ps = {{2, 1, 0, 12.5, 8192, "/usr/libexec/some daemon"},
              {9, 1, 0, 1, 1, "/not/listed/by/us"}};

  auto first = tick(false, false, 9.5);
  EXPECT_EQ(fake->psRuns, 1);
  ASSERT_EQ(first.count(2), 1u);
  EXPECT_EQ(first[2].name, "some daemon");  // a command with spaces keeps its whole path
  EXPECT_EQ(first[2].path, "/usr/libexec/some daemon");
  EXPECT_EQ(first[2].uid, 0u);
  EXPECT_DOUBLE_EQ(first[2].cpu, 12.5);
  EXPECT_EQ(first[2].memory, 8192u);
  EXPECT_EQ(first.count(9), 0u);    // only our unreadable pids are taken from the listing
  EXPECT_EQ(sampler->hidden(), 1);  // pid 3: neither readable nor listed by ps

  clock.advance(9);
  tick(false, false, 9.5);
  EXPECT_EQ(fake->psRuns, 1);  // within the period: the cached listing
  clock.advance(1);
  fake->ps.clear();  // the tool failed: the old listing stays in use
  auto third = tick(false, false, 9.5);
  EXPECT_EQ(fake->psRuns, 2);
  EXPECT_EQ(third.count(2), 1u);

  // Everything readable: ps never runs and nothing is hidden.
  root.readable = true;
  fake->extraPids.clear();
  clock.advance(100);
  tick(false, false, 9.5);
  EXPECT_EQ(fake->psRuns, 2);
  EXPECT_EQ(sampler->hidden(), 0);
}

TEST_F(ProcessSamplerTest, KernelThreadsCountAsHiddenWithoutPs) {
  fake->add(1, "/sbin/init");
  for (int32_t pid : {2, 3, 4}) {
    auto& k = fake->add(pid, "");
    k.counters.kernelThread = true;
  }
  auto s = tick();
  EXPECT_EQ(s.size(), 1u);
  EXPECT_EQ(sampler->hidden(), 3);
  EXPECT_EQ(fake->psRuns, 0);
}

TEST_F(ProcessSamplerTest, PruningForgetsDeadPids) {
  for (int32_t pid = 1; pid <= 5; ++pid) fake->add(pid, "/p");
  fake->gpu = {{4, 1}};
  tick(true, true);
  fake->procs.erase(4);
  fake->procs.erase(5);
  tick();
  EXPECT_EQ(sampler->memorySizes().last, 5u);  // no sweep yet: the draw was not 0
  draw = 0;
  tick();
  auto sizes = sampler->memorySizes();
  EXPECT_EQ(sizes.last, 3u);
  EXPECT_EQ(sizes.info, 3u);
  EXPECT_EQ(sizes.gpuLast, 0u);
  EXPECT_EQ(sizes.gpuShare, 3u);
  EXPECT_EQ(fake->retained, (std::vector<int32_t>{1, 2, 3}));  // the source lets go every tick

  // More than 200 dead entries force a sweep whatever the draw.
  draw = 7;
  for (int32_t pid = 1000; pid < 1300; ++pid) fake->add(pid, "/churn");
  tick();
  for (int32_t pid = 1000; pid < 1300; ++pid) fake->procs.erase(pid);
  tick();
  EXPECT_EQ(sampler->memorySizes().last, 3u);
}

TEST_F(ProcessSamplerTest, ResponsiblePidIsAskedOnce) {
  struct CountingSource : FakeProcesses {
    int asked = 0;
    std::optional<int32_t> responsibleFor(int32_t pid) override {
      ++asked;
      return FakeProcesses::responsibleFor(pid);
    }
  };
  auto source = std::make_unique<CountingSource>();
  auto* raw = source.get();
  raw->responsible = {{10, 20}, {11, 11}, {12, -1}};
  ProcessSampler s(std::move(source), clock);
  EXPECT_EQ(s.responsiblePid(10), 20);
  EXPECT_EQ(s.responsiblePid(10), 20);
  EXPECT_EQ(s.responsiblePid(11), std::nullopt);  // itself
  EXPECT_EQ(s.responsiblePid(12), std::nullopt);  // below 1
  EXPECT_EQ(s.responsiblePid(12), std::nullopt);
  EXPECT_EQ(raw->asked, 3);
}

}  // namespace
}  // namespace vistrel
