// The quit confirmation end to end: an agent's quit_app goes through the control requests to the
// model, the window's dialog shows it, and only the person's choice reaches processes, through a
// recording signal sender and app quitter (no real process is ever signalled).

#include <gtest/gtest.h>
#include <signal.h>
#include <unistd.h>

#include <QLabel>
#include <QPushButton>
#include <QWidget>

#include "app/control_host_impl.hpp"
#include "app/model.hpp"
#include "control/control.hpp"
#include "control/recording_quit.hpp"
#include "sampling/fakes.hpp"
#include "ui/qt_app.hpp"
#include "ui/quit_dialog.hpp"
#include "ui/quit_view.hpp"

namespace vistrel::ui {
namespace {

using vistrel::testing::RecordingQuitter;
using vistrel::testing::RecordingSignals;

using Sent = std::vector<std::pair<int32_t, int>>;
using Calls = std::vector<std::pair<std::vector<int32_t>, bool>>;

const uint32_t kMe = static_cast<uint32_t>(::getuid());
const int32_t kSelf = static_cast<int32_t>(::getpid());

class QuitFlowTest : public ::testing::Test {
 protected:
  QuitFlowTest() {
    qtest::qtApp();
    sampler = vistrel::testing::fakeSampler(main, clock);
    model = std::make_unique<Model>(Model::Parts{sampler, nullptr, &defaults, nullptr}, clock);
    model->setQuitTools(signals, apps);
    host = std::make_unique<ModelControlHost>(*model, nullptr, [] { return AgentsSnapshot{}; });
    control = std::make_unique<Control>(*host, clock, false);

    // Editor, an application with a bundle: main 9001, helper 9002 (child of 9001), and 9003, a
    // child outside the app's list. devserver: a command-line program, no application to ask.
    // Theirs: another user's. Vistrel: this process itself.
    Snapshot s;
    auto add = [&](std::string name, std::vector<int32_t> pids, uint32_t uid,
                   std::optional<std::string> bundle = std::nullopt) {
      AppUsage a;
      a.id = "id." + name;
      a.name = name;
      a.pids = pids;
      a.bundlePath = bundle;
      for (int32_t pid : pids) {
        ProcessSample p;
        p.pid = pid;
        p.ppid = pid == pids.front() ? 1 : pids.front();
        p.name = name + (pid == pids.front() ? "" : " Helper");
        p.uid = uid;
        p.memory = 100u << 20;
        s.processes.push_back(p);
      }
      s.apps.push_back(a);
    };
    add("Editor", {9001, 9002}, kMe, "/Applications/Editor.app");
    add("devserver", {9200}, kMe);
    add("Theirs", {9100}, kMe + 1);
    add("Vistrel", {kSelf}, kMe);
    ProcessSample grandchild;
    grandchild.pid = 9003, grandchild.ppid = 9002, grandchild.name = "renderer",
    grandchild.uid = kMe;
    s.processes.push_back(grandchild);
    ProcessSample child;
    child.pid = 9004, child.ppid = 9001, child.name = "spawned tool", child.uid = kMe;
    s.processes.push_back(child);
    model->receive(std::move(s));

    window = std::make_unique<QWidget>();
    window->resize(900, 600);
    window->show();
    dialog = attachQuitDialog(
        *model, *window, [this] { ++broughtForward; },
        [this](const std::string& text) { toasts.push_back(text); });
  }
  ~QuitFlowTest() override {
    model->hooks.quitRequested = nullptr;
    window.reset();
  }

  nlohmann::json ask(const std::string& name) {
    return nlohmann::json::parse(control->answerOnMain("quit_app", {{"name", name}}));
  }
  QPushButton* button(const char* name) { return dialog->findChild<QPushButton*>(name); }
  bool dialogShows(const QString& text) {
    for (QLabel* label : dialog->findChildren<QLabel*>()) {
      if (label->isVisibleTo(dialog) && label->text() == text) return true;
    }
    return false;
  }

  ManualClock clock{1000};
  ManualMainQueue main;
  MemoryUserDefaults defaults;
  std::shared_ptr<Sampler> sampler;
  std::unique_ptr<Model> model;
  std::shared_ptr<RecordingSignals> signals = std::make_shared<RecordingSignals>();
  std::shared_ptr<RecordingQuitter> apps = std::make_shared<RecordingQuitter>();
  std::unique_ptr<ModelControlHost> host;
  std::unique_ptr<Control> control;
  std::unique_ptr<QWidget> window;
  QuitDialog* dialog = nullptr;
  int broughtForward = 0;
  std::vector<std::string> toasts;
};

TEST_F(QuitFlowTest, AnAgentsRequestIsShownAndOnlyThePersonsChoiceReachesProcesses) {
  struct Case {
    const char* app;
    const char* choice;  // which button the person presses
    Calls calls;         // what the app quitter is asked
    Sent sent;           // the signals, in order
    std::string toast;
  } cases[] = {
      {"Editor", QuitDialog::kCancelName, {}, {}, ""},
      // The app's processes are asked to quit; every child of them gets SIGTERM. The renderer is
      // a child of the helper, which belongs to the app, so it is reached too.
      {"Editor",
       QuitDialog::kQuitName,
       {{{9001, 9002}, false}},
       {{9002, SIGTERM}, {9003, SIGTERM}, {9004, SIGTERM}},
       "Asked Editor to quit."},
      {"Editor",
       QuitDialog::kForceName,
       {{{9001, 9002}, true}},
       {{9002, SIGKILL}, {9003, SIGKILL}, {9004, SIGKILL}},
       "Force quit Editor."},
      // Without an application to ask, the program's own processes get the signal.
      {"devserver", QuitDialog::kQuitName, {}, {{9200, SIGTERM}}, "Asked devserver to quit."},
      {"devserver", QuitDialog::kForceName, {}, {{9200, SIGKILL}}, "Force quit devserver."},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(std::string(c.app) + " " + c.choice);
    const std::string app = c.app;
    signals->sent.clear();
    apps->calls.clear();
    toasts.clear();
    broughtForward = 0;

    auto answer = ask(app);
    ASSERT_EQ(answer["ok"], true) << answer.dump();
    ASSERT_TRUE(qtest::pumpUntil([&] { return dialog->isVisible(); }));
    EXPECT_EQ(broughtForward, 1);
    EXPECT_TRUE(dialogShows(QString::fromStdString("Quit " + app + "?")));
    EXPECT_TRUE(dialogShows(
        QString::fromStdString(app + " will be asked to quit, like choosing Quit from its menu.")));
    EXPECT_TRUE(dialogShows(QString::fromStdString(QuitRequest::forceQuitNote())));
    EXPECT_TRUE(signals->sent.empty() && apps->calls.empty()) << "nothing before the choice";

    ASSERT_NE(button(c.choice), nullptr);
    button(c.choice)->click();
    EXPECT_FALSE(dialog->isVisible());
    EXPECT_FALSE(model->quitRequest());
    EXPECT_EQ(apps->calls, c.calls);
    EXPECT_EQ(signals->sent, c.sent);
    EXPECT_EQ(toasts,
              c.toast.empty() ? std::vector<std::string>{} : std::vector<std::string>{c.toast});
  }
}

TEST_F(QuitFlowTest, ThisApplicationAndAnotherUsersAppAreRefusedWithoutAQuestion) {
  for (const char* name : {"Vistrel", "Theirs"}) {
    SCOPED_TRACE(name);
    auto answer = ask(name);
    EXPECT_EQ(answer["ok"], false);
    EXPECT_EQ(answer["error"], std::string(name) + Control::kCannotQuit);
    EXPECT_FALSE(model->quitRequest());
    EXPECT_FALSE(dialog->isVisible());
  }
  EXPECT_EQ(broughtForward, 0);
  EXPECT_TRUE(signals->sent.empty());
  EXPECT_TRUE(apps->calls.empty());
}

TEST_F(QuitFlowTest, ANewerRequestReplacesTheOneOnShow) {
  ask("editor");
  ASSERT_TRUE(dialog->isVisible());
  // A session to end arrives while the app's question is open: the dialog now asks about it.
  model->confirmEndSession("Codex", "/w/x");
  EXPECT_TRUE(dialogShows("End this Codex session?"));
  EXPECT_TRUE(dialogShows("This ends the session in /w/x and everything it started."));
  EXPECT_FALSE(dialogShows(QString::fromStdString(QuitRequest::forceQuitNote())));
  button(QuitDialog::kQuitName)->click();
  // The session had no processes: the app the first question was about is untouched.
  EXPECT_TRUE(apps->calls.empty());
  EXPECT_TRUE(signals->sent.empty());
  EXPECT_FALSE(model->quitRequest());
  ASSERT_EQ(toasts.size(), 1u);
}

TEST_F(QuitFlowTest, EscapeCancels) {
  ask("editor");
  ASSERT_TRUE(dialog->isVisible());
  dialog->reject();  // what Escape and the close box do
  EXPECT_FALSE(model->quitRequest());
  EXPECT_TRUE(signals->sent.empty() && apps->calls.empty());
}

TEST(QuitView, ListsWhatCarryingOutWouldReach) {
  Snapshot s;
  auto proc = [](int32_t pid, int32_t ppid, std::string name) {
    ProcessSample p;
    p.pid = pid, p.ppid = ppid, p.name = std::move(name), p.memory = 2u << 20;
    return p;
  };
  s.processes = {proc(10, 1, "Main"), proc(11, 10, "Helper"), proc(12, 10, "child"),
                 proc(20, 1, "agent"), proc(21, 20, "")};
  s.agents = {AgentSession{20, "Claude Code", "/w", {}, 2, 0, 0, false, {}}};
  AppUsage app;
  app.name = "Main";
  app.pids = {10, 11, 99};  // 99 has exited
  struct Case {
    QuitRequest request;
    std::vector<Affected> expected;
  } cases[] = {
      {QuitRequest::forApp(app),
       {{"Main", "pid 10 · 2 MB"}, {"Helper", "pid 11 · 2 MB"}, {"child", "pid 12 · 2 MB"}}},
      {QuitRequest::forAgent("Claude Code", "/w"),
       {{"agent", "pid 20 · 2 MB"}, {"pid 21", "pid 21 · 2 MB"}}},
      {QuitRequest::forAgent("Codex", "/w"), {}},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.request.title());
    EXPECT_EQ(affected(c.request, s), c.expected);
  }
  EXPECT_EQ(quitDialogView(QuitRequest::forApp(app), std::nullopt).nothingLeft,
            "It isn't running any more.");
}

}  // namespace
}  // namespace vistrel::ui
