// Queries from several threads while snapshots are recorded and minutes written.

#include <gtest/gtest.h>

#include <atomic>
#include <thread>
#include <vector>

#include "history_test_support.hpp"

namespace vistrel {
namespace {

using testing::AppFigures;
using testing::kHour0;
using testing::makeSnapshot;
using testing::StoreRig;

TEST(HistoryConcurrency, QueriesNeverSeeAHalfWrittenMinute) {
  constexpr int kMinutes = 150;  // crosses two hour boundaries, so roll-ups run too
  constexpr int kPerMinute = 4;
  // Every app is in every snapshot with a constant CPU, so any whole minute, hour or span gives
  // back exactly these figures; a half-written minute would not.
  std::vector<AppFigures> apps;
  for (int i = 0; i < 12; ++i) apps.push_back({"app" + std::to_string(i), 50.0 - i});

  StoreRig rig;
  rig.setNow(kHour0);
  std::atomic<bool> recording{true};
  std::atomic<int> checks{0};
  std::vector<std::string> failures[4];

  std::thread recorder([&] {
    for (int m = 0; m < kMinutes; ++m) {
      rig.setNow(kHour0 + m * 60 + 30);
      for (int k = 0; k < kPerMinute; ++k) {
        rig.store->record(makeSnapshot(kHour0 + m * 60 + k * 15, 40, apps));
      }
      if (m % 25 == 0) rig.store->flushNow();
    }
    rig.store->flushNow();
    recording = false;
  });

  std::vector<std::thread> readers;
  for (int r = 0; r < 4; ++r) {
    readers.emplace_back([&, r] {
      auto fail = [&](std::string what) { failures[r].push_back(std::move(what)); };
      while (recording) {
        switch (r) {
          case 0:
            for (const auto& p : rig.store->seriesSync(Metric::cpu, TimeSpan::day)) {
              if (p.value != 40 || p.peak != 40) fail("series value");
            }
            break;
          case 1:
            for (const auto& a : rig.store->topAppsSync(Metric::cpu, TimeSpan::day, 3)) {
              double expected = 50 - std::stoi(a.app.substr(3));
              if (a.average != expected) fail("top app average " + a.app);
              for (const auto& p : a.series) {
                if (p.value != expected) fail("top app point " + a.app);
              }
            }
            break;
          case 2:
            rig.store->withDatabase([&](Database* db) {
              Statement s = db->prepare(
                  "SELECT COUNT(*) FROM sys_min s WHERE (SELECT COUNT(*) FROM app_min a "
                  "WHERE a.t = s.t) != 12");
              if (!s.next() || s.int64(0) != 0) fail("minute without all its apps");
            });
            break;
          default:
            rig.store->totalsSync();
            rig.store->sizeSync();
            rig.store->appsAtSync(Metric::cpu, TimeSpan::hour, kHour0 + 60);
            break;
        }
        ++checks;
      }
    });
  }
  recorder.join();
  for (auto& t : readers) t.join();
  for (const auto& f : failures) EXPECT_TRUE(f.empty()) << f.front();
  EXPECT_GT(checks.load(), 0);
  EXPECT_EQ(rig.count("sys_min"), kMinutes);
  EXPECT_EQ(rig.count("app_min"), kMinutes * 12);
  EXPECT_EQ(rig.count("sys_hour"), 2);
  EXPECT_EQ(rig.value("SELECT MIN(cpu) = MAX(cpu) FROM app_hour WHERE app = 'app3'"), 1);
}

}  // namespace
}  // namespace vistrel
