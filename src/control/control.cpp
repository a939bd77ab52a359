#include "control/control.hpp"

#include <algorithm>
#include <cmath>
#include <exception>
#include <functional>
#include <utility>
#include <vector>

#include "control/control_answers.hpp"
#include "format/platform_text.hpp"

namespace vistrel {

namespace {

using nlohmann::json;
using OJson = nlohmann::ordered_json;

// A request the tools refuse: its text is the answer's error. Thrown and caught only in this file.
struct Failure {
  std::string text;
};

// The answer line: compact JSON. Text that is not valid UTF-8 (an app's or a process's name may
// be any bytes, and so may an unknown tool's name) is written with U+FFFD in its place, so writing
// never fails.
std::string encode(const OJson& answer) {
  return answer.dump(-1, ' ', false, json::error_handler_t::replace);
}

std::string okAnswer(OJson result) {
  OJson answer;
  answer["ok"] = true;
  answer["result"] = std::move(result);
  return encode(answer);
}

std::string errorAnswer(const std::string& text) {
  OJson answer;
  answer["ok"] = false;
  answer["error"] = text;
  return encode(answer);
}

// Runs one tool; whatever it throws becomes an error answer.
std::string respond(const std::function<OJson()>& tool) {
  try {
    return okAnswer(tool());
  } catch (const Failure& failure) {
    return errorAnswer(failure.text);
  } catch (...) {
    // A source that failed in a way no tool foresaw (a database error, an allocation): the
    // request fails, the application goes on.
    try {
      return errorAnswer(Control::kFailed);
    } catch (...) {
      return R"({"ok":false,"error":"Something went wrong."})";
    }
  }
}

// --- Arguments ---

// The arguments as an object: absent (null) reads as empty; anything else but an object fails.
const json& argsObject(const json& args) {
  static const json empty = json::object();
  if (args.is_null()) return empty;
  if (!args.is_object()) throw Failure{Control::kBadArgs};
  return args;
}

// A present, non-null argument, or null.
const json* field(const json& args, const char* key) {
  auto it = args.find(key);
  if (it == args.end() || it->is_null()) return nullptr;
  return &*it;
}

// A count argument clamped to 0...`most`; `fallback` when absent. Integers of any size and
// integral floating values (20.0) are accepted; fractions, text, booleans and the rest fail.
int64_t countArg(const json& args, const char* key, int64_t fallback, int64_t most) {
  const json* v = field(args, key);
  if (!v) return fallback;
  if (v->is_number_unsigned())
    return static_cast<int64_t>(std::min<uint64_t>(v->get<uint64_t>(), most));
  if (v->is_number_integer()) return std::clamp<int64_t>(v->get<int64_t>(), 0, most);
  if (v->is_number_float()) {
    const double d = v->get<double>();
    if (!std::isfinite(d) || d != std::floor(d)) throw Failure{Control::kBadLimit};
    return static_cast<int64_t>(std::clamp(d, 0.0, static_cast<double>(most)));
  }
  throw Failure{Control::kBadLimit};
}

// A text argument; nullopt when absent. `wrongType` is the failure for any other type.
std::optional<std::string> textArg(const json& args, const char* key, const char* wrongType) {
  const json* v = field(args, key);
  if (!v) return std::nullopt;
  if (!v->is_string()) throw Failure{wrongType};
  return v->get<std::string>();
}

std::string lowerASCII(std::string s) {
  for (char& c : s) {
    if (c >= 'A' && c <= 'Z') c = static_cast<char>(c - 'A' + 'a');
  }
  return s;
}

std::string trimmed(const std::string& s) {
  const char* space = " \t\r\n";
  const size_t first = s.find_first_not_of(space);
  if (first == std::string::npos) return "";
  return s.substr(first, s.find_last_not_of(space) - first + 1);
}

// The `name` argument, trimmed; a missing, empty or non-text name fails (an empty name would
// otherwise be "contained" in every app's name).
std::string nameArg(const json& args) {
  auto name = textArg(args, "name", Control::kNeedName);
  std::string t = name ? trimmed(*name) : "";
  if (t.empty()) throw Failure{Control::kNeedName};
  return t;
}

// The app of the newest snapshot named so: an exact (case-insensitive) name first, else the first
// app, in snapshot order, whose name contains it.
const AppUsage& findApp(const std::optional<Snapshot>& latest, const std::string& name) {
  if (!latest) throw Failure{Control::kNoMatch};
  const std::string wanted = lowerASCII(name);
  for (const AppUsage& app : latest->apps) {
    if (lowerASCII(app.name) == wanted) return app;
  }
  for (const AppUsage& app : latest->apps) {
    if (lowerASCII(app.name).find(wanted) != std::string::npos) return app;
  }
  throw Failure{Control::kNoMatch};
}

// list_apps orders, highest first. Impact is the snapshot's own order, kept for ties throughout.
std::optional<std::function<double(const AppUsage&)>> sortKey(const std::string& sort) {
  using Key = std::function<double(const AppUsage&)>;
  if (sort == "impact") return Key([](const AppUsage& a) { return a.impact; });
  if (sort == "cpu") return Key([](const AppUsage& a) { return a.cpu; });
  if (sort == "memory") return Key([](const AppUsage& a) { return static_cast<double>(a.memory); });
  if (sort == "energy") return Key([](const AppUsage& a) { return a.energy; });
  if (sort == "disk") return Key([](const AppUsage& a) { return a.diskRead + a.diskWrite; });
  if (sort == "network") return Key([](const AppUsage& a) { return a.netIn + a.netOut; });
  return std::nullopt;
}

// The request's span names.
std::optional<TimeSpan> spanFromName(const std::string& name) {
  static const std::pair<const char*, TimeSpan> kSpans[] = {{"1h", TimeSpan::hour},
                                                            {"24h", TimeSpan::day},
                                                            {"7d", TimeSpan::week},
                                                            {"30d", TimeSpan::month},
                                                            {"1y", TimeSpan::year}};
  for (const auto& [text, span] : kSpans) {
    if (name == text) return span;
  }
  return std::nullopt;
}

bool answeredOffMain(const std::string& tool) {
  return tool == "history" || tool == "agents";
}

// The tools that only read a Snapshot; they can be answered from one taken on demand.
bool readsSnapshotOnly(const std::string& tool) {
  return tool == "status" || tool == "list_apps" || tool == "get_app";
}

}  // namespace

Control::Control(ControlHost& host, const Clock& clock, bool forLinux)
    : host_(host), clock_(clock), forLinux_(forLinux) {}

double Control::round1(double x) {
  return control::round1(x);
}

std::optional<std::string> Control::answerOffMain(const std::string& tool, const json& args) {
  if (readsSnapshotOnly(tool)) {
    // The first call after a cold start: answered from a sample taken now rather than with
    // "no sample yet" or an empty list.
    std::optional<Snapshot> cold;
    try {
      cold = host_.coldSnapshot();
    } catch (...) {  // a sampler that failed: the main thread answers as it can
    }
    if (!cold) return std::nullopt;
    return respond([&]() -> OJson {
      if (tool == "status") return status(cold);
      const json& a = argsObject(args);
      return tool == "list_apps" ? listApps(cold, a) : getApp(cold, a);
    });
  }
  if (!answeredOffMain(tool)) return std::nullopt;
  return respond([&]() -> OJson {
    const json& a = argsObject(args);
    return tool == "history" ? history(a) : agents();
  });
}

std::string Control::answerOnMain(const std::string& tool, const json& args) {
  if (answeredOffMain(tool)) return *answerOffMain(tool, args);
  return respond([&]() -> OJson {
    using Tool = OJson (Control::*)(const json&);
    static const std::pair<const char*, Tool> kTools[] = {{"alerts", &Control::alerts},
                                                          {"quit_app", &Control::quitApp}};
    const std::optional<Snapshot>& latest = host_.latestSnapshot();
    if (tool == "status") return status(latest);  // takes no arguments
    if (tool == "list_apps") return listApps(latest, argsObject(args));
    if (tool == "get_app") return getApp(latest, argsObject(args));
    for (const auto& [name, run] : kTools) {
      if (tool == name) return (this->*run)(argsObject(args));
    }
    throw Failure{"Unknown tool " + tool};
  });
}

OJson Control::status(const std::optional<Snapshot>& latest) {
  if (!latest) throw Failure{kNoSample};
  return control::statusObject(*latest, forLinux_, kBusiestApps);
}

OJson Control::listApps(const std::optional<Snapshot>& latest, const json& args) {
  const std::string sort = textArg(args, "sort", kBadSort).value_or("impact");
  const auto key = sortKey(sort);
  if (!key) throw Failure{kBadSort};
  const int64_t limit = countArg(args, "limit", kAppsDefault, kAppsMost);
  OJson out = OJson::array();
  if (!latest) return out;  // no sample to be had: nothing is known to run
  std::vector<const AppUsage*> apps;
  for (const AppUsage& app : latest->apps) apps.push_back(&app);
  std::stable_sort(apps.begin(), apps.end(),
                   [&](const AppUsage* a, const AppUsage* b) { return (*key)(*a) > (*key)(*b); });
  for (size_t i = 0; i < apps.size() && static_cast<int64_t>(i) < limit; ++i) {
    out.push_back(control::appObject(*apps[i], latest->power.apps.has_value()));
  }
  return out;
}

OJson Control::getApp(const std::optional<Snapshot>& latest, const json& args) {
  const AppUsage& app = findApp(latest, nameArg(args));
  const bool energyKnown = latest->power.apps.has_value();
  OJson out = control::appObject(app, energyKnown);
  OJson processes = OJson::array();
  for (int32_t pid : app.pids) {
    // A pid the snapshot's process table no longer lists has exited: left out.
    for (const ProcessSample& p : latest->processes) {
      if (p.pid == pid) {
        processes.push_back(control::processObject(p, energyKnown));
        break;
      }
    }
  }
  out["process_list"] = std::move(processes);
  return out;
}

OJson Control::history(const json& args) {
  const auto metricName = textArg(args, "metric", kBadMetric);
  const auto metric = metricName ? metricFromRaw(*metricName) : std::nullopt;
  if (!metric) throw Failure{kBadMetric};
  const std::string spanName = textArg(args, "span", kBadSpan).value_or("24h");
  const auto span = spanFromName(spanName);
  if (!span) throw Failure{kBadSpan};
  HistoryStore* store = host_.history();
  if (!store) throw Failure{kNoHistory};
  auto points = store->seriesSync(*metric, *span);
  auto apps = store->topAppsSync(*metric, *span, kHistoryApps);
  return control::historyObject(*metric, spanName, points, apps);
}

OJson Control::agents() {
  return control::agentsObject(host_.agentsNow(), clock_.now());
}

OJson Control::alerts(const json& args) {
  const int64_t limit = countArg(args, "limit", kAlertsDefault, kAlertsMost);
  OJson out = OJson::array();
  const auto& kept = host_.keptAlerts();  // newest first
  for (size_t i = 0; i < kept.size() && static_cast<int64_t>(i) < limit; ++i) {
    out.push_back(control::alertObject(kept[i]));
  }
  return out;
}

OJson Control::quitApp(const json& args) {
  // A copy: filing the request must not depend on the snapshot staying put.
  const AppUsage app = findApp(host_.latestSnapshot(), nameArg(args));
  if (!host_.canQuit(app)) throw Failure{app.name + platformTextFor(kCannotQuit, forLinux_)};
  // Only files the request; the person confirms or cancels it in the window.
  host_.confirmQuit(app);
  return std::string(kAskedBefore) + app.name + kAskedAfter;
}

}  // namespace vistrel
