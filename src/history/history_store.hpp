#pragma once

// The minute-by-minute record of the machine and its busiest apps, kept in "history.sqlite" in
// the store's folder. Snapshots are folded into the current wall-clock minute and written when the
// next minute begins; every hour is then rolled up into hour rows, and old rows are deleted.
//
// All database work and all accumulated state live on the store's own serial queue, so a query
// never sees a half-written minute. Callers on any thread post work; results come back through
// completion callbacks posted to the main queue (or, from threads other than the store's own, by
// the waiting `...Sync` variants). If the database cannot be opened, the store keeps no handle:
// recording does nothing and queries find no rows.

#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "base/clock.hpp"
#include "base/main_queue.hpp"
#include "base/serial_queue.hpp"
#include "history/app_slots.hpp"
#include "history/database.hpp"
#include "history/minute_accumulator.hpp"
#include "history/minute_writer.hpp"
#include "history/time_span.hpp"
#include "sampling/records.hpp"

namespace vistrel {

struct HistoryStoreOptions {
  // Days of hour rows kept; the user's setting.
  int retentionDays = 90;
  // The start of the day holding a time (both seconds since 1970), for "today" in `totals`. Local
  // midnight unless replaced (tests pin it to UTC).
  std::function<int64_t(int64_t)> startOfDay;
};

class HistoryStore {
 public:
  static constexpr const char* kQueueLabel = "org.brackwood.vistrel.history";
  // Apps a top-apps or apps-at query returns when the caller names no limit.
  static constexpr int kDefaultAppLimit = 5;

  using AppValues = std::vector<std::pair<std::string, double>>;

  using Options = HistoryStoreOptions;

  // Opens (or creates) "history.sqlite" in `folder` on the store's queue; see HistoryFile::open.
  HistoryStore(std::string folder, MainQueue& main, const Clock& clock = Clock::system(),
               Options options = {});
  // Waits for the work already queued; the current minute is not written (call flushNow first).
  ~HistoryStore();
  HistoryStore(const HistoryStore&) = delete;
  HistoryStore& operator=(const HistoryStore&) = delete;

  // Waits for the opening; false when the store runs without a database.
  bool isOpen();
  std::string path() const;

  // Non-blocking: folds the snapshot into its minute on the queue.
  void record(const Snapshot& snapshot);
  void record(MinuteSample sample);
  // Writes the current minute now and waits for it.
  void flushNow();

  // Keeps hour rows for `days` days from now on, and deletes older ones at once.
  void applyRetention(int days);
  // Deletes every row (the roll-up mark in `meta` stays), compacts the file, forgets the minute
  // under way, then calls `completion` on the main queue.
  void erase(std::function<void()> completion);

  void series(Metric m, TimeSpan span, std::function<void(std::vector<HistoryPoint>)> completion);
  void topApps(Metric m, TimeSpan span, int limit,
               std::function<void(std::vector<AppHistory>)> completion);
  void appsAt(Metric m, TimeSpan span, int64_t time, int limit,
              std::function<void(AppValues)> completion);
  void totals(std::function<void(Totals)> completion);
  void size(std::function<void(HistorySize)> completion);

  // The same, waiting for the answer. Never call these from the store's own queue.
  std::vector<HistoryPoint> seriesSync(Metric m, TimeSpan span);
  std::vector<AppHistory> topAppsSync(Metric m, TimeSpan span, int limit = kDefaultAppLimit);
  AppValues appsAtSync(Metric m, TimeSpan span, int64_t time, int limit = kDefaultAppLimit);
  Totals totalsSync();
  HistorySize sizeSync();
  void eraseSync();

  // The end of the last rolled-up hour (seconds since 1970), 0 before the first roll-up.
  int64_t lastRollup();
  // Runs `work` on the queue with the database (null without one) and waits: maintenance and tests.
  // The work may change any row, so the top-apps slots are rebuilt before their next use.
  void withDatabase(const std::function<void(Database*)>& work);
  // What the top-apps slots hold: (app, slot) pairs, their approximate bytes, and whether both
  // tables' slots are in step with the database (false until a query rebuilds them after
  // `withDatabase`).
  struct SlotsState {
    size_t entries = 0;
    size_t bytes = 0;
    bool fresh = false;
  };
  SlotsState slotsState();

 private:
  int64_t nowSeconds() const;
  void open();
  void fold(const MinuteSample& sample);
  void flush();
  void rollupIfNeeded();
  void recoverIfDamaged(int rc);
  void invalidateSlots();
  void eraseOnQueue();
  std::vector<HistoryPoint> seriesOnQueue(Metric m, TimeSpan span);
  std::vector<AppHistory> topAppsOnQueue(Metric m, TimeSpan span, int limit);
  AppValues appsAtOnQueue(Metric m, TimeSpan span, int64_t time, int limit);
  Totals totalsOnQueue();
  HistorySize sizeOnQueue();
  template <class R>
  void answer(std::function<R()> work, std::function<void(R)> completion);

  MainQueue& main_;
  const Clock& clock_;
  Options options_;
  std::string folder_;
  // Touched only on the queue.
  Database db_;
  std::unique_ptr<MinuteWriter> writer_;
  MinuteAccumulator minute_;
  // Per-app sums of the app tables by half hour and by day, kept in step with every change to
  // those tables (see AppSlots).
  AppSlots minuteSlots_{"app_min", 1800};
  AppSlots hourSlots_{"app_hour", 86400};
  int64_t lastRollup_ = 0;
  int retentionDays_;
  // Last member: destroyed first, so no queued task outlives the state above.
  SerialQueue queue_;
};

// Local midnight of the day holding `seconds` (seconds since 1970).
int64_t startOfLocalDay(int64_t seconds);

}  // namespace vistrel
