#pragma once

// The JSON bodies of the control answers, built from plain records so that each is tested without
// a host. Key order is part of every answer (ordered_json). Units, where an answer leaves them to
// us, are what an agent can use without guessing:
// - dates are ISO 8601 in UTC, whole seconds ("2025-01-31T09:12:45Z");
// - `history` values are in the metric's natural unit, named in the answer's `unit` key: cpu,
//   gpu and battery in percent (0-100), memory in bytes, disk and network in bytes per second,
//   heat in degrees Celsius; apps' cpu is in percent of one core (may exceed 100) and apps' gpu in
//   percent of the GPU. Percentages and degrees carry one decimal, bytes are whole numbers;
// - `agents` token counts are integers, percentages one decimal, cost in US dollars to the cent.

#include <optional>
#include <string>
#include <vector>

#include <nlohmann/json.hpp>

#include "agents/agent_records.hpp"
#include "alerts/alert_event.hpp"
#include "base/clock.hpp"
#include "history/time_span.hpp"
#include "sampling/records.hpp"

namespace vistrel::control {

using OJson = nlohmann::ordered_json;

// One decimal place, halves away from zero (2.25 gives 2.3).
double round1(double x);

// The per-app object: name, CPU (percent of one core), memory (Fmt.mem), energy (watts), disk and
// network rates (Fmt.rate), GPU percent, process count, what it uses most, and whether it belongs
// to the operating system. Without `energyKnown` (the machine gives no per-process energy) the
// energy is left out rather than written as 0.
OJson appObject(const AppUsage& app, bool energyKnown = true);
// One process of `get_app`: pid, name, CPU, memory and energy, in the per-app object's units.
OJson processObject(const ProcessSample& process, bool energyKnown = true);

// One plain sentence an agent can quote: the machine's mood and the app weighing most, e.g.
// "Your Mac is busy: Xcode is using 180% CPU." or "Your Mac is calm; the busiest app is Safari, at
// 12% CPU.". `forLinux`: the platform's words for the machine (app names are never changed).
std::string summaryText(const Snapshot& snapshot, bool forLinux);

// The `status` object; `busiest` is how many apps `busiest_apps` holds.
OJson statusObject(const Snapshot& snapshot, bool forLinux, size_t busiest);

// One kept alert: kind (raw value), title, detail, name (only when the alert names an app), date.
OJson alertObject(const AlertEvent& event);

// "percent (0-100)", "bytes", "bytes per second (read + write)", ...: the unit of the machine's
// values of a metric in `history`; `appUnit` the unit of its apps' values.
std::string metricUnit(Metric metric);
std::string appUnit(Metric metric);

// The `history` object: metric, span, unit, points, average, peak, apps_unit, top_apps. `span` is
// the name the request used ("24h").
OJson historyObject(Metric metric, const std::string& span, const std::vector<HistoryPoint>& points,
                    const std::vector<AppHistory>& apps);

// The text standing for a plan window that has not been reported yet, and for Claude Code's plan
// while its status line is not connected.
inline constexpr const char* kNotReportedYet = "not reported yet";
inline constexpr const char* kNotConnected =
    "not connected (Vistrel › Coding agents › Connect Claude Code)";

// The `agents` object as of `now` (windows past their reset read as rolled over to 0 %).
OJson agentsObject(const AgentsSnapshot& agents, Date now);

}  // namespace vistrel::control
