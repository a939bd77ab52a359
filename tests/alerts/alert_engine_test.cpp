#include "alerts/alert_engine.hpp"

#include <gtest/gtest.h>

#include <functional>
#include <memory>
#include <set>
#include <string>
#include <vector>

#include "alerts/alert_test_support.hpp"
#include "format/platform_text.hpp"

namespace vistrel::testing {
namespace {

using Kind = AlertEvent::Kind;

// One check: the clock moves `advance` seconds, then the engine sees `snapshot`.
struct Tick {
  double advance;
  Snapshot snapshot;
};

Tick at(double advance, std::vector<AppRecipe> apps = {}) {
  return {advance, makeSnapshot(apps)};
}
Tick critical(double advance, std::vector<AppRecipe> apps = {}) {
  Tick t = at(advance, std::move(apps));
  t.snapshot.memory.pressure = Pressure::critical;
  return t;
}
Tick hot(double advance, double celsius, std::vector<AppRecipe> apps = {}) {
  Tick t = at(advance, std::move(apps));
  t.snapshot.sensors.cpu = celsius;
  return t;
}
Tick disk(double advance, uint64_t total, uint64_t free) {
  Tick t = at(advance);
  t.snapshot.disk.volumes.push_back({"Macintosh HD", "/", total, free, true});
  return t;
}
// `count` checks `every` seconds apart, the first one `every` after the previous check (or at once
// when `first` is true), the snapshot of check i made by `make(i)`.
std::vector<Tick> series(int count, double every, bool first, std::function<Tick(int)> make) {
  std::vector<Tick> out;
  for (int i = 0; i < count; ++i) {
    Tick t = make(i);
    t.advance = (i == 0 && first) ? 0 : every;
    out.push_back(std::move(t));
  }
  return out;
}
class AlertEngineTest : public ::testing::Test {
 protected:
  ManualClock clock{1000, dateFromSeconds(kNoon)};
  RecordingNotifier notifier;
  std::unique_ptr<AlertEngine> engine = fresh();

  std::unique_ptr<AlertEngine> fresh() {
    return std::make_unique<AlertEngine>(clock, &notifier, utcDayStart);
  }

  // Every event raised, as "<check index>: <title>".
  std::vector<std::string> run(const std::vector<Tick>& ticks) {
    std::vector<std::string> out;
    for (size_t i = 0; i < ticks.size(); ++i) {
      clock.advance(ticks[i].advance);
      for (const auto& e : engine->check(ticks[i].snapshot)) {
        out.push_back(std::to_string(i) + ": " + e.title);
      }
    }
    return out;
  }
};

struct RuleCase {
  const char* name;
  std::vector<Tick> ticks;
  std::vector<std::string> expected;  // in the Mac's words
};

TEST_F(AlertEngineTest, RulesFireAtTheirThresholdsAndNotBefore) {
  const auto rising = [](double step) {
    return [step](int i) { return at(0, {{"Editor", 0, uint64_t(1e9 + i * step)}}); };
  };
  const std::vector<RuleCase> cases = {
      {"first check counts no bytes", {at(0, {{"Editor", 0, 0, 1e12}})}, {}},
      {"a 10-minute gap counts as 30 s",
       {at(0, {{"Editor"}}), at(600, {{"Editor", 0, 0, 1.6e8}})},
       {}},
      {"a 10-minute gap still counts 30 s",
       {at(0, {{"Editor"}}), at(600, {{"Editor", 0, 0, 1.7e8}})},
       {"1: Editor has written 5.1 GB today"}},
      {"exactly 5,000,000,000 bytes", {at(0, {{"Editor"}}), at(25, {{"Editor", 0, 0, 2e8}})}, {}},
      {"one byte more",
       {at(0, {{"Editor"}}), at(25, {{"Editor", 0, 0, 2e8}}), at(1, {{"Editor", 0, 0, 1}})},
       {"2: Editor has written 5.0 GB today"}},
      {"exactly 95% for exactly 300 s",
       {at(0, {{"Editor", 95}}), at(300, {{"Editor", 95}})},
       {"1: Editor has kept a CPU core busy for 5 min"}},
      {"busy for 299 s", {at(0, {{"Editor", 95}}), at(299, {{"Editor", 95}})}, {}},
      {"94.9% is not busy",
       {at(0, {{"Editor", 94.9}}), at(300, {{"Editor", 94.9}}), at(300, {{"Editor", 94.9}})},
       {}},
      {"a dip restarts the stretch",
       {at(0, {{"Editor", 100}}), at(200, {{"Editor", 50}}), at(1, {{"Editor", 100}}),
        at(299, {{"Editor", 100}}), at(1, {{"Editor", 100}})},
       {"4: Editor has kept a CPU core busy for 5 min"}},
      {"an app that leaves forgets its stretch",
       {at(0, {{"Editor", 100}}), at(200), at(1, {{"Editor", 100}}), at(299, {{"Editor", 100}}),
        at(1, {{"Editor", 100}})},
       {"4: Editor has kept a CPU core busy for 5 min"}},
      {"cooldown counts from the last raise",
       {at(0, {{"Editor", 100}}), at(300, {{"Editor", 100}}), at(21'599, {{"Editor", 100}}),
        at(1, {{"Editor", 100}}), at(21'599, {{"Editor", 100}}), at(1, {{"Editor", 100}})},
       {"1: Editor has kept a CPU core busy for 5 min",
        "3: Editor has kept a CPU core busy for 6 h 5 min",
        "5: Editor has kept a CPU core busy for 12 h 5 min"}},
      {"a service at 90% for 600 s",
       {at(0, {{"Spotlight", 90, 0, 0, 0, 0, true}}),
        at(599, {{"Spotlight", 90, 0, 0, 0, 0, true}}),
        at(1, {{"Spotlight", 90, 0, 0, 0, 0, true}})},
       {"2: Spotlight, part of macOS, has used 90% CPU for 10 min"}},
      {"an ordinary app at 90% is not busy",
       {at(0, {{"Editor", 90}}), at(600, {{"Editor", 90}})},
       {}},
      {"the system entry never fires",
       {at(0, {{"system", 400, 0, 0, 0, 0, true}}), at(600, {{"system", 400, 0, 0, 0, 0, true}}),
        at(600, {{"system", 400, 0, 0, 0, 0, true}})},
       {}},
      {"an hour of traffic at its edge",
       {at(0, {{"Editor"}}), at(30, {{"Editor", 0, 0, 0, 3e7}}),
        at(3'600, {{"Editor", 0, 0, 0, 2.05e7}})},
       {"2: Editor moved 3.0 GB in the last hour"}},
      {"traffic older than an hour is dropped",
       {at(0, {{"Editor"}}), at(30, {{"Editor", 0, 0, 0, 3e7}}),
        at(3'601, {{"Editor", 0, 0, 0, 2.05e7}})},
       {}},
      {"the sixth mark, 50 minutes after the first",
       series(6, 600, true, rising(3e8)),
       {"5: Editor keeps growing: +1.40 GB in an hour"}},
      {"growth one step short", series(6, 600, true, rising(299'999'999)), {}},
      {"a flat step is not growth",
       series(6, 600, true,
              [](int i) {
                const uint64_t bytes[] = {1'000'000'000, 1'300'000'000, 1'600'000'000,
                                          1'600'000'000, 2'200'000'000, 2'500'000'000};
                return at(0, {{"Editor", 0, bytes[i]}});
              }),
       {}},
      {"checks between marks add none",
       series(51, 60, true,
              [](int i) {
                return at(0, {{"Editor", 0, uint64_t(1e9 + i * 3e8)}});
              }),
       {"50: Editor keeps growing: +14.0 GB in an hour"}},
      {"the 41st app is not marked",
       series(6, 600, true,
              [](int i) {
                std::vector<AppRecipe> apps;
                for (int a = 0; a < 40; ++a) apps.push_back({"App" + std::to_string(a)});
                apps.push_back({"Late", 0, uint64_t(1e9 + i * 1e9)});
                return at(0, apps);
              }),
       {}},
      {"pressure for 59 s", {critical(0), critical(59)}, {}},
      {"pressure for 60 s", {critical(0), critical(60)}, {"1: Memory pressure is critical"}},
      {"relief restarts the pressure stretch",
       {critical(0), at(30), critical(1), critical(59), critical(1)},
       {"4: Memory pressure is critical"}},
      {"pressure cooldown of 2 hours",
       {critical(0), critical(60), critical(7'199), critical(1)},
       {"1: Memory pressure is critical", "3: Memory pressure is critical"}},
      {"95° for 120 s", {hot(0, 95), hot(120, 95)}, {"1: Your Mac is running hot: 95°"}},
      {"94.9° is not hot", {hot(0, 94.9), hot(120, 94.9)}, {}},
      {"no sensor is not hot", {at(0), at(120)}, {}},
      {"exactly 10,000,000,000 bytes free", {disk(0, 500'000'000'000, 10'000'000'000)}, {}},
      {"9,999,999,999 bytes free, again after a day",
       {disk(0, 500'000'000'000, 9'999'999'999), disk(86'399, 500'000'000'000, 9'999'999'999),
        disk(1, 500'000'000'000, 9'999'999'999)},
       {"0: Only 10.0 GB left on your startup disk", "2: Only 10.0 GB left on your startup disk"}},
      {"no startup disk size", {disk(0, 0, 0)}, {}},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.name);
    clock.setNow(dateFromSeconds(kNoon));
    engine = fresh();
    std::vector<std::string> expected;
    for (const auto& text : c.expected) expected.push_back(platformText(text));
    EXPECT_EQ(run(c.ticks), expected);
    EXPECT_EQ(notifier.posted.size(), c.expected.size());
    notifier.posted.clear();
  }
}

TEST_F(AlertEngineTest, MuteSilencesTheAppButNotTheMachine) {
  engine->mutedToday = {"Editor"};
  // Editor is busy, writes heavily and is the top app while pressure is critical and disk is low.
  auto tick = [](double advance) {
    Tick t = critical(advance, {{"Editor", 100, 8'000'000'000, 5e8}, {"Mail", 100, 1'000}});
    t.snapshot.disk.volumes.push_back({"Macintosh HD", "/", 500'000'000'000, 1'000, true});
    return t;
  };
  EXPECT_EQ(run({tick(0), tick(60), tick(240)}),
            (std::vector<std::string>{"0: Only 1 KB left on your startup disk",
                                      "1: Memory pressure is critical",
                                      "2: Mail has kept a CPU core busy for 5 min"}));
}

TEST_F(AlertEngineTest, LocalMidnightEmptiesMutesAndDailyTotals) {
  engine->mutedToday = {"Mail"};
  // 4 GB written before midnight and 2 GB after: 6 GB in all, but never 5 GB in one day.
  const std::vector<Tick> ticks = {
      at(0, {{"Editor"}, {"Mail"}}),
      at(43'170, {{"Editor", 0, 0, 4e9 / 30}, {"Mail"}}),  // 23:59:30
      at(60, {{"Editor", 0, 0, 2e9 / 30}, {"Mail"}}),      // 00:00:30, the gap counts as 30 s
  };
  EXPECT_TRUE(run(ticks).empty());
  EXPECT_TRUE(engine->mutedToday.empty());
  // The mute is gone with the day: Mail is heard again.
  EXPECT_EQ(run({at(1, {{"Mail", 100}}), at(300, {{"Mail", 100}})}),
            std::vector<std::string>{"1: Mail has kept a CPU core busy for 5 min"});
}

TEST_F(AlertEngineTest, MutesSetBeforeTheFirstCheckOfTheDayStay) {
  // A restart restores the mutes before the first check: that check must not count as a new day.
  engine->mutedToday = {"Editor"};
  EXPECT_TRUE(run({at(0, {{"Editor", 100}}), at(300, {{"Editor", 100}})}).empty());
  EXPECT_EQ(engine->mutedToday, std::set<std::string>{"Editor"});
}

TEST_F(AlertEngineTest, SwitchedOffKindsRaiseNothingAndStartNoCooldown) {
  engine->enabled = {Kind::disk};
  EXPECT_TRUE(run({at(0, {{"Editor", 100}}), at(300, {{"Editor", 100}})}).empty());
  engine->enabled.insert(Kind::cpu);
  EXPECT_EQ(run({at(1, {{"Editor", 100}})}),
            std::vector<std::string>{"0: Editor has kept a CPU core busy for 5 min"});
}

TEST_F(AlertEngineTest, NotificationsFollowTheSwitch) {
  for (bool on : {true, false}) {
    SCOPED_TRACE(on);
    notifier.posted.clear();
    engine = fresh();
    engine->notify = on;
    clock.advance(1);
    auto events = engine->check(disk(0, 100'000'000'000, 1).snapshot);
    ASSERT_EQ(events.size(), 1u);
    EXPECT_EQ(notifier.posted, on ? events : std::vector<AlertEvent>{});
  }
  // Without a notifier (headless) raising still works.
  AlertEngine headless(clock, nullptr, utcDayStart);
  headless.requestPermission();
  EXPECT_EQ(headless.check(disk(0, 100'000'000'000, 1).snapshot).size(), 1u);
}

TEST_F(AlertEngineTest, EventsCarryTheirAppTimeAndDetail) {
  auto events = [&](std::vector<Tick> ticks) {
    std::vector<AlertEvent> out;
    engine = fresh();
    for (const auto& t : ticks) {
      clock.advance(t.advance);
      auto raised = engine->check(t.snapshot);
      out.insert(out.end(), raised.begin(), raised.end());
    }
    return out;
  };
  auto busy = events({at(0, {{"Editor", 95}}), at(300, {{"Editor", 95}})});
  ASSERT_EQ(busy.size(), 1u);
  EXPECT_EQ(busy[0].kind, Kind::cpu);
  EXPECT_EQ(busy[0].app, "Editor");
  EXPECT_EQ(busy[0].appID, "Editor");
  EXPECT_EQ(busy[0].date, clock.now());
  EXPECT_EQ(busy[0].detail, "It's using 95% of a core right now.");

  // Pressure names the candidate with the most memory (the first of equals), never a service.
  const std::vector<AppRecipe> crowd = {{"Spotlight", 0, 9'000'000'000, 0, 0, 0, true},
                                        {"Mail", 0, 2'147'483'648},
                                        {"Editor", 0, 2'147'483'648}};
  auto pressure = events({critical(0), critical(60, crowd)});
  ASSERT_EQ(pressure.size(), 1u);
  EXPECT_EQ(pressure[0].appID, "Mail");
  EXPECT_EQ(pressure[0].detail, "Mail is using the most: 2.00 GB.");
  auto alone = events({critical(0), critical(60, {{"Spotlight", 0, 1, 0, 0, 0, true}})});
  ASSERT_EQ(alone.size(), 1u);
  EXPECT_EQ(alone[0].app, std::nullopt);
  EXPECT_EQ(alone[0].detail, "Close an app you aren't using.");

  // Heat names the app of highest impact.
  auto heat =
      events({hot(0, 101), hot(120, 101, {{"Mail", 0, 0, 0, 0, 3}, {"Editor", 0, 0, 0, 0, 7}})});
  ASSERT_EQ(heat.size(), 1u);
  EXPECT_EQ(heat[0].appID, "Editor");
  EXPECT_EQ(heat[0].detail, "Editor is the busiest app.");
  auto coolRoom = events({hot(0, 101), hot(120, 101)});
  ASSERT_EQ(coolRoom.size(), 1u);
  EXPECT_EQ(coolRoom[0].detail, "");

  auto space = events({disk(0, 100'000'000'000, 5)});
  ASSERT_EQ(space.size(), 1u);
  EXPECT_EQ(space[0].appID, std::nullopt);
  EXPECT_NE(space[0].id, busy[0].id);
}

TEST_F(AlertEngineTest, MachineTextsUseThePlatformsWords) {
  if (!runningOnLinux()) GTEST_SKIP() << "the Mac's words are the texts as written";
  engine->check(hot(0, 99, {{"Mac Helper", 100, 0, 0, 0, 0, true}}).snapshot);
  clock.advance(600);
  auto events = engine->check(hot(0, 99, {{"Mac Helper", 100, 0, 0, 0, 0, true}}).snapshot);
  clock.advance(1);
  auto space = engine->check(disk(0, 100'000'000'000, 5).snapshot);
  ASSERT_EQ(events.size(), 2u);
  EXPECT_EQ(events[0].title, "Mac Helper, part of Linux, has used 100% CPU for 10 min");
  EXPECT_EQ(events[0].detail,
            "Linux services sometimes get stuck after an update. Restarting the computer usually "
            "settles it.");
  EXPECT_EQ(events[1].title, "Your computer is running hot: 99°");
  ASSERT_EQ(space.size(), 1u);
  EXPECT_EQ(space[0].detail, "Linux needs free space for memory swap and updates.");
}

}  // namespace
}  // namespace vistrel::testing
