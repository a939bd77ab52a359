#include "history/history_store.hpp"

#include <cmath>
#include <cstdio>
#include <ctime>
#include <filesystem>

#include "base/files.hpp"
#include "history/history_file.hpp"
#include "history/history_queries.hpp"
#include "history/rollup.hpp"

namespace vistrel {

namespace {

constexpr int64_t kDay = 86400;
constexpr int64_t kHour = 3600;

int64_t floorTo(int64_t value, int64_t step) {
  int64_t q = value / step;
  if (value % step < 0) --q;
  return q * step;
}

int64_t fileSize(const std::string& path) {
  std::error_code error;
  auto n = std::filesystem::file_size(path, error);
  return error ? 0 : static_cast<int64_t>(n);
}

}  // namespace

int64_t startOfLocalDay(int64_t seconds) {
  return static_cast<int64_t>(
      std::floor(secondsSince1970(localStartOfDay(dateFromSeconds(static_cast<double>(seconds))))));
}

HistoryStore::HistoryStore(std::string folder, MainQueue& main, const Clock& clock, Options options)
    : main_(main),
      clock_(clock),
      options_(std::move(options)),
      folder_(std::move(folder)),
      retentionDays_(options_.retentionDays),
      queue_(kQueueLabel) {
  if (!options_.startOfDay) options_.startOfDay = startOfLocalDay;
  queue_.async([this] { open(); });
}

HistoryStore::~HistoryStore() {
  queue_.shutdown();
}

std::string HistoryStore::path() const {
  return joinPath(folder_, HistoryFile::kName);
}

int64_t HistoryStore::nowSeconds() const {
  return static_cast<int64_t>(std::floor(secondsSince1970(clock_.now())));
}

void HistoryStore::open() {
  db_ = HistoryFile::open(folder_, clock_.now());
  writer_ = db_ ? std::make_unique<MinuteWriter>(db_) : nullptr;
  lastRollup_ = db_ ? Rollup::readLastRollup(db_) : 0;
  // Reading a year of app rows takes a while, so it runs now, on the queue, rather than in the
  // first top-apps query.
  minuteSlots_.clear();
  hourSlots_.clear();
  if (db_) {
    minuteSlots_.rebuild(db_);
    hourSlots_.rebuild(db_);
  }
}

void HistoryStore::invalidateSlots() {
  minuteSlots_.invalidate();
  hourSlots_.invalidate();
}

bool HistoryStore::isOpen() {
  return queue_.syncValue([this] { return db_.isOpen(); });
}

void HistoryStore::record(const Snapshot& snapshot) {
  record(MinuteSample::of(snapshot));
}

void HistoryStore::record(MinuteSample sample) {
  queue_.async([this, sample = std::move(sample)] { fold(sample); });
}

void HistoryStore::fold(const MinuteSample& sample) {
  // A snapshot of another minute (the next one, or an earlier one after the clock was set back)
  // closes the minute under way first.
  if (minute_.startsNewMinute(sample)) flush();
  minute_.add(sample);
}

void HistoryStore::flushNow() {
  queue_.sync([this] { flush(); });
}

void HistoryStore::flush() {
  if (minute_.empty()) return;
  MinuteRows rows = minute_.rows();
  // Reset whatever happens next: a minute that cannot be written is lost, not retried forever.
  minute_.reset();
  if (!db_) return;
  recoverIfDamaged(writer_->write(rows));
  // Re-read the minute's slot whether the write succeeded or not: the row may have replaced one
  // written before (a restart within the minute), and a failed write was rolled back.
  if (db_) minuteSlots_.reload(db_, rows.t, rows.t + 60);
  rollupIfNeeded();
}

void HistoryStore::recoverIfDamaged(int rc) {
  if (!HistoryFile::isDamage(rc)) return;
  writer_.reset();
  db_.close();
  std::string aside = HistoryFile::moveAside(path(), clock_.now());
  if (aside.empty()) {
    std::fprintf(stderr, "vistrel: history is off: %s is damaged and cannot be moved aside\n",
                 path().c_str());
    return;
  }
  std::fprintf(stderr, "vistrel: %s became damaged; moved it to %s and started a new history\n",
               path().c_str(), aside.c_str());
  open();
}

void HistoryStore::rollupIfNeeded() {
  if (!db_) return;
  int64_t hour = floorTo(nowSeconds(), kHour);
  // A mark more than a day ahead was written while the wall clock ran ahead and has since been set
  // right; waiting for it would stop the roll-up for that long, so roll up again every hour that
  // minute rows are still kept for (replacing hour rows is harmless).
  if (lastRollup_ > hour + kDay) lastRollup_ = hour - Rollup::kMinuteKeepSeconds;
  // Each hour is rolled up once, after the first minute of the next hour has been written.
  if (lastRollup_ >= hour) return;
  // One transaction: a process killed half-way leaves neither hour rows without the mark nor
  // deleted minutes without their hours.
  int64_t from = lastRollup_;
  Transaction transaction(db_);
  int rc = Rollup::hours(db_, from, hour);
  int64_t minuteCut = hour - Rollup::kMinuteKeepSeconds;
  int64_t hourCut = hour - static_cast<int64_t>(retentionDays_) * kDay;
  if (rc == SQLITE_OK) rc = Rollup::deleteMinutesBefore(db_, minuteCut);
  if (rc == SQLITE_OK) rc = Rollup::deleteHoursBefore(db_, hourCut);
  if (rc == SQLITE_OK) rc = Rollup::writeLastRollup(db_, hour);
  if (rc == SQLITE_OK && transaction.active()) rc = transaction.commit();
  // On a failure (a full disk) the mark stays, so the next minute tries these hours again.
  if (rc == SQLITE_OK) {
    lastRollup_ = hour;
    hourSlots_.reload(db_, from, hour);
    minuteSlots_.dropBefore(db_, minuteCut);
    hourSlots_.dropBefore(db_, hourCut);
  } else {
    // Whatever part of the transaction took effect, the slots are rebuilt from the tables.
    invalidateSlots();
  }
  recoverIfDamaged(rc);
}

void HistoryStore::applyRetention(int days) {
  queue_.async([this, days] {
    retentionDays_ = days;
    if (!db_) return;
    int64_t cut = nowSeconds() - static_cast<int64_t>(days) * kDay;
    if (Rollup::deleteHoursBefore(db_, cut) == SQLITE_OK) {
      hourSlots_.dropBefore(db_, cut);
    } else {
      hourSlots_.invalidate();
    }
  });
}

void HistoryStore::eraseOnQueue() {
  if (db_) {
    int rc = SQLITE_OK;
    for (const char* table : {"sys_min", "sys_hour", "app_min", "app_hour"}) {
      int tableRc = db_.exec(std::string("DELETE FROM ") + table);
      if (rc == SQLITE_OK) rc = tableRc;
    }
    if (rc == SQLITE_OK) {
      minuteSlots_.clear();
      hourSlots_.clear();
    } else {
      invalidateSlots();
    }
    // Deleted rows only free pages inside the file; VACUUM gives the space back to the disk, and
    // the checkpoint empties the write-ahead log that VACUUM just filled.
    db_.exec("VACUUM");
    db_.exec("PRAGMA wal_checkpoint(TRUNCATE)");
  }
  minute_.reset();
}

void HistoryStore::erase(std::function<void()> completion) {
  queue_.async([this, completion = std::move(completion)] {
    eraseOnQueue();
    if (completion) main_.post(completion);
  });
}

void HistoryStore::eraseSync() {
  queue_.sync([this] { eraseOnQueue(); });
}

std::vector<HistoryPoint> HistoryStore::seriesOnQueue(Metric m, TimeSpan span) {
  if (!db_) return {};
  return HistoryQueries::series(db_, m, span, nowSeconds());
}

std::vector<AppHistory> HistoryStore::topAppsOnQueue(Metric m, TimeSpan span, int limit) {
  if (!db_) return {};
  AppSlots& slots = usesHours(span) ? hourSlots_ : minuteSlots_;
  // Stale slots are rebuilt once; if even that fails, the query reads every row of the span.
  if (!slots.fresh()) slots.rebuild(db_);
  return HistoryQueries::topApps(db_, m, span, limit, nowSeconds(), &slots);
}

HistoryStore::AppValues HistoryStore::appsAtOnQueue(Metric m, TimeSpan span, int64_t time,
                                                    int limit) {
  if (!db_) return {};
  return HistoryQueries::appsAt(db_, m, span, time, limit);
}

Totals HistoryStore::totalsOnQueue() {
  if (!db_) return {};
  int64_t now = nowSeconds();
  return HistoryQueries::totals(db_, options_.startOfDay(now), now - 7 * kDay);
}

HistorySize HistoryStore::sizeOnQueue() {
  if (!db_) return {};
  return {fileSize(path()) + fileSize(path() + "-wal"), HistoryQueries::oldest(db_),
          HistoryQueries::rowCount(db_, "sys_min", 0)};
}

template <class R>
void HistoryStore::answer(std::function<R()> work, std::function<void(R)> completion) {
  queue_.async([this, work = std::move(work), completion = std::move(completion)] {
    R result = work();
    if (!completion) return;
    main_.post(
        [completion, result = std::move(result)]() mutable { completion(std::move(result)); });
  });
}

void HistoryStore::series(Metric m, TimeSpan span,
                          std::function<void(std::vector<HistoryPoint>)> completion) {
  answer<std::vector<HistoryPoint>>([=, this] { return seriesOnQueue(m, span); },
                                    std::move(completion));
}

void HistoryStore::topApps(Metric m, TimeSpan span, int limit,
                           std::function<void(std::vector<AppHistory>)> completion) {
  answer<std::vector<AppHistory>>([=, this] { return topAppsOnQueue(m, span, limit); },
                                  std::move(completion));
}

void HistoryStore::appsAt(Metric m, TimeSpan span, int64_t time, int limit,
                          std::function<void(AppValues)> completion) {
  answer<AppValues>([=, this] { return appsAtOnQueue(m, span, time, limit); },
                    std::move(completion));
}

void HistoryStore::totals(std::function<void(Totals)> completion) {
  answer<Totals>([this] { return totalsOnQueue(); }, std::move(completion));
}

void HistoryStore::size(std::function<void(HistorySize)> completion) {
  answer<HistorySize>([this] { return sizeOnQueue(); }, std::move(completion));
}

std::vector<HistoryPoint> HistoryStore::seriesSync(Metric m, TimeSpan span) {
  return queue_.syncValue([&] { return seriesOnQueue(m, span); });
}

std::vector<AppHistory> HistoryStore::topAppsSync(Metric m, TimeSpan span, int limit) {
  return queue_.syncValue([&] { return topAppsOnQueue(m, span, limit); });
}

HistoryStore::AppValues HistoryStore::appsAtSync(Metric m, TimeSpan span, int64_t time, int limit) {
  return queue_.syncValue([&] { return appsAtOnQueue(m, span, time, limit); });
}

Totals HistoryStore::totalsSync() {
  return queue_.syncValue([&] { return totalsOnQueue(); });
}

HistorySize HistoryStore::sizeSync() {
  return queue_.syncValue([&] { return sizeOnQueue(); });
}

int64_t HistoryStore::lastRollup() {
  return queue_.syncValue([&] { return lastRollup_; });
}

void HistoryStore::withDatabase(const std::function<void(Database*)>& work) {
  queue_.sync([&] {
    work(db_ ? &db_ : nullptr);
    invalidateSlots();
  });
}

HistoryStore::SlotsState HistoryStore::slotsState() {
  return queue_.syncValue([&] {
    return SlotsState{minuteSlots_.entryCount() + hourSlots_.entryCount(),
                      minuteSlots_.approximateBytes() + hourSlots_.approximateBytes(),
                      minuteSlots_.fresh() && hourSlots_.fresh()};
  });
}

}  // namespace vistrel
