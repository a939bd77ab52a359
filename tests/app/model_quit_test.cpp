#include <gtest/gtest.h>
#include <signal.h>
#include <unistd.h>

#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "app/control_host_impl.hpp"
#include "app/model.hpp"
#include "control/control.hpp"
#include "control/recording_quit.hpp"
#include "sampling/fakes.hpp"

namespace vistrel {
namespace {

using testing::RecordingQuitter;
using testing::RecordingSignals;

const uint32_t kMe = static_cast<uint32_t>(::getuid());

class ModelQuitTest : public ::testing::Test {
 protected:
  ModelQuitTest() {
    sampler = testing::fakeSampler(main, clock);
    model = std::make_unique<Model>(Model::Parts{sampler, nullptr, &defaults, nullptr}, clock);
    model->setQuitTools(signals, apps);
  }

  // Hands the model a snapshot holding these apps, each with a main process and one helper.
  void receive(std::vector<std::pair<AppUsage, uint32_t>> apps) {
    Snapshot s;
    s.time = clock.now();
    for (auto& [app, uid] : apps) {
      for (int32_t pid : app.pids) {
        ProcessSample p;
        p.pid = pid;
        p.ppid = pid == app.pids.front() ? 1 : app.pids.front();
        p.uid = uid;
        s.processes.push_back(p);
      }
      s.apps.push_back(app);
    }
    model->receive(std::move(s));
  }
  static AppUsage app(std::string name, std::vector<int32_t> pids, bool isSystem = false) {
    AppUsage a;
    a.name = std::move(name);
    a.pids = std::move(pids);
    a.isSystem = isSystem;
    return a;
  }
  bool nothingReached() const { return signals->sent.empty() && apps->calls.empty(); }

  ManualClock clock{1000};
  ManualMainQueue main;
  MemoryUserDefaults defaults;
  std::shared_ptr<Sampler> sampler;
  std::unique_ptr<Model> model;
  std::shared_ptr<RecordingSignals> signals = std::make_shared<RecordingSignals>();
  std::shared_ptr<RecordingQuitter> apps = std::make_shared<RecordingQuitter>();
};

TEST_F(ModelQuitTest, OnlyAppsThePersonMayQuitGetARequest) {
  const int32_t self = static_cast<int32_t>(::getpid());
  struct Case {
    std::string label;
    AppUsage app;
    uint32_t uid;
    bool filed;
  } cases[] = {
      {"ordinary", app("Xcode", {9001, 9002}), kMe, true},
      {"system", app("kernel", {9001}, true), kMe, false},
      {"another user's", app("Theirs", {9001}), kMe + 1, false},
      {"this application", app("Vistrel", {self}), kMe, false},
      {"no processes", app("Empty", {}), kMe, false},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.label);
    model->cancelQuit();
    receive({{c.app, c.uid}});
    EXPECT_EQ(model->canQuit(c.app), c.filed);
    model->confirmQuit(c.app);
    ASSERT_EQ(model->quitRequest().has_value(), c.filed);
    if (c.filed) {
      EXPECT_EQ(model->quitRequest()->title(), "Quit " + c.app.name + "?");
    }
  }
  EXPECT_TRUE(nothingReached());
}

TEST_F(ModelQuitTest, ARequestWaitsForConfirmationAndIsCarriedOutOnce) {
  // An application with a bundle is asked to quit as a whole; its helper gets the signal.
  AppUsage xcode = app("Xcode", {9001, 9002});
  xcode.bundlePath = "/Applications/Xcode.app";
  receive({{xcode, kMe}});
  model->confirmQuit(xcode);
  ASSERT_TRUE(model->quitRequest());
  const QuitRequest first = *model->quitRequest();
  // A new request replaces the pending one; the old one can no longer be carried out.
  model->confirmQuit(xcode);
  const QuitRequest second = *model->quitRequest();
  EXPECT_NE(first.id, second.id);
  EXPECT_EQ(model->perform(first, false), "");
  EXPECT_EQ(model->perform(QuitRequest::forApp(xcode), true), "");  // never filed
  EXPECT_TRUE(nothingReached());
  ASSERT_TRUE(model->quitRequest());

  EXPECT_EQ(model->perform(second, false), "Asked Xcode to quit.");
  EXPECT_FALSE(model->quitRequest());
  ASSERT_EQ(apps->calls.size(), 1u);
  EXPECT_EQ(apps->calls[0], (std::pair<std::vector<int32_t>, bool>{{9001, 9002}, false}));
  EXPECT_EQ(signals->sent, (std::vector<std::pair<int32_t, int>>{{9002, SIGTERM}}));
  // Performed once: confirming the same request again does nothing.
  EXPECT_EQ(model->perform(second, true), "");
  EXPECT_EQ(apps->calls.size(), 1u);
}

TEST_F(ModelQuitTest, CancellingClearsAndQuitsNothing) {
  AppUsage xcode = app("Xcode", {9001});
  receive({{xcode, kMe}});
  model->confirmQuit(xcode);
  const QuitRequest pending = *model->quitRequest();
  model->cancelQuit();
  EXPECT_FALSE(model->quitRequest());
  EXPECT_EQ(model->perform(pending, true), "");
  EXPECT_TRUE(nothingReached());
}

TEST_F(ModelQuitTest, EndingASessionSignalsItsTree) {
  Snapshot s;
  s.agents = {AgentSession{9100, "Codex", "/w/x", {}, 2, 0, 0, false, {}}};
  ProcessSample root, child;
  root.pid = 9100, root.ppid = 1, child.pid = 9101, child.ppid = 9100;
  s.processes = {root, child};
  model->receive(s);
  model->confirmEndSession("Codex", "/w/x");
  ASSERT_TRUE(model->quitRequest());
  EXPECT_EQ(model->quitRequest()->title(), "End this Codex session?");
  EXPECT_EQ(model->perform(*model->quitRequest(), true), "Ended the Codex session in /w/x.");
  EXPECT_EQ(signals->sent,
            (std::vector<std::pair<int32_t, int>>{{9100, SIGKILL}, {9101, SIGKILL}}));
  EXPECT_TRUE(apps->calls.empty());
}

// The whole path an agent takes: the request reaches the model, files exactly one request, and
// nothing is signalled or asked to quit until the person confirms.
TEST_F(ModelQuitTest, QuitAppThroughTheControlHostOnlyFilesARequest) {
  AppUsage xcode = app("Xcode", {9001, 9002});
  AppUsage system = app("WindowServer", {9003}, true);
  receive({{xcode, kMe}, {system, kMe}});
  int agentsReads = 0;
  ModelControlHost host(*model, nullptr, [&] {
    ++agentsReads;
    return AgentsSnapshot{};
  });
  Control control(host, clock, false);

  // Without a window nobody can be asked: the agent hears so and nothing is filed.
  auto answer = nlohmann::json::parse(control.answerOnMain("quit_app", {{"name", "xcode"}}));
  EXPECT_EQ(answer["ok"], false);
  EXPECT_EQ(answer["error"], Control::kNobodyToAsk);
  EXPECT_FALSE(model->quitRequest());

  int asked = 0;
  model->hooks.quitRequested = [&] { ++asked; };
  answer = nlohmann::json::parse(control.answerOnMain("quit_app", {{"name", "xcode"}}));
  EXPECT_EQ(answer["ok"], true);
  EXPECT_EQ(asked, 1);
  ASSERT_TRUE(model->quitRequest());
  ASSERT_NE(model->quitRequest()->app(), nullptr);
  EXPECT_EQ(model->quitRequest()->app()->name, "Xcode");
  const std::string id = model->quitRequest()->id;

  answer = nlohmann::json::parse(control.answerOnMain("quit_app", {{"name", "windowserver"}}));
  EXPECT_EQ(answer["ok"], false);
  EXPECT_EQ(model->quitRequest()->id, id);  // a refused request leaves the pending one alone
  EXPECT_TRUE(nothingReached());

  // The other tools read the model through the host.
  auto status = nlohmann::json::parse(control.answerOnMain("status", nlohmann::json::object()));
  EXPECT_EQ(status["result"]["busiest_apps"][0]["name"], "Xcode");
  auto agents = control.answerOffMain("agents", nlohmann::json::object());
  ASSERT_TRUE(agents);
  EXPECT_EQ(agentsReads, 1);
  auto history = nlohmann::json::parse(*control.answerOffMain("history", {{"metric", "cpu"}}));
  EXPECT_EQ(history["ok"], false);  // no store
}

}  // namespace
}  // namespace vistrel
