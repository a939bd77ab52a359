#include "history/history_file.hpp"

#include <cmath>
#include <cstdio>
#include <ctime>

#include "base/files.hpp"

namespace vistrel {

namespace {

constexpr const char* kSystemColumns =
    "(t INTEGER PRIMARY KEY, cpu REAL, cpu_max REAL, mem REAL, mem_max REAL, gpu REAL, gpu_max "
    "REAL,\n  disk REAL, disk_max REAL, net REAL, net_max REAL, battery REAL, battery_max REAL, "
    "heat REAL, heat_max REAL,\n  disk_w REAL, net_in REAL, net_out REAL, power REAL)";
constexpr const char* kAppColumns =
    "(t INTEGER, app TEXT, name TEXT, cpu REAL, mem REAL, energy REAL, disk REAL, net REAL, gpu "
    "REAL, disk_w REAL, PRIMARY KEY(t, app)) WITHOUT ROWID";

enum class Outcome { opened, damaged, failed };

struct Attempt {
  Outcome outcome = Outcome::failed;
  Database db;
  std::string why;
};

std::string firstLine(const std::string& text) {
  return text.substr(0, text.find('\n'));
}

Attempt attempt(const std::string& path) {
  Attempt a;
  int rc = SQLITE_OK;
  Database db = Database::open(path, Database::kReadWriteCreate, &rc);
  if (!db) {
    a.outcome = HistoryFile::isDamage(rc) ? Outcome::damaged : Outcome::failed;
    a.why = sqlite3_errstr(rc);
    return a;
  }
  // Until the file is known to be sound, closing must not checkpoint a log into it or delete the
  // log: a damaged file and its log are kept as they were found.
  sqlite3_db_config(db.handle(), SQLITE_DBCONFIG_NO_CKPT_ON_CLOSE, 1, nullptr);
  // The file is not read until the first statement, so this is where "not a database" shows. The
  // check reads every page and writes nothing: it runs before the switch to WAL, which rewrites
  // the header. (A damaged page may sit anywhere; walking them all once at start-up, off the main
  // thread, is cheaper than finding out at the first query of an old span.)
  Statement check = db.prepare("PRAGMA quick_check");
  bool healthy = check.next() && check.text(0) == "ok";
  if (!healthy) {
    int code = check.error() == SQLITE_ROW ? SQLITE_CORRUPT : check.error();
    a.outcome = HistoryFile::isDamage(code) ? Outcome::damaged : Outcome::failed;
    a.why = check.error() == SQLITE_ROW ? firstLine(check.text(0)) : db.errorMessage();
    return a;
  }
  check = Statement();
  rc = db.exec("PRAGMA journal_mode=WAL; PRAGMA synchronous=NORMAL;");
  // A year of history is some 80 MB; the long spans read tens of them. 16 MB of page cache keeps
  // repeated queries off the disk without weighing much on a menu-bar app. (No memory mapping: an
  // I/O error there arrives as SIGBUS instead of a result code.)
  if (rc == SQLITE_OK) rc = db.exec("PRAGMA cache_size=-16000");
  if (rc != SQLITE_OK) {
    a.outcome = HistoryFile::isDamage(rc) ? Outcome::damaged : Outcome::failed;
    a.why = db.errorMessage();
    return a;
  }
  if (db.readOnly()) {
    a.why = "the file can only be read";
    return a;
  }
  rc = HistoryFile::prepareSchema(db);
  if (HistoryFile::isDamage(rc)) {
    a.outcome = Outcome::damaged;
    a.why = db.errorMessage();
    return a;
  }
  sqlite3_db_config(db.handle(), SQLITE_DBCONFIG_NO_CKPT_ON_CLOSE, 0, nullptr);
  a.outcome = Outcome::opened;
  a.db = std::move(db);
  return a;
}

std::string stamp(Date now) {
  auto seconds = static_cast<time_t>(std::floor(secondsSince1970(now)));
  std::tm tm{};
  gmtime_r(&seconds, &tm);
  char text[32];
  std::strftime(text, sizeof text, "%Y%m%d-%H%M%S", &tm);
  return text;
}

}  // namespace

bool HistoryFile::isDamage(int rc) {
  int code = primaryCode(rc);
  return code == SQLITE_CORRUPT || code == SQLITE_NOTADB;
}

int HistoryFile::prepareSchema(Database& db) {
  int first = SQLITE_OK;
  auto run = [&](const std::string& sql) {
    int rc = db.exec(sql);
    if (first == SQLITE_OK) first = rc;
  };
  run(std::string("CREATE TABLE IF NOT EXISTS sys_min") + kSystemColumns);
  run(std::string("CREATE TABLE IF NOT EXISTS sys_hour") + kSystemColumns);
  run(std::string("CREATE TABLE IF NOT EXISTS app_min") + kAppColumns);
  run(std::string("CREATE TABLE IF NOT EXISTS app_hour") + kAppColumns);
  run("CREATE TABLE IF NOT EXISTS meta(k TEXT PRIMARY KEY, v TEXT)");
  for (const char* table : {"app_min", "app_hour"}) {
    // Fails harmlessly ("duplicate column") wherever the column is already there.
    db.exec(std::string("ALTER TABLE ") + table + " ADD COLUMN disk_w REAL");
    run(std::string("CREATE INDEX IF NOT EXISTS ") + table + "_app ON " + table + "(app, t)");
  }
  return first;
}

std::string HistoryFile::moveAside(const std::string& path, Date now) {
  std::string base = path + ".damaged-" + stamp(now);
  std::string target = base;
  for (int n = 2; pathExists(target) && n < 1000; ++n) target = base + "-" + std::to_string(n);
  if (std::rename(path.c_str(), target.c_str()) != 0) return {};
  // The write-ahead log belongs to the damaged file: left behind, it would be replayed into the
  // fresh database.
  for (const char* suffix : {"-wal", "-shm"}) {
    std::string from = path + suffix;
    if (pathExists(from)) std::rename(from.c_str(), (target + suffix).c_str());
  }
  return target;
}

Database HistoryFile::open(const std::string& folder, Date now) {
  if (!makeFolders(folder)) {
    std::fprintf(stderr, "vistrel: history is off: cannot create the folder %s\n", folder.c_str());
    return Database();
  }
  std::string path = joinPath(folder, kName);
  Attempt first = attempt(path);
  if (first.outcome == Outcome::opened) return std::move(first.db);
  if (first.outcome == Outcome::failed) {
    std::fprintf(stderr, "vistrel: history is off: cannot open %s: %s\n", path.c_str(),
                 first.why.c_str());
    return Database();
  }
  first.db.close();
  std::string aside = moveAside(path, now);
  if (aside.empty()) {
    std::fprintf(stderr, "vistrel: history is off: %s is damaged (%s) and cannot be moved aside\n",
                 path.c_str(), first.why.c_str());
    return Database();
  }
  Attempt second = attempt(path);
  if (second.outcome != Outcome::opened) {
    std::fprintf(stderr, "vistrel: history is off: moved the damaged %s to %s, then: %s\n",
                 path.c_str(), aside.c_str(), second.why.c_str());
    return Database();
  }
  std::fprintf(stderr, "vistrel: %s was damaged (%s); moved it to %s and started a new history\n",
               path.c_str(), first.why.c_str(), aside.c_str());
  return std::move(second.db);
}

}  // namespace vistrel
