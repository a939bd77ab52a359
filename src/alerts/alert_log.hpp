#pragma once

// The kept alerts and the user's alert settings, all surviving a restart through the user
// defaults:
//
//   key            stored as                                what
//   "alerts"       data: UTF-8 JSON array of AlertEvent      the kept alerts, newest first, <= 200
//   "unreadAlerts" integer                                   raised while the alerts page was away
//   "alertKinds"   array of kind raw values                  rules switched on
//   "notify"       boolean                                   post user notifications
//   "mutedToday"   {"day": Fmt::monthDay text, "apps": [id]} apps muted until local midnight
//
// How it meets the engine: the log does not own the AlertEngine but holds it by reference (both
// belong to the model, the engine declared first) and is the only writer of the engine's
// settings. The constructor copies the stored kinds, notification switch and today's mutes into
// the engine; `setAlertKinds`, `setNotify` and `muteToday` store the setting and update the engine
// at once. The engine stays the one holder of the mutes (it empties them at midnight), so
// `mutedToday()` reads them from it. Each tick the model calls `receive(snapshot, pageShowing)`,
// or runs `engine.check` itself and hands the events to `add`.
//
// Defaults when nothing (or something unreadable) is stored: every kind on, notifications on, no
// alerts, nothing unread, nothing muted. Main thread only.

#include <cstdint>
#include <functional>
#include <set>
#include <string>
#include <string_view>
#include <vector>

#include "alerts/alert_engine.hpp"
#include "alerts/alert_event.hpp"
#include "base/clock.hpp"
#include "base/user_defaults.hpp"

namespace vistrel {

// Texts of the alerts page and its settings, for the user interface.
inline constexpr std::string_view kMutedToast = "Muted until tomorrow";
inline constexpr std::string_view kNotifySwitchText = "Show notifications";
inline constexpr std::string_view kNotifySwitchNote = "Alerts always appear here too.";
inline constexpr std::string_view kNoAlertsText = "No alerts yet. That's good news.";

// The text that names a day in the stored mutes ("3 Mar"). Tests pass a zone-free one.
using DayText = std::function<std::string(Date)>;

class AlertLog {
 public:
  static constexpr size_t kMaxAlerts = 200;

  // Reads every key above (see the class comment for defaults) and applies the settings to
  // `engine`. Stored alerts that cannot be decoded give an empty list and are left in the store
  // untouched until a new alert (or `clearAlerts`) saves the list. A stored mute is restored only
  // when its day is today's `dayText(clock.now())`. Writes nothing.
  AlertLog(UserDefaults& defaults, AlertEngine& engine, const Clock& clock,
           DayText dayText = defaultDayText());

  // Files the events of one check (oldest first): they go to the front with the last raised first,
  // the list is trimmed to 200, the unread count grows by their number unless the alerts page is
  // showing, and the list is saved. No events, no writes.
  void add(const std::vector<AlertEvent>& events, bool alertsPageShowing);
  // engine.check(snapshot), then `add`; returns the new events (oldest first).
  std::vector<AlertEvent> receive(const Snapshot& snapshot, bool alertsPageShowing);

  const std::vector<AlertEvent>& alerts() const { return alerts_; }  // newest first
  int64_t unreadAlerts() const { return unread_; }
  // The alerts page was shown: nothing is unread (stored as 0). The count it cleared is kept for
  // the page, which marks that many of the newest alerts as new while it stays on screen.
  void markRead();
  int64_t unreadWhenRead() const { return unreadWhenRead_; }
  // Empties the list and saves it (the unread count is left to `markRead`).
  void clearAlerts();

  // Mutes the app until local midnight and stores today's mutes. Returns the toast to show.
  std::string_view muteToday(const std::string& appID);
  const std::set<std::string>& mutedToday() const { return engine_.mutedToday; }

  const std::set<AlertEvent::Kind>& alertKinds() const { return engine_.enabled; }
  void setAlertKinds(const std::set<AlertEvent::Kind>& kinds);
  bool notify() const { return engine_.notify; }
  // Stores the switch and sets the engine's; setting it on asks for notification permission.
  void setNotify(bool on);

  // Fmt::monthDay in the local time zone.
  static DayText defaultDayText();

 private:
  void saveAlerts();

  UserDefaults& defaults_;
  AlertEngine& engine_;
  const Clock& clock_;
  DayText dayText_;
  std::vector<AlertEvent> alerts_;
  int64_t unread_ = 0;
  int64_t unreadWhenRead_ = 0;
};

}  // namespace vistrel
