#pragma once

// The questions charts, alerts and agents ask of the history, answered from one connection. The
// store runs these on its queue; they are free of state so that tests and the benchmark can call
// them on any database.

#include <cstdint>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "history/app_slots.hpp"
#include "history/database.hpp"
#include "history/time_span.hpp"
#include "sampling/records.hpp"

namespace vistrel {

struct HistoryQueries {
  // The system tables' column of each metric ("cpu", "mem", "gpu", "disk", "net", "battery",
  // "heat"); its peak is that name with "_max".
  static std::string_view column(Metric m);
  // The app tables' column of a metric; battery and heat have none.
  static std::optional<std::string_view> appColumn(Metric m);

  // The metric over the span ending at `now` (seconds since 1970): one point per bucket that holds
  // a row with a value, oldest first. Buckets are aligned to multiples of the bucket's length
  // since 1970 (UTC), so a day-long bar runs from UTC midnight.
  static std::vector<HistoryPoint> series(Database& db, Metric m, TimeSpan span, int64_t now);

  // The `limit` apps with the largest total of the metric over the span, highest first (ties by
  // app id), each with its average over the span's recorded rows and its series per bucket. With
  // `slots` (those of the span's app table) fresh, the ranking, and the series when the span's
  // bucket is made of whole slots, come from them and the rows before the first whole slot;
  // otherwise from SQL over every row of the span. Both give the same answer.
  static std::vector<AppHistory> topApps(Database& db, Metric m, TimeSpan span, int limit,
                                         int64_t now, const AppSlots* slots = nullptr);

  // The `limit` apps with the highest average of the metric within the span's bucket holding
  // `time`, as (name, average) pairs, highest first.
  static std::vector<std::pair<std::string, double>> appsAt(Database& db, Metric m, TimeSpan span,
                                                            int64_t time, int limit);

  // Bytes written and moved since `today`, network bytes since `week`, and today's heaviest
  // writers (at most 5). A missing sum counts as 0.
  static Totals totals(Database& db, int64_t today, int64_t week);

  // The oldest row's time in either system table, absent when both are empty.
  static std::optional<int64_t> oldest(Database& db);

  // Rows of a table from `from` on.
  static int64_t rowCount(Database& db, std::string_view table, int64_t from);
};

}  // namespace vistrel
