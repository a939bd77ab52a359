#include "history/rollup.hpp"

#include <string>

namespace vistrel {

namespace {

constexpr const char* kSystemHours =
    "INSERT OR REPLACE INTO sys_hour SELECT t/3600*3600, AVG(cpu), MAX(cpu_max), AVG(mem), "
    "MAX(mem_max), AVG(gpu), MAX(gpu_max),\n  AVG(disk), MAX(disk_max), AVG(net), MAX(net_max), "
    "AVG(battery), MAX(battery_max), AVG(heat), MAX(heat_max),\n  AVG(disk_w), AVG(net_in), "
    "AVG(net_out), AVG(power)\nFROM sys_min WHERE t >= ? AND t < ? GROUP BY t/3600";

constexpr const char* kAppHours =
    "INSERT OR REPLACE INTO app_hour(t, app, name, cpu, mem, energy, disk, net, gpu, disk_w)\n"
    "SELECT a.h, a.app, a.name, a.cpu / m.n, a.mem, a.energy / m.n, a.disk / m.n, a.net / m.n, "
    "a.gpu / m.n, a.dw / m.n\n"
    "FROM (SELECT t/3600*3600 AS h, app, MAX(name) AS name, SUM(cpu) AS cpu, MAX(mem) AS mem, "
    "SUM(energy) AS energy,\n"
    "             SUM(disk) AS disk, SUM(net) AS net, SUM(gpu) AS gpu, SUM(COALESCE(disk_w, 0)) "
    "AS dw\n"
    "      FROM app_min WHERE t >= ? AND t < ? GROUP BY t/3600, app) a\n"
    "JOIN (SELECT t/3600*3600 AS h, COUNT(*) AS n FROM sys_min WHERE t >= ? AND t < ? GROUP BY "
    "t/3600) m ON a.h = m.h";

int runWithCut(Database& db, const char* sql, int64_t cut) {
  Statement s = db.prepare(sql);
  s.bind(1, cut);
  return s.run();
}

}  // namespace

int Rollup::hours(Database& db, int64_t from, int64_t to) {
  Statement system = db.prepare(kSystemHours);
  int rc = system.bindAll(from, to).run();
  Statement apps = db.prepare(kAppHours);
  int appRc = apps.bindAll(from, to, from, to).run();
  return rc != SQLITE_OK ? rc : appRc;
}

int Rollup::deleteMinutesBefore(Database& db, int64_t cut) {
  int rc = runWithCut(db, "DELETE FROM sys_min WHERE t < ?", cut);
  int appRc = runWithCut(db, "DELETE FROM app_min WHERE t < ?", cut);
  return rc != SQLITE_OK ? rc : appRc;
}

int Rollup::deleteHoursBefore(Database& db, int64_t cut) {
  int rc = runWithCut(db, "DELETE FROM sys_hour WHERE t < ?", cut);
  int appRc = runWithCut(db, "DELETE FROM app_hour WHERE t < ?", cut);
  return rc != SQLITE_OK ? rc : appRc;
}

int64_t Rollup::readLastRollup(Database& db) {
  Statement s = db.prepare("SELECT v FROM meta WHERE k='rollup'");
  // The value is decimal text; SQLite converts it, and anything unreadable counts as never.
  return s.next() ? s.int64(0) : 0;
}

int Rollup::writeLastRollup(Database& db, int64_t hour) {
  Statement s = db.prepare("INSERT OR REPLACE INTO meta VALUES('rollup', ?)");
  s.bind(1, std::to_string(hour));
  return s.run();
}

}  // namespace vistrel
