#include "history/history_queries.hpp"

#include <algorithm>
#include <map>

namespace vistrel {

namespace {

std::string_view systemTable(TimeSpan span) {
  return usesHours(span) ? "sys_hour" : "sys_min";
}

std::string_view appTable(TimeSpan span) {
  return usesHours(span) ? "app_hour" : "app_min";
}

// The app table read by a range of times. Left alone, SQLite walks the (app, t) index to group by
// app without sorting, and looks every row up in the table: over a week that is several times
// slower than reading the range in primary-key order and sorting. The hint names the primary key
// of a WITHOUT ROWID table, which SQLite always calls sqlite_autoindex_<table>_1.
std::string appRange(std::string_view table) {
  std::string t(table);
  return t + " INDEXED BY sqlite_autoindex_" + t + "_1";
}

// "t/300*300": the start of the bucket holding a row.
std::string bucketKey(TimeSpan span) {
  std::string b = std::to_string(bucket(span));
  return "t/" + b + "*" + b;
}

int64_t spanStart(TimeSpan span, int64_t now) {
  return now - seconds(span);
}

// Recorded system rows per bucket of the span: what an app's bucket sum is divided by, so that an
// app absent from part of a bucket counts as 0 there, as it does within a minute.
std::map<int64_t, int64_t> rowsPerBucket(Database& db, TimeSpan span, int64_t from) {
  std::string sql = "SELECT " + bucketKey(span) + " AS k, COUNT(*) FROM " +
                    std::string(systemTable(span)) + " WHERE t >= ? GROUP BY k";
  Statement s = db.prepare(sql);
  s.bind(1, from);
  std::map<int64_t, int64_t> counts;
  while (s.next()) counts[s.int64(0)] = s.int64(1);
  return counts;
}

// The ranking over every row of the span: the apps' sums, sorted.
std::vector<RankedApp> rankBySql(Database& db, const std::string& c, TimeSpan span, int64_t from,
                                 int limit) {
  std::string sql = "SELECT app, MAX(name), SUM(" + c + ") FROM " + appRange(appTable(span)) +
                    " WHERE t >= ? GROUP BY app ORDER BY SUM(" + c + ") DESC, app LIMIT ?";
  Statement s = db.prepare(sql);
  s.bindAll(from, limit);
  std::vector<RankedApp> apps;
  while (s.next()) apps.push_back({s.text(0), s.text(1), s.real(2), {}});
  return apps;
}

// Each ranked app's figures per bucket of the span, read through the (app, t) index.
void readSeries(Database& db, const std::string& c, TimeSpan span, int64_t from,
                std::vector<RankedApp>& apps) {
  std::string b = std::to_string(bucket(span));
  Statement s = db.prepare("SELECT " + bucketKey(span) + " AS k, SUM(" + c + "), MAX(" + c +
                           "), COUNT(*) FROM " + std::string(appTable(span)) +
                           " WHERE app = ? AND t >= ? GROUP BY t/" + b + " ORDER BY k");
  for (RankedApp& app : apps) {
    app.buckets.clear();
    s.reset();
    s.bindAll(app.app, from);
    while (s.next()) app.buckets.push_back({s.int64(0), s.real(1), s.real(2), s.int64(3)});
  }
}

}  // namespace

std::string_view HistoryQueries::column(Metric m) {
  switch (m) {
    case Metric::cpu:
      return "cpu";
    case Metric::memory:
      return "mem";
    case Metric::gpu:
      return "gpu";
    case Metric::disk:
      return "disk";
    case Metric::network:
      return "net";
    case Metric::battery:
      return "battery";
    case Metric::heat:
      return "heat";
  }
  return "cpu";
}

std::optional<std::string_view> HistoryQueries::appColumn(Metric m) {
  if (m == Metric::battery || m == Metric::heat) return std::nullopt;
  return column(m);
}

int64_t HistoryQueries::rowCount(Database& db, std::string_view table, int64_t from) {
  Statement s = db.prepare("SELECT COUNT(*) FROM " + std::string(table) + " WHERE t >= ?");
  s.bind(1, from);
  return s.next() ? s.int64(0) : 0;
}

std::vector<HistoryPoint> HistoryQueries::series(Database& db, Metric m, TimeSpan span,
                                                 int64_t now) {
  std::string col(column(m));
  std::string sql = "SELECT " + bucketKey(span) + " AS k, AVG(" + col + "), MAX(" + col +
                    "_max) FROM " + std::string(systemTable(span)) + " WHERE t >= ? AND " + col +
                    " IS NOT NULL GROUP BY k ORDER BY k";
  Statement s = db.prepare(sql);
  s.bind(1, spanStart(span, now));
  std::vector<HistoryPoint> points;
  while (s.next()) points.push_back({s.int64(0), s.real(1), s.optionalReal(2).value_or(s.real(1))});
  return points;
}

std::vector<AppHistory> HistoryQueries::topApps(Database& db, Metric m, TimeSpan span, int limit,
                                                int64_t now, const AppSlots* slots) {
  auto col = appColumn(m);
  if (!col || limit <= 0) return {};
  std::string c(*col);
  int64_t from = spanStart(span, now);
  bool fromSlots = false;
  std::vector<RankedApp> ranked;
  if (slots) ranked = slots->rank(db, c, from, limit, bucket(span), fromSlots);
  if (!fromSlots) ranked = rankBySql(db, c, span, from, limit);
  if (ranked.empty()) return {};
  if (!fromSlots || bucket(span) % slots->slotSeconds() != 0) {
    readSeries(db, c, span, from, ranked);
  }

  int64_t rows = std::max<int64_t>(1, rowCount(db, systemTable(span), from));
  auto perBucket = rowsPerBucket(db, span, from);
  std::vector<AppHistory> apps;
  for (RankedApp& r : ranked) {
    AppHistory& app =
        apps.emplace_back(AppHistory{std::move(r.app), std::move(r.name), r.total, {}});
    app.average /= static_cast<double>(rows);
    for (const AppBucket& b : r.buckets) {
      auto found = perBucket.find(b.time);
      int64_t n = found != perBucket.end() ? std::max(found->second, b.rows) : b.rows;
      app.series.push_back({b.time, b.sum / static_cast<double>(n), b.peak});
    }
  }
  return apps;
}

std::vector<std::pair<std::string, double>> HistoryQueries::appsAt(Database& db, Metric m,
                                                                   TimeSpan span, int64_t time,
                                                                   int limit) {
  auto col = appColumn(m);
  if (!col || limit <= 0) return {};
  std::string c(*col);
  int64_t length = bucket(span);
  int64_t start = (time >= 0 ? time / length : (time - length + 1) / length) * length;
  std::string sql = "SELECT MAX(name), AVG(" + c + ") FROM " + appRange(appTable(span)) +
                    " WHERE t >= ? AND t < ? GROUP BY app ORDER BY AVG(" + c +
                    ") DESC, app LIMIT ?";
  Statement s = db.prepare(sql);
  s.bindAll(start, start + length, limit);
  std::vector<std::pair<std::string, double>> apps;
  while (s.next()) apps.emplace_back(s.text(0), s.real(1));
  return apps;
}

Totals HistoryQueries::totals(Database& db, int64_t today, int64_t week) {
  Totals t;
  Statement day = db.prepare(
      "SELECT SUM(disk_w)*60, SUM(net_in)*60, SUM(net_out)*60 FROM sys_min WHERE t >= ?");
  day.bind(1, today);
  if (day.next()) {
    t.diskWrittenToday = day.real(0);  // NULL reads as 0
    t.netInToday = day.real(1);
    t.netOutToday = day.real(2);
  }
  Statement seven = db.prepare("SELECT SUM(net_in)*60, SUM(net_out)*60 FROM sys_min WHERE t >= ?");
  seven.bind(1, week);
  if (seven.next()) {
    t.netIn7 = seven.real(0);
    t.netOut7 = seven.real(1);
  }
  Statement writers = db.prepare(
      "SELECT MAX(name), SUM(COALESCE(disk_w, 0))*60 AS w FROM app_min INDEXED BY "
      "sqlite_autoindex_app_min_1 WHERE t >= ? GROUP BY app "
      "HAVING w > 0 ORDER BY w DESC LIMIT 5");
  writers.bind(1, today);
  while (writers.next()) t.appDiskToday.emplace_back(writers.text(0), writers.real(1));
  return t;
}

std::optional<int64_t> HistoryQueries::oldest(Database& db) {
  Statement s = db.prepare(
      "SELECT MIN(t) FROM (SELECT MIN(t) AS t FROM sys_hour UNION SELECT MIN(t) FROM sys_min)");
  return s.next() ? s.optionalInt64(0) : std::nullopt;
}

}  // namespace vistrel
