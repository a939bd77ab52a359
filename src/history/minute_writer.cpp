#include "history/minute_writer.hpp"

namespace vistrel {

int MinuteWriter::write(const MinuteRows& rows) {
  if (!system_.ok()) {
    system_ =
        db_.prepare("INSERT OR REPLACE INTO sys_min VALUES(?,?,?,?,?,?,?,?,?,?,?,?,?,?,?,?,?,?,?)");
  }
  if (!app_.ok()) {
    app_ = db_.prepare(
        "INSERT OR REPLACE INTO app_min(t, app, name, cpu, mem, energy, disk, net, gpu, disk_w) "
        "VALUES(?,?,?,?,?,?,?,?,?,?)");
  }
  // The system row joins the app rows' transaction: a reader, or a process killed half-way, sees
  // the whole minute or none of it.
  Transaction transaction(db_);
  if (!transaction.active()) return SQLITE_ERROR;

  system_.reset();
  int index = 1;
  system_.bind(index++, rows.t);
  // Column order: the metrics in Metric order, each average then its peak.
  for (size_t i = 0; i < rows.average.size(); ++i) {
    system_.bind(index++, rows.average[i]);
    system_.bind(index++, rows.peak[i]);
  }
  system_.bind(index++, rows.diskWrite);
  system_.bind(index++, rows.netIn);
  system_.bind(index++, rows.netOut);
  system_.bind(index++, rows.power);
  int rc = system_.run();
  system_.reset();
  if (rc != SQLITE_OK) return rc;

  for (const auto& a : rows.apps) {
    app_.reset();
    app_.bindAll(rows.t, a.id, a.name, a.cpu, a.mem, a.energy, a.disk, a.net, a.gpu, a.diskW);
    rc = app_.run();
    app_.reset();
    if (rc != SQLITE_OK) return rc;
  }
  return transaction.commit();
}

}  // namespace vistrel
