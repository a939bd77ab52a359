#pragma once

// What the apps page shows: every app with its processes under it, sorted by a column and
// filtered by a search text, and the texts of each cell. Qt-free: the page's item model only
// hands these lines to the tree view.

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "history/time_span.hpp"
#include "sampling/records.hpp"

namespace vistrel::ui {

// The columns of the apps table, in order.
enum class AppColumn { name, impact, cpu, memory, energy, disk, network, gpu, lean };
inline constexpr int kAppColumns = 9;
// "Name", "Impact", "CPU", ...; "Uses most" for lean.
std::string appColumnTitle(AppColumn column);
// The stored form of a column ("impact", "cpu", ...) and back; nullopt for an unknown text.
std::string_view rawValue(AppColumn column);
std::optional<AppColumn> appColumnFromRaw(std::string_view raw);

// The figures of one row, app or process, in the units of the snapshot.
struct Usage {
  double impact = 0;  // 0...100; processes have none of their own
  double cpu = 0;     // percent of one core
  uint64_t memory = 0;
  double energy = 0;
  double disk = 0;     // read + write, bytes per second
  double network = 0;  // in + out, bytes per second
  double gpu = 0;      // share, 0...1
  Lean lean = Lean::cpu;
  bool energyKnown = true;  // false where the machine gives no per-process energy
};

struct ProcessLine {
  int32_t pid = 0;
  std::string name;
  std::string path;
  Usage usage;
};

struct AppLine {
  std::string id;    // the grouping key: stable from tick to tick
  std::string name;  // as shown: a system app ends in " (part of macOS)"
  bool isSystem = false;
  std::optional<std::string> bundlePath;
  Usage usage;
  std::vector<ProcessLine> processes;  // those that match the search, sorted like the apps
  int processCount = 0;                // all of the app's processes in the snapshot
};

struct AppsQuery {
  AppColumn sort = AppColumn::impact;
  bool descending = true;
  // Case-insensitive; matches an app's name, a process's name or its pid. An app that matches
  // keeps all its processes; an app with matching processes keeps only those.
  std::string filter;
};

// The lines of the table. Name sorts alphabetically (ascending reads A to Z); figures sort by
// value, ties by name so the order holds still from tick to tick.
std::vector<AppLine> appLines(const Snapshot& s, const AppsQuery& query);

// The text of a cell; processes leave impact and "uses most" empty.
std::string cellText(const AppLine& app, AppColumn column);
std::string cellText(const ProcessLine& process, AppColumn column);

// The selected app's detail: its share of the machine's CPU over the last day, from the history.
struct AppDayView {
  std::string average;       // "Used 3% of the machine's CPU on average over the last day"
  std::vector<double> bars;  // one per bucket, 0...1 of the busiest bucket
  std::string scale;         // the busiest bucket's share of the machine, "12%"
  std::string empty;         // shown instead of the bars when nothing is recorded
};
// `top` is the history's apps by CPU over the last day (percent of one core); the app is found
// by its grouping id. `cores`: the machine's cores (a share of the machine is of all of them).
AppDayView appDayView(const std::string& appId, const std::vector<AppHistory>& top, size_t cores);

}  // namespace vistrel::ui
