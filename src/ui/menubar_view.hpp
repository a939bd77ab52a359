#pragma once

// What the menu-bar items (the tray icon on Linux) and their panel show, as plain texts and
// numbers. Qt-free, so it is tested without pixels; the images and the panel only draw it.

#include <cstddef>
#include <deque>
#include <optional>
#include <string>
#include <vector>

#include "agents/agent_records.hpp"
#include "alerts/alert_event.hpp"
#include "sampling/records.hpp"
#include "ui/views.hpp"

namespace vistrel::ui {

// How an item draws its metric: a value with a small label above it, a value beside a mini
// chart, a value beside a bar, or the two directions of a rate.
enum class ItemStyle { value, chart, bar, rates };
// The style each metric is drawn in: cpu and gpu a chart, memory a bar, disk and network their
// two directions, battery and heat a value.
ItemStyle itemStyle(Metric metric);

struct MenuItemView {
  Metric metric = Metric::cpu;
  ItemStyle style = ItemStyle::value;
  std::string label;   // "CPU", small, above or beside the value
  std::string value;   // "23%"; rates: the first direction ("↓ 1.2 MB/s")
  std::string second;  // rates: the other direction ("↑ 80 KB/s"); else ""
  // The widest text the value (and second) can take, so the item keeps one width while the
  // figure changes: "100%", "8888 MB/s".
  std::string widest;
  double level = 0;            // 0...1, what a bar fills
  std::vector<double> series;  // chart: the newest levels, oldest first
  Attention attention = Attention::none;
};
// `live`: the model's levels of this metric. The chart keeps its newest `kItemChartPoints`.
inline constexpr size_t kItemChartPoints = 24;
MenuItemView menuItemView(Metric metric, const Snapshot& s, const std::deque<double>& live);
// Before the first sample: the label and a dash, at the same width as later.
MenuItemView placeholderItem(Metric metric);

// The tray icon's tooltip: "Vistrel" and a line per chosen metric ("CPU 23%").
std::string trayTooltip(const std::vector<MenuItemView>& items);

// One chosen metric in the panel: its glance and the sparkline of the last ten minutes.
struct PanelMetric {
  MetricGlance glance;
  std::vector<double> sparkline;  // 0...1, oldest first
  size_t capacity = 0;            // points that fill the width: ten minutes at this interval
};

struct PanelView {
  Mood mood;
  std::vector<PanelMetric> metrics;
  std::vector<AppRow> apps;      // the five busiest
  std::vector<PlanRow> plans;    // coding agents' plan usage
  std::vector<AlertRow> alerts;  // the unread ones, newest first, at most kPanelAlerts
  int unread = 0;                // all unread alerts (more may exist than are listed)
  std::string unreadNote;        // "2 more unread in Vistrel"; "" when all are listed
};
inline constexpr size_t kPanelApps = 5;
inline constexpr size_t kPanelAlerts = 3;
inline constexpr double kSparklineSeconds = 600;

// The points of a live series that cover `kSparklineSeconds` at `intervalSeconds` (at least 2).
size_t sparklinePoints(double intervalSeconds);

// `live(metric)` gives the model's live series of a metric; `unread` the unread alert count; the
// newest `unread` alerts (at most kPanelAlerts) are listed.
template <typename LiveFn>
PanelView panelView(const std::optional<Snapshot>& latest, const AgentsSnapshot& agents,
                    const std::vector<AlertEvent>& alerts, int unread,
                    const std::vector<Metric>& chosen, LiveFn&& live, double intervalSeconds,
                    Date now);

// The non-template core of `panelView`, with the chosen metrics' live series given in order.
PanelView panelViewOf(const std::optional<Snapshot>& latest, const AgentsSnapshot& agents,
                      const std::vector<AlertEvent>& alerts, int unread,
                      const std::vector<Metric>& chosen,
                      const std::vector<const std::deque<double>*>& series, double intervalSeconds,
                      Date now);

template <typename LiveFn>
PanelView panelView(const std::optional<Snapshot>& latest, const AgentsSnapshot& agents,
                    const std::vector<AlertEvent>& alerts, int unread,
                    const std::vector<Metric>& chosen, LiveFn&& live, double intervalSeconds,
                    Date now) {
  std::vector<const std::deque<double>*> series;
  for (Metric m : chosen) series.push_back(&live(m));
  return panelViewOf(latest, agents, alerts, unread, chosen, series, intervalSeconds, now);
}

}  // namespace vistrel::ui
