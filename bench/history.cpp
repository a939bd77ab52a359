// The history database at full size: a year of hour rows and eight days of minute rows, 30 apps in
// every row, as the store keeps them at steady state. Prints the file's size, the cost of writing
// one minute, of each query per span, and of one hourly roll-up.

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <filesystem>
#include <random>
#include <string>
#include <vector>

#include "base/clock.hpp"
#include "base/main_queue.hpp"
#include "history/history_file.hpp"
#include "history/history_store.hpp"
#include "history/rollup.hpp"
#include "machine.hpp"

namespace {

using namespace vistrel;
using Timer = std::chrono::steady_clock;

constexpr int64_t kNow = 1'700'000'000 / 3600 * 3600 + 1800;  // half past an hour
constexpr int kApps = 30;
constexpr int kPool = 90;  // distinct apps that come and go among the busiest 30

double ms(Timer::time_point from, Timer::time_point to) {
  return std::chrono::duration<double, std::milli>(to - from).count();
}

template <class F>
double median(int runs, F&& f) {
  std::vector<double> times;
  for (int i = 0; i < runs; ++i) {
    auto start = Timer::now();
    f();
    times.push_back(ms(start, Timer::now()));
  }
  std::sort(times.begin(), times.end());
  return times[times.size() / 2];
}

// Bundle-style ids of the usual length ("com.vendor4.Editor19"), and display names.
std::string appId(int i) {
  static const char* products[] = {"Editor", "Browser", "Mail", "Player", "Terminal", "Chat"};
  return "com.vendor" + std::to_string(i % 17) + "." + products[i % 6] + std::to_string(i);
}

std::string appName(int i) {
  return "Application " + std::to_string(i);
}

// Most apps read and write nothing, and use neither the network nor the GPU, in a given minute;
// SQLite stores such zeros in no bytes at all. `share` is the part of rows with a figure.
double sometimes(std::mt19937& rng, double share, double scale) {
  std::uniform_real_distribution<double> u(0, 1);
  return u(rng) < share ? u(rng) * scale : 0.0;
}

// Fills the tables as the store would have after a year of use.
void fill(Database& db, std::mt19937& rng) {
  std::uniform_real_distribution<double> u(0, 1);
  Transaction t(db);
  Statement sys[2] = {
      db.prepare("INSERT INTO sys_min VALUES(?,?,?,?,?,?,?,?,?,?,?,?,?,?,?,?,?,?,?)"),
      db.prepare("INSERT INTO sys_hour VALUES(?,?,?,?,?,?,?,?,?,?,?,?,?,?,?,?,?,?,?)")};
  Statement app[2] = {db.prepare("INSERT INTO app_min VALUES(?,?,?,?,?,?,?,?,?,?)"),
                      db.prepare("INSERT INTO app_hour VALUES(?,?,?,?,?,?,?,?,?,?)")};
  struct Range {
    int table;
    int64_t from, step, count;
  };
  const int64_t hourNow = kNow / 3600 * 3600;
  const Range ranges[] = {{0, kNow / 60 * 60 - 8 * 86400, 60, 8 * 1440},
                          {1, hourNow - 365 * 86400, 3600, 365 * 24}};
  for (const Range& r : ranges) {
    for (int64_t i = 0; i < r.count; ++i) {
      int64_t at = r.from + i * r.step;
      Statement& s = sys[r.table];
      s.reset();
      s.bind(1, at);
      for (int c = 2; c <= 18; ++c) s.bind(c, u(rng) * 1000);
      s.bind(19, u(rng) * 30);
      s.run();
      int first = static_cast<int>(rng() % (kPool - kApps));
      for (int k = 0; k < kApps; ++k) {
        Statement& a = app[r.table];
        a.reset();
        int id = first + k;
        a.bindAll(at, appId(id), appName(id), u(rng) * 100, u(rng) * 4e9, u(rng) * 50,
                  sometimes(rng, 0.5, 1e6), sometimes(rng, 0.4, 1e5), sometimes(rng, 0.2, 1),
                  sometimes(rng, 0.5, 5e5));
        a.run();
      }
    }
  }
  db.exec("INSERT OR REPLACE INTO meta VALUES('rollup', '" + std::to_string(hourNow) + "')");
  t.commit();
}

MinuteSample sample(int64_t at, std::mt19937& rng) {
  std::uniform_real_distribution<double> u(0, 1);
  MinuteSample s;
  s.time = at;
  for (double& v : s.values) v = u(rng) * 100;
  s.power = u(rng) * 20;
  for (int k = 0; k < kApps; ++k) {
    s.apps.push_back({appId(k), appName(k), u(rng) * 100, u(rng) * 4e9, u(rng) * 50,
                      sometimes(rng, 0.5, 1e6), sometimes(rng, 0.5, 5e5), sometimes(rng, 0.4, 1e5),
                      sometimes(rng, 0.2, 1)});
  }
  return s;
}

}  // namespace

int main() {
  std::string folder = std::filesystem::temp_directory_path() / "vistrel-bench-history-XXXXXX";
  folder = ::mkdtemp(folder.data());
  std::mt19937 rng(42);
  {
    Database db = HistoryFile::open(folder, dateFromSeconds(kNow));
    if (!db) return 1;
    fill(db, rng);
    db.exec("PRAGMA wal_checkpoint(TRUNCATE)");
  }
  std::string path = folder + "/" + HistoryFile::kName;
  std::printf("machine: %s\n", bench::describeMachine().c_str());
  std::printf("year of history on disk: %.1f MB\n",
              static_cast<double>(std::filesystem::file_size(path)) / 1e6);

  ManualClock clock(1000, dateFromSeconds(kNow));
  ManualMainQueue main;
  // Opening reads every app row into the per-app slots that top-apps queries add up.
  auto opening = Timer::now();
  HistoryStore store(folder, main, clock);
  if (!store.isOpen()) return 1;
  double opened = ms(opening, Timer::now());
  HistoryStore::SlotsState slots = store.slotsState();
  std::printf("open, with the top-apps slots built: %.1f ms (%zu app slots, %.1f MB in memory)\n",
              opened, slots.entries, static_cast<double>(slots.bytes) / 1e6);

  for (TimeSpan span : kAllTimeSpans) {
    std::string name(rawValue(span));
    name.erase(std::remove(name.begin(), name.end(), ' '), name.end());
    double series = median(21, [&] { store.seriesSync(Metric::cpu, span); });
    double top = median(21, [&] { store.topAppsSync(Metric::cpu, span, 5); });
    double at = median(21, [&] { store.appsAtSync(Metric::cpu, span, kNow - 600, 5); });
    std::printf("series %s: %.2f ms\n", name.c_str(), series);
    std::printf("topApps %s: %.2f ms\n", name.c_str(), top);
    std::printf("appsAt %s: %.2f ms\n", name.c_str(), at);
  }
  std::printf("totals: %.2f ms\n", median(21, [&] { store.totalsSync(); }));

  // One minute at a time, each with 30 snapshots of 30 apps folded in; only the write is timed.
  std::vector<double> flushes;
  int64_t minute = kNow / 60 * 60;
  for (int i = 0; i < 1000; ++i, minute += 60) {
    clock.setNow(dateFromSeconds(static_cast<double>(minute + 59)));
    for (int k = 0; k < 30; ++k) store.record(sample(minute + k * 2, rng));
    store.lastRollup();  // waits until the samples are folded in
    auto start = Timer::now();
    store.flushNow();
    flushes.push_back(ms(start, Timer::now()));
  }
  std::sort(flushes.begin(), flushes.end());
  std::printf("flush one minute median: %.3f ms\n", flushes[flushes.size() / 2]);
  std::printf("flush one minute max: %.3f ms\n", flushes.back());

  // The roll-up of the last whole hour, as the first minute of the next hour triggers it.
  double rollup = 0;
  store.withDatabase([&](Database* db) {
    int64_t hour = minute / 3600 * 3600;
    auto start = Timer::now();
    Transaction t(*db);
    Rollup::hours(*db, hour - 3600, hour);
    Rollup::deleteMinutesBefore(*db, hour - Rollup::kMinuteKeepSeconds);
    Rollup::deleteHoursBefore(*db, hour - 90 * 86400);
    Rollup::writeLastRollup(*db, hour);
    t.commit();
    rollup = ms(start, Timer::now());
  });
  std::printf("hourly roll-up: %.2f ms\n", rollup);
  std::filesystem::remove_all(folder);
  return 0;
}
