#pragma once

// Watches each Snapshot for an app that runs away with the machine (a busy core, growing memory,
// heavy disk writes, heavy network use) and for machine-wide trouble (critical memory pressure,
// heat, a nearly full startup disk), and raises AlertEvents. It never acts on an app.
//
// Owned by the application model and called once per sampler tick on the main thread; no locking.
// Nothing of its state is stored: after a restart every stretch, mark and daily total starts again.
// The model (through AlertLog) sets `enabled`, `notify` and `mutedToday` from the user's settings.

#include <functional>
#include <map>
#include <optional>
#include <set>
#include <string>
#include <utility>
#include <vector>

#include "alerts/alert_event.hpp"
#include "base/clock.hpp"
#include "sampling/records.hpp"

namespace vistrel {

// Where raised alerts become user notifications. The user interface implements it; a headless
// application has none. `post` is called on the main thread, once per event, only while `notify`
// is on: title = event title, body = event detail, user info {"alert": event id}.
class AlertNotifier {
 public:
  virtual ~AlertNotifier() = default;
  virtual void post(const AlertEvent& event) = 0;
  // Asks the system for permission to show notifications (alert and sound); the answer is
  // ignored: a denied permission is not reported, alerts still reach the list.
  virtual void requestPermission() = 0;
};

// The local start of the day that contains a date. The default reads the system's time zone
// (localtime_r and mktime, so daylight-saving days of 23 or 25 hours are right).
using LocalDayStart = std::function<Date(Date)>;

class AlertEngine {
 public:
  // Thresholds and cooldowns in bytes and seconds, named so that tests and texts agree.
  static constexpr double kBusyPercent = 95;                 // percent of one core, inclusive
  static constexpr double kBusySeconds = 300;                // stretch before a busy app is named
  static constexpr double kServiceBusyPercent = 90;          // system services: lower bar...
  static constexpr double kServiceBusySeconds = 600;         // ...longer stretch
  static constexpr double kDiskBytesPerDay = 5'000'000'000;  // strictly more fires
  static constexpr double kNetworkBytesPerHour = 3'000'000'000;  // strictly more fires
  static constexpr double kMarkInterval = 600;                   // between memory marks
  static constexpr double kMarkWindow = 3'700;                   // marks kept: an hour and a margin
  static constexpr size_t kMarkedApps = 40;  // candidates marked per round, in snapshot order
  static constexpr size_t kMarksNeeded = 6;
  static constexpr uint64_t kGrowthBytes = 1'500'000'000;
  static constexpr double kPressureSeconds = 60;
  static constexpr double kHotCelsius = 95;  // inclusive
  static constexpr double kHotSeconds = 120;
  static constexpr uint64_t kLowFreeBytes = 9'999'999'999;  // at most this fires (under 10 GB)
  static constexpr double kMaxTick = 30;  // a longer gap (sleep, stall) counts as 30 s

  // `clock.now()` is the time of each check. `notifier` may be null (no notifications). `dayStart`
  // decides local midnight; tests pass a zone-free one.
  explicit AlertEngine(const Clock& clock, AlertNotifier* notifier = nullptr,
                       LocalDayStart dayStart = localStartOfDay);

  // Runs every rule against the snapshot, in order: busy apps, disk per day, network per hour
  // (each per ordinary app), system services, memory growth, pressure, heat, disk space. Returns
  // the events raised, in that order (usually none), and posts them when `notify` is on.
  std::vector<AlertEvent> check(const Snapshot& snapshot);

  // Forwards to the notifier, if any.
  void requestPermission();
  // Replaces the notifier (null: none). The window installs the desktop's once it exists; the
  // notifier must outlive the engine or be replaced before it goes.
  void setNotifier(AlertNotifier* notifier) { notifier_ = notifier; }

  // Rules that may raise alerts (default: all).
  std::set<AlertEvent::Kind> enabled{kAllAlertKinds.begin(), kAllAlertKinds.end()};
  // Post raised events through the notifier (default on, like the setting).
  bool notify = true;
  // App ids muted until local midnight; emptied by the first check of a new day. A mute silences
  // the alerts about that app; machine-wide alerts (pressure, heat, disk space) still appear even
  // when they name a muted app, because they are about the machine.
  std::set<std::string> mutedToday;

 private:
  struct MemoryMark {
    Date date;
    uint64_t bytes;
  };
  struct NetChunk {
    Date date;
    double bytes;
  };

  // Appends an event unless the kind is off, the app is muted (app subjects only) or the key
  // "<kind>:<subject>" raised less than `cooldown` seconds ago.
  void fire(AlertEvent::Kind kind, const std::string& subject, const AppUsage* app, bool appSubject,
            std::string title, std::string detail, double cooldown);
  void forgetGoneApps(const Snapshot& snapshot);
  void checkBusy(const AppUsage& app);
  void checkDisk(const AppUsage& app, double dt);
  void checkNetwork(const AppUsage& app, double dt);
  void checkService(const AppUsage& app);
  void checkMemoryGrowth(const std::vector<const AppUsage*>& candidates);
  void checkPressure(const Snapshot& snapshot, const std::vector<const AppUsage*>& candidates);
  void checkHeat(const Snapshot& snapshot, const std::vector<const AppUsage*>& candidates);
  void checkSpace(const Snapshot& snapshot);
  double since(Date start) const;  // seconds from `start` to now_

  const Clock& clock_;
  AlertNotifier* notifier_;
  LocalDayStart dayStart_;

  Date now_{};                      // the time of the check under way
  std::vector<AlertEvent> raised_;  // the events of the check under way
  std::map<std::string, Date> busySince_;
  std::map<std::string, std::vector<MemoryMark>> memoryMarks_;
  std::optional<Date> markAt_;  // absent: the first check takes marks
  std::map<std::string, double> diskToday_;
  std::map<std::string, std::vector<NetChunk>> netHour_;
  std::map<std::string, Date> lastFired_;
  std::optional<Date> pressureSince_;
  std::optional<Date> hotSince_;
  std::optional<Date> lastSample_;
  Date day_{};  // local start of the day that diskToday_ and mutedToday belong to
};

}  // namespace vistrel
