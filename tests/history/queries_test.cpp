// Series, top apps, apps at a moment, totals, size and erase, over rows placed with SQL.

#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "history/history_queries.hpp"
#include "history_test_support.hpp"

namespace vistrel {
namespace {

using testing::kHour0;
using testing::StoreRig;

constexpr int64_t kDay = 86400;
constexpr int64_t kNow = kHour0 + 1800 + 17;  // 22:30:17 UTC, deliberately not on a boundary

// Inserts one row per `step` seconds for t in [from, to) with the given column expression.
std::string fill(const std::string& table, int64_t from, int64_t to, int64_t step,
                 const std::string& columns, const std::string& values) {
  return "WITH RECURSIVE s(t) AS (SELECT " + std::to_string(from) + " UNION ALL SELECT t + " +
         std::to_string(step) + " FROM s WHERE t + " + std::to_string(step) + " < " +
         std::to_string(to) + ") INSERT INTO " + table + "(t, " + columns + ") SELECT t, " +
         values + " FROM s";
}

TEST(HistoryQueries, EachSpanReadsItsTableInItsBuckets) {
  StoreRig rig;
  rig.setNow(kNow);
  const int64_t lastMinute = kNow / 60 * 60 - 60;
  // Minute rows say 1 (peak 11) for the last eight days; hour rows say 2 (peak 12) for a year.
  rig.exec(fill("sys_min", lastMinute - 8 * kDay, lastMinute + 1, 60, "cpu, cpu_max", "1, 11"));
  rig.exec(fill("sys_hour", kHour0 - 366 * kDay, kHour0, 3600, "cpu, cpu_max", "2, 12"));
  struct Case {
    TimeSpan span;
    const char* raw;
    double marker;  // 1: minute rows, 2: hour rows
    int64_t bucket;
    const char* caption;
  };
  const Case cases[] = {
      {TimeSpan::hour, "1 h", 1, 60, "each bar 1 minute"},
      {TimeSpan::day, "24 h", 1, 300, "each bar 5 minutes"},
      {TimeSpan::week, "7 d", 1, 1800, "each bar 30 minutes"},
      {TimeSpan::month, "30 d", 2, 7200, "each bar 2 hours"},
      {TimeSpan::year, "1 y", 2, 86400, "each bar 1 day"},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.raw);
    EXPECT_EQ(rawValue(c.span), c.raw);
    EXPECT_EQ(timeSpanFromRaw(c.raw), c.span);
    EXPECT_EQ(caption(c.span), c.caption);
    EXPECT_EQ(bucket(c.span), c.bucket);
    auto points = rig.store->seriesSync(Metric::cpu, c.span);
    ASSERT_FALSE(points.empty());
    // The first bar holds the first row of the span; bars follow each other without gaps; all
    // come from one table.
    int64_t rowStep = c.marker == 1 ? 60 : 3600;
    int64_t firstRow = (kNow - seconds(c.span) + rowStep - 1) / rowStep * rowStep;
    EXPECT_LE(points.front().time, firstRow);
    EXPECT_GT(points.front().time + c.bucket, firstRow);
    for (size_t i = 0; i < points.size(); ++i) {
      EXPECT_EQ(points[i].time % c.bucket, 0);
      if (i > 0) {
        EXPECT_EQ(points[i].time - points[i - 1].time, c.bucket);
      }
      EXPECT_EQ(points[i].value, c.marker);
      EXPECT_EQ(points[i].peak, c.marker + 10);
    }
    EXPECT_GE(points.back().time + c.bucket, c.marker == 1 ? lastMinute : kHour0 - 3600);
  }
  EXPECT_EQ(timeSpanFromRaw("2 h"), std::nullopt);
}

TEST(HistoryQueries, SeriesSkipsRowsWithoutAValue) {
  StoreRig rig;
  rig.setNow(kNow);
  rig.exec(fill("sys_min", kHour0, kHour0 + 1800, 60, "cpu, battery", "5, 80"));
  rig.exec("UPDATE sys_min SET battery = NULL WHERE t < " + std::to_string(kHour0 + 600));
  EXPECT_EQ(rig.store->seriesSync(Metric::cpu, TimeSpan::hour).size(), 30u);
  auto battery = rig.store->seriesSync(Metric::battery, TimeSpan::hour);
  ASSERT_EQ(battery.size(), 20u);
  EXPECT_EQ(battery.front().time, kHour0 + 600);
  // A missing peak column falls back to the average.
  EXPECT_EQ(battery.front().peak, 80);
}

class AppQueries : public ::testing::Test {
 protected:
  // The last 60 minutes (22:00 to 22:59, the clock at 23:00): "steady" at 10 in every minute,
  // "burst" at 30 in minutes 0 to 6, "idle" at 1 throughout, "twin" at 1 throughout (ties "idle").
  void SetUp() override {
    rig.setNow(kHour0 + 3600);
    rig.exec(fill("sys_min", kHour0, kHour0 + 3600, 60, "cpu", "0"));
    rig.exec(fill("app_min", kHour0, kHour0 + 3600, 60, "app, name, cpu, mem",
                  "'steady', 'Steady', 10, 100"));
    rig.exec(fill("app_min", kHour0, kHour0 + 7 * 60, 60, "app, name, cpu, mem",
                  "'burst', 'Burst', 30, 300"));
    rig.exec(
        fill("app_min", kHour0, kHour0 + 3600, 60, "app, name, cpu, mem", "'idle', 'Idle', 1, 1"));
    rig.exec(
        fill("app_min", kHour0, kHour0 + 3600, 60, "app, name, cpu, mem", "'twin', 'Twin', 1, 1"));
  }
  StoreRig rig;
};

TEST_F(AppQueries, TopAppsRankByTotalAndAverageOverEveryRecordedMinute) {
  auto top = rig.store->topAppsSync(Metric::cpu, TimeSpan::day, 10);
  ASSERT_EQ(top.size(), 4u);
  EXPECT_EQ(top[0].name, "Steady");
  EXPECT_EQ(top[1].name, "Burst");
  EXPECT_EQ(top[2].app, "idle");  // equal totals: by id
  EXPECT_EQ(top[3].app, "twin");
  EXPECT_DOUBLE_EQ(top[0].average, 10);
  EXPECT_DOUBLE_EQ(top[1].average, 30.0 * 7 / 60);
  // Five-minute bars: burst fills the first, and 2 of the 5 minutes of the second.
  ASSERT_EQ(top[1].series.size(), 2u);
  EXPECT_EQ(top[1].series[0], (HistoryPoint{kHour0, 30, 30}));
  EXPECT_EQ(top[1].series[1], (HistoryPoint{kHour0 + 300, 12, 30}));
  EXPECT_EQ(top[0].series.size(), 12u);

  EXPECT_EQ(rig.store->topAppsSync(Metric::cpu, TimeSpan::day).size(), 4u);
  EXPECT_EQ(rig.store->topAppsSync(Metric::cpu, TimeSpan::day, 1).front().app, "steady");
  EXPECT_EQ(rig.store->topAppsSync(Metric::memory, TimeSpan::hour, 1).front().app, "steady");
  EXPECT_TRUE(rig.store->topAppsSync(Metric::cpu, TimeSpan::day, 0).empty());
  EXPECT_TRUE(rig.store->topAppsSync(Metric::heat, TimeSpan::day).empty());
  EXPECT_TRUE(rig.store->topAppsSync(Metric::battery, TimeSpan::day).empty());
  // The month reads the hour tables, which hold nothing yet.
  EXPECT_TRUE(rig.store->topAppsSync(Metric::cpu, TimeSpan::month).empty());
}

TEST_F(AppQueries, AppsAtAverageWithinTheBucketHoldingTheTime) {
  struct Case {
    TimeSpan span;
    int64_t time;
    std::vector<std::pair<std::string, double>> expected;
  };
  const Case cases[] = {
      {TimeSpan::hour, kHour0 + 6 * 60 + 59, {{"Burst", 30}, {"Steady", 10}, {"Idle", 1}}},
      {TimeSpan::hour, kHour0 + 7 * 60, {{"Steady", 10}, {"Idle", 1}, {"Twin", 1}}},
      // The second five-minute bar: burst is there for 2 of its minutes, averaged where present.
      {TimeSpan::day, kHour0 + 5 * 60 + 1, {{"Burst", 30}, {"Steady", 10}, {"Idle", 1}}},
      {TimeSpan::day, kHour0 - 1, {}},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.time - kHour0);
    EXPECT_EQ(rig.store->appsAtSync(Metric::cpu, c.span, c.time, 3), c.expected);
  }
  EXPECT_EQ(rig.store->appsAtSync(Metric::cpu, TimeSpan::hour, kHour0).size(),
            static_cast<size_t>(4));
}

TEST_F(AppQueries, CompletionsArriveOnTheMainQueue) {
  std::vector<HistoryPoint> points;
  std::vector<AppHistory> apps;
  int calls = 0;
  rig.store->series(Metric::cpu, TimeSpan::hour, [&](std::vector<HistoryPoint> p) {
    points = std::move(p);
    ++calls;
  });
  rig.store->topApps(Metric::cpu, TimeSpan::hour, 2, [&](std::vector<AppHistory> a) {
    apps = std::move(a);
    ++calls;
  });
  // Both have run on the store's queue once a later waiting call returns, but none reached the
  // caller until its main queue runs.
  auto expected = rig.store->seriesSync(Metric::cpu, TimeSpan::hour);
  EXPECT_EQ(calls, 0);
  rig.main.drain();
  EXPECT_EQ(calls, 2);
  EXPECT_EQ(points, expected);
  ASSERT_EQ(apps.size(), 2u);
  EXPECT_EQ(apps[1].app, "burst");
}

TEST(HistoryQueries, TotalsCountTodayAndTheLastSevenDays) {
  StoreRig rig;
  const int64_t midnight = kHour0 - 22 * 3600;
  rig.setNow(kHour0);
  EXPECT_EQ(rig.store->totalsSync(), Totals{});

  auto sys = [&](int64_t t, double w, double in, double out) {
    rig.exec("INSERT INTO sys_min(t, disk_w, net_in, net_out) VALUES(" + std::to_string(t) + ", " +
             std::to_string(w) + ", " + std::to_string(in) + ", " + std::to_string(out) + ")");
  };
  sys(midnight, 10, 1, 2);                     // today, first minute
  sys(kHour0 - 60, 20, 3, 4);                  // today
  sys(midnight - 60, 1000, 100, 200);          // yesterday: the week only
  sys(kHour0 - 7 * kDay - 60, 1e6, 1e6, 1e6);  // more than a week ago
  for (int i = 0; i < 7; ++i) {
    std::string w = i == 6 ? "NULL" : std::to_string(i);  // app6 has no write figure
    rig.exec("INSERT INTO app_min(t, app, name, disk_w) VALUES(" + std::to_string(kHour0 - 120) +
             ", 'app" + std::to_string(i) + "', 'App " + std::to_string(i) + "', " + w + ")");
  }
  rig.exec("INSERT INTO app_min(t, app, name, disk_w) VALUES(" + std::to_string(midnight - 60) +
           ", 'app0', 'App 0', 1e9)");  // yesterday's writes do not count for today

  Totals t = rig.store->totalsSync();
  EXPECT_DOUBLE_EQ(t.diskWrittenToday, 30 * 60);
  EXPECT_DOUBLE_EQ(t.netInToday, 4 * 60);
  EXPECT_DOUBLE_EQ(t.netOutToday, 6 * 60);
  EXPECT_DOUBLE_EQ(t.netIn7, 104 * 60);
  EXPECT_DOUBLE_EQ(t.netOut7, 206 * 60);
  using Pairs = std::vector<std::pair<std::string, double>>;
  EXPECT_EQ(t.appDiskToday,
            (Pairs{{"App 5", 300}, {"App 4", 240}, {"App 3", 180}, {"App 2", 120}, {"App 1", 60}}));
}

TEST(HistoryQueries, SizeAndEraseGiveTheSpaceBack) {
  StoreRig rig;
  rig.setNow(kHour0);
  HistorySize empty = rig.store->sizeSync();
  EXPECT_GT(empty.bytes, 0);
  EXPECT_EQ(empty.oldest, std::nullopt);

  rig.exec(fill("sys_min", kHour0 - 8 * kDay, kHour0, 60, "cpu", "1"));
  rig.exec(fill("app_min", kHour0 - 8 * kDay, kHour0, 60, "app, name, cpu",
                "'a', 'A long enough name to take some room', 1"));
  rig.exec(fill("sys_hour", kHour0 - 20 * kDay, kHour0, 3600, "cpu", "1"));
  rig.exec("INSERT INTO meta VALUES('rollup', '" + std::to_string(kHour0) + "')");
  rig.store->record(testing::makeSnapshot(kHour0 + 5, 50));  // a minute under way
  HistorySize full = rig.store->sizeSync();
  EXPECT_EQ(full.oldest, kHour0 - 20 * kDay);
  EXPECT_GT(full.bytes, empty.bytes + 500'000);

  bool done = false;
  rig.store->erase([&] { done = true; });
  rig.store->flushNow();  // the erased minute under way is not written
  rig.main.drain();
  EXPECT_TRUE(done);
  for (const char* table : {"sys_min", "sys_hour", "app_min", "app_hour"}) {
    EXPECT_EQ(rig.count(table), 0) << table;
  }
  EXPECT_EQ(rig.value("SELECT COUNT(*) FROM meta WHERE k = 'rollup'"), 1);
  HistorySize after = rig.store->sizeSync();
  EXPECT_EQ(after.oldest, std::nullopt);
  EXPECT_LT(after.bytes, full.bytes / 4);
}

}  // namespace
}  // namespace vistrel
