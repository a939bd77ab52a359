#include "control/quit_request.hpp"

#include <gtest/gtest.h>
#include <signal.h>
#include <unistd.h>

#include <set>
#include <string>
#include <utility>
#include <vector>

#include "format/platform_text.hpp"

namespace vistrel {
namespace {

constexpr uint32_t kMe = 501;
constexpr int32_t kSelf = 4242;

// Records every signal instead of sending it; `fails` lists pids for which sending fails (gone).
class RecordingSignals : public SignalSender {
 public:
  bool send(int32_t pid, int signal) override {
    sent.emplace_back(pid, signal);
    return !fails.count(pid);
  }
  std::vector<std::pair<int32_t, int>> sent;
  std::set<int32_t> fails;
};

class RecordingQuitter : public AppQuitter {
 public:
  int quit(const std::vector<int32_t>& pids, bool force) override {
    calls.push_back({pids, force});
    return answer;
  }
  struct Call {
    std::vector<int32_t> pids;
    bool force;
    bool operator==(const Call&) const = default;
  };
  std::vector<Call> calls;
  int answer = 1;
};

ProcessSample process(int32_t pid, int32_t ppid, uint32_t uid = kMe) {
  ProcessSample p;
  p.pid = pid;
  p.ppid = ppid;
  p.uid = uid;
  p.name = "p" + std::to_string(pid);
  return p;
}

AppUsage app(std::string name, std::vector<int32_t> pids) {
  AppUsage a;
  a.bundlePath = "/Applications/" + name + ".app";
  a.name = std::move(name);
  a.pids = std::move(pids);
  return a;
}

TEST(QuitRequestTest, CanQuitRulesApplyInOrder) {
  const std::string finder = "/System/Library/CoreServices/Finder.app";
  const std::string safari = "/System/Volumes/Preboot/Cryptexes/App/System/Applications/Safari.app";
  const std::string webKit =
      "/System/Volumes/Preboot/Cryptexes/OS/System/Library/CoreServices/WebKitHelper.app";
  QuitContext context{
      kSelf, kMe, [&](const std::string& p) { return p == finder || p == safari || p == webKit; }};
  const std::vector<ProcessSample> mine = {process(10, 1), process(11, 10), process(kSelf, 1)};
  const std::vector<ProcessSample> mixed = {process(10, 1), process(11, 10, 0)};
  struct Case {
    std::string label;
    AppUsage app;
    bool isSystem;
    std::optional<std::string> bundle;
    std::vector<ProcessSample> processes;
    QuitRefusal refusal;
  } cases[] = {
      {"ordinary", app("Xcode", {10, 11}), false, "/Applications/Xcode.app", mine,
       QuitRefusal::none},
      {"system beats everything", app("kernel", {kSelf}), true, finder, mixed, QuitRefusal::system},
      {"macOS bundle", app("Finder", {10}), false, finder, mine, QuitRefusal::macOSBundle},
      {"a /System path that does not exist is not a bundle", app("Ghost", {10}), false,
       "/System/Library/CoreServices/Ghost.app", mine, QuitRefusal::none},
      {"apps under /System/Applications are the person's", app("Mail", {10}), false,
       "/System/Applications/Mail.app", mine, QuitRefusal::none},
      {"Safari from its cryptex is an ordinary app", app("Safari", {10}), false, safari, mine,
       QuitRefusal::none},
      {"the system cryptex is the system's", app("WebKitHelper", {10}), false, webKit, mine,
       QuitRefusal::macOSBundle},
      {"macOS bundle before no processes", app("Finder", {}), false, finder, mine,
       QuitRefusal::macOSBundle},
      {"no processes", app("Empty", {}), false, std::nullopt, mine, QuitRefusal::noProcesses},
      {"itself, even among helpers", app("Vistrel", {10, kSelf}), false, std::nullopt, mixed,
       QuitRefusal::itself},
      {"partly another user's", app("Shared", {10, 11}), false, std::nullopt, mixed,
       QuitRefusal::anotherUser},
      {"another user's",
       app("Theirs", {10}),
       false,
       std::nullopt,
       {process(10, 1, 502)},
       QuitRefusal::anotherUser},
      {"owner unknown: gone from the snapshot", app("Gone", {10, 99}), false, std::nullopt, mine,
       QuitRefusal::anotherUser},
  };
  for (auto& c : cases) {
    SCOPED_TRACE(c.label);
    c.app.isSystem = c.isSystem;
    c.app.bundlePath = c.bundle;
    EXPECT_EQ(quitRefusal(c.app, c.processes, context), c.refusal);
    EXPECT_EQ(canQuit(c.app, c.processes, context), c.refusal == QuitRefusal::none);
  }
}

// Every request is new: a second one for the same app has its own id.
TEST(QuitRequestTest, EachRequestHasItsOwnId) {
  QuitRequest a = QuitRequest::forApp(app("Xcode", {10}));
  QuitRequest again = QuitRequest::forApp(app("Xcode", {10}));
  EXPECT_EQ(a.id.size(), 36u);
  EXPECT_NE(a.id, again.id);
}

TEST(QuitRequestTest, PerformingAnAppRequest) {
  // Chrome: main 100 with helpers 101 and 102; 103 is a child of a helper outside the app's list
  // (a plug-in), 104 a grandchild of the main process, 200 unrelated, kSelf a child of Chrome.
  Snapshot latest;
  latest.processes = {process(100, 1),   process(101, 100), process(102, 100),  process(103, 101),
                      process(104, 103), process(200, 1),   process(kSelf, 100)};
  const AppUsage chrome = app("Chrome", {100, 101, 102, 150});  // 150 has exited
  struct Case {
    bool force;
    int signal;
    std::string toast;
  } cases[] = {{false, SIGTERM, "Asked Chrome to quit."}, {true, SIGKILL, "Force quit Chrome."}};
  for (const auto& c : cases) {
    SCOPED_TRACE(c.force);
    RecordingSignals signals;
    RecordingQuitter apps;
    auto request = QuitRequest::forApp(chrome);
    QuitOutcome outcome = performQuit(request, c.force, latest, apps, signals, kSelf);
    ASSERT_EQ(apps.calls.size(), 1u);
    EXPECT_EQ(apps.calls[0], (RecordingQuitter::Call{{100, 101, 102}, c.force}));
    // Children of the app's processes: the helpers and the plug-in; never this application, and
    // not the grandchild (its parent is not one of the app's processes).
    const std::vector<std::pair<int32_t, int>> expected = {
        {101, c.signal}, {102, c.signal}, {103, c.signal}};
    EXPECT_EQ(signals.sent, expected);
    EXPECT_EQ(outcome, (QuitOutcome{1, 3}));
    EXPECT_EQ(quitToast(request, c.force, outcome), c.toast);
  }
}

// A script or server grouped under its name has no running application to ask: on macOS the
// workspace would find none and nothing would end. Its processes get the signal directly.
TEST(QuitRequestTest, AToolWithoutABundleIsSignalledLikeHelpers) {
  Snapshot latest;
  latest.processes = {process(100, 1), process(101, 100), process(102, 101), process(200, 1),
                      process(kSelf, 100)};
  AppUsage server = app("vite", {100, 101, 150});  // 150 has exited
  server.bundlePath.reset();
  struct Case {
    bool force;
    int signal;
    std::string toast;
  } cases[] = {{false, SIGTERM, "Asked vite to quit."}, {true, SIGKILL, "Force quit vite."}};
  for (const auto& c : cases) {
    SCOPED_TRACE(c.force);
    RecordingSignals signals;
    RecordingQuitter apps;
    auto request = QuitRequest::forApp(server);
    const QuitOutcome outcome = performQuit(request, c.force, latest, apps, signals, kSelf);
    EXPECT_TRUE(apps.calls.empty());
    // Its own processes, then their children, each once; never this application.
    const std::vector<std::pair<int32_t, int>> expected = {
        {100, c.signal}, {101, c.signal}, {102, c.signal}};
    EXPECT_EQ(signals.sent, expected);
    EXPECT_EQ(outcome, (QuitOutcome{0, 3}));
    EXPECT_EQ(quitToast(request, c.force, outcome), c.toast);
  }
  // Already gone: nothing is signalled and the toast says so.
  RecordingSignals signals;
  RecordingQuitter apps;
  server.pids = {150};
  auto gone = QuitRequest::forApp(server);
  EXPECT_EQ(quitToast(gone, false, performQuit(gone, false, latest, apps, signals, kSelf)),
            "vite had already quit.");
  EXPECT_TRUE(signals.sent.empty());
}

TEST(QuitRequestTest, AnAppThatHasQuitIsNotFound) {
  Snapshot latest;
  latest.processes = {process(200, 1), process(201, 200)};
  RecordingSignals signals;
  RecordingQuitter apps;
  auto request = QuitRequest::forApp(app("Gone", {100, 101}));
  QuitOutcome outcome = performQuit(request, false, latest, apps, signals, kSelf);
  EXPECT_TRUE(apps.calls.empty());
  EXPECT_TRUE(signals.sent.empty());
  EXPECT_EQ(quitToast(request, false, outcome), "Gone had already quit.");

  // Found but refusing (the platform asked nobody, every signal failed): also reported as gone.
  latest.processes = {process(100, 1), process(101, 100)};
  apps.answer = 0;
  signals.fails = {101};
  outcome = performQuit(request, true, latest, apps, signals, kSelf);
  EXPECT_EQ(apps.calls.size(), 1u);
  EXPECT_EQ(outcome, (QuitOutcome{0, 0}));
  EXPECT_EQ(quitToast(request, true, outcome), "Gone had already quit.");
}

TEST(QuitRequestTest, PerformingASessionRequestSignalsItsWholeTree) {
  Snapshot latest;
  AgentSession here{300, "Claude Code", "/w/app", {}, 3, 0, 0, false, {}};
  AgentSession elsewhere{400, "Claude Code", "/w/other", {}, 1, 0, 0, false, {}};
  AgentSession codex{500, "Codex", "/w/app", {}, 1, 0, 0, false, {}};
  latest.agents = {here, elsewhere, codex};
  latest.processes = {process(300, 1),   process(301, 300), process(302, 301),  process(303, 1),
                      process(401, 400), process(501, 500), process(kSelf, 301)};
  struct Case {
    bool force;
    int signal;
  } cases[] = {{false, SIGTERM}, {true, SIGKILL}};
  for (const auto& c : cases) {
    RecordingSignals signals;
    RecordingQuitter apps;
    auto request = QuitRequest::forAgent("Claude Code", "/w/app");
    QuitOutcome outcome = performQuit(request, c.force, latest, apps, signals, kSelf);
    EXPECT_TRUE(apps.calls.empty());
    const std::vector<std::pair<int32_t, int>> expected = {
        {300, c.signal}, {301, c.signal}, {302, c.signal}};
    EXPECT_EQ(signals.sent, expected);
    EXPECT_EQ(quitToast(request, c.force, outcome), "Ended the Claude Code session in /w/app.");
  }
  RecordingSignals signals;
  RecordingQuitter apps;
  auto ended = QuitRequest::forAgent("Codex", "/w/gone");
  EXPECT_EQ(quitToast(ended, false, performQuit(ended, false, latest, apps, signals, kSelf)),
            "That Codex session had already ended.");
  EXPECT_TRUE(signals.sent.empty());
}

TEST(QuitRequestTest, AgentTreeSurvivesACycleOfParents) {
  Snapshot latest;
  latest.agents = {AgentSession{10, "Codex", "/f", {}, 2, 0, 0, false, {}}};
  latest.processes = {process(10, 11), process(11, 10), process(12, 11)};
  EXPECT_EQ(agentTree(latest, "Codex", "/f"), (std::vector<int32_t>{10, 11, 12}));
}

TEST(QuitRequestTest, LinuxAsksTheMainProcessOnly) {
  if (!runningOnLinux()) GTEST_SKIP() << "the macOS quitter asks the workspace";
  RecordingSignals signals;
  auto quitter = makeAppQuitter(signals);
  EXPECT_EQ(quitter->quit({}, false), 0);
  EXPECT_EQ(quitter->quit({100, 101}, false), 1);
  EXPECT_EQ(quitter->quit({100, 101}, true), 1);
  signals.fails = {300};
  EXPECT_EQ(quitter->quit({300}, false), 0);
  const std::vector<std::pair<int32_t, int>> expected = {
      {100, SIGTERM}, {100, SIGKILL}, {300, SIGTERM}};
  EXPECT_EQ(signals.sent, expected);
}

TEST(QuitRequestTest, TheRealSenderRefusesGroupsInitAndItself) {
  // Signal 0 delivers nothing; each of these is refused before kill(2) is reached.
  auto sender = makeSignalSender();
  for (int32_t pid : {-1, 0, 1, static_cast<int32_t>(::getpid())}) {
    EXPECT_FALSE(sender->send(pid, 0)) << pid;
  }
}

}  // namespace
}  // namespace vistrel
