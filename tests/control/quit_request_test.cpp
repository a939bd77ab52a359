#include "control/quit_request.hpp"

#include <gtest/gtest.h>
#include <signal.h>
#include <unistd.h>

#include <set>
#include <string>
#include <utility>
#include <vector>

#include "control/recording_quit.hpp"
#include "format/platform_text.hpp"

namespace vistrel {
namespace {

constexpr uint32_t kMe = 501;
constexpr int32_t kSelf = 4242;

using testing::RecordingQuitter;
using testing::RecordingSignals;

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

// Carrying out a confirmed request against the newest snapshot: what the platform is asked, the
// signals sent (never to this application), what was reached and the toast.
TEST(QuitRequestTest, PerformingARequest) {
  // Chrome: main 100 with helpers 101 and 102; 103 is a child of a helper outside the app's list
  // (a plug-in), 104 a grandchild of the main process, 200 unrelated, kSelf a child of Chrome.
  // Only 101, 102 and 103 are signalled: the grandchild's parent is not one of the app's.
  Snapshot browser;
  browser.processes = {process(100, 1),   process(101, 100), process(102, 100),  process(103, 101),
                       process(104, 103), process(200, 1),   process(kSelf, 100)};
  const AppUsage chrome = app("Chrome", {100, 101, 102, 150});  // 150 has exited
  // A script or server grouped under its name has no running application to ask: on macOS the
  // workspace would find none and nothing would end. Its processes get the signal directly, then
  // their children, each once.
  Snapshot server;
  server.processes = {process(100, 1), process(101, 100), process(102, 101), process(200, 1),
                      process(kSelf, 100)};
  AppUsage vite = app("vite", {100, 101, 150});
  vite.bundlePath.reset();
  AppUsage viteGone = vite;
  viteGone.pids = {150};
  Snapshot quitting;
  quitting.processes = {process(100, 1), process(101, 100)};
  // Sessions: the Claude Code one in /w/app is 300 and its tree; another folder's and Codex's
  // in the same folder are left alone.
  Snapshot agents;
  agents.agents = {AgentSession{300, "Claude Code", "/w/app", {}, 3, 0, 0, false, {}},
                   AgentSession{400, "Claude Code", "/w/other", {}, 1, 0, 0, false, {}},
                   AgentSession{500, "Codex", "/w/app", {}, 1, 0, 0, false, {}}};
  agents.processes = {process(300, 1),   process(301, 300), process(302, 301),  process(303, 1),
                      process(401, 400), process(501, 500), process(kSelf, 301)};
  // One row: the platform is asked to quit `asked` (none: not asked), `signalled` receive
  // SIGTERM (SIGKILL when forced). When `refusing`, the platform asks nobody and every signal
  // fails: the target is reported as gone.
  auto row = [](const char* name, const QuitRequest& request, bool force, const Snapshot& latest,
                std::vector<int32_t> asked, std::vector<int32_t> signalled, QuitOutcome reached,
                const std::string& toast, bool refusing = false) {
    SCOPED_TRACE(name);
    RecordingSignals signals;
    RecordingQuitter apps;
    if (refusing) {
      apps.answer = 0;
      signals.fails = {signalled.begin(), signalled.end()};
    }
    const QuitOutcome outcome = performQuit(request, force, latest, apps, signals, kSelf);
    std::vector<RecordingQuitter::Call> calls;
    if (!asked.empty()) calls.push_back({asked, force});
    EXPECT_EQ(apps.calls, calls);
    std::vector<std::pair<int32_t, int>> sent;
    for (int32_t pid : signalled) sent.emplace_back(pid, force ? SIGKILL : SIGTERM);
    EXPECT_EQ(signals.sent, sent);
    EXPECT_EQ(outcome, reached);
    EXPECT_EQ(quitToast(request, force, outcome), toast);
  };
  row("app", QuitRequest::forApp(chrome), false, browser, {100, 101, 102}, {101, 102, 103}, {1, 3},
      "Asked Chrome to quit.");
  row("app, forced", QuitRequest::forApp(chrome), true, browser, {100, 101, 102}, {101, 102, 103},
      {1, 3}, "Force quit Chrome.");
  row("app gone from the snapshot", QuitRequest::forApp(app("Gone", {300, 301})), false, browser,
      {}, {}, {0, 0}, "Gone had already quit.");
  row("app found but refusing", QuitRequest::forApp(app("Gone", {100, 101})), true, quitting,
      {100, 101}, {101}, {0, 0}, "Gone had already quit.", true);
  row("no bundle", QuitRequest::forApp(vite), false, server, {}, {100, 101, 102}, {0, 3},
      "Asked vite to quit.");
  row("no bundle, forced", QuitRequest::forApp(vite), true, server, {}, {100, 101, 102}, {0, 3},
      "Force quit vite.");
  row("no bundle, gone", QuitRequest::forApp(viteGone), false, server, {}, {}, {0, 0},
      "vite had already quit.");
  for (bool force : {false, true}) {
    row("session", QuitRequest::forAgent("Claude Code", "/w/app"), force, agents, {},
        {300, 301, 302}, {0, 3}, "Ended the Claude Code session in /w/app.");
  }
  row("session ended", QuitRequest::forAgent("Codex", "/w/gone"), false, agents, {}, {}, {0, 0},
      "That Codex session had already ended.");
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
