#include "alerts/alert_log.hpp"

#include <gtest/gtest.h>

#include <memory>
#include <string>
#include <vector>

#include "alerts/alert_test_support.hpp"
#include "base/user_defaults.hpp"

namespace vistrel::testing {
namespace {

using Kind = AlertEvent::Kind;
using nlohmann::json;

AlertEvent oldEvent(int n) {
  AlertEvent e;
  e.id = makeUUID();
  e.date = dateFromSeconds(kNoon - 1000 + n);
  e.kind = Kind::space;
  e.title = "old " + std::to_string(n);
  return e;
}

// The engine and the log as the model holds them; `restart` makes both anew on the same store.
class AlertLogTest : public ::testing::Test {
 protected:
  ManualClock clock{1000, dateFromSeconds(kNoon)};
  MemoryUserDefaults defaults;
  RecordingNotifier notifier;
  std::unique_ptr<AlertEngine> engine;
  std::unique_ptr<AlertLog> log;

  void SetUp() override { restart(); }
  void restart() {
    log.reset();
    engine = std::make_unique<AlertEngine>(clock, &notifier, utcDayStart);
    log = std::make_unique<AlertLog>(defaults, *engine, clock, utcDayText);
  }
  // Apps at 100% CPU for 300 s: one busy alert each, raised in snapshot order.
  std::vector<AlertEvent> busyFor300(const std::vector<std::string>& ids, bool pageShowing) {
    std::vector<AppRecipe> apps;
    for (const auto& id : ids) apps.push_back({id, 100});
    log->receive(makeSnapshot(apps), pageShowing);
    clock.advance(300);
    return log->receive(makeSnapshot(apps), pageShowing);
  }
  std::optional<std::vector<AlertEvent>> stored() {
    auto bytes = defaults.data("alerts");
    if (!bytes) return std::nullopt;
    return decodeAlerts(*bytes);
  }
};

TEST_F(AlertLogTest, NothingStoredMeansEverythingOnAndNothingWritten) {
  EXPECT_TRUE(log->alerts().empty());
  EXPECT_EQ(log->unreadAlerts(), 0);
  EXPECT_EQ(log->alertKinds().size(), kAllAlertKinds.size());
  EXPECT_TRUE(log->notify());
  EXPECT_TRUE(log->mutedToday().empty());
  for (const char* key : {"alerts", "unreadAlerts", "alertKinds", "notify", "mutedToday"}) {
    EXPECT_EQ(defaults.get(key), std::nullopt) << key;
  }
  EXPECT_TRUE(log->receive(makeSnapshot({}), false).empty());
  EXPECT_EQ(defaults.get("alerts"), std::nullopt);
}

TEST_F(AlertLogTest, ThreeEventsInOneTickGoInFrontLastRaisedFirst) {
  std::vector<AlertEvent> kept;
  for (int n = 198; n >= 0; --n) kept.push_back(oldEvent(n));  // newest first
  defaults.setData("alerts", encodeAlerts(kept));
  restart();
  ASSERT_EQ(log->alerts().size(), 199u);

  const auto events = busyFor300({"A", "B", "C"}, false);
  ASSERT_EQ(titles(events), (std::vector<std::string>{"A has kept a CPU core busy for 5 min",
                                                      "B has kept a CPU core busy for 5 min",
                                                      "C has kept a CPU core busy for 5 min"}));
  const std::vector<AlertEvent> alerts = log->alerts();
  ASSERT_EQ(alerts.size(), AlertLog::kMaxAlerts);
  EXPECT_EQ(alerts[0], events[2]);
  EXPECT_EQ(alerts[1], events[1]);
  EXPECT_EQ(alerts[2], events[0]);
  EXPECT_EQ(alerts[3], kept.front());
  EXPECT_EQ(alerts.back(), kept[196]);  // the two oldest are gone
  EXPECT_EQ(log->unreadAlerts(), 3);
  EXPECT_EQ(defaults.integer("unreadAlerts"), 3);
  EXPECT_EQ(stored(), alerts);

  restart();
  EXPECT_EQ(log->alerts(), alerts);
  EXPECT_EQ(log->unreadAlerts(), 3);
}

TEST_F(AlertLogTest, UnreadCountsOnlyWhileTheAlertsPageIsAway) {
  struct Case {
    const char* name;
    bool pageShowing;
    int64_t unread;
  };
  for (const Case& c : {Case{"page away", false, 7}, Case{"page showing", true, 5}}) {
    SCOPED_TRACE(c.name);
    defaults.set("unreadAlerts", 5);
    restart();
    busyFor300({"A", "B"}, c.pageShowing);
    EXPECT_EQ(log->alerts().size(), 2u);
    EXPECT_EQ(log->unreadAlerts(), c.unread);
    EXPECT_EQ(defaults.integer("unreadAlerts"), c.unread);
    log->markRead();
    EXPECT_EQ(log->unreadAlerts(), 0);
    EXPECT_EQ(defaults.integer("unreadAlerts"), 0);
    // The page marks as new what the sidebar counted, not what a second visit finds.
    EXPECT_EQ(log->unreadWhenRead(), c.unread);
    log->markRead();
    EXPECT_EQ(log->unreadWhenRead(), 0);
    log->clearAlerts();
    EXPECT_EQ(stored(), std::vector<AlertEvent>{});
  }
}

TEST_F(AlertLogTest, AMuteLastsTheDayAcrossARestart) {
  EXPECT_EQ(log->muteToday("A"), kMutedToast);
  log->muteToday("B");
  EXPECT_EQ(defaults.get("mutedToday"),
            json({{"day", utcDayText(clock.now())}, {"apps", {"A", "B"}}}));

  clock.advance(3600);  // same day, an hour later
  restart();
  EXPECT_EQ(log->mutedToday(), (std::set<std::string>{"A", "B"}));
  EXPECT_EQ(titles(busyFor300({"A", "C"}, false)),
            std::vector<std::string>{"C has kept a CPU core busy for 5 min"});

  clock.advance(86'400);  // the next day
  restart();
  EXPECT_TRUE(log->mutedToday().empty());
  EXPECT_EQ(titles(busyFor300({"A"}, false)),
            std::vector<std::string>{"A has kept a CPU core busy for 5 min"});
}

TEST_F(AlertLogTest, UnreadableStoredAlertsAreKeptUntilANewAlert) {
  const std::vector<std::pair<const char*, json>> cases = {
      {"not JSON", json::binary({'[', '{', 'x'})},
      {"an older shape", json::binary(encodeAlerts({})) /* replaced below */},
      {"not data at all", 42},
  };
  for (auto [name, value] : cases) {
    SCOPED_TRACE(name);
    if (std::string(name) == "an older shape") {
      const std::string text = R"([{"date":"2023-11-14","message":"Busy app"}])";
      value = json::binary(std::vector<uint8_t>(text.begin(), text.end()));
    }
    defaults.set("alerts", value);
    restart();
    EXPECT_TRUE(log->alerts().empty());
    log->markRead();
    log->muteToday("X");
    log->setAlertKinds({Kind::cpu});
    EXPECT_EQ(defaults.get("alerts"), value);  // settings change, the old list stays as it was

    const auto events = busyFor300({"A"}, false);
    ASSERT_EQ(events.size(), 1u);
    EXPECT_EQ(stored(), events);
    log->setAlertKinds({kAllAlertKinds.begin(), kAllAlertKinds.end()});
  }
}

TEST_F(AlertLogTest, UnknownKindsAreIgnoredAndSwitchedOffKindsStaySilent) {
  defaults.set("alertKinds", json::array({"heat", "bogus", 7, "cpu"}));
  restart();
  EXPECT_EQ(log->alertKinds(), (std::set<Kind>{Kind::cpu, Kind::heat}));
  EXPECT_EQ(engine->enabled, log->alertKinds());
  Snapshot low;
  low.disk.volumes.push_back({"Disk", "/", 100'000'000'000, 1'000, true});
  EXPECT_TRUE(log->receive(low, false).empty());

  log->setAlertKinds({Kind::space, Kind::pressure});
  EXPECT_EQ(defaults.get("alertKinds"), json::array({"pressure", "space"}));
  EXPECT_EQ(log->receive(low, false).size(), 1u);
  restart();
  EXPECT_EQ(log->alertKinds(), (std::set<Kind>{Kind::pressure, Kind::space}));
}

TEST_F(AlertLogTest, TheNotificationSwitchAsksPermissionOnlyWhenTurnedOn) {
  log->setNotify(false);
  EXPECT_EQ(notifier.permissionRequests, 0);
  EXPECT_EQ(defaults.boolean("notify"), false);
  busyFor300({"A"}, false);
  EXPECT_TRUE(notifier.posted.empty());
  EXPECT_EQ(log->alerts().size(), 1u);  // alerts still reach the list

  restart();
  EXPECT_FALSE(engine->notify);
  log->setNotify(true);
  EXPECT_EQ(notifier.permissionRequests, 1);
  EXPECT_TRUE(engine->notify);
  EXPECT_EQ(defaults.boolean("notify"), true);
}

}  // namespace
}  // namespace vistrel::testing
