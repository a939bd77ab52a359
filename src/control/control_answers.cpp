#include "control/control_answers.hpp"

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <limits>

#include "agents/iso_date.hpp"
#include "format/fmt.hpp"
#include "format/platform_text.hpp"

namespace vistrel::control {

double round1(double x) {
  return std::round(x * 10) / 10;
}

namespace {

std::string format1(double x) {
  char buffer[64];
  std::snprintf(buffer, sizeof buffer, "%.1f", x);
  return buffer;
}

// A byte amount or rate as a whole number; null when it is not a finite number.
OJson whole(double x) {
  if (!std::isfinite(x)) return nullptr;
  if (x >= 9.0e18) return std::numeric_limits<int64_t>::max();
  if (x <= -9.0e18) return std::numeric_limits<int64_t>::min();
  return static_cast<int64_t>(std::llround(x));
}

OJson optionalRound1(const std::optional<double>& x) {
  return x ? OJson(round1(*x)) : OJson(nullptr);
}

OJson optionalInt(const std::optional<int>& x) {
  return x ? OJson(*x) : OJson(nullptr);
}

OJson optionalDate(const std::optional<Date>& d) {
  return d ? OJson(isoDate(*d)) : OJson(nullptr);
}

OJson optionalText(const std::optional<std::string>& s) {
  return s ? OJson(*s) : OJson(nullptr);
}

std::string moodWords(Snapshot::Mood mood) {
  switch (mood) {
    case Snapshot::Mood::calm:
      return "calm";
    case Snapshot::Mood::busy:
      return "busy";
    case Snapshot::Mood::strained:
      return "under strain";
  }
  return "calm";
}

// What the app uses most, as a short phrase: "180% CPU", "2.10 GB of memory".
std::string usePhrase(const AppUsage& app) {
  switch (app.lean) {
    case Lean::cpu: {
      char buffer[64];
      std::snprintf(buffer, sizeof buffer, "%.0f%% CPU", app.cpu);
      return buffer;
    }
    case Lean::memory:
      return Fmt::mem(app.memory) + " of memory";
    case Lean::gpu:
      return Fmt::percent(app.gpu) + " of the GPU";
    case Lean::disk:
      return Fmt::rate(app.diskRead + app.diskWrite) + " of disk";
    case Lean::network:
      return Fmt::rate(app.netIn + app.netOut) + " of network";
  }
  return "";
}

}  // namespace

OJson appObject(const AppUsage& app, bool energyKnown) {
  OJson o;
  o["name"] = app.name;
  o["cpu_percent_of_one_core"] = round1(app.cpu);
  o["memory_bytes"] = Fmt::mem(app.memory);
  if (energyKnown) o["energy_watts"] = round1(app.energy);
  o["disk_read_per_s"] = Fmt::rate(app.diskRead);
  o["disk_write_per_s"] = Fmt::rate(app.diskWrite);
  o["network_per_s"] = Fmt::rate(app.netIn + app.netOut);
  o["gpu_percent"] = round1(app.gpu * 100);
  o["processes"] = app.pids.size();
  o["uses_most"] = std::string(rawValue(app.lean));
  o["macos_system"] = app.isSystem;
  return o;
}

OJson processObject(const ProcessSample& process, bool energyKnown) {
  OJson o;
  o["pid"] = process.pid;
  o["name"] = process.name;
  o["cpu_percent_of_one_core"] = round1(process.cpu);
  o["memory_bytes"] = Fmt::mem(process.memory);
  if (energyKnown) o["energy_watts"] = round1(process.energy);
  return o;
}

std::string summaryText(const Snapshot& snapshot, bool forLinux) {
  const Snapshot::Mood mood = snapshot.mood();
  // Only the fixed words go through the platform's words: an app called "Mac Mouse Fix" keeps its
  // name.
  std::string text = platformTextFor("Your Mac is " + moodWords(mood), forLinux);
  if (snapshot.apps.empty()) return text + ".";
  const AppUsage& top = snapshot.apps.front();  // apps come highest impact first
  if (mood == Snapshot::Mood::calm) {
    return text + "; the busiest app is " + top.name + ", at " + usePhrase(top) + ".";
  }
  return text + ": " + top.name + " is using " + usePhrase(top) + ".";
}

OJson statusObject(const Snapshot& s, bool forLinux, size_t busiest) {
  OJson o;
  o["summary"] = summaryText(s, forLinux);
  o["cpu_percent"] = round1(s.cpu.total * 100);
  o["cores"] = s.cpu.cores.size();
  OJson load = OJson::array();
  for (double l : s.cpu.load) load.push_back(format1(l));
  o["load_average"] = std::move(load);
  o["memory_used"] = Fmt::mem(s.memory.used());
  o["memory_total"] = Fmt::mem(s.memory.total);
  o["memory_pressure"] = std::string(rawValue(s.memory.pressure));
  o["swap_used"] = Fmt::mem(s.memory.swapUsed);
  o["gpu_percent"] = round1(s.gpu.utilization * 100);
  o["disk_read"] = Fmt::rate(s.disk.readRate);
  o["disk_write"] = Fmt::rate(s.disk.writeRate);
  o["startup_disk_free"] = Fmt::bytes(s.disk.mainFree());
  o["network_down"] = Fmt::rate(s.network.inRate);
  o["network_up"] = Fmt::rate(s.network.outRate);
  o["network_interface"] = s.network.interface;
  if (s.battery.present) {
    OJson b;
    b["percent"] = round1(s.battery.percent);
    b["charging"] = s.battery.charging;
    b["minutes_left"] = optionalInt(s.battery.minutesLeft);
    b["health_percent"] = optionalRound1(s.battery.health);
    b["cycles"] = optionalInt(s.battery.cycles);
    o["battery"] = std::move(b);
  } else {
    o["battery"] = nullptr;  // a machine without a battery
  }
  // Degrees Celsius whatever the display setting: the key names the unit. Unknown sensors are
  // left out rather than written as zero.
  OJson temperatures = OJson::object();
  const auto put = [&](const char* key, const std::optional<double>& c) {
    if (c) temperatures[key] = round1(*c);
  };
  put("cpu", s.sensors.cpu);
  put("cpu_hottest_core", s.sensors.cpuMax);
  put("gpu", s.sensors.gpu);
  put("ssd", s.sensors.ssd);
  put("battery", s.sensors.battery ? s.sensors.battery : s.battery.temperature);
  o["temperatures_c"] = std::move(temperatures);
  OJson fans = OJson::array();
  for (const Fan& f : s.sensors.fans) fans.push_back(whole(f.rpm));
  o["fans_rpm"] = std::move(fans);
  o["power_watts"] = optionalRound1(s.power.system);
  OJson apps = OJson::array();
  for (size_t i = 0; i < s.apps.size() && i < busiest; ++i)
    apps.push_back(appObject(s.apps[i], s.power.apps.has_value()));
  o["busiest_apps"] = std::move(apps);
  return o;
}

OJson alertObject(const AlertEvent& event) {
  OJson o;
  o["kind"] = std::string(rawValue(event.kind));
  o["title"] = event.title;
  o["detail"] = event.detail;
  if (event.app) o["name"] = *event.app;
  o["date"] = isoDate(event.date);
  return o;
}

// --- history ---

std::string metricUnit(Metric metric) {
  switch (metric) {
    case Metric::cpu:
      return "percent of all cores (0-100)";
    case Metric::memory:
      return "bytes";
    case Metric::gpu:
    case Metric::battery:
      return "percent (0-100)";
    case Metric::disk:
      return "bytes per second (read + write)";
    case Metric::network:
      return "bytes per second (in + out)";
    case Metric::heat:
      return "degrees Celsius";
  }
  return "";
}

std::string appUnit(Metric metric) {
  switch (metric) {
    case Metric::cpu:
      return "percent of one core";
    case Metric::gpu:
      return "percent (0-100)";
    case Metric::battery:
    case Metric::heat:
      return "none (not recorded per app)";
    default:
      return metricUnit(metric);
  }
}

namespace {

// A machine value of `metric` as written: percentages and degrees to one decimal, bytes whole.
OJson machineValue(Metric metric, double v) {
  if (metric == Metric::memory || metric == Metric::disk || metric == Metric::network) {
    return whole(v);
  }
  return std::isfinite(v) ? OJson(round1(v)) : OJson(nullptr);
}

// An app's value: the history keeps app GPU as a 0...1 share, written here as a percent.
OJson appValue(Metric metric, double v) {
  if (metric == Metric::gpu) return machineValue(metric, v * 100);
  if (metric == Metric::cpu) return std::isfinite(v) ? OJson(round1(v)) : OJson(nullptr);
  return machineValue(metric, v);
}

using ValueWriter = OJson (*)(Metric, double);

OJson seriesOf(Metric metric, const std::vector<HistoryPoint>& points, ValueWriter write) {
  OJson out = OJson::array();
  for (const HistoryPoint& p : points) {
    OJson point;
    point["at"] = isoDate(dateFromSeconds(static_cast<double>(p.time)));
    point["value"] = write(metric, p.value);
    out.push_back(std::move(point));
  }
  return out;
}

// The highest bucket peak with its time; null for no points.
OJson peakOf(Metric metric, const std::vector<HistoryPoint>& points, ValueWriter write) {
  if (points.empty()) return nullptr;
  const auto top = std::max_element(points.begin(), points.end(),
                                    [](const auto& a, const auto& b) { return a.peak < b.peak; });
  OJson peak;
  peak["value"] = write(metric, top->peak);
  peak["at"] = isoDate(dateFromSeconds(static_cast<double>(top->time)));
  return peak;
}

}  // namespace

OJson historyObject(Metric metric, const std::string& span, const std::vector<HistoryPoint>& points,
                    const std::vector<AppHistory>& apps) {
  OJson o;
  o["metric"] = std::string(rawValue(metric));
  o["span"] = span;
  o["unit"] = metricUnit(metric);
  o["points"] = seriesOf(metric, points, machineValue);
  if (points.empty()) {
    o["average"] = nullptr;
  } else {
    double sum = 0;
    for (const HistoryPoint& p : points) sum += p.value;
    o["average"] = machineValue(metric, sum / static_cast<double>(points.size()));
  }
  o["peak"] = peakOf(metric, points, machineValue);
  o["apps_unit"] = appUnit(metric);
  OJson top = OJson::array();
  for (const AppHistory& app : apps) {
    OJson a;
    a["name"] = app.name;
    a["average"] = appValue(metric, app.average);
    a["peak"] = peakOf(metric, app.series, appValue);
    a["series"] = seriesOf(metric, app.series, appValue);
    top.push_back(std::move(a));
  }
  o["top_apps"] = std::move(top);
  return o;
}

// --- agents ---

namespace {

OJson windowObject(const std::optional<UsageWindow>& reported, Date now) {
  if (!reported) return kNotReportedYet;
  const UsageWindow w = reported->current(now);
  OJson o;
  o["used_percent"] = round1(w.usedPercent);
  o["resets_at"] = optionalDate(w.resetsAt);
  if (w.usedPercent >= 100) {
    o["runs_out_at_current_pace"] = "limit reached";
  } else {
    // Null: at this pace the window lasts until its reset, or it is too early to tell.
    o["runs_out_at_current_pace"] = optionalDate(w.runsOut(now));
  }
  return o;
}

OJson planObject(const std::optional<PlanUsage>& plan, Date now) {
  OJson o;
  o["current_session_5h"] = windowObject(plan ? plan->session : std::nullopt, now);
  o["weekly"] = windowObject(plan ? plan->weekly : std::nullopt, now);
  o["as_of"] = plan ? OJson(isoDate(plan->updated)) : OJson(nullptr);
  return o;
}

OJson sessionObject(const AgentCard& card) {
  OJson o;
  o["tool"] = card.tool;
  o["name"] = optionalText(card.name);
  o["folder"] = optionalText(card.folder);
  o["live"] = card.live;
  o["working"] = card.working;
  o["model"] = optionalText(card.model);
  OJson tokens;
  tokens["input"] = card.tokens.input;
  tokens["output"] = card.tokens.output;
  tokens["cache_write"] = card.tokens.cacheWrite;
  tokens["cache_read"] = card.tokens.cacheRead;
  o["tokens"] = std::move(tokens);
  o["context_used_percent"] = optionalRound1(card.contextPercent);
  o["cost_usd_estimate"] =
      card.cost && std::isfinite(*card.cost) ? OJson(std::round(*card.cost * 100) / 100) : nullptr;
  o["prompts"] = card.prompts;
  o["tool_calls"] = card.toolCalls;
  o["last_activity"] = optionalDate(card.lastActivity);
  return o;
}

// Input, output and cache writes (cache reads cost far less), saturating instead of stopping the
// process: an answer must never end the application.
int64_t freshTokens(const TokenTotals& t) {
  int64_t sum = 0;
  for (int64_t part : {t.input, t.output, t.cacheWrite}) {
    if (__builtin_add_overflow(sum, part, &sum)) return std::numeric_limits<int64_t>::max();
  }
  return sum;
}

OJson sessionsOf(const std::vector<AgentCard>& cards) {
  OJson out = OJson::array();
  for (const AgentCard& card : cards) out.push_back(sessionObject(card));
  return out;
}

}  // namespace

OJson agentsObject(const AgentsSnapshot& agents, Date now) {
  OJson claude;
  if (agents.statusLine.kind == StatusLineState::Kind::connected) {
    claude["plan"] = planObject(agents.claudePlan, now);
  } else {
    // Claude Code reports its limits only to its status line; another command there counts as
    // not connected too.
    claude["plan"] = kNotConnected;
  }
  claude["sessions"] = sessionsOf(agents.claude);
  claude["today_fresh_tokens"] = freshTokens(agents.claudeToday);
  OJson codex;
  codex["plan"] = planObject(agents.codexPlan, now);
  codex["sessions"] = sessionsOf(agents.codex);
  OJson o;
  o["claude_code"] = std::move(claude);
  o["codex"] = std::move(codex);
  return o;
}

}  // namespace vistrel::control
