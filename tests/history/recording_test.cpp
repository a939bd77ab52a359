// Folding snapshots into minutes and writing them, through the store and its real database.

#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "history_test_support.hpp"

namespace vistrel {
namespace {

using testing::AppFigures;
using testing::kHour0;
using testing::makeSnapshot;
using testing::StoreRig;

constexpr int64_t kMinute = kHour0 + 10 * 60;  // 22:10:00

std::vector<AppFigures> ranked(int n, double cpu) {
  std::vector<AppFigures> apps;
  for (int i = 1; i <= n; ++i) apps.push_back({"app" + std::to_string(i), cpu});
  return apps;
}

struct Expect {
  std::string sql;
  std::optional<double> value;  // nullopt: NULL, or no row at all
};

struct MinuteCase {
  const char* what;
  std::vector<Snapshot> snapshots;  // all within kMinute
  std::vector<Expect> expect;
};

TEST(HistoryRecording, OneMinuteOfSnapshotsBecomesOneRowPerTable) {
  auto col = [&](const std::string& c) {
    return "SELECT " + c + " FROM sys_min WHERE t = " + std::to_string(kMinute);
  };
  auto app = [&](const std::string& c, const std::string& id) {
    return "SELECT " + c + " FROM app_min WHERE t = " + std::to_string(kMinute) + " AND app = '" +
           id + "'";
  };
  std::vector<Snapshot> halfPresent;
  for (int i = 0; i < 6; ++i) {
    std::vector<AppFigures> apps = {{"always", 4}};
    if (i % 2 == 0) apps.push_back({"sometimes", 10});
    halfPresent.push_back(makeSnapshot(kMinute + i * 10, 10, apps));
  }
  std::vector<Snapshot> thirtyOne;
  for (int i = 0; i < 3; ++i) thirtyOne.push_back(makeSnapshot(kMinute + i, 10, ranked(31, 1)));

  const MinuteCase cases[] = {
      {"two snapshots: means and maxima",
       {makeSnapshot(kMinute + 5, 20, {}, 12.0), makeSnapshot(kMinute + 50, 60, {}, 8.0)},
       {{col("COUNT(*)"), 1},
        {col("cpu"), 40},
        {col("cpu_max"), 60},
        {col("mem"), 4e9},
        {col("disk"), 1500},
        {col("disk_max"), 1500},
        {col("net"), 400},
        {col("disk_w"), 500},
        {col("net_in"), 300},
        {col("net_out"), 100},
        {col("power"), 10}}},
      {"power averaged over the snapshots that had a reading",
       {makeSnapshot(kMinute, 10, {}, 6.0), makeSnapshot(kMinute + 1, 10),
        makeSnapshot(kMinute + 2, 10)},
       {{col("power"), 6}}},
      {"no power reading in the whole minute stores NULL",
       {makeSnapshot(kMinute, 10), makeSnapshot(kMinute + 30, 10)},
       {{col("power"), std::nullopt}, {col("COUNT(*)"), 1}}},
      {"an app in 3 of 6 snapshots gets half its average",
       halfPresent,
       {{app("cpu", "sometimes"), 5}, {app("cpu", "always"), 4}, {app("mem", "sometimes"), 5e5}}},
      {"the 31st app of every snapshot has no row",
       thirtyOne,
       {{"SELECT COUNT(*) FROM app_min", 30},
        {app("cpu", "app30"), 1},
        {app("COUNT(*)", "app31"), 0}}},
  };
  for (const MinuteCase& c : cases) {
    SCOPED_TRACE(c.what);
    StoreRig rig;
    rig.setNow(kMinute + 59);
    for (const Snapshot& s : c.snapshots) rig.store->record(s);
    rig.store->flushNow();
    for (const Expect& e : c.expect) EXPECT_EQ(rig.value(e.sql), e.value) << e.sql;
  }
}

TEST(HistoryRecording, AppRowsKeepNameAndSplitDiskAndNetwork) {
  StoreRig rig;
  rig.setNow(kMinute + 59);
  Snapshot s = makeSnapshot(kMinute, 10, {{"org.example.editor", 7, 200}});
  s.apps[0].diskRead = 100;
  s.apps[0].netIn = 30;
  s.apps[0].netOut = 20;
  s.apps[0].gpu = 0.25;
  s.apps[0].energy = 3;
  rig.store->record(s);
  rig.store->flushNow();
  rig.store->withDatabase([](Database* db) {
    ASSERT_NE(db, nullptr);
    Statement row = db->prepare(
        "SELECT name, cpu, mem, energy, disk, net, gpu, disk_w FROM app_min WHERE app = "
        "'org.example.editor'");
    ASSERT_TRUE(row.next());
    EXPECT_EQ(row.text(0), "Name of org.example.editor");
    EXPECT_EQ(row.real(1), 7);
    EXPECT_EQ(row.real(2), 1e6);
    EXPECT_EQ(row.real(3), 3);
    EXPECT_EQ(row.real(4), 300);  // read plus write
    EXPECT_EQ(row.real(5), 50);   // in plus out
    EXPECT_EQ(row.real(6), 0.25);
    EXPECT_EQ(row.real(7), 200);  // writes alone
  });
}

TEST(HistoryRecording, MinutesCloseWhenTheNextBeginsEvenWhenTheClockJumps) {
  StoreRig rig;
  rig.setNow(kMinute + 600);
  auto rowAt = [&](int64_t t) {
    return rig.value("SELECT cpu FROM sys_min WHERE t = " + std::to_string(t));
  };
  rig.store->record(makeSnapshot(kMinute + 1, 10));
  rig.store->record(makeSnapshot(kMinute + 59, 30));
  EXPECT_EQ(rig.count("sys_min"), 0);  // the minute is still under way
  rig.store->record(makeSnapshot(kMinute + 60, 50));
  EXPECT_EQ(rowAt(kMinute), 20);
  EXPECT_EQ(rowAt(kMinute + 60), std::nullopt);
  // The wall clock is set back five minutes: the minute under way is written, and the earlier one
  // starts afresh.
  rig.store->record(makeSnapshot(kMinute - 300 + 5, 70));
  EXPECT_EQ(rowAt(kMinute + 60), 50);
  rig.store->flushNow();
  EXPECT_EQ(rowAt(kMinute - 300), 70);
  EXPECT_EQ(rig.count("sys_min"), 3);
  // Flushing with nothing under way writes nothing.
  rig.store->flushNow();
  EXPECT_EQ(rig.count("sys_min"), 3);
}

TEST(HistoryRecording, AMinuteWrittenAgainAfterARestartReplacesItsRow) {
  StoreRig rig;
  rig.setNow(kMinute + 59);
  rig.store->record(makeSnapshot(kMinute + 1, 10, {{"a", 1}, {"b", 2}}));
  rig.store->flushNow();
  rig.reopen();
  rig.store->record(makeSnapshot(kMinute + 40, 30, {{"a", 5}}));
  rig.store->flushNow();
  EXPECT_EQ(rig.count("sys_min"), 1);
  EXPECT_EQ(rig.value("SELECT cpu FROM sys_min"), 30);
  EXPECT_EQ(rig.value("SELECT cpu FROM app_min WHERE app = 'a'"), 5);
  // An app of the first run only keeps its row: replacing works row by row.
  EXPECT_EQ(rig.value("SELECT cpu FROM app_min WHERE app = 'b'"), 2);
}

}  // namespace
}  // namespace vistrel
