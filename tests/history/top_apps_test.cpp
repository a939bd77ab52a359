// Top apps answered from the in-memory per-app slots, checked against plain SQL over every row:
// first the slots alone on a database in memory, then the store through each change it makes to
// the app tables (a flush, a minute written again, roll-ups, retention, erase, direct edits) and a
// clock that jumps between queries.

#include <gtest/gtest.h>

#include <cmath>
#include <functional>
#include <random>
#include <string>
#include <vector>

#include "history/app_slots.hpp"
#include "history/history_file.hpp"
#include "history/history_queries.hpp"
#include "history_test_support.hpp"

namespace vistrel {
namespace {

using testing::kHour0;
using testing::StoreRig;

constexpr int64_t kDay = 86400;
const Metric kAppMetrics[] = {Metric::cpu, Metric::memory, Metric::gpu, Metric::disk,
                              Metric::network};

// Sums added in another order may differ in their last bits; nothing else may differ.
void expectClose(double actual, double expected) {
  EXPECT_NEAR(actual, expected, 1e-12 * std::max(1.0, std::abs(expected)));
}

// Rows that exercise what SQL's SUM, MAX(name) and ORDER BY do: random figures, two apps with the
// same figures in every row (an exact tie, ranked by id), an app with no network figure at all
// (a NULL sum, ranked after app7's sum of zeros although its id comes first), GPU figures that are
// sometimes NULL, and an app whose name changes from row to row.
class RowMaker {
 public:
  explicit RowMaker(uint32_t seed) : rng_(seed) {}

  // App rows at `t`, as one INSERT statement, and the system row that counts the minute or hour.
  std::string rowsAt(const std::string& table, const std::string& systemTable, int64_t t) {
    std::string ts = std::to_string(t);
    std::string sql = "INSERT OR REPLACE INTO " + systemTable + "(t, cpu) VALUES(" + ts + ", 1);";
    double tie = figure(100);
    for (int i = 0; i < 9; ++i) {
      if (u_(rng_) < 0.3) continue;  // apps come and go
      std::string id = "app" + std::to_string(i);
      std::string name = i == 3 && t / 60 % 5 == 4 ? "Zeta" : "Name " + std::to_string(i);
      std::string gpu = u_(rng_) < 0.3 ? "NULL" : std::to_string(figure(1));
      std::string net = i == 5 ? "NULL" : i == 7 ? "0" : std::to_string(figure(1e5));
      sql += "INSERT INTO " + table + "(t, app, name, cpu, mem, gpu, disk, net) VALUES(" + ts +
             ", '" + id + "', '" + name + "', " + std::to_string(figure(100)) + ", " +
             std::to_string(figure(4e9)) + ", " + gpu + ", " + std::to_string(figure(1e6)) + ", " +
             net + ");";
    }
    for (const char* twin : {"twin-a", "twin-b"}) {
      sql += "INSERT INTO " + table + "(t, app, name, cpu, mem, gpu, disk, net) VALUES(" + ts +
             ", '" + twin + "', 'Twin', " + std::to_string(tie) + ", 1e9, 0.5, 1000, 10);";
    }
    return sql;
  }

  MinuteSample sample(int64_t t) {
    MinuteSample s;
    s.time = t;
    for (int i = 0; i < 12; i += 2) {
      std::string id = "app" + std::to_string(i);
      s.apps.push_back({id, "Name " + std::to_string(i), figure(100), figure(4e9), figure(10),
                        figure(1e6), figure(5e5), figure(1e5), figure(1)});
    }
    return s;
  }

 private:
  double figure(double scale) { return std::round(u_(rng_) * scale * 1e6) / 1e6 + 1e-7; }
  std::mt19937 rng_;
  std::uniform_real_distribution<double> u_{0, 1};
};

std::vector<RankedApp> rankBySql(Database& db, const std::string& table, const std::string& c,
                                 int64_t from, int64_t bucket) {
  Statement s = db.prepare("SELECT app, MAX(name), SUM(" + c + ") FROM " + table +
                           " WHERE t >= ? GROUP BY app ORDER BY SUM(" + c + ") DESC, app");
  s.bind(1, from);
  std::vector<RankedApp> apps;
  while (s.next()) apps.push_back({s.text(0), s.text(1), s.real(2), {}});
  Statement b = db.prepare("SELECT t/? * ?, SUM(" + c + "), MAX(" + c + "), COUNT(*) FROM " +
                           table + " WHERE app = ? AND t >= ? GROUP BY 1 ORDER BY 1");
  for (RankedApp& app : apps) {
    b.reset();
    b.bindAll(bucket, bucket, app.app, from);
    while (b.next()) app.buckets.push_back({b.int64(0), b.real(1), b.real(2), b.int64(3)});
  }
  return apps;
}

TEST(AppSlots, RankLikeSqlFromAnyStart) {
  Database db = Database::open(":memory:");
  ASSERT_TRUE(db);
  HistoryFile::prepareSchema(db);
  RowMaker rows(7);
  // Six hours of minutes, every third minute.
  for (int64_t t = kHour0; t < kHour0 + 6 * 3600; t += 180) {
    ASSERT_EQ(db.exec(rows.rowsAt("app_min", "sys_min", t)), SQLITE_OK);
  }
  AppSlots slots("app_min", 1800);
  ASSERT_TRUE(slots.rebuild(db));
  EXPECT_GT(slots.entryCount(), 0u);

  const int64_t froms[] = {0,
                           kHour0,
                           kHour0 + 1,
                           kHour0 + 1799,
                           kHour0 + 1800,
                           kHour0 + 5000,
                           kHour0 + 21540,
                           kHour0 + 6 * 3600};
  for (int64_t from : froms) {
    for (int64_t bucket : {1800, 3600, 300}) {
      for (std::string_view c : AppSlots::kColumns) {
        SCOPED_TRACE(std::to_string(from - kHour0) + " " + std::to_string(bucket) + " " +
                     std::string(c));
        bool ok = false;
        auto got = slots.rank(db, c, from, 100, bucket, ok);
        ASSERT_TRUE(ok);
        auto expected = rankBySql(db, "app_min", std::string(c), from, bucket);
        ASSERT_EQ(got.size(), expected.size());
        for (size_t i = 0; i < got.size(); ++i) {
          EXPECT_EQ(got[i].app, expected[i].app);
          EXPECT_EQ(got[i].name, expected[i].name);
          expectClose(got[i].total, expected[i].total);
          // Buckets shorter than a slot are left to the caller.
          if (bucket % 1800 != 0) {
            EXPECT_TRUE(got[i].buckets.empty());
            continue;
          }
          ASSERT_EQ(got[i].buckets.size(), expected[i].buckets.size());
          for (size_t k = 0; k < got[i].buckets.size(); ++k) {
            EXPECT_EQ(got[i].buckets[k].time, expected[i].buckets[k].time);
            expectClose(got[i].buckets[k].sum, expected[i].buckets[k].sum);
            EXPECT_EQ(got[i].buckets[k].peak, expected[i].buckets[k].peak);
            EXPECT_EQ(got[i].buckets[k].rows, expected[i].buckets[k].rows);
          }
        }
        bool limitedOk = false;
        auto two = slots.rank(db, c, from, 2, bucket, limitedOk);
        EXPECT_EQ(two.size(), std::min<size_t>(2, expected.size()));
      }
    }
  }
  bool ok = true;
  EXPECT_TRUE(slots.rank(db, "energy", kHour0, 5, 1800, ok).empty());
  EXPECT_FALSE(ok);  // a column the slots do not keep: the caller uses SQL
  slots.invalidate();
  EXPECT_TRUE(slots.rank(db, "cpu", kHour0, 5, 1800, ok).empty());
  EXPECT_FALSE(ok);
}

// Every span, metric and limit: the store's answer against the plain SQL one, read through a
// second connection so that the check leaves the store's slots alone.
void expectSameAsSql(StoreRig& rig, int64_t now) {
  Database reader = Database::open(rig.store->path(), SQLITE_OPEN_READONLY);
  ASSERT_TRUE(reader);
  for (TimeSpan span : kAllTimeSpans) {
    for (Metric m : kAppMetrics) {
      for (int limit : {2, 100}) {
        SCOPED_TRACE(std::string(rawValue(span)) + " metric " +
                     std::to_string(static_cast<int>(m)) + " limit " + std::to_string(limit));
        auto got = rig.store->topAppsSync(m, span, limit);
        auto expected = HistoryQueries::topApps(reader, m, span, limit, now);
        ASSERT_EQ(got.size(), expected.size());
        for (size_t i = 0; i < got.size(); ++i) {
          EXPECT_EQ(got[i].app, expected[i].app);
          EXPECT_EQ(got[i].name, expected[i].name);
          expectClose(got[i].average, expected[i].average);
          ASSERT_EQ(got[i].series.size(), expected[i].series.size()) << got[i].app;
          for (size_t k = 0; k < got[i].series.size(); ++k) {
            EXPECT_EQ(got[i].series[k].time, expected[i].series[k].time);
            expectClose(got[i].series[k].value, expected[i].series[k].value);
            EXPECT_EQ(got[i].series[k].peak, expected[i].series[k].peak);
          }
        }
      }
    }
  }
}

TEST(TopApps, SlotsFollowEveryChangeToTheAppTables) {
  StoreRig rig;
  RowMaker rows(42);
  int64_t now = kHour0 + 1800 + 17;
  // Eight days of minutes (every seventh) and 400 days of hours (every fifth), as a store that has
  // run a long while holds them, with the hours rolled up to the current one.
  rig.store->withDatabase([&](Database* db) {
    ASSERT_NE(db, nullptr);
    Transaction transaction(*db);
    for (int64_t t = kHour0 - 8 * kDay; t < kHour0 + 1800; t += 420) {
      ASSERT_EQ(db->exec(rows.rowsAt("app_min", "sys_min", t)), SQLITE_OK);
    }
    for (int64_t t = kHour0 - 400 * kDay; t < kHour0; t += 5 * 3600) {
      ASSERT_EQ(db->exec(rows.rowsAt("app_hour", "sys_hour", t)), SQLITE_OK);
    }
    db->exec("INSERT OR REPLACE INTO meta VALUES('rollup', '" + std::to_string(kHour0) + "')");
    ASSERT_EQ(transaction.commit(), SQLITE_OK);
  });

  auto flushAt = [&](int64_t t) {
    rig.store->record(rows.sample(t));
    rig.store->flushNow();
  };
  struct Step {
    const char* what;
    std::function<void()> change;
    bool fresh;  // the slots followed the change without a rebuild
  };
  const Step steps[] = {
      {"opened on a long history", [&] { rig.reopen(); }, true},
      {"a minute flushed", [&] { flushAt(now); }, true},
      {"the same minute written again",
       [&] {
         rig.store->record(rows.sample(now + 20));
         rig.store->flushNow();
       },
       true},
      {"the next hour rolls up",
       [&] {
         now = kHour0 + 3600 + 65;
         rig.setNow(static_cast<double>(now));
         flushAt(now);
       },
       true},
      {"retention shortened to 30 days", [&] { rig.store->applyRetention(30); }, true},
      {"the clock goes back three days and a minute is written then",
       [&] {
         now -= 3 * kDay + 1234;
         rig.setNow(static_cast<double>(now));
         flushAt(now);
       },
       true},
      {"the clock jumps five days ahead and rolls up",
       [&] {
         now += 5 * kDay + 4321;
         rig.setNow(static_cast<double>(now));
         flushAt(now);
       },
       true},
      {"rows changed behind the store's back",
       [&] {
         rig.exec("DELETE FROM app_hour WHERE app = 'app1'");
         rig.exec("UPDATE app_min SET cpu = cpu * 3 WHERE app = 'app2'");
       },
       false},
      {"erased", [&] { rig.store->eraseSync(); }, true},
      {"a minute after the erase", [&] { flushAt(now + 60); }, true},
  };
  rig.setNow(static_cast<double>(now));
  for (const Step& step : steps) {
    SCOPED_TRACE(step.what);
    step.change();
    EXPECT_EQ(rig.store->slotsState().fresh, step.fresh);
    expectSameAsSql(rig, now);
    EXPECT_TRUE(rig.store->slotsState().fresh);
  }
  // The last steps left one minute of six apps.
  EXPECT_EQ(rig.store->topAppsSync(Metric::cpu, TimeSpan::hour, 100).size(), 6u);
}

}  // namespace
}  // namespace vistrel
