#pragma once

// Opening the history database: the folder, the connection's configuration, the tables with their
// migration and indexes, and what becomes of a file that is not a usable database.

#include <string>

#include "base/clock.hpp"
#include "history/database.hpp"

namespace vistrel {

struct HistoryFile {
  static constexpr const char* kName = "history.sqlite";

  // Opens "history.sqlite" in `folder` (created with its parents when missing), configured and with
  // its tables in place. A file that is damaged or not a database at all is moved aside (see
  // `moveAside`) and a fresh one is started. Any other failure (a folder that cannot be created, a
  // read-only or full disk) returns a closed connection. Each outcome other than a clean open
  // writes one line to standard error.
  static Database open(const std::string& folder, Date now);

  // Creates the five tables, adds columns that older databases lack, and creates the indexes. Every
  // statement is idempotent, so this runs at every opening; failures are ignored, except that the
  // first failure's code is returned so that a damaged file can be recognised.
  static int prepareSchema(Database& db);

  // Renames `path`, and its "-wal" and "-shm" companions, to `path` + ".damaged-YYYYMMDD-HHMMSS"
  // (UTC), adding "-2", "-3", ... when that name is taken. Nothing is deleted. Returns the new
  // name, or an empty string when the rename failed.
  static std::string moveAside(const std::string& path, Date now);

  // True for the result codes that mean the file's contents cannot be trusted.
  static bool isDamage(int rc);
};

}  // namespace vistrel
