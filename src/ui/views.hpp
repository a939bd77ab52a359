#pragma once

// What each page shows, as plain texts and numbers: the view models of the window. They turn a
// Snapshot, a history answer, the agents snapshot and the alerts into rows and series; the widgets
// only lay them out and paint them. Qt-free, so they are tested without pixels. Every figure is
// written by Fmt, so the bits and Fahrenheit settings hold everywhere.

#include <cstdint>
#include <deque>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "agents/agent_records.hpp"
#include "alerts/alert_event.hpp"
#include "app/settings.hpp"
#include "history/time_span.hpp"
#include "sampling/records.hpp"

namespace vistrel::ui {

// How much a figure needs the person's attention. Drawn amber or red, always with a mark and a
// word (`attentionWord`), never by colour alone.
enum class Attention { none, notice, trouble };
// "" for none, "High" for notice, "Very high" for trouble; metrics with their own words (memory
// pressure, low space, a low battery) use those instead through `MetricGlance::note`.
std::string attentionWord(Attention a);

// The page's name as the sidebar and the View menu write it.
std::string pageTitle(Page page);
// The pages in sidebar order, settings last.
const std::vector<Page>& sidebarPages();
// The metric a page shows, if it is a metric page.
std::optional<Metric> pageMetric(Page page);
Page metricPage(Metric metric);

// One metric at a glance: the overview's tiles and the sidebar's rows.
struct MetricGlance {
  Metric metric = Metric::cpu;
  std::string title;  // "CPU"
  std::string value;  // "23%", "9.81 GB", "1.2 MB/s", "No battery"
  std::string note;  // a short second line: "of 16.0 GB", "pressure warning", "↓ 1 KB/s ↑ 3 KB/s"
  double level = 0;       // 0...1, what a meter draws
  bool available = true;  // false: the machine has no such source (no battery, no sensors)
  Attention attention = Attention::none;
};
MetricGlance glance(Metric metric, const Snapshot& s);

// The mood headline and its sentence ("All good", "Nothing is working the machine hard.").
struct Mood {
  std::string title;
  std::string sentence;
  Attention attention = Attention::none;
};
Mood mood(const Snapshot& s);

struct AppRow {
  std::string name;
  std::string cpu;     // percent of one core
  std::string memory;  // bytes
  std::string lean;    // what the app uses most, in words: "CPU", "memory", ...
};
// The busiest apps by impact, at most `limit`.
std::vector<AppRow> busiestApps(const Snapshot& s, size_t limit);

struct SessionRow {
  std::string tool;    // "Claude Code"
  std::string folder;  // the project folder's last part, or "" when unknown
  std::string state;   // "working" or "idle"
  std::string cpu;
};
struct PlanRow {
  std::string tool;
  std::string text;  // "session 23% · week 41%"
  double level = 0;  // the fuller window, 0...1
  Attention attention = Attention::none;
};
struct AlertRow {
  std::string title;
  std::string detail;
  std::string when;  // "5 min ago"
};

struct OverviewView {
  Mood mood;
  std::vector<MetricGlance> metrics;
  std::vector<AppRow> apps;
  std::vector<SessionRow> sessions;
  std::vector<PlanRow> plans;
  std::vector<AlertRow> alerts;
};
// `latest` absent: the first sample has not arrived (the view says so, calmly).
OverviewView overviewView(const std::optional<Snapshot>& latest, const AgentsSnapshot& agents,
                          const std::vector<AlertEvent>& alerts, Date now);

// --- Metric pages ---

struct Fact {
  std::string label;
  std::string value;
  bool operator==(const Fact&) const = default;
};
struct Segment {
  std::string label;
  std::string value;
  double share = 0;  // of the whole, 0...1
};
struct VolumeRow {
  std::string name;
  std::string free;                       // "120 GB free of 500 GB"
  double used = 0;                        // 0...1
  Attention attention = Attention::none;  // little space left
};

// A chart's numbers scaled to 0...1 with the labels of its axis.
struct ChartScale {
  std::vector<double> levels;
  std::vector<double> peaks;   // history bars only
  std::vector<double> second;  // live: a second series (writes, upload), scaled alike
  std::string top;             // the full scale, "100%"
  std::string middle;          // half of it
};

struct MetricPageView {
  MetricGlance glance;
  std::string subtitle;  // one line under the title
  ChartScale live;
  std::vector<Fact> facts;
  std::vector<double> cores;       // cpu: per-core busy fraction
  std::vector<Segment> breakdown;  // memory: where it went
  std::vector<VolumeRow> volumes;  // disk
  std::string emptyState;          // battery and heat without a source
};
// `live` holds the model's levels (0...1) of this metric, oldest first.
MetricPageView metricPageView(Metric metric, const Snapshot& s, const std::deque<double>& live);

// The apps that use the most of a metric now, with their figure for it (battery: energy; heat:
// CPU, which is what heats the machine).
std::vector<Fact> busiestFor(Metric metric, const Snapshot& s, size_t limit);

// The left end of the live chart: how long ago its first point was taken when full ("5 min ago").
std::string liveStart(double intervalSeconds, size_t points);

// The range switch: live, then the history's spans.
struct Range {
  std::optional<TimeSpan> span;  // absent: live
  std::string title;             // "Live", "Hour", "Day", "Week", "Month", "Year"
};
const std::vector<Range>& ranges();

struct HistoryView {
  ChartScale chart;
  std::string start;       // the left end's time
  std::string end;         // "now"
  std::string caption;     // "each bar 5 minutes"
  std::string peak;        // "Peak 93% at Mon 2:05 PM"; "" without data
  std::vector<Fact> apps;  // the busiest apps of the span and their average
  std::string empty;       // shown instead of the chart when there is nothing yet
};
// `memoryTotal`: bytes of memory, the full scale of the memory chart (0: scale to the peak).
HistoryView historyView(Metric metric, TimeSpan span, const std::vector<HistoryPoint>& points,
                        const std::vector<AppHistory>& apps, uint64_t memoryTotal, Date now);

// --- Settings ---

// The fixed sentences of the settings page and the welcome sheet.
inline constexpr const char* kIntervalNote =
    "While the window is open. The menu bar alone updates every 5 seconds.";
inline constexpr const char* kHistoryPromise =
    "A minute-by-minute history, kept for 90 days unless you change it.";
inline constexpr const char* kHistoryPrecision = "Per minute for a week, then per hour.";
inline constexpr const char* kBitsNote = "Bytes like Finder, or bits like your internet plan.";

// The choices the settings page offers: sampling intervals (seconds) and history retention (days).
const std::vector<double>& intervalChoices();
const std::vector<int>& retentionChoices();
// "2 seconds", "1 minute"; "90 days", "1 year".
std::string intervalTitle(double seconds);
std::string retentionTitle(int days);
// The bits note in this platform's words (there is no Finder on Linux).
std::string bitsNote();
// What the history holds: "12 MB, since Mon 3 Mar"; "Nothing recorded yet" when empty.
std::string historySizeText(int64_t bytes, std::optional<int64_t> oldest);

// One way to let an AI agent use Vistrel: which agent, what to do, and the text to paste.
struct AgentCommand {
  std::string agent;  // "Claude Code"
  std::string how;    // "Run in a terminal:"
  std::string text;   // the command or configuration, for this executable's path
};
std::vector<AgentCommand> agentCommands(const std::string& executable);
// A word for a POSIX shell: unchanged when it needs no quoting, else in single quotes.
std::string shellWord(const std::string& word);

// A round full scale at or above `v` (1, 2 or 5 times a power of ten), for rate charts.
double niceCeiling(double v);

}  // namespace vistrel::ui
