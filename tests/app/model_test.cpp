#include "app/model.hpp"

#include <gtest/gtest.h>
#include <stdlib.h>

#include <string>
#include <vector>

#include "alerts/alert_log.hpp"
#include "sampling/fakes.hpp"

namespace vistrel {
namespace {

class ModelTest : public ::testing::Test {
 protected:
  void makeModel() {
    model.reset();
    sampler = testing::fakeSampler(main, clock);
    model = std::make_unique<Model>(Model::Parts{sampler, nullptr, &defaults, nullptr}, clock);
    model->setDebugSink([this](std::string_view line) { debugLines.emplace_back(line); });
  }
  // Waits for the sampler's queue to apply what the model asked of it.
  double samplerInterval() { return sampler->interval(); }

  ManualClock clock{1000};
  ManualMainQueue main;
  MemoryUserDefaults defaults;
  std::shared_ptr<Sampler> sampler;
  std::unique_ptr<Model> model;
  std::vector<std::string> debugLines;
};

TEST_F(ModelTest, IntervalRule) {
  struct Case {
    double setting;
    double background, foreground;
  } cases[] = {{1, 5, 1}, {2, 5, 2}, {5, 5, 5}, {10, 10, 10}};
  for (const auto& c : cases) {
    SCOPED_TRACE(c.setting);
    defaults.set(keys::interval, c.setting);
    makeModel();
    model->start();
    EXPECT_DOUBLE_EQ(samplerInterval(), c.background);
    EXPECT_TRUE(sampler->background());
    model->setWindowVisible(true);
    EXPECT_DOUBLE_EQ(samplerInterval(), c.foreground);
    EXPECT_FALSE(sampler->background());
    model->setWindowVisible(false);
    model->setPanelVisible(true);  // the menu-bar panel counts as visible too
    EXPECT_DOUBLE_EQ(samplerInterval(), c.foreground);
    EXPECT_FALSE(sampler->background());
    model->setPanelVisible(false);
    EXPECT_DOUBLE_EQ(samplerInterval(), c.background);
  }
}

TEST_F(ModelTest, VisibilityChangesRerunTheRuleOnceAndAreLogged) {
  defaults.set(keys::interval, 1.0);
  makeModel();
  model->start();
  auto timer = sampler->timer();
  model->setWindowVisible(true);
  auto afterShow = sampler->timer();
  EXPECT_NE(afterShow, timer);
  model->setWindowVisible(true);  // no change: the timer is left alone
  EXPECT_EQ(sampler->timer(), afterShow);
  model->setIntervalSeconds(1);  // same interval: nothing
  EXPECT_EQ(sampler->timer(), afterShow);
  model->setIntervalSeconds(3);
  EXPECT_DOUBLE_EQ(samplerInterval(), 3);
  EXPECT_EQ(defaults.number(keys::interval), 3);
  EXPECT_EQ(debugLines, (std::vector<std::string>{"windowVisible true\n"}));
}

TEST_F(ModelTest, SettingsLoadWithDefaultsForMissingOrBadValues) {
  defaults.set(keys::interval, "fast");                              // wrong type
  defaults.set(keys::retention, 0);                                  // out of range
  defaults.set(keys::appearance, "sepia");                           // unknown
  defaults.set(keys::menuItems, {"gpu", "fans", "gpu", 7, "heat"});  // unknown, repeated, junk
  defaults.set(keys::bits, true);
  Settings s = Settings::load(defaults);
  EXPECT_EQ(s.intervalSeconds, 2);
  EXPECT_EQ(s.retentionDays, 7);
  EXPECT_EQ(s.appearance, Appearance::system);
  EXPECT_EQ(s.menuItems, (std::vector<Metric>{Metric::gpu, Metric::heat}));
  EXPECT_TRUE(s.bits);
  EXPECT_TRUE(s.mcpEnabled);

  MemoryUserDefaults empty;
  EXPECT_EQ(Settings::load(empty), Settings{});
}

TEST_F(ModelTest, SettersStoreAndSurviveARestart) {
  makeModel();
  model->setRetentionDays(30);
  model->setAppearance(Appearance::paper);
  model->setMenuItems({Metric::network, Metric::cpu});
  model->setShowInDock(true);
  model->setFahrenheit(true);
  model->setIntervalSeconds(0.1);  // clamped to 1
  makeModel();
  const Settings& s = model->settings();
  EXPECT_EQ(s.retentionDays, 30);
  EXPECT_EQ(s.appearance, Appearance::paper);
  EXPECT_EQ(s.menuItems, (std::vector<Metric>{Metric::network, Metric::cpu}));
  EXPECT_TRUE(s.showInDock);
  EXPECT_TRUE(s.fahrenheit);
  EXPECT_EQ(s.intervalSeconds, 1);
  model->setFahrenheit(false);
}

TEST_F(ModelTest, McpObserverSeesTheCurrentValueThenChangesOnly) {
  makeModel();
  std::vector<bool> seen;
  model->observeMcpEnabled([&](bool on) { seen.push_back(on); });
  model->setMcpEnabled(true);  // already on
  model->setMcpEnabled(false);
  model->setMcpEnabled(false);
  model->setMcpEnabled(true);
  EXPECT_EQ(seen, (std::vector<bool>{true, false, true}));
  EXPECT_EQ(defaults.boolean(keys::mcpEnabled), true);
}

TEST_F(ModelTest, WelcomeOncePerAccount) {
  makeModel();
  EXPECT_TRUE(model->takeFirstLaunch());
  EXPECT_TRUE(model->showWelcome());
  EXPECT_FALSE(model->takeFirstLaunch());
  makeModel();
  EXPECT_FALSE(model->takeFirstLaunch());
  EXPECT_FALSE(model->showWelcome());
}

Snapshot snapshotWithBusyApp(Date time, double cpu) {
  Snapshot s;
  s.time = time;
  s.cpu.total = 0.3;
  AppUsage app;
  app.id = "proc:spin";
  app.name = "spin";
  app.pids = {42};
  app.cpu = cpu;
  s.apps = {app};
  return s;
}

TEST_F(ModelTest, ReceiverOrderAndEffects) {
  makeModel();
  int samples = 0, published = 0;
  std::vector<double> agentGaps;
  bool onScreen = false;
  model->hooks.onSample = [&] { ++samples; };
  model->hooks.windowOnScreen = [&] { return onScreen; };
  model->hooks.refreshAgents = [&](const Snapshot&, double gap) { agentGaps.push_back(gap); };
  model->addObserver([&](const Snapshot&) { ++published; });

  for (int i = 0; i < 200; ++i) {
    model->receive(snapshotWithBusyApp(clock.now(), 10));
    clock.advance(2);
  }
  EXPECT_EQ(samples, 200);
  EXPECT_EQ(published, 0);  // nothing visible: nothing published
  EXPECT_EQ(model->live(Metric::cpu).size(), Model::kLivePoints);
  EXPECT_DOUBLE_EQ(model->live(Metric::cpu).back(), 0.3);
  // Asked on every sample, with the long gap while the agents page is not on screen.
  ASSERT_EQ(agentGaps.size(), 200u);
  EXPECT_EQ(agentGaps.back(), Model::kAgentsGapHidden);
  EXPECT_TRUE(model->dataArrived());

  // The window turns out to be on screen: noticed on the next sample, published from then on.
  onScreen = true;
  model->receive(snapshotWithBusyApp(clock.now(), 10));
  EXPECT_TRUE(model->windowVisible());
  EXPECT_EQ(published, 2);  // once on becoming visible, once as this sample's publication
  EXPECT_EQ(agentGaps.back(), Model::kAgentsGapHidden);  // visible, but another page
  model->setPage(Page::agents);
  model->receive(snapshotWithBusyApp(clock.now(), 10));
  EXPECT_EQ(agentGaps.back(), Model::kAgentsGapShowing);
  onScreen = false;  // the window went behind others: back to the long gap
  model->receive(snapshotWithBusyApp(clock.now(), 10));
  EXPECT_EQ(agentGaps.back(), Model::kAgentsGapHidden);
}

TEST_F(ModelTest, AlertsFromTheReceiverAreKeptAndCountedUnread) {
  makeModel();
  // An app holding a core for five minutes, sampled every 10 s.
  for (int i = 0; i <= 31; ++i) {
    model->receive(snapshotWithBusyApp(clock.now(), 100));
    clock.advance(10);
  }
  ASSERT_EQ(model->alerts().alerts().size(), 1u);
  EXPECT_EQ(model->alerts().alerts().front().kind, AlertEvent::Kind::cpu);
  EXPECT_EQ(model->alerts().unreadAlerts(), 1);
  ASSERT_EQ(debugLines.size(), 1u);
  EXPECT_EQ(debugLines[0].rfind("alert cpu: spin has kept a CPU core busy for 5 min", 0), 0u)
      << debugLines[0];
  model->setPage(Page::alerts);
  EXPECT_EQ(model->alerts().unreadAlerts(), 0);
  // Kept across a restart.
  makeModel();
  EXPECT_EQ(model->alerts().alerts().size(), 1u);
}

}  // namespace
}  // namespace vistrel
