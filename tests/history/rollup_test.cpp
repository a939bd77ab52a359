// Folding minutes into hours, and the deletions that follow, with an injected clock.

#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "history_test_support.hpp"

namespace vistrel {
namespace {

using testing::kHour0;
using testing::makeSnapshot;
using testing::StoreRig;

constexpr int64_t kDay = 86400;

std::string sysRow(const std::string& table, int64_t t, double cpu) {
  return "INSERT INTO " + table + "(t, cpu, cpu_max) VALUES(" + std::to_string(t) + ", " +
         std::to_string(cpu) + ", " + std::to_string(cpu) + ")";
}

std::string appRow(const std::string& table, int64_t t, const std::string& app, double cpu) {
  return "INSERT INTO " + table + "(t, app, name, cpu, mem) VALUES(" + std::to_string(t) + ", '" +
         app + "', '" + app + "', " + std::to_string(cpu) + ", 1)";
}

// Records one snapshot at `t` with the clock at `now`, then writes it: the write runs the roll-up.
void flushOneAt(StoreRig& rig, int64_t t, int64_t now) {
  rig.setNow(static_cast<double>(now));
  rig.store->record(makeSnapshot(static_cast<double>(t), 1));
  rig.store->flushNow();
}

TEST(HistoryRollup, HalfAnHourWithAnAppInHalfItsMinutes) {
  StoreRig rig;
  rig.setNow(kHour0 + 30 * 60);
  for (int m = 0; m < 30; ++m) {
    std::vector<testing::AppFigures> apps = {{"steady", 2}};
    if (m < 15) apps.push_back({"brief", 10});
    rig.store->record(makeSnapshot(kHour0 + m * 60 + 5, m < 10 ? 20 : 50, apps));
  }
  // The first snapshot of the next hour closes minute 29 and rolls the hour up. (Waiting for the
  // queue first: the roll-up reads the clock.)
  ASSERT_EQ(rig.store->lastRollup(), kHour0);
  rig.setNow(kHour0 + 3600 + 30);
  rig.store->record(makeSnapshot(kHour0 + 3600 + 1, 1));
  rig.store->flushNow();

  auto hour = [&](const std::string& sql) { return rig.value(sql); };
  EXPECT_EQ(hour("SELECT cpu FROM app_hour WHERE app = 'brief' AND t = " + std::to_string(kHour0)),
            5);
  EXPECT_EQ(hour("SELECT cpu FROM app_hour WHERE app = 'steady'"), 2);
  EXPECT_EQ(hour("SELECT mem FROM app_hour WHERE app = 'brief'"), 1e6);  // memory keeps its maximum
  EXPECT_EQ(hour("SELECT cpu FROM sys_hour WHERE t = " + std::to_string(kHour0)),
            (10 * 20.0 + 20 * 50.0) / 30);
  EXPECT_EQ(hour("SELECT cpu_max FROM sys_hour"), 50);
  EXPECT_EQ(hour("SELECT COUNT(*) FROM sys_hour"), 1);  // the hour under way is not rolled up
  EXPECT_EQ(rig.store->lastRollup(), kHour0 + 3600);
  EXPECT_EQ(hour("SELECT v = '" + std::to_string(kHour0 + 3600) + "' FROM meta WHERE k = 'rollup'"),
            1);
  // The mark survives a restart.
  rig.reopen();
  EXPECT_EQ(rig.store->lastRollup(), kHour0 + 3600);
}

TEST(HistoryRollup, RowsOutliveTheirRetentionByNoMoreThanAnHour) {
  const int64_t now = kHour0 + 1800;  // the current hour began at kHour0
  struct Case {
    const char* what;
    const char* table;
    int64_t age;  // seconds before the current hour
    bool kept;
  };
  const Case cases[] = {
      {"minute row 7 days 23 hours old", "sys_min", 7 * kDay + 23 * 3600, true},
      {"minute row 8 days old exactly", "sys_min", 8 * kDay, true},
      {"minute row 8 days 1 minute old", "sys_min", 8 * kDay + 60, false},
      {"app minute row 8 days 1 minute old", "app_min", 8 * kDay + 60, false},
      {"app minute row 7 days 23 hours old", "app_min", 7 * kDay + 23 * 3600, true},
      {"hour row 89 days old", "sys_hour", 89 * kDay, true},
      {"hour row 90 days 1 hour old", "sys_hour", 90 * kDay + 3600, false},
      {"app hour row 90 days 1 hour old", "app_hour", 90 * kDay + 3600, false},
  };
  StoreRig rig;
  // The roll-up mark sits at the previous hour, so the next write rolls up only one hour.
  rig.exec("INSERT INTO meta VALUES('rollup', '" + std::to_string(kHour0 - 3600) + "')");
  rig.reopen();
  for (const Case& c : cases) {
    std::string table = c.table;
    int64_t t = kHour0 - c.age;
    rig.exec(table.starts_with("app") ? appRow(table, t, c.what, 1) : sysRow(table, t, 1));
  }
  flushOneAt(rig, now - 60, now);
  for (const Case& c : cases) {
    SCOPED_TRACE(c.what);
    std::string where = " WHERE t = " + std::to_string(kHour0 - c.age);
    EXPECT_EQ(rig.value(std::string("SELECT COUNT(*) FROM ") + c.table + where), c.kept ? 1 : 0);
  }
}

TEST(HistoryRollup, ShorterRetentionDeletesHourRowsAtOnce) {
  StoreRig rig;
  const int64_t now = kHour0 + 1234;
  rig.setNow(now);
  for (int days : {1, 29, 31, 89}) {
    rig.exec(sysRow("sys_hour", now - days * kDay, days));
    rig.exec(appRow("app_hour", now - days * kDay, "a", days));
  }
  rig.exec(sysRow("sys_min", now - 7 * kDay, 7));
  rig.store->applyRetention(30);
  // No minute is written and no hour passes: the deletion happened when the setting changed.
  EXPECT_EQ(rig.count("sys_hour"), 2);
  EXPECT_EQ(rig.count("app_hour"), 2);
  EXPECT_EQ(rig.value("SELECT MIN(cpu) FROM sys_hour"), 1);
  EXPECT_EQ(rig.value("SELECT MAX(cpu) FROM app_hour"), 29);
  EXPECT_EQ(rig.count("sys_min"), 1);  // minute rows follow the eight-day rule alone
}

TEST(HistoryRollup, ClockJumpsForwardAndBack) {
  struct Case {
    const char* what;
    int64_t mark;  // roll-up mark found in the database
    int64_t now;   // the wall clock when the next minute is written
    int64_t expectMark;
    int hourRows;  // sys_hour rows afterwards
  };
  // Minute rows sit in the three hours starting at kHour0.
  const Case cases[] = {
      {"a long pause rolls every hour up in one pass", kHour0, kHour0 + 5 * 3600 + 10,
       kHour0 + 5 * 3600, 3},
      {"the clock set back an hour waits for the mark", kHour0 + 4 * 3600, kHour0 + 3 * 3600 + 10,
       kHour0 + 4 * 3600, 0},
      {"a mark left by a clock set a month ahead is not waited for", kHour0 + 30 * kDay,
       kHour0 + 3 * 3600 + 10, kHour0 + 3 * 3600, 3},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.what);
    StoreRig rig;
    rig.exec("INSERT INTO meta VALUES('rollup', '" + std::to_string(c.mark) + "')");
    for (int h = 0; h < 3; ++h) {
      for (int m = 0; m < 60; m += 20) rig.exec(sysRow("sys_min", kHour0 + h * 3600 + m * 60, h));
    }
    rig.reopen();
    ASSERT_EQ(rig.store->lastRollup(), c.mark);
    flushOneAt(rig, c.now - 5, c.now);
    EXPECT_EQ(rig.store->lastRollup(), c.expectMark);
    EXPECT_EQ(rig.count("sys_hour"), c.hourRows);
  }
}

}  // namespace
}  // namespace vistrel
