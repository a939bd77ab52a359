// What the store does with a file it cannot trust, an old schema, and a disk it cannot write.

#include "history/history_file.hpp"

#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <fstream>
#include <sstream>

#include "base/files.hpp"

#include "history_test_support.hpp"

namespace vistrel {
namespace {

using testing::kHour0;
using testing::makeSnapshot;
using testing::StoreRig;
using testing::TempFolder;

std::string slurp(const std::string& path) {
  std::ifstream in(path, std::ios::binary);
  std::stringstream s;
  s << in.rdbuf();
  return s.str();
}

void spit(const std::string& path, const std::string& bytes) {
  std::ofstream(path, std::ios::binary | std::ios::trunc) << bytes;
}

// A healthy database of several pages, closed, as bytes.
std::string healthyDatabaseBytes(const TempFolder& folder) {
  std::string path = folder.file("model.sqlite");
  {
    Database db = Database::open(path);
    db.exec("PRAGMA page_size=4096; CREATE TABLE filler(x TEXT)");
    for (int i = 0; i < 200; ++i) {
      db.exec("INSERT INTO filler VALUES('" + std::string(200, static_cast<char>('a' + i % 26)) +
              "')");
    }
  }
  std::string bytes = slurp(path);
  std::remove(path.c_str());
  return bytes;
}

TEST(HistoryFile, ADamagedFileIsMovedAsideAndAFreshOneStarted) {
  TempFolder scratch;
  const std::string healthy = healthyDatabaseBytes(scratch);
  ASSERT_GT(healthy.size(), 4096u * 4);
  auto damaged = [&](size_t from, size_t length, char fill) {
    std::string bytes = healthy;
    for (size_t i = from; i < from + length && i < bytes.size(); ++i) bytes[i] = fill;
    return bytes;
  };
  struct Case {
    const char* what;
    std::string bytes;
  };
  const Case cases[] = {
      {"a text file", "these are someone's notes, not a database\n"},
      {"a header cut short", healthy.substr(0, 60)},
      {"a broken header", damaged(0, 16, 'x')},
      {"garbage over the schema page", damaged(100, 3000, '\x7f')},
      {"garbage over the table's pages", damaged(2 * 4096, 3 * 4096, '\x13')},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.what);
    StoreRig rig;
    rig.store.reset();
    const std::string path = rig.folder.file(HistoryFile::kName);
    spit(path, c.bytes);
    spit(path + "-wal", "");  // a leftover log must travel with its file

    ::testing::internal::CaptureStderr();
    rig.reopen();
    ASSERT_TRUE(rig.store->isOpen());
    std::string err = ::testing::internal::GetCapturedStderr();
    EXPECT_EQ(std::count(err.begin(), err.end(), '\n'), 1) << err;

    const std::string aside = path + ".damaged-20231114-220000";
    EXPECT_NE(err.find(aside), std::string::npos) << err;
    EXPECT_TRUE(slurp(aside) == c.bytes);  // moved, byte for byte
    EXPECT_TRUE(std::filesystem::exists(aside + "-wal"));
    // The fresh database works.
    rig.store->record(makeSnapshot(kHour0 + 5, 10));
    rig.store->flushNow();
    EXPECT_EQ(rig.count("sys_min"), 1);
  }
}

TEST(HistoryFile, MovingAsideNeverOverwritesAnEarlierCopy) {
  TempFolder folder;
  const std::string path = folder.file("history.sqlite");
  Date when = dateFromSeconds(kHour0);
  std::vector<std::string> names;
  for (int i = 0; i < 3; ++i) {
    spit(path, "copy " + std::to_string(i));
    names.push_back(HistoryFile::moveAside(path, when));
  }
  EXPECT_EQ(names[0], path + ".damaged-20231114-220000");
  EXPECT_EQ(names[1], path + ".damaged-20231114-220000-2");
  EXPECT_EQ(names[2], path + ".damaged-20231114-220000-3");
  for (int i = 0; i < 3; ++i) EXPECT_EQ(slurp(names[i]), "copy " + std::to_string(i));
  EXPECT_EQ(HistoryFile::moveAside(folder.file("absent"), when), "");
}

TEST(HistoryFile, ADatabaseFromBeforeTheWriteColumnIsMigratedWithItsRows) {
  // Rows of the previous hour, made by a version that had no write column in the app tables.
  const std::string old = std::to_string(kHour0 - 3540);
  StoreRig rig;
  rig.store.reset();
  std::filesystem::remove(rig.folder.file(HistoryFile::kName));
  {
    Database before = Database::open(rig.folder.file(HistoryFile::kName));
    for (const char* table : {"app_min", "app_hour"}) {
      ASSERT_EQ(
          before.exec(std::string("CREATE TABLE ") + table +
                      "(t INTEGER, app TEXT, name TEXT, cpu REAL, mem REAL, energy REAL, disk "
                      "REAL, net REAL, gpu REAL, PRIMARY KEY(t, app)) WITHOUT ROWID"),
          SQLITE_OK);
      ASSERT_EQ(before.exec(std::string("INSERT INTO ") + table + " VALUES(" + old +
                            ", 'old', 'Old', 1, 2, 3, 4, 5, 6)"),
                SQLITE_OK);
    }
    // The system tables have always had their present columns.
    ASSERT_EQ(
        before.exec("CREATE TABLE sys_min(t INTEGER PRIMARY KEY, cpu REAL, cpu_max REAL, mem "
                    "REAL, mem_max REAL, gpu REAL, gpu_max REAL, disk REAL, disk_max REAL, net "
                    "REAL, net_max REAL, battery REAL, battery_max REAL, heat REAL, heat_max "
                    "REAL, disk_w REAL, net_in REAL, net_out REAL, power REAL);"
                    "INSERT INTO sys_min(t, cpu) VALUES(" +
                    old + ", 1)"),
        SQLITE_OK);
  }
  for (int opening = 0; opening < 2; ++opening) {  // the migration runs at every opening
    rig.reopen();
    ASSERT_TRUE(rig.store->isOpen());
    for (const std::string table : {"app_min", "app_hour"}) {
      SCOPED_TRACE(table);
      EXPECT_EQ(rig.value("SELECT gpu FROM " + table + " WHERE t = " + old + " AND app = 'old'"),
                6);
      EXPECT_EQ(rig.value("SELECT COUNT(*) FROM pragma_table_info('" + table +
                          "') WHERE name = 'disk_w'"),
                1);
      EXPECT_EQ(rig.value("SELECT COUNT(*) FROM pragma_index_list('" + table + "') WHERE name = '" +
                          table + "_app'"),
                1);
    }
  }
  // Old rows without a write figure count as no writes in the roll-up.
  rig.setNow(kHour0 + 30);
  rig.store->record(makeSnapshot(kHour0, 10, {{"new", 1, 250}}));
  rig.store->flushNow();
  EXPECT_EQ(rig.value("SELECT disk_w FROM app_min WHERE app = 'new'"), 250);
  EXPECT_EQ(rig.value("SELECT disk_w FROM app_hour WHERE t = " + old + " AND app = 'old'"),
            std::nullopt);
  EXPECT_EQ(rig.value("SELECT disk_w FROM app_hour WHERE t = " + std::to_string(kHour0 - 3600) +
                      " AND app = 'old'"),
            0);
}

TEST(HistoryFile, WithoutAUsableFolderTheStoreRunsEmpty) {
  TempFolder scratch;
  spit(scratch.file("plain-file"), "x");
  std::string readOnly = scratch.file("read-only");
  ASSERT_TRUE(makeFolders(readOnly));
  {
    // An existing database in a folder that turns read-only: it cannot keep its log beside it.
    Database db = Database::open(joinPath(readOnly, HistoryFile::kName));
    db.exec("CREATE TABLE meta(k TEXT PRIMARY KEY, v TEXT)");
  }
  const std::string before = slurp(joinPath(readOnly, HistoryFile::kName));
  ::chmod(readOnly.c_str(), 0500);
  const bool permissionsHold = ::access(readOnly.c_str(), W_OK) != 0;  // not when run as root

  struct Case {
    const char* what;
    std::string folder;
  };
  std::vector<Case> cases = {
      {"the folder is a file", scratch.file("plain-file")},
      {"the folder lies under a file", scratch.file("plain-file/Vistrel")},
      {"a read-only file system", "/proc/self/vistrel-history"},
  };
  if (permissionsHold) cases.push_back({"a read-only folder", readOnly});
  for (const Case& c : cases) {
    SCOPED_TRACE(c.what);
    ManualClock clock(1000, dateFromSeconds(kHour0));
    ManualMainQueue main;
    ::testing::internal::CaptureStderr();
    HistoryStore store(c.folder, main, clock);
    EXPECT_FALSE(store.isOpen());
    std::string err = ::testing::internal::GetCapturedStderr();
    EXPECT_NE(err.find("history is off"), std::string::npos) << err;
    // Every operation still answers, with nothing.
    store.record(makeSnapshot(kHour0, 50, {{"a", 1}}));
    store.flushNow();
    store.applyRetention(7);
    store.eraseSync();
    EXPECT_TRUE(store.seriesSync(Metric::cpu, TimeSpan::hour).empty());
    EXPECT_TRUE(store.topAppsSync(Metric::cpu, TimeSpan::hour).empty());
    EXPECT_TRUE(store.appsAtSync(Metric::cpu, TimeSpan::hour, kHour0).empty());
    EXPECT_EQ(store.totalsSync(), Totals{});
    EXPECT_EQ(store.sizeSync(), HistorySize{});
    bool answered = false;
    store.totals([&](Totals) { answered = true; });
    store.flushNow();
    main.drain();
    EXPECT_TRUE(answered);
  }
  ::chmod(readOnly.c_str(), 0700);
  // Nothing was moved or changed in the read-only folder.
  EXPECT_EQ(slurp(joinPath(readOnly, HistoryFile::kName)), before);
  EXPECT_EQ(std::distance(std::filesystem::directory_iterator(readOnly), {}), 1);
}

TEST(HistoryFile, AFullDiskLosesMinutesButNotTheStore) {
  std::vector<testing::AppFigures> many;
  for (int i = 0; i < 30; ++i)
    many.push_back({std::string(300, 'a' + i % 26) + std::to_string(i), 1});
  StoreRig rig;
  rig.setNow(kHour0 + 3000);
  rig.store->record(makeSnapshot(kHour0, 10, many));
  rig.store->flushNow();
  ASSERT_EQ(rig.count("sys_min"), 1);
  // The file may not grow by a single page from here on, as on a full disk.
  rig.exec("PRAGMA wal_checkpoint(TRUNCATE)");
  int64_t pages = static_cast<int64_t>(rig.value("PRAGMA page_count").value_or(0));
  rig.exec("PRAGMA max_page_count = " + std::to_string(pages));
  ::testing::internal::CaptureStderr();
  for (int m = 1; m <= 40; ++m) rig.store->record(makeSnapshot(kHour0 + m * 60, 20, many));
  rig.store->flushNow();
  std::string err = ::testing::internal::GetCapturedStderr();
  EXPECT_EQ(err, "");  // nothing was mistaken for damage
  ASSERT_TRUE(rig.store->isOpen());
  int64_t kept = rig.count("sys_min");
  EXPECT_LT(kept, 41);
  // Each minute is whole or absent: never a system row without its apps.
  EXPECT_EQ(rig.value("SELECT COUNT(*) FROM sys_min s WHERE t > " + std::to_string(kHour0) +
                      " AND (SELECT COUNT(*) FROM app_min a WHERE a.t = s.t) != 30"),
            0);
  EXPECT_FALSE(rig.store->seriesSync(Metric::cpu, TimeSpan::hour).empty());

  // The roll-up into the next hour needs room for 30 app rows: it fails too, and its mark stays
  // for the next attempt.
  int64_t mark = rig.store->lastRollup();
  rig.setNow(kHour0 + 3600 + 30);
  rig.store->record(makeSnapshot(kHour0 + 3600, 20, many));
  rig.store->flushNow();
  EXPECT_EQ(rig.store->lastRollup(), mark);
  // Space comes back: the next minute and the roll-up are written.
  rig.exec("PRAGMA max_page_count = 1000000");
  rig.store->record(makeSnapshot(kHour0 + 3660, 30, many));
  rig.store->flushNow();
  EXPECT_EQ(rig.value("SELECT cpu FROM sys_min WHERE t = " + std::to_string(kHour0 + 3660)), 30);
  EXPECT_EQ(rig.store->lastRollup(), kHour0 + 3600);
  EXPECT_EQ(rig.count("sys_hour"), 1);
}

}  // namespace
}  // namespace vistrel
