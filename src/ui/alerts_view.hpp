#pragma once

// What the alerts page shows: the kept alerts newest first, which of them arrived since the page
// was last seen, and which apps can still be muted for the day. Qt-free.

#include <optional>
#include <set>
#include <string>
#include <vector>

#include "alerts/alert_event.hpp"
#include "base/clock.hpp"

namespace vistrel::ui {

struct AlertLine {
  std::string id;
  std::string title;
  std::string detail;
  std::string app;   // the app's name; "" for a machine-wide alert
  std::string when;  // "5 min ago · 2:05 PM"
  bool unread = false;
  std::optional<std::string> muteId;  // the app to mute; absent: machine-wide or already muted
  bool muted = false;                 // the app is muted for the rest of the day
};

struct AlertsView {
  std::vector<AlertLine> lines;
  std::string summary;  // "3 alerts, 1 new"; "" when there are none
  std::string empty;    // the empty state, when there are no alerts
};

// `unread`: how many alerts had arrived unseen when the page came on screen; that many of the
// newest are marked new (never more than the list holds: a clear may have emptied it since).
AlertsView alertsView(const std::vector<AlertEvent>& alerts, const std::set<std::string>& muted,
                      int64_t unread, Date now);

}  // namespace vistrel::ui
