#include "ui/alerts_view.hpp"

#include "alerts/alert_log.hpp"
#include "format/fmt.hpp"

namespace vistrel::ui {

AlertsView alertsView(const std::vector<AlertEvent>& alerts, const std::set<std::string>& muted,
                      int64_t unread, Date now) {
  AlertsView v;
  if (alerts.empty()) {
    v.empty = std::string(kNoAlertsText);
    return v;
  }
  size_t fresh = 0;
  for (const AlertEvent& e : alerts) {
    AlertLine line;
    line.id = e.id;
    line.title = e.title;
    line.detail = e.detail;
    line.app = e.app.value_or("");
    line.when = Fmt::ago(e.date, now) + " · " + Fmt::dayTime(e.date);
    line.unread = static_cast<int64_t>(v.lines.size()) < unread;
    if (e.appID) {
      line.muted = muted.count(*e.appID) > 0;
      if (!line.muted) line.muteId = e.appID;
    }
    fresh += line.unread ? 1 : 0;
    v.lines.push_back(std::move(line));
  }
  v.summary = std::to_string(alerts.size()) + (alerts.size() == 1 ? " alert" : " alerts");
  if (fresh > 0) v.summary += ", " + std::to_string(fresh) + " new";
  return v;
}

}  // namespace vistrel::ui
