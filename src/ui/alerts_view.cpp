#include "ui/alerts_view.hpp"

#include "alerts/alert_log.hpp"
#include "format/fmt.hpp"

namespace vistrel::ui {

AlertsView alertsView(const std::vector<AlertEvent>& alerts, const std::set<std::string>& muted,
                      const std::optional<std::string>& lastSeen, Date now) {
  AlertsView v;
  if (alerts.empty()) {
    v.empty = std::string(kNoAlertsText);
    return v;
  }
  // Everything above the last seen alert is new; when that alert is gone from the list (trimmed
  // or cleared since), nothing before it can be told apart, so none is marked.
  bool seenPresent = false;
  if (lastSeen) {
    for (const AlertEvent& e : alerts) seenPresent = seenPresent || e.id == *lastSeen;
  }
  bool unread = !lastSeen;
  if (lastSeen && seenPresent) unread = true;
  size_t fresh = 0;
  for (const AlertEvent& e : alerts) {
    if (lastSeen && e.id == *lastSeen) unread = false;
    AlertLine line;
    line.id = e.id;
    line.title = e.title;
    line.detail = e.detail;
    line.app = e.app.value_or("");
    line.when = Fmt::ago(e.date, now) + " · " + Fmt::dayTime(e.date);
    line.unread = unread;
    if (e.appID) {
      line.muted = muted.count(*e.appID) > 0;
      if (!line.muted) line.muteId = e.appID;
    }
    fresh += unread ? 1 : 0;
    v.lines.push_back(std::move(line));
  }
  v.summary = std::to_string(alerts.size()) + (alerts.size() == 1 ? " alert" : " alerts");
  if (fresh > 0) v.summary += ", " + std::to_string(fresh) + " new";
  return v;
}

}  // namespace vistrel::ui
