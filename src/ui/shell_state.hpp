#pragma once

// The window's decisions that need no toolkit: where the window opens, and what the developer
// hooks in the environment ask for. Qt-free, tested without a display.

#include <functional>
#include <nlohmann/json.hpp>
#include <optional>
#include <string>
#include <string_view>
#include <utility>

#include "app/settings.hpp"
#include "history/time_span.hpp"

namespace vistrel::ui {

// The window's size on first launch and the smallest it may be, in points.
inline constexpr int kWindowWidth = 1180;
inline constexpr int kWindowHeight = 780;
inline constexpr int kMinimumWidth = 1040;
inline constexpr int kMinimumHeight = 700;
// The user-defaults key of the saved frame: [x, y, width, height].
inline constexpr std::string_view kFrameKey = "windowFrame";

struct Frame {
  int x = 0;
  int y = 0;
  int width = 0;
  int height = 0;
  bool operator==(const Frame&) const = default;
};

// A stored frame, or nullopt when the value is not four numbers with a positive size.
std::optional<Frame> frameFromJson(const nlohmann::json& value);
nlohmann::json frameToJson(const Frame& frame);
// The frame to open with: the saved one, unless there is none or it is narrower or lower than the
// minimum, in which case the default size centred on `screen` (the screen's available area).
Frame restoredFrame(const std::optional<Frame>& saved, const Frame& screen);

// What VISTREL_SHOW names.
struct ShowTarget {
  Page page = Page::overview;
  bool welcome = false;  // "welcome": the welcome sheet over the overview
  bool share = false;    // "share": the share sheet over the overview
  bool quit = false;     // "quit": the apps page asking to quit its busiest quittable app
  // For benchmarks and screenshots, beyond the page names: "cpu:day" opens a metric page on a
  // range of its history ("hour", "day", "week", "month", "year"); "hidden" starts with the window
  // closed, as a login launch does; "tour" shows every page once, then the overview.
  std::optional<TimeSpan> span;
  bool hidden = false;
  bool tour = false;
};
// Empty text shows the overview; an unknown name gives nullopt (the hook then shows the overview
// and says why).
std::optional<ShowTarget> showTarget(std::string_view value);

// The developer hooks, read from the environment (`env` returns null for an unset variable).
struct DevHooks {
  std::optional<std::string> show;  // VISTREL_SHOW, set (possibly empty)
  std::optional<std::pair<int, int>> size;
  std::optional<Appearance> theme;  // "paper" or "night"; "system" or anything else: none
  std::optional<std::string> shot;
  double shotDelay = 7;  // seconds
  bool shotQuit = false;
};
DevHooks readDevHooks(const std::function<const char*(const char*)>& env);

// "1180x780", "1180,780": two positive numbers separated by one character.
std::optional<std::pair<int, int>> parseSize(std::string_view text);
// A non-negative number of seconds.
std::optional<double> parseSeconds(std::string_view text);

}  // namespace vistrel::ui
