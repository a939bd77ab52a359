#pragma once

// Helpers shared by the history tests: a temporary folder, snapshots made to order, a store on an
// injected clock, and direct reads of the database.

#include <gtest/gtest.h>
#include <stdlib.h>

#include <cmath>
#include <filesystem>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "base/clock.hpp"
#include "base/main_queue.hpp"
#include "history/history_store.hpp"
#include "sampling/records.hpp"

namespace vistrel::testing {

// 2023-11-14 22:00:00 UTC: the start of an hour, so minutes and hours line up with round offsets.
inline constexpr int64_t kHour0 = 1'699'999'200;

class TempFolder {
 public:
  TempFolder() {
    char pattern[] = "/tmp/vistrel-history-XXXXXX";
    path_ = ::mkdtemp(pattern);
  }
  ~TempFolder() {
    std::error_code ignored;
    std::filesystem::permissions(path_, std::filesystem::perms::owner_all,
                                 std::filesystem::perm_options::add, ignored);
    std::filesystem::remove_all(path_, ignored);
  }
  const std::string& path() const { return path_; }
  std::string file(const std::string& name) const { return path_ + "/" + name; }
  std::vector<std::string> names() const {
    std::vector<std::string> out;
    for (auto& e : std::filesystem::directory_iterator(path_)) {
      out.push_back(e.path().filename().string());
    }
    return out;
  }

 private:
  std::string path_;
};

struct AppFigures {
  std::string id;
  double cpu = 0;
  double diskWrite = 0;
};

// A snapshot at `seconds` with the CPU at `cpuPercent` and the given apps (in impact order).
inline Snapshot makeSnapshot(double seconds, double cpuPercent, std::vector<AppFigures> apps = {},
                             std::optional<double> power = std::nullopt) {
  Snapshot s;
  s.time = dateFromSeconds(seconds);
  s.cpu.total = cpuPercent / 100;
  s.memory.total = 16'000'000'000;
  s.memory.app = 4'000'000'000;
  s.disk.readRate = 1000;
  s.disk.writeRate = 500;
  s.network.inRate = 300;
  s.network.outRate = 100;
  s.power.system = power;
  for (auto& a : apps) {
    AppUsage u;
    u.id = a.id;
    u.name = "Name of " + a.id;
    u.cpu = a.cpu;
    u.memory = 1'000'000;
    u.diskWrite = a.diskWrite;
    s.apps.push_back(u);
  }
  return s;
}

// A store in its own temporary folder, on a manual clock, with "today" starting at UTC midnight.
struct StoreRig {
  TempFolder folder;
  ManualClock clock{1000.0, dateFromSeconds(kHour0)};
  ManualMainQueue main;
  std::unique_ptr<HistoryStore> store;

  explicit StoreRig(int retentionDays = 90) { reopen(retentionDays); }

  void reopen(int retentionDays = 90) {
    store.reset();
    HistoryStoreOptions options;
    options.retentionDays = retentionDays;
    options.startOfDay = [](int64_t t) { return t - ((t % 86400) + 86400) % 86400; };
    store = std::make_unique<HistoryStore>(folder.path(), main, clock, options);
  }
  void setNow(double seconds) { clock.setNow(dateFromSeconds(seconds)); }

  // One value read on the store's queue; nullopt for NULL or no row.
  std::optional<double> value(const std::string& sql) {
    std::optional<double> out;
    store->withDatabase([&](Database* db) {
      if (!db) return;
      Statement s = db->prepare(sql);
      if (s.next()) out = s.optionalReal(0);
    });
    return out;
  }
  int64_t count(const std::string& table) {
    return static_cast<int64_t>(value("SELECT COUNT(*) FROM " + table).value_or(-1));
  }
  void exec(const std::string& sql) {
    store->withDatabase([&](Database* db) {
      ASSERT_NE(db, nullptr);
      ASSERT_EQ(db->exec(sql), SQLITE_OK) << sql << ": " << db->errorMessage();
    });
  }
};

}  // namespace vistrel::testing
