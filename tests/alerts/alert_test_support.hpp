#pragma once

// Helpers shared by the alert tests: a clock at a known noon, a zone-free midnight, apps and
// snapshots made to order, and a notifier that records what it was asked.

#include <cmath>
#include <ostream>
#include <string>
#include <vector>

#include "alerts/alert_engine.hpp"
#include "base/clock.hpp"
#include "sampling/records.hpp"

namespace vistrel {
// Readable failures: gtest finds this by argument-dependent lookup.
inline void PrintTo(const AlertEvent& e, std::ostream* os) {
  *os << toJSON(e).dump();
}
}  // namespace vistrel

namespace vistrel::testing {

// 2023-11-14 00:00:00 UTC, and noon of that day: the tests start at noon so that a day change
// is 12 hours away.
inline constexpr double kMidnight = 1'699'920'000;
inline constexpr double kNoon = kMidnight + 43'200;

// Midnight in UTC, whatever the machine's zone.
inline Date utcDayStart(Date date) {
  const double s = secondsSince1970(date);
  return dateFromSeconds(s - std::fmod(s, 86'400.0));
}

// "day <n>" for the n-th UTC day since 1970: stands in for the month-and-day text.
inline std::string utcDayText(Date date) {
  return "day " + std::to_string(static_cast<int64_t>(secondsSince1970(date)) / 86'400);
}

struct AppRecipe {
  std::string id;
  double cpu = 0;
  uint64_t memory = 0;
  double diskWrite = 0;
  double net = 0;  // bytes per second in, the same out
  double impact = 0;
  bool isSystem = false;
};

inline AppUsage makeApp(const AppRecipe& recipe) {
  AppUsage app;
  app.id = recipe.id;
  app.name = recipe.id;  // the display name is the id, so titles read plainly
  app.cpu = recipe.cpu;
  app.memory = recipe.memory;
  app.diskWrite = recipe.diskWrite;
  app.netIn = recipe.net;
  app.netOut = recipe.net;
  app.impact = recipe.impact;
  app.isSystem = recipe.isSystem;
  return app;
}

inline Snapshot makeSnapshot(const std::vector<AppRecipe>& apps) {
  Snapshot s;
  for (const auto& recipe : apps) s.apps.push_back(makeApp(recipe));
  return s;
}

struct RecordingNotifier : AlertNotifier {
  std::vector<AlertEvent> posted;
  int permissionRequests = 0;
  void post(const AlertEvent& event) override { posted.push_back(event); }
  void requestPermission() override { ++permissionRequests; }
};

inline std::vector<std::string> titles(const std::vector<AlertEvent>& events) {
  std::vector<std::string> out;
  for (const auto& e : events) out.push_back(e.title);
  return out;
}

}  // namespace vistrel::testing
