#include "ui/views.hpp"

#include <algorithm>
#include <chrono>
#include <cmath>
#include <cstdio>

#include "format/fmt.hpp"
#include "format/platform_text.hpp"

namespace vistrel::ui {

namespace {

// Where attention starts, per metric, in the metric's own unit.
constexpr double kCpuNotice = 0.75, kCpuTrouble = 0.9;
constexpr double kGpuNotice = 0.85, kGpuTrouble = 0.97;
constexpr double kHeatNotice = 88, kHeatTrouble = 98;  // degrees, as the mood reads them
constexpr double kLowSpaceNotice = 0.10, kLowSpaceTrouble = 0.05;  // free share of a volume
constexpr double kBatteryNotice = 20, kBatteryTrouble = 10;        // percent, on battery
constexpr double kPlanNotice = 0.8, kPlanTrouble = 0.95;

Attention byLevel(double v, double notice, double trouble) {
  if (v > trouble) return Attention::trouble;
  if (v > notice) return Attention::notice;
  return Attention::none;
}

std::string leanWord(Lean l) {
  switch (l) {
    case Lean::cpu:
      return "CPU";
    case Lean::memory:
      return "memory";
    case Lean::gpu:
      return "GPU";
    case Lean::disk:
      return "disk";
    case Lean::network:
      return "network";
  }
  return "";
}

std::string lastComponent(const std::string& folder) {
  std::string f = folder;
  while (f.size() > 1 && f.back() == '/') f.pop_back();
  size_t slash = f.rfind('/');
  return slash == std::string::npos ? f : f.substr(slash + 1);
}

double share(uint64_t part, uint64_t whole) {
  return whole == 0 ? 0.0 : static_cast<double>(part) / static_cast<double>(whole);
}

// The levels of a live series as a vector, each scaled by `factor` (1 for 0...1 series).
std::vector<double> scaled(const std::deque<double>& live, double factor) {
  std::vector<double> out;
  out.reserve(live.size());
  for (double v : live) out.push_back(std::clamp(v * factor, 0.0, 1.0));
  return out;
}

Attention volumeAttention(const Volume& v) {
  if (v.total == 0) return Attention::none;
  double free = share(v.free, v.total);
  if (free < kLowSpaceTrouble) return Attention::trouble;
  if (free < kLowSpaceNotice) return Attention::notice;
  return Attention::none;
}

}  // namespace

std::string attentionWord(Attention a) {
  switch (a) {
    case Attention::none:
      return "";
    case Attention::notice:
      return "High";
    case Attention::trouble:
      return "Very high";
  }
  return "";
}

std::string pageTitle(Page page) {
  switch (page) {
    case Page::overview:
      return "Overview";
    case Page::cpu:
      return "CPU";
    case Page::memory:
      return "Memory";
    case Page::gpu:
      return "GPU";
    case Page::disk:
      return "Disk";
    case Page::network:
      return "Network";
    case Page::battery:
      return "Battery";
    case Page::heat:
      return "Heat";
    case Page::apps:
      return "Apps";
    case Page::agents:
      return "Coding agents";
    case Page::sensors:
      return "Sensors";
    case Page::alerts:
      return "Alerts";
    case Page::settings:
      return "Settings";
  }
  return "";
}

const std::vector<Page>& sidebarPages() {
  static const std::vector<Page> pages = {
      Page::overview, Page::cpu,     Page::memory,  Page::gpu,  Page::disk,
      Page::network,  Page::battery, Page::heat,    Page::apps, Page::agents,
      Page::sensors,  Page::alerts,  Page::settings};
  return pages;
}

std::optional<Metric> pageMetric(Page page) {
  switch (page) {
    case Page::cpu:
      return Metric::cpu;
    case Page::memory:
      return Metric::memory;
    case Page::gpu:
      return Metric::gpu;
    case Page::disk:
      return Metric::disk;
    case Page::network:
      return Metric::network;
    case Page::battery:
      return Metric::battery;
    case Page::heat:
      return Metric::heat;
    default:
      return std::nullopt;
  }
}

Page metricPage(Metric metric) {
  switch (metric) {
    case Metric::cpu:
      return Page::cpu;
    case Metric::memory:
      return Page::memory;
    case Metric::gpu:
      return Page::gpu;
    case Metric::disk:
      return Page::disk;
    case Metric::network:
      return Page::network;
    case Metric::battery:
      return Page::battery;
    case Metric::heat:
      return Page::heat;
  }
  return Page::overview;
}

MetricGlance glance(Metric metric, const Snapshot& s) {
  MetricGlance g;
  g.metric = metric;
  g.title = pageTitle(metricPage(metric));
  g.level = std::clamp(s.level(metric), 0.0, 1.0);
  switch (metric) {
    case Metric::cpu:
      g.value = Fmt::percent(s.cpu.total);
      {
        char load[32];
        std::snprintf(load, sizeof load, "%.2f", s.cpu.load[0]);
        g.note = std::string("load ") + load;
      }
      g.attention = byLevel(s.cpu.total, kCpuNotice, kCpuTrouble);
      break;
    case Metric::memory:
      g.value = Fmt::mem(s.memory.used());
      g.note = "of " + Fmt::mem(s.memory.total);
      if (s.memory.pressure == Pressure::critical) {
        g.attention = Attention::trouble;
        g.note = "pressure critical";
      } else if (s.memory.pressure == Pressure::warning) {
        g.attention = Attention::notice;
        g.note = "pressure high";
      }
      break;
    case Metric::gpu:
      g.value = Fmt::percent(s.gpu.utilization);
      g.note = s.gpu.memoryInUse > 0 ? Fmt::mem(s.gpu.memoryInUse) + " in use" : "";
      g.attention = byLevel(s.gpu.utilization, kGpuNotice, kGpuTrouble);
      break;
    case Metric::disk: {
      g.value = Fmt::rate(s.disk.readRate + s.disk.writeRate);
      uint64_t total = s.disk.mainTotal();
      g.note = total > 0 ? Fmt::bytes(s.disk.mainFree()) + " free" : "";
      for (const Volume& v : s.disk.volumes) {
        if (v.isMain || &v == &s.disk.volumes.front()) {
          Attention a = volumeAttention(v);
          if (a != Attention::none) {
            g.attention = a;
            g.note = Fmt::bytes(v.free) + " free, low";
          }
          break;
        }
      }
      break;
    }
    case Metric::network:
      g.value = Fmt::rate(s.network.inRate + s.network.outRate);
      g.note = "↓ " + Fmt::rate(s.network.inRate) + "  ↑ " + Fmt::rate(s.network.outRate);
      break;
    case Metric::battery:
      if (!s.battery.present) {
        g.available = false;
        g.value = "No battery";
        g.note = "";
        g.level = 0;
      } else {
        g.value = Fmt::percent(s.battery.percent / 100);
        g.note = s.battery.charging    ? "charging"
                 : s.battery.pluggedIn ? "plugged in"
                                       : "on battery";
        if (!s.battery.pluggedIn) {
          if (s.battery.percent < kBatteryTrouble) {
            g.attention = Attention::trouble;
            g.note = "very low";
          } else if (s.battery.percent < kBatteryNotice) {
            g.attention = Attention::notice;
            g.note = "low";
          }
        }
      }
      break;
    case Metric::heat: {
      auto hot = s.sensors.hottest();
      if (!hot) {
        g.available = false;
        g.value = "No sensors";
        g.note = "";
        g.level = 0;
      } else {
        g.value = Fmt::temperature(*hot);
        g.note = "hottest of CPU and GPU";
        g.attention = byLevel(*hot, kHeatNotice, kHeatTrouble);
        if (g.attention != Attention::none) g.note = attentionWord(g.attention);
      }
      break;
    }
  }
  return g;
}

Mood mood(const Snapshot& s) {
  Mood m;
  m.title = std::string(label(s.mood()));
  std::string busiest;
  for (const AppUsage& app : s.apps) {
    if (!app.isSystem) {
      busiest = app.name;
      break;
    }
  }
  switch (s.mood()) {
    case Snapshot::Mood::calm:
      m.sentence = busiest.empty()
                       ? "Nothing is working the machine hard."
                       : "Nothing is working the machine hard. " + busiest + " is the busiest app.";
      break;
    case Snapshot::Mood::busy:
      m.attention = Attention::notice;
      m.sentence = busiest.empty() ? "The machine is working hard."
                                   : "The machine is working hard, mostly for " + busiest + ".";
      break;
    case Snapshot::Mood::strained:
      m.attention = Attention::trouble;
      m.sentence = busiest.empty()
                       ? "The machine is at its limit; things may feel slow."
                       : "The machine is at its limit; " + busiest + " is using the most.";
      break;
  }
  m.sentence = platformText(m.sentence);
  return m;
}

std::vector<AppRow> busiestApps(const Snapshot& s, size_t limit) {
  std::vector<AppRow> rows;
  for (const AppUsage& app : s.apps) {
    if (rows.size() >= limit) break;
    rows.push_back({app.name, Fmt::appMetricValue(Metric::cpu, app.cpu), Fmt::mem(app.memory),
                    leanWord(app.lean)});
  }
  return rows;
}

OverviewView overviewView(const std::optional<Snapshot>& latest, const AgentsSnapshot& agents,
                          const std::vector<AlertEvent>& alerts, Date now) {
  OverviewView v;
  if (!latest) {
    v.mood = {"Reading the machine", "The first figures arrive within a few seconds.",
              Attention::none};
  } else {
    v.mood = mood(*latest);
    for (Metric m : kAllMetrics) v.metrics.push_back(glance(m, *latest));
    v.apps = busiestApps(*latest, 5);
    for (const AgentSession& a : latest->agents) {
      v.sessions.push_back({a.tool, a.folder ? lastComponent(*a.folder) : "",
                            a.working ? "working" : "idle",
                            Fmt::appMetricValue(Metric::cpu, a.cpu)});
    }
  }
  auto plan = [&](const char* tool, const std::optional<PlanUsage>& usage) {
    if (!usage) return;
    PlanRow row;
    row.tool = tool;
    double fullest = 0;
    if (usage->session) {
      UsageWindow w = usage->session->current(now);
      row.text += "session " + Fmt::percent(w.usedPercent / 100);
      fullest = std::max(fullest, w.usedPercent / 100);
    }
    if (usage->weekly) {
      UsageWindow w = usage->weekly->current(now);
      if (!row.text.empty()) row.text += " · ";
      row.text += "week " + Fmt::percent(w.usedPercent / 100);
      fullest = std::max(fullest, w.usedPercent / 100);
    }
    if (row.text.empty()) return;
    row.level = std::clamp(fullest, 0.0, 1.0);
    row.attention = byLevel(fullest, kPlanNotice, kPlanTrouble);
    v.plans.push_back(std::move(row));
  };
  plan(kClaudeCode, agents.claudePlan);
  plan(kCodex, agents.codexPlan);
  for (const AlertEvent& a : alerts) {
    if (v.alerts.size() >= 3) break;
    v.alerts.push_back({a.title, a.detail, Fmt::ago(a.date, now)});
  }
  return v;
}

// --- Metric pages ---

// --- Settings ---

const std::vector<double>& intervalChoices() {
  static const std::vector<double> all = {1, 2, 3, 5, 10, 30, 60};
  return all;
}

const std::vector<int>& retentionChoices() {
  static const std::vector<int> all = {7, 30, 90, 180, 365, 730, 3650};
  return all;
}

std::string intervalTitle(double seconds) {
  const int s = static_cast<int>(std::lround(seconds));
  if (s >= 60 && s % 60 == 0) {
    return s == 60 ? "1 minute" : std::to_string(s / 60) + " minutes";
  }
  return s == 1 ? "1 second" : std::to_string(s) + " seconds";
}

std::string retentionTitle(int days) {
  if (days >= 365 && days % 365 == 0) {
    return days == 365 ? "1 year" : std::to_string(days / 365) + " years";
  }
  return days == 1 ? "1 day" : std::to_string(days) + " days";
}

std::string bitsNote() {
  return runningOnLinux() ? "Bytes like your file manager, or bits like your internet plan."
                          : kBitsNote;
}

std::string historySizeText(int64_t bytes, std::optional<int64_t> oldest) {
  if (!oldest) return "Nothing recorded yet.";
  return Fmt::bytes(static_cast<double>(std::max<int64_t>(bytes, 0))) + " on disk, since " +
         Fmt::dayOnly(Date(std::chrono::seconds(*oldest))) + ".";
}

std::string shellWord(const std::string& word) {
  const bool plain = !word.empty() && word.find_first_not_of(
                                          "abcdefghijklmnopqrstuvwxyzABCDEFGHIJKLMNOPQRSTUVWXYZ"
                                          "0123456789/._-+=:@,%") == std::string::npos;
  if (plain) return word;
  std::string out = "'";
  for (char c : word) {
    if (c == '\'') {
      out += "'\\''";
    } else {
      out += c;
    }
  }
  return out + "'";
}

std::vector<AgentCommand> agentCommands(const std::string& executable) {
  const std::string exe = shellWord(executable);
  // JSON string escaping for the Cursor configuration.
  std::string json;
  for (char c : executable) {
    if (c == '"' || c == '\\') json += '\\';
    json += c;
  }
  return {
      {"Claude Code", "Run in a terminal:", "claude mcp add vistrel -- " + exe + " --mcp"},
      {"Codex", "Run in a terminal:", "codex mcp add vistrel -- " + exe + " --mcp"},
      {"Cursor", "Add to ~/.cursor/mcp.json:",
       "{\"mcpServers\": {\"vistrel\": {\"command\": \"" + json + "\", \"args\": [\"--mcp\"]}}}"},
  };
}

double niceCeiling(double v) {
  if (!(v > 0) || !std::isfinite(v)) return 1;
  double power = std::pow(10.0, std::floor(std::log10(v)));
  for (double step : {1.0, 2.0, 5.0, 10.0}) {
    if (step * power >= v * (1 - 1e-12)) return step * power;
  }
  return 10 * power;
}

MetricPageView metricPageView(Metric metric, const Snapshot& s, const std::deque<double>& live) {
  MetricPageView v;
  v.glance = glance(metric, s);
  switch (metric) {
    case Metric::cpu: {
      v.live = {scaled(live, 1), {}, {}, "100%", "50%"};
      v.cores = s.cpu.cores;
      std::string cores = Fmt::grouped(static_cast<int64_t>(s.cpu.cores.size())) + " cores";
      if (s.cpu.performanceCores > 0 && s.cpu.efficiencyCores > 0) {
        cores += " (" + std::to_string(s.cpu.performanceCores) + " performance, " +
                 std::to_string(s.cpu.efficiencyCores) + " efficiency)";
      }
      v.subtitle = cores;
      char load[64];
      std::snprintf(load, sizeof load, "%.2f  %.2f  %.2f", s.cpu.load[0], s.cpu.load[1],
                    s.cpu.load[2]);
      v.facts = {{"User", Fmt::percent(s.cpu.user)},
                 {"System", Fmt::percent(s.cpu.system)},
                 {"Idle", Fmt::percent(std::max(0.0, 1 - s.cpu.total))},
                 {"Load (1, 5, 15 min)", load}};
      break;
    }
    case Metric::memory: {
      v.live = {scaled(live, 1), {}, {}, Fmt::mem(s.memory.total), Fmt::mem(s.memory.total / 2)};
      v.subtitle = Fmt::mem(s.memory.total) + " installed";
      const uint64_t t = s.memory.total;
      v.breakdown = {{"Apps", Fmt::mem(s.memory.app), share(s.memory.app, t)},
                     {"Wired", Fmt::mem(s.memory.wired), share(s.memory.wired, t)},
                     {"Compressed", Fmt::mem(s.memory.compressed), share(s.memory.compressed, t)},
                     {"Cached", Fmt::mem(s.memory.cached), share(s.memory.cached, t)},
                     {"Free", Fmt::mem(s.memory.free), share(s.memory.free, t)}};
      std::string pressure = s.memory.pressure == Pressure::critical  ? "Critical"
                             : s.memory.pressure == Pressure::warning ? "High"
                                                                      : "Normal";
      std::string swap = s.memory.swapTotal > 0
                             ? Fmt::mem(s.memory.swapUsed) + " of " + Fmt::mem(s.memory.swapTotal)
                             : (s.memory.swapUsed > 0 ? Fmt::mem(s.memory.swapUsed) : "None");
      v.facts = {{"Pressure", pressure}, {"Swap used", swap}};
      break;
    }
    case Metric::gpu:
      v.live = {scaled(live, 1), {}, {}, "100%", "50%"};
      v.subtitle = s.gpu.name.empty() ? "Graphics" : s.gpu.name;
      v.facts = {{"In use", Fmt::percent(s.gpu.utilization)},
                 {"Memory in use", s.gpu.memoryInUse > 0 ? Fmt::mem(s.gpu.memoryInUse) : "—"}};
      if (s.power.gpu) v.facts.push_back({"Power", Fmt::watts(*s.power.gpu)});
      break;
    case Metric::disk:
    case Metric::network: {
      const double full = metric == Metric::disk ? kDiskFullScale : kNetworkFullScale;
      double peak = 0;
      for (double l : live) peak = std::max(peak, l * full);
      const double top = niceCeiling(std::max(peak, metric == Metric::disk ? 1e6 : 1e5));
      v.live = {scaled(live, full / top), {}, {}, Fmt::rate(top), Fmt::rate(top / 2)};
      if (metric == Metric::disk) {
        v.subtitle = "Reads and writes of every disk";
        v.facts = {{"Reading", Fmt::rate(s.disk.readRate)},
                   {"Writing", Fmt::rate(s.disk.writeRate)}};
        for (const Volume& vol : s.disk.volumes) {
          v.volumes.push_back({vol.name.empty() ? vol.path : vol.name,
                               Fmt::bytes(vol.free) + " free of " + Fmt::bytes(vol.total),
                               1 - share(vol.free, vol.total), volumeAttention(vol)});
        }
      } else {
        v.subtitle = s.network.interface.empty() ? "Offline" : s.network.interface;
        v.facts = {{"Downloading", Fmt::rate(s.network.inRate)},
                   {"Uploading", Fmt::rate(s.network.outRate)},
                   {"Interface", s.network.interface.empty() ? "Offline" : s.network.interface}};
      }
      break;
    }
    case Metric::battery:
      v.live = {scaled(live, 1), {}, {}, "100%", "50%"};
      if (!s.battery.present) {
        v.emptyState = platformText(
            "No battery: this Mac runs on mains power. Laptops show their charge, health and "
            "time left here.");
        v.live.levels.clear();
      } else {
        v.subtitle = v.glance.note;
        if (s.battery.minutesLeft)
          v.facts.push_back({"Time left", Fmt::minutes(*s.battery.minutesLeft)});
        if (s.battery.health) v.facts.push_back({"Health", Fmt::percent(*s.battery.health / 100)});
        if (s.battery.cycles) v.facts.push_back({"Cycles", Fmt::grouped(*s.battery.cycles)});
        if (s.battery.watts) v.facts.push_back({"Power", Fmt::watts(*s.battery.watts)});
        if (s.battery.temperature) {
          v.facts.push_back({"Temperature", Fmt::temperature(*s.battery.temperature)});
        }
      }
      break;
    case Metric::heat: {
      v.live = {scaled(live, 1),
                {},
                {},
                Fmt::temperature(kHeatFullScale),
                Fmt::temperature(kHeatFullScale / 2)};
      if (!s.sensors.hottest()) {
        v.emptyState =
            "No sensors: no temperature could be read on this machine yet. Where the CPU, GPU or "
            "disk report one, the hottest shows here with its history.";
        v.live.levels.clear();
      } else {
        v.subtitle = "The hotter of the CPU and the GPU";
        auto add = [&](const char* label, const std::optional<double>& c) {
          if (c) v.facts.push_back({label, Fmt::temperature(*c)});
        };
        add("CPU", s.sensors.cpu);
        add("Hottest CPU core", s.sensors.cpuMax);
        add("GPU", s.sensors.gpu);
        add("SSD", s.sensors.ssd);
        add("Battery", s.sensors.battery);
        for (size_t i = 0; i < s.sensors.fans.size(); ++i) {
          v.facts.push_back({"Fan " + std::to_string(i + 1), Fmt::rpm(s.sensors.fans[i].rpm)});
        }
      }
      break;
    }
  }
  return v;
}

std::vector<Fact> busiestFor(Metric metric, const Snapshot& s, size_t limit) {
  auto figure = [metric](const AppUsage& a) -> double {
    switch (metric) {
      case Metric::cpu:
      case Metric::heat:
        return a.cpu;
      case Metric::memory:
        return static_cast<double>(a.memory);
      case Metric::gpu:
        return a.gpu;
      case Metric::disk:
        return a.diskRead + a.diskWrite;
      case Metric::network:
        return a.netIn + a.netOut;
      case Metric::battery:
        return a.energy;
    }
    return 0;
  };
  std::vector<const AppUsage*> apps;
  for (const AppUsage& a : s.apps) {
    if (figure(a) > 0) apps.push_back(&a);
  }
  const size_t n = std::min(limit, apps.size());
  std::partial_sort(apps.begin(), apps.begin() + static_cast<ptrdiff_t>(n), apps.end(),
                    [&](const AppUsage* a, const AppUsage* b) { return figure(*a) > figure(*b); });
  std::vector<Fact> out;
  for (size_t i = 0; i < n; ++i) {
    const AppUsage& a = *apps[i];
    std::string value;
    if (metric == Metric::battery) {
      char text[32];
      std::snprintf(text, sizeof text, "%.1f", a.energy);
      value = text;
    } else {
      value = Fmt::appMetricValue(metric == Metric::heat ? Metric::cpu : metric, figure(a));
    }
    out.push_back({a.name, value});
  }
  return out;
}

std::string liveStart(double intervalSeconds, size_t points) {
  return Fmt::duration(intervalSeconds * static_cast<double>(points)) + " ago";
}

const std::vector<Range>& ranges() {
  static const std::vector<Range> all = {{std::nullopt, "Live"},     {TimeSpan::hour, "Hour"},
                                         {TimeSpan::day, "Day"},     {TimeSpan::week, "Week"},
                                         {TimeSpan::month, "Month"}, {TimeSpan::year, "Year"}};
  return all;
}

HistoryView historyView(Metric metric, TimeSpan span, const std::vector<HistoryPoint>& points,
                        const std::vector<AppHistory>& apps, uint64_t memoryTotal, Date now) {
  HistoryView v;
  v.caption = std::string(caption(span));
  const int64_t nowSeconds =
      std::chrono::duration_cast<std::chrono::seconds>(now.time_since_epoch()).count();
  const int64_t startSeconds = nowSeconds - seconds(span);
  auto dateOf = [](int64_t t) { return Date(std::chrono::seconds(t)); };
  v.start = seconds(span) > 86400 ? Fmt::dayOnly(dateOf(startSeconds))
                                  : Fmt::dayTime(dateOf(startSeconds));
  v.end = "now";
  if (points.empty()) {
    v.empty = "Nothing recorded for this span yet. Vistrel keeps a record while it runs.";
    return v;
  }
  // One bar per bucket of the span, empty where nothing was recorded, so gaps show as gaps.
  const int64_t b = bucket(span);
  const int64_t first = startSeconds / b * b;
  const size_t count = static_cast<size_t>((nowSeconds / b * b - first) / b + 1);
  auto inSpan = [&](const HistoryPoint& p) {
    return p.time >= first && static_cast<size_t>((p.time - first) / b) < count;
  };
  // The span's peak, among its own points only.
  const HistoryPoint* peak = nullptr;
  for (const HistoryPoint& p : points) {
    if (inSpan(p) && (!peak || std::max(p.peak, p.value) > std::max(peak->peak, peak->value))) {
      peak = &p;
    }
  }
  if (!peak) {
    v.empty = "Nothing recorded for this span yet. Vistrel keeps a record while it runs.";
    return v;
  }
  const double peakValue = std::max(peak->peak, peak->value);
  double top = 0;  // the full scale, in the metric's unit
  switch (metric) {
    case Metric::cpu:
    case Metric::gpu:
    case Metric::battery:
      top = 100;
      break;
    case Metric::memory:
      top = memoryTotal > 0 ? static_cast<double>(memoryTotal) : niceCeiling(peakValue);
      break;
    case Metric::heat:
      top = kHeatFullScale;
      break;
    case Metric::disk:
    case Metric::network:
      top = niceCeiling(std::max(peakValue, 1e3));
      break;
  }
  v.chart.top = Fmt::metricValue(metric, top);
  v.chart.middle = Fmt::metricValue(metric, top / 2);
  v.chart.levels.assign(count, 0);
  v.chart.peaks.assign(count, 0);
  for (const HistoryPoint& p : points) {
    if (!inSpan(p)) continue;
    const size_t i = static_cast<size_t>((p.time - first) / b);
    v.chart.levels[i] = std::clamp(p.value / top, 0.0, 1.0);
    v.chart.peaks[i] = std::clamp(p.peak / top, 0.0, 1.0);
  }
  v.peak =
      "Peak " + Fmt::metricValue(metric, peakValue) + " at " + Fmt::dayTime(dateOf(peak->time));
  for (const AppHistory& a : apps) {
    v.apps.push_back({a.name, Fmt::appMetricValue(metric, a.average)});
  }
  return v;
}

}  // namespace vistrel::ui
