#pragma once

#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "base/user_defaults.hpp"
#include "sampling/records.hpp"

namespace vistrel {

enum class Appearance { system, night, paper };
std::string_view rawValue(Appearance a);
std::optional<Appearance> appearanceFromRaw(std::string_view raw);

// The window's pages: the overview, one page per metric, then apps, coding agents, sensors, alerts
// and settings. Raw values are the names VISTREL_SHOW accepts.
enum class Page {
  overview,
  cpu,
  memory,
  gpu,
  disk,
  network,
  battery,
  heat,
  apps,
  agents,
  sensors,
  alerts,
  settings
};
std::string_view rawValue(Page p);
std::optional<Page> pageFromRaw(std::string_view raw);

// The user's settings with their user-defaults keys. Each setter on the model stores its value at
// once; a value missing or of the wrong type in the store reads as the default.
struct Settings {
  double intervalSeconds = 2;  // "interval": seconds between samples while something is visible
  int retentionDays = 90;      // "retention": days of hourly history kept
  Appearance appearance = Appearance::system;  // "appearance"
  bool fahrenheit = false;                     // "fahrenheit"
  bool bits = false;                           // "bits": rates in bits per second
  bool showInDock = false;                     // "dock"
  std::vector<Metric> menuItems = {Metric::cpu, Metric::memory};  // "menuItems"
  bool mcpEnabled = true;    // "mcpEnabled": AI agent access through the control socket
  bool openAtLogin = false;  // "openAtLogin": mirrors the system's login item
  bool welcomed = false;     // "welcomed": the welcome sheet has been shown once

  static Settings load(UserDefaults& defaults);
  bool operator==(const Settings&) const = default;
};

namespace keys {
inline constexpr std::string_view interval = "interval";
inline constexpr std::string_view retention = "retention";
inline constexpr std::string_view appearance = "appearance";
inline constexpr std::string_view fahrenheit = "fahrenheit";
inline constexpr std::string_view bits = "bits";
inline constexpr std::string_view dock = "dock";
inline constexpr std::string_view menuItems = "menuItems";
inline constexpr std::string_view mcpEnabled = "mcpEnabled";
inline constexpr std::string_view openAtLogin = "openAtLogin";
inline constexpr std::string_view welcomed = "welcomed";
}  // namespace keys

// Settings outside their sensible range are brought back into it: an interval of 1 to 60 seconds,
// 7 to 3650 days of history.
double clampInterval(double seconds);
int clampRetention(int days);

}  // namespace vistrel
