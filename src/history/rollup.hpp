#pragma once

// Folding minute rows into hour rows, and the deletions that keep the database's size bounded.

#include <cstdint>

#include "history/database.hpp"

namespace vistrel {

struct Rollup {
  // Minute rows are kept a week plus a day of slack before the current hour, so that the "7 d"
  // span is always answered at minute precision.
  static constexpr int64_t kMinuteKeepSeconds = 8 * 86400;

  // Writes the hour rows of every whole hour in [from, to) (both multiples of 3600): the system
  // averages and peaks, and per app its sum over the hour divided by the hour's recorded minutes
  // (memory alone takes the hour's maximum). Replaces hour rows already there. Returns the first
  // failing statement's code, SQLITE_OK when both ran.
  static int hours(Database& db, int64_t from, int64_t to);

  // Deletes minute rows, or hour rows, older than `cut` (seconds since 1970).
  static int deleteMinutesBefore(Database& db, int64_t cut);
  static int deleteHoursBefore(Database& db, int64_t cut);

  // The time up to which hours have been rolled up, kept in `meta` under "rollup"; 0 when absent.
  static int64_t readLastRollup(Database& db);
  static int writeLastRollup(Database& db, int64_t hour);
};

}  // namespace vistrel
