#include "ui/apps_view.hpp"

#include <algorithm>
#include <cctype>
#include <cstdio>
#include <unordered_map>

#include "format/fmt.hpp"
#include "format/platform_text.hpp"

namespace vistrel::ui {

namespace {

std::string lower(std::string_view s) {
  std::string out(s);
  for (char& c : out) c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
  return out;
}

std::string leanText(Lean l) {
  switch (l) {
    case Lean::cpu:
      return "CPU";
    case Lean::memory:
      return "Memory";
    case Lean::gpu:
      return "GPU";
    case Lean::disk:
      return "Disk";
    case Lean::network:
      return "Network";
  }
  return "";
}

// The value a figure column sorts by.
double sortValue(const Usage& u, AppColumn c) {
  switch (c) {
    case AppColumn::impact:
      return u.impact;
    case AppColumn::cpu:
      return u.cpu;
    case AppColumn::memory:
      return static_cast<double>(u.memory);
    case AppColumn::energy:
      return u.energy;
    case AppColumn::disk:
      return u.disk;
    case AppColumn::network:
      return u.network;
    case AppColumn::gpu:
      return u.gpu;
    case AppColumn::lean:
      return static_cast<double>(static_cast<int>(u.lean));
    case AppColumn::name:
      return 0;
  }
  return 0;
}

// Strict weak order for rows of one level: by the column, then by name, then by `tie` (pid).
template <class Line>
bool before(const Line& a, const Line& b, const AppsQuery& q, int64_t tieA, int64_t tieB) {
  if (q.sort != AppColumn::name) {
    double va = sortValue(a.usage, q.sort), vb = sortValue(b.usage, q.sort);
    if (va != vb) return q.descending ? va > vb : va < vb;
  }
  std::string na = lower(a.name), nb = lower(b.name);
  if (na != nb) {
    // Names read A to Z unless the person turned the name column around.
    bool reversed = q.sort == AppColumn::name && q.descending;
    return reversed ? na > nb : na < nb;
  }
  return tieA < tieB;
}

Usage usageOf(const ProcessSample& p) {
  Usage u;
  u.cpu = p.cpu;
  u.memory = p.memory;
  u.energy = p.energy;
  u.disk = p.diskRead + p.diskWrite;
  u.network = p.netIn + p.netOut;
  u.gpu = p.gpu;
  return u;
}

std::string figure(const Usage& u, AppColumn c) {
  switch (c) {
    case AppColumn::impact:
      return std::to_string(static_cast<int>(u.impact + 0.5));
    case AppColumn::cpu:
      return Fmt::appMetricValue(Metric::cpu, u.cpu);
    case AppColumn::memory:
      return Fmt::mem(u.memory);
    case AppColumn::energy: {
      // Energy impact as the platform reports it: a unitless figure, one decimal; a dash where
      // this machine cannot tell (a 0 there would read as "uses none").
      if (!u.energyKnown) return "\u2014";
      if (u.energy <= 0) return "0";
      char text[32];
      std::snprintf(text, sizeof text, "%.1f", u.energy);
      return text;
    }
    case AppColumn::disk:
      return Fmt::rate(u.disk);
    case AppColumn::network:
      return Fmt::rate(u.network);
    case AppColumn::gpu:
      return Fmt::appMetricValue(Metric::gpu, u.gpu);
    case AppColumn::lean:
      return leanText(u.lean);
    case AppColumn::name:
      return "";
  }
  return "";
}

}  // namespace

std::string appColumnTitle(AppColumn column) {
  switch (column) {
    case AppColumn::name:
      return "Name";
    case AppColumn::impact:
      return "Impact";
    case AppColumn::cpu:
      return "CPU";
    case AppColumn::memory:
      return "Memory";
    case AppColumn::energy:
      return "Energy";
    case AppColumn::disk:
      return "Disk";
    case AppColumn::network:
      return "Network";
    case AppColumn::gpu:
      return "GPU";
    case AppColumn::lean:
      return "Uses most";
  }
  return "";
}

std::string_view rawValue(AppColumn column) {
  static constexpr std::string_view kRaw[] = {"name", "impact",  "cpu", "memory", "energy",
                                              "disk", "network", "gpu", "lean"};
  return kRaw[static_cast<int>(column)];
}

std::optional<AppColumn> appColumnFromRaw(std::string_view raw) {
  for (int i = 0; i < kAppColumns; ++i) {
    if (rawValue(static_cast<AppColumn>(i)) == raw) return static_cast<AppColumn>(i);
  }
  return std::nullopt;
}

std::vector<AppLine> appLines(const Snapshot& s, const AppsQuery& query) {
  std::unordered_map<int32_t, const ProcessSample*> byPid;
  byPid.reserve(s.processes.size());
  for (const ProcessSample& p : s.processes) byPid.emplace(p.pid, &p);
  const std::string needle = lower(query.filter);
  const std::string systemSuffix = platformText(" (part of macOS)");
  const bool energyKnown = s.power.apps.has_value();

  std::vector<AppLine> lines;
  lines.reserve(s.apps.size());
  for (const AppUsage& app : s.apps) {
    AppLine line;
    line.id = app.id;
    // The machine's own remainder ("... system services") already says whose it is.
    line.name = app.isSystem && app.id != "system" ? app.name + systemSuffix : app.name;
    line.isSystem = app.isSystem;
    line.bundlePath = app.bundlePath;
    line.usage = {app.impact,
                  app.cpu,
                  app.memory,
                  app.energy,
                  app.diskRead + app.diskWrite,
                  app.netIn + app.netOut,
                  app.gpu,
                  app.lean};
    line.usage.energyKnown = energyKnown;
    const bool appMatches = needle.empty() || lower(line.name).find(needle) != std::string::npos;
    for (int32_t pid : app.pids) {
      auto it = byPid.find(pid);
      if (it == byPid.end()) continue;  // exited since the grouping
      ++line.processCount;
      const ProcessSample& p = *it->second;
      if (!appMatches && lower(p.name).find(needle) == std::string::npos &&
          std::to_string(p.pid) != needle) {
        continue;
      }
      line.processes.push_back({p.pid, p.name, p.path, usageOf(p)});
      line.processes.back().usage.energyKnown = energyKnown;
    }
    if (!appMatches && line.processes.empty()) continue;
    // Processes have no impact or lean of their own: under those columns they sort by CPU.
    AppsQuery processQuery = query;
    if (query.sort == AppColumn::impact || query.sort == AppColumn::lean) {
      processQuery.sort = AppColumn::cpu;
    }
    std::sort(line.processes.begin(), line.processes.end(),
              [&](const ProcessLine& a, const ProcessLine& b) {
                return before(a, b, processQuery, a.pid, b.pid);
              });
    lines.push_back(std::move(line));
  }
  // Ties after the name fall back to the grouping order, which is stable across ticks.
  std::vector<size_t> order(lines.size());
  for (size_t i = 0; i < order.size(); ++i) order[i] = i;
  std::sort(order.begin(), order.end(), [&](size_t a, size_t b) {
    return before(lines[a], lines[b], query, static_cast<int64_t>(a), static_cast<int64_t>(b));
  });
  std::vector<AppLine> sorted;
  sorted.reserve(lines.size());
  for (size_t i : order) sorted.push_back(std::move(lines[i]));
  return sorted;
}

std::string cellText(const AppLine& app, AppColumn column) {
  if (column == AppColumn::name) return app.name;
  return figure(app.usage, column);
}

std::string cellText(const ProcessLine& process, AppColumn column) {
  if (column == AppColumn::name) return process.name;
  if (column == AppColumn::impact || column == AppColumn::lean) return "";
  return figure(process.usage, column);
}

AppDayView appDayView(const std::string& appId, const std::vector<AppHistory>& top, size_t cores) {
  AppDayView v;
  const double whole = 100.0 * static_cast<double>(std::max<size_t>(cores, 1));
  auto it =
      std::find_if(top.begin(), top.end(), [&](const AppHistory& h) { return h.app == appId; });
  if (it == top.end() || it->series.empty()) {
    v.empty = "Nothing recorded for this app over the last day.";
    return v;
  }
  double most = 0;
  for (const HistoryPoint& p : it->series) most = std::max(most, p.value);
  for (const HistoryPoint& p : it->series) v.bars.push_back(most > 0 ? p.value / most : 0);
  v.average = "Used " + Fmt::percent(it->average / whole) +
              " of the machine's CPU on average over the last day";
  v.scale = Fmt::percent(most / whole);
  return v;
}

}  // namespace vistrel::ui
