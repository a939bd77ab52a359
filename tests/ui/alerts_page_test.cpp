// The alerts page against the real model and alert engine: muting an app from the page silences
// it (the alerts tool stops growing for it while other apps still raise), clearing empties what
// the alerts tool answers, the switches reach the stored settings, and the new marks follow the
// last visit.

#include <gtest/gtest.h>

#include <QCheckBox>
#include <QLabel>
#include <QPushButton>

#include "alerts/alert_log.hpp"
#include "app/control_host_impl.hpp"
#include "app/model.hpp"
#include "control/control.hpp"
#include "sampling/fakes.hpp"
#include "ui/alerts_view.hpp"
#include "ui/page.hpp"
#include "ui/qt_app.hpp"

namespace vistrel::ui {
namespace {

class AlertsPageTest : public ::testing::Test {
 protected:
  AlertsPageTest() {
    qtest::qtApp();
    sampler = vistrel::testing::fakeSampler(main, clock);
    model = std::make_unique<Model>(Model::Parts{sampler, nullptr, &defaults, nullptr}, clock);
    host = std::make_unique<ModelControlHost>(*model, nullptr, [] { return AgentsSnapshot{}; });
    control = std::make_unique<Control>(*host, clock, false);
    context = std::make_unique<PageContext>(
        PageContext{*model, nullptr, [](Page) {}, "/usr/bin/vistrel", nullptr, nullptr});
    context->defaults = &defaults;
    context->toast = [this](const std::string& text) { toasts.push_back(text); };
  }
  ~AlertsPageTest() override { page.reset(); }

  // One tick a minute with these apps each keeping `cpu` percent of one core busy.
  void minutes(int count, const std::vector<std::pair<std::string, double>>& busy) {
    for (int i = 0; i < count; ++i) {
      Snapshot s;
      s.time = clock.now();
      s.memory.total = 16ull << 30;
      for (const auto& [name, cpu] : busy) {
        AppUsage a;
        a.id = a.name = name;
        a.cpu = cpu;
        s.apps.push_back(a);
      }
      model->receive(std::move(s));
      clock.advance(60);
    }
  }
  nlohmann::json toolAlerts() {
    auto answer = nlohmann::json::parse(control->answerOnMain("alerts", {{"limit", 200}}));
    EXPECT_EQ(answer["ok"], true);
    return answer["result"];
  }
  size_t alertsAbout(const std::string& app) {
    size_t n = 0;
    for (const auto& a : toolAlerts()) n += a.dump().find(app) != std::string::npos ? 1 : 0;
    return n;
  }
  void openPage() {
    page.reset(makePage(Page::alerts, *context, nullptr));
    page->resize(1000, 700);
    page->show();
    page->refresh();
  }
  template <class W>
  W* find(const QString& name) {
    return page->findChild<W*>(name);
  }

  ManualClock clock{1000, dateFromSeconds(1'700'000'000 + 12 * 3600)};
  ManualMainQueue main;
  MemoryUserDefaults defaults;
  std::shared_ptr<Sampler> sampler;
  std::unique_ptr<Model> model;
  std::unique_ptr<ModelControlHost> host;
  std::unique_ptr<Control> control;
  std::unique_ptr<PageContext> context;
  std::unique_ptr<PageWidget> page;
  std::vector<std::string> toasts;
};

TEST_F(AlertsPageTest, MutingFromThePageSilencesTheAppForTheAlertsTool) {
  minutes(7, {{"Mail", 100}});
  ASSERT_EQ(alertsAbout("Mail"), 1u);
  openPage();
  auto* mute = find<QPushButton>("mute:Mail");
  ASSERT_NE(mute, nullptr);
  mute->click();
  EXPECT_EQ(toasts, std::vector<std::string>{"Muted until tomorrow"});
  EXPECT_EQ(model->alerts().mutedToday(), std::set<std::string>{"Mail"});
  EXPECT_EQ(find<QPushButton>("mute:Mail"), nullptr);  // muted: nothing more to offer

  // Hours later the same day Mail is still busy, and so is Editor: only Editor is reported.
  minutes(180, {{"Mail", 100}, {"Editor", 100}});
  EXPECT_EQ(alertsAbout("Mail"), 1u);
  EXPECT_GE(alertsAbout("Editor"), 1u);
}

TEST_F(AlertsPageTest, ClearAllEmptiesTheAlertsToolAndShowsTheEmptyState) {
  minutes(7, {{"Mail", 100}});
  openPage();
  ASSERT_FALSE(toolAlerts().empty());
  auto* clear = find<QPushButton>("clearAlerts");
  ASSERT_NE(clear, nullptr);
  EXPECT_TRUE(clear->isEnabled());
  clear->click();
  EXPECT_TRUE(toolAlerts().empty());
  EXPECT_FALSE(clear->isEnabled());
  bool emptyShown = false;
  for (QLabel* l : page->findChildren<QLabel*>()) {
    emptyShown = emptyShown || (l->isVisible() && l->text() == "No alerts yet. That's good news.");
  }
  EXPECT_TRUE(emptyShown);
}

TEST_F(AlertsPageTest, SwitchesStoreTheRulesAndNotifications) {
  openPage();
  auto* cpu = find<QCheckBox>("cpu");
  auto* notify = find<QCheckBox>("notify");
  ASSERT_TRUE(cpu && notify);
  EXPECT_TRUE(cpu->isChecked());
  cpu->setChecked(false);
  notify->setChecked(false);
  EXPECT_EQ(model->alerts().alertKinds().count(AlertEvent::Kind::cpu), 0u);
  EXPECT_FALSE(model->alerts().notify());
  EXPECT_EQ(defaults.get("notify"), nlohmann::json(false));
  // With the rule off, a runaway app raises nothing.
  minutes(7, {{"Mail", 100}});
  EXPECT_TRUE(toolAlerts().empty());
}

AlertEvent event(std::string id, std::optional<std::string> app) {
  AlertEvent e;
  e.id = std::move(id);
  e.date = dateFromSeconds(1'700'000'000);
  e.title = "t" + e.id;
  e.app = app;
  e.appID = app;
  return e;
}

TEST(AlertsView, TheAlertsUnreadOnArrivalAreMarkedNew) {
  const std::vector<AlertEvent> alerts = {event("C", "Mail"), event("B", std::nullopt),
                                          event("A", "Editor")};
  const Date now = dateFromSeconds(1'700'000'600);
  struct Case {
    int64_t unreadOnArrival;
    std::vector<bool> unread;
    std::string summary;
  } cases[] = {
      {3, {true, true, true}, "3 alerts, 3 new"},
      {2, {true, true, false}, "3 alerts, 2 new"},
      {0, {false, false, false}, "3 alerts"},
      // Counted before a clear and the alerts since: never more than the list holds.
      {250, {true, true, true}, "3 alerts, 3 new"},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.unreadOnArrival);
    AlertsView v = alertsView(alerts, {"Editor"}, c.unreadOnArrival, now);
    std::vector<bool> unread;
    for (const auto& l : v.lines) unread.push_back(l.unread);
    EXPECT_EQ(unread, c.unread);
    EXPECT_EQ(v.summary, c.summary);
    EXPECT_EQ(v.lines[0].muteId, std::optional<std::string>("Mail"));
    EXPECT_EQ(v.lines[1].muteId, std::nullopt);  // machine-wide
    EXPECT_TRUE(v.lines[2].muted);               // already muted
    EXPECT_EQ(v.lines[2].muteId, std::nullopt);
  }
  EXPECT_EQ(alertsView({}, {}, 0, now).empty, "No alerts yet. That's good news.");
}

}  // namespace
}  // namespace vistrel::ui
