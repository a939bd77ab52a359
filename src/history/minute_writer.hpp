#pragma once

// Writes one minute's rows. Keeps its two statements prepared, since it runs every minute.

#include "history/database.hpp"
#include "history/minute_accumulator.hpp"

namespace vistrel {

class MinuteWriter {
 public:
  explicit MinuteWriter(Database& db) : db_(db) {}

  // Writes the sys_min row and the app rows in one transaction, replacing rows already there for
  // the minute. Returns the first failure's code, SQLITE_OK when everything was written; after a
  // failure nothing of the minute is kept.
  int write(const MinuteRows& rows);

 private:
  Database& db_;
  Statement system_;
  Statement app_;
};

}  // namespace vistrel
