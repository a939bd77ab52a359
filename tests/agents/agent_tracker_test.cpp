#include "agents/agent_tracker.hpp"

#include <gtest/gtest.h>

#include <map>

#include "agents/agent_records.hpp"

namespace vistrel {
namespace {

ProcessSample proc(int32_t pid, int32_t ppid, std::string name, double cpu = 0, uint64_t memory = 0,
                   double started = 1'700'000'000) {
  ProcessSample p;
  p.pid = pid;
  p.ppid = ppid;
  p.name = std::move(name);
  p.cpu = cpu;
  p.memory = memory;
  p.started = dateFromSeconds(started);
  return p;
}

struct Fixture {
  std::map<int32_t, std::vector<std::string>> args;
  std::map<int32_t, std::string> folders;
  int argumentReads = 0;
  ManualClock clock{1000, dateFromSeconds(1'700'000'100)};
  AgentTracker tracker{{[this](int32_t pid) {
                          ++argumentReads;
                          auto it = args.find(pid);
                          return it == args.end() ? std::vector<std::string>{} : it->second;
                        },
                        [this](int32_t pid) -> std::optional<std::string> {
                          auto it = folders.find(pid);
                          if (it == folders.end()) return std::nullopt;
                          return it->second;
                        }},
                       clock};
};

TEST(AgentTracker, Recognition) {
  struct Case {
    const char* name;
    std::string process;
    std::vector<std::string> args;
    std::optional<std::string> tool;
  } cases[] = {
      {"the native binary", "claude", {}, kClaudeCode},
      {"names compare without case", "Claude", {}, kClaudeCode},
      {"codex", "codex", {}, kCodex},
      {"codex's platform binary", "codex-aarch64-apple-darwin", {}, kCodex},
      {"node running the package",
       "node",
       {"node", "--max-old-space-size=8192",
        "/usr/local/lib/node_modules/@anthropic-ai/claude-code/cli.js"},
       kClaudeCode},
      {"node running codex's package",
       "node",
       {"node", "/home/u/.nvm/lib/node_modules/@openai/codex/bin/codex.js", "exec"},
       kCodex},
      {"bun running a launcher in a bin folder",
       "bun",
       {"bun", "/home/u/.bun/bin/claude"},
       kClaudeCode},
      {"deno running a project's local launcher",
       "deno",
       {"deno", "run", "/x/node_modules/.bin/codex"},
       std::nullopt},  // "run" is the script slot
      {"node running anything else", "node", {"node", "/srv/app/server.js"}, std::nullopt},
      {"node whose only argument is an option", "node", {"node", "--version"}, std::nullopt},
      {"a script named claude outside bin folders", "node", {"node", "/tmp/claude"}, std::nullopt},
      {"python is never an agent",
       "python3",
       {"python3", "/usr/local/lib/node_modules/@anthropic-ai/claude-code/cli.js"},
       std::nullopt},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.name);
    Fixture f;
    f.args[7] = c.args;
    EXPECT_EQ(f.tracker.tool(proc(7, 1, c.process)), c.tool);
  }
}

TEST(AgentTracker, RecognitionIsCachedPerProcessLife) {
  Fixture f;
  f.args[7] = {"node", "/usr/lib/node_modules/@anthropic-ai/claude-code/cli.js"};
  EXPECT_EQ(f.tracker.tool(proc(7, 1, "node", 0, 0, 100)), kClaudeCode);
  EXPECT_EQ(f.tracker.tool(proc(7, 1, "node", 0, 0, 100)), kClaudeCode);
  EXPECT_EQ(f.argumentReads, 1);
  // The pid now names another program: examined again.
  f.args[7] = {"node", "/srv/app.js"};
  EXPECT_EQ(f.tracker.tool(proc(7, 1, "node", 0, 0, 200)), std::nullopt);
  EXPECT_EQ(f.argumentReads, 2);
  // A shim execs the agent: same pid and start time, another program.
  EXPECT_EQ(f.tracker.tool(proc(8, 1, "bash", 0, 0, 300)), std::nullopt);
  f.args[8] = {"node", "/home/u/.nvm/versions/node/v22/bin/claude"};
  EXPECT_EQ(f.tracker.tool(proc(8, 1, "node", 0, 0, 300)), kClaudeCode);
}

TEST(AgentTracker, SessionsGroupAnAgentWithEverythingItStarted) {
  Fixture f;
  f.folders[10] = "/home/u/code/app";
  std::vector<ProcessSample> ps = {
      proc(5, 1, "zsh", 0.5, 1000),
      proc(10, 5, "claude", 2, 100, 1'700'000'050),
      proc(11, 10, "node", 1, 10),   // a language server it started
      proc(12, 11, "rg", 3, 1),      // and what that started
      proc(20, 10, "claude", 1, 5),  // a nested Claude Code joins its parent's session
      proc(30, 5, "codex", 0, 7, 1'700'000'060),
      proc(40, 5, "vim", 9, 9),
  };
  auto [sessions, roots] = f.tracker.sessions(ps);
  EXPECT_EQ(roots, (AgentRoots{{10, kClaudeCode}, {30, kCodex}}));
  ASSERT_EQ(sessions.size(), 2u);
  // Newest first.
  EXPECT_EQ(sessions[0].pid, 30);
  const AgentSession& claude = sessions[1];
  EXPECT_EQ(claude.pid, 10);
  EXPECT_EQ(claude.tool, kClaudeCode);
  EXPECT_EQ(claude.processCount, 4);
  EXPECT_DOUBLE_EQ(claude.cpu, 7);
  EXPECT_EQ(claude.memory, 116u);
  EXPECT_EQ(claude.folder, "/home/u/code/app");
  EXPECT_EQ(claude.started, dateFromSeconds(1'700'000'050));
  EXPECT_EQ(sessions[0].processCount, 1);
}

TEST(AgentTracker, BusyHoldsForEightSecondsThenIdleSinceTheLastBusyMoment) {
  Fixture f;
  struct Step {
    double advance;
    double cpu;
    bool working;
    std::optional<double> idleSinceOffset;  // seconds after the burst
  } steps[] = {
      {0, 2, false, -100},  // never busy yet: idle since it started
      {1, 50, true, {}},    // the burst (t = 1)
      {2, 3, true, {}},     // 3 % two seconds later: still working
      {3, 3, true, {}},     // five seconds after the burst: still working
      {3, 3, false, 0},     // eight seconds after: idle since the burst
      {1, 4, false, 0},     // exactly 4 % is not busy
      {1, 4.5, true, {}},
  };
  double burstAt = 0, t = 0;
  for (const auto& step : steps) {
    f.clock.advance(step.advance);
    t += step.advance;
    if (step.cpu > 4) burstAt = t;
    auto [sessions, roots] =
        f.tracker.sessions({proc(10, 1, "claude", step.cpu, 1, 1'700'000'000)});
    ASSERT_EQ(sessions.size(), 1u);
    EXPECT_EQ(sessions[0].working, step.working) << "t=" << t;
    if (step.idleSinceOffset) {
      double expected = *step.idleSinceOffset == -100
                            ? 1'700'000'000
                            : 1'700'000'100 + burstAt + *step.idleSinceOffset;
      ASSERT_TRUE(sessions[0].idleSince) << "t=" << t;
      EXPECT_DOUBLE_EQ(secondsSince1970(*sessions[0].idleSince), expected) << "t=" << t;
    } else {
      EXPECT_FALSE(sessions[0].idleSince) << "t=" << t;
    }
  }
}

TEST(AgentTracker, ParentCyclesAndOrphansDoNotHang) {
  Fixture f;
  std::vector<ProcessSample> ps = {proc(10, 1, "claude"), proc(50, 51, "a"), proc(51, 50, "b"),
                                   proc(60, 999, "orphan")};
  auto [sessions, roots] = f.tracker.sessions(ps);
  ASSERT_EQ(sessions.size(), 1u);
  EXPECT_EQ(sessions[0].processCount, 1);
}

}  // namespace
}  // namespace vistrel
