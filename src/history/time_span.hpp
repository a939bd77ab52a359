#pragma once

// The spans a history query covers and the records it answers with.

#include <array>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

namespace vistrel {

// Minute tables answer the spans up to a week (minute rows are kept eight days); the hour tables
// answer the longer ones.
enum class TimeSpan { hour, day, week, month, year };
inline constexpr std::array<TimeSpan, 5> kAllTimeSpans = {
    TimeSpan::hour, TimeSpan::day, TimeSpan::week, TimeSpan::month, TimeSpan::year};

// "1 h", "24 h", "7 d", "30 d", "1 y"; the span's id is the same string.
std::string_view rawValue(TimeSpan s);
std::optional<TimeSpan> timeSpanFromRaw(std::string_view raw);
// Length of the span, seconds.
int64_t seconds(TimeSpan s);
// Seconds per bar of a chart of the span.
int64_t bucket(TimeSpan s);
// True when the span reads the hour tables.
bool usesHours(TimeSpan s);
// "each bar 1 minute", ..., "each bar 1 day".
std::string_view caption(TimeSpan s);

// One chart point: the bucket's start (seconds since 1970), its average and its peak.
struct HistoryPoint {
  int64_t time = 0;
  double value = 0;
  double peak = 0;
  bool operator==(const HistoryPoint&) const = default;
};

// One app of a top-apps query. `average` spreads the app's total over every recorded row of the
// span, so an app seen briefly ranks low; `series` holds its buckets, each averaged the same way.
struct AppHistory {
  std::string app;  // the app's grouping id
  std::string name;
  double average = 0;
  std::vector<HistoryPoint> series;
  bool operator==(const AppHistory&) const = default;
};

// Bytes moved today and over the last seven days, and today's heaviest writers (at most 5).
struct Totals {
  double diskWrittenToday = 0;
  double netInToday = 0;
  double netOutToday = 0;
  double netIn7 = 0;
  double netOut7 = 0;
  std::vector<std::pair<std::string, double>> appDiskToday;
  bool operator==(const Totals&) const = default;
};

// What the database holds: its bytes on disk (WAL included), its oldest row's time, and how many
// minutes it holds at minute precision.
struct HistorySize {
  int64_t bytes = 0;
  std::optional<int64_t> oldest;  // seconds since 1970
  int64_t minuteRows = 0;
  bool operator==(const HistorySize&) const = default;
};

}  // namespace vistrel
