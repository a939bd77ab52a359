#pragma once

// Per app and per slot of time (half an hour of minute rows, or a day of hour rows), the sums,
// peaks and row counts of an app table's metric columns, kept in memory on the store's queue. A
// top-apps query then adds up the slots inside its span and reads from the database only the rows
// between the span's start and the first whole slot, instead of sorting a week or a year of rows
// by app.
//
// The slots mirror the table. After every write, roll-up, deletion and erase the store calls the
// matching function here, which re-reads the rows concerned from the database rather than guessing
// what a statement changed, so a replaced row or a failed write cannot make them drift. When the
// database may have changed in a way nobody described (a statement failed half-way, or arbitrary
// work ran on the connection), the slots are marked stale and the next query rebuilds them from
// the whole table; until then queries fall back to plain SQL.

#include <array>
#include <cstdint>
#include <functional>
#include <map>
#include <optional>
#include <string>
#include <string_view>
#include <unordered_map>
#include <utility>
#include <vector>

#include "history/database.hpp"

namespace vistrel {

// A sum of doubles with Neumaier's compensation: the rounding error of every addition is kept
// aside and added back at the end, so a total is the same, but for its last bit at most, whether
// it was summed row by row or slot by slot. (SQLite's own SUM promises no order either.)
struct CompensatedSum {
  double sum = 0;
  double error = 0;
  void add(double x);
  void add(const CompensatedSum& other);
  double value() const;
};

// One app's figures for one column over some rows: what SQL's SUM, MAX and COUNT(*) give.
struct ColumnFigures {
  CompensatedSum sum;
  double peak = 0;
  bool hasValue = false;  // false: no row had a value, so SQL's SUM and MAX are NULL
  int64_t rows = 0;       // rows, with a value or not
  void add(std::optional<double> value);
  void add(const ColumnFigures& other);
  // NULL reads as 0, as it does from a statement.
  double total() const { return hasValue ? sum.value() : 0; }
  double maximum() const { return hasValue ? peak : 0; }
};

// An app's figures in one bucket of a chart: SUM, MAX and COUNT(*) of its rows there, NULL read
// as 0.
struct AppBucket {
  int64_t time = 0;  // the bucket's start, seconds since 1970
  double sum = 0;
  double peak = 0;
  int64_t rows = 0;
};

// An app ranked by a column over a span.
struct RankedApp {
  std::string app;
  std::string name;  // the largest of its names, as MAX(name) compares them
  double total = 0;  // SUM of the column over the span, NULL read as 0
  // The buckets of the span's chart that hold a row of the app, oldest first.
  std::vector<AppBucket> buckets;
};

class AppSlots {
 public:
  // The metric columns of the app tables, in the order the slots keep them.
  static constexpr std::array<std::string_view, 5> kColumns = {"cpu", "mem", "gpu", "disk", "net"};

  // `table` is "app_min" or "app_hour"; `slotSeconds` divides the chart buckets that should be
  // answered from the slots.
  AppSlots(std::string table, int64_t slotSeconds);

  int64_t slotSeconds() const { return slot_; }
  bool fresh() const { return fresh_; }
  void invalidate();
  // Reads the whole table again; false, and stale, when reading failed.
  bool rebuild(Database& db);
  // After rows in [from, to) were written or replaced: reads again every slot that overlaps it.
  void reload(Database& db, int64_t from, int64_t to);
  // After the rows before `cut` were deleted.
  void dropBefore(Database& db, int64_t cut);
  // After every row was deleted.
  void clear();

  // The `limit` apps with the largest total of `column` (one of kColumns) over the rows at or
  // after `from` (seconds since 1970, not negative), ordered as "ORDER BY SUM(column) DESC, app"
  // orders them (an app with no value at all comes last). When `bucket` is a multiple of the slot
  // length, each app comes with its figures per bucket of that length (aligned to multiples of it);
  // otherwise its buckets are left empty. Empty, with `ok` false, when the slots are stale or the
  // database could not be read.
  std::vector<RankedApp> rank(Database& db, std::string_view column, int64_t from, int limit,
                              int64_t bucket, bool& ok) const;

  // (app, slot) pairs held and the bytes they take, for the benchmark.
  size_t entryCount() const;
  size_t approximateBytes() const;

 private:
  // One app's rows within one slot.
  struct Entry {
    uint32_t app = 0;   // index in strings_
    uint32_t name = 0;  // the largest of its names, index in strings_
    uint32_t rows = 0;
    uint8_t hasValue = 0;  // bit c: some row has a value in column c
    std::array<CompensatedSum, kColumns.size()> sums;
    std::array<double, kColumns.size()> peaks{};
    ColumnFigures figures(size_t column) const;
  };
  using Slot = std::vector<Entry>;  // sorted by app

  uint32_t intern(std::string_view text);
  bool read(Database& db, std::optional<std::pair<int64_t, int64_t>> range);
  int64_t slotOf(int64_t t) const;

  std::string table_;
  int64_t slot_;
  bool fresh_ = true;
  std::map<int64_t, Slot> slots_;  // by the slot's start, seconds since 1970
  // App ids and names, each held once; entries refer to them by index.
  struct Hash {
    using is_transparent = void;  // looks up a string_view without making a string
    size_t operator()(std::string_view s) const noexcept {
      return std::hash<std::string_view>{}(s);
    }
  };
  std::vector<std::string> strings_;
  std::unordered_map<std::string, uint32_t, Hash, std::equal_to<>> index_;
};

}  // namespace vistrel
