#include "ui/menubar_view.hpp"

#include <algorithm>
#include <cmath>

#include "format/fmt.hpp"

namespace vistrel::ui {

namespace {

std::string shortLabel(Metric m) {
  switch (m) {
    case Metric::cpu:
      return "CPU";
    case Metric::memory:
      return "MEM";
    case Metric::gpu:
      return "GPU";
    case Metric::disk:
      return "DISK";
    case Metric::network:
      return "NET";
    case Metric::battery:
      return "BAT";
    case Metric::heat:
      return "TEMP";
  }
  return "";
}

// The widest figure each metric can show, in the item's own format (digits are tabular, so
// eights are as wide as any digit).
std::string widestFor(Metric m) {
  switch (m) {
    case Metric::cpu:
    case Metric::gpu:
    case Metric::battery:
      return "100%";
    case Metric::memory:
      return "88.88 GB";
    case Metric::disk:
    case Metric::network:
      return "↓ 888.8M";  // shortRate's widest: three digits, a point, a digit and a letter
    case Metric::heat:
      return "188°F";
  }
  return "";
}

}  // namespace

ItemStyle itemStyle(Metric metric) {
  switch (metric) {
    case Metric::cpu:
    case Metric::gpu:
      return ItemStyle::chart;
    case Metric::memory:
      return ItemStyle::bar;
    case Metric::disk:
    case Metric::network:
      return ItemStyle::rates;
    case Metric::battery:
    case Metric::heat:
      return ItemStyle::value;
  }
  return ItemStyle::value;
}

MenuItemView placeholderItem(Metric metric) {
  MenuItemView v;
  v.metric = metric;
  v.style = itemStyle(metric);
  v.label = shortLabel(metric);
  v.value = "–";
  v.second = v.style == ItemStyle::rates ? "–" : "";
  v.widest = widestFor(metric);
  return v;
}

MenuItemView menuItemView(Metric metric, const Snapshot& s, const std::deque<double>& live) {
  MenuItemView v = placeholderItem(metric);
  MetricGlance g = glance(metric, s);
  v.attention = g.attention;
  v.level = g.level;
  v.value = g.value;
  switch (metric) {
    case Metric::disk:
      v.value = "R " + Fmt::shortRate(s.disk.readRate);
      v.second = "W " + Fmt::shortRate(s.disk.writeRate);
      break;
    case Metric::network:
      v.value = "↓ " + Fmt::shortRate(s.network.inRate);
      v.second = "↑ " + Fmt::shortRate(s.network.outRate);
      break;
    case Metric::battery:
      if (!g.available) v.value = "–";
      break;
    case Metric::heat:
      if (!g.available) v.value = "–";
      break;
    default:
      break;
  }
  if (v.style == ItemStyle::chart) {
    size_t from = live.size() > kItemChartPoints ? live.size() - kItemChartPoints : 0;
    for (size_t i = from; i < live.size(); ++i) v.series.push_back(std::clamp(live[i], 0.0, 1.0));
  }
  return v;
}

std::string trayTooltip(const std::vector<MenuItemView>& items) {
  std::string text = "Vistrel";
  for (const MenuItemView& item : items) {
    text += "\n" + item.label + " " + item.value;
    if (!item.second.empty()) text += "  " + item.second;
    if (item.attention != Attention::none) text += " (" + attentionWord(item.attention) + ")";
  }
  return text;
}

size_t sparklinePoints(double intervalSeconds) {
  if (!(intervalSeconds > 0)) return 2;
  return std::max<size_t>(2, static_cast<size_t>(std::ceil(kSparklineSeconds / intervalSeconds)));
}

PanelView panelViewOf(const std::optional<Snapshot>& latest, const AgentsSnapshot& agents,
                      const std::vector<AlertEvent>& alerts, int unread,
                      const std::vector<Metric>& chosen,
                      const std::vector<const std::deque<double>*>& series, double intervalSeconds,
                      Date now) {
  PanelView v;
  // The overview's view already words the mood, the apps and the plans; the panel takes its own
  // share of them.
  OverviewView overview = overviewView(latest, agents, {}, now);
  v.mood = overview.mood;
  v.apps = std::move(overview.apps);
  if (v.apps.size() > kPanelApps) v.apps.resize(kPanelApps);
  v.plans = std::move(overview.plans);

  const size_t points = sparklinePoints(intervalSeconds);
  for (size_t i = 0; i < chosen.size(); ++i) {
    PanelMetric m;
    if (latest) {
      m.glance = glance(chosen[i], *latest);
    } else {
      m.glance.metric = chosen[i];
      m.glance.title = pageTitle(metricPage(chosen[i]));
      m.glance.value = "–";
    }
    m.capacity = points;
    if (i < series.size() && series[i]) {
      const std::deque<double>& live = *series[i];
      size_t from = live.size() > points ? live.size() - points : 0;
      for (size_t k = from; k < live.size(); ++k) {
        m.sparkline.push_back(std::clamp(live[k], 0.0, 1.0));
      }
    }
    v.metrics.push_back(std::move(m));
  }

  v.unread = std::max(0, unread);
  const size_t listed = std::min({static_cast<size_t>(v.unread), kPanelAlerts, alerts.size()});
  for (size_t i = 0; i < listed; ++i) {
    const AlertEvent& a = alerts[i];
    v.alerts.push_back({a.title, a.detail, Fmt::ago(a.date, now)});
  }
  if (static_cast<size_t>(v.unread) > listed) {
    v.unreadNote =
        std::to_string(static_cast<size_t>(v.unread) - listed) + " more unread in Vistrel";
  }
  return v;
}

}  // namespace vistrel::ui
