#pragma once

// Turns one control request {"tool", "args"} into its answer line: {"ok": true, "result": ...} or
// {"ok": false, "error": text}, compact JSON. The seven tools are the MCP tools under the same
// names: status, list_apps, get_app, history, agents, alerts and quit_app.
//
// Every failure is an answer, never an exception out of here: a wrong argument type, an unknown
// value, a huge number or a failing source gives {"ok": false, ...}. No request changes anything
// except quit_app, which only files a request for the person to confirm (ControlHost::confirmQuit);
// this class has no way to quit or signal anything itself.

#include <cstdint>
#include <optional>
#include <string>

#include <nlohmann/json.hpp>

#include "base/clock.hpp"
#include "control/control_handler.hpp"
#include "control/control_host.hpp"
#include "format/platform_text.hpp"

namespace vistrel {

class Control final : public ControlHandler {
 public:
  // Argument defaults and bounds.
  static constexpr int64_t kAppsDefault = 15;    // list_apps
  static constexpr int64_t kAppsMost = 100;      // list_apps
  static constexpr int64_t kAlertsDefault = 10;  // alerts
  static constexpr int64_t kAlertsMost = 200;    // alerts
  static constexpr size_t kBusiestApps = 5;      // status
  static constexpr int kHistoryApps = 5;         // history's top_apps

  // `clock`: "now" for the agents' windows. `forLinux`: the platform's words in texts that name
  // the machine (tests choose; the application passes the build's platform).
  explicit Control(ControlHost& host, const Clock& clock = Clock::system(),
                   bool forLinux = runningOnLinux());

  // history and agents (they read the database and the agents' files); status, list_apps and
  // get_app too while the application has no Snapshot yet, from one taken on demand
  // (ControlHost::coldSnapshot); nullopt for the others.
  std::optional<std::string> answerOffMain(const std::string& tool,
                                           const nlohmann::json& args) override;
  // Every tool (history and agents too, should they arrive here); unknown tools are answered with
  // "Unknown tool " + the name.
  std::string answerOnMain(const std::string& tool, const nlohmann::json& args) override;

  // One decimal place, halves away from zero: how percentages and watts are written.
  static double round1(double x);

  // Texts of the answers.
  static constexpr const char* kNoMatch = "No running app matches that name. Use list_apps.";
  static constexpr const char* kBadMetric =
      "metric must be cpu, memory, gpu, disk, network, battery or heat.";
  static constexpr const char* kBadSpan = "span must be 1h, 24h, 7d, 30d or 1y.";
  static constexpr const char* kBadSort =
      "sort must be impact, cpu, memory, energy, disk or network.";
  static constexpr const char* kBadLimit = "limit must be a whole number.";
  static constexpr const char* kBadArgs = "args must be an object.";
  static constexpr const char* kNeedName = "name must be an app's name, as list_apps shows it.";
  static constexpr const char* kNoSample =
      "Vistrel hasn't taken its first sample yet. Ask again in a few seconds.";
  static constexpr const char* kNoHistory =
      "Vistrel is running without its history, so there is nothing recorded to show.";
  static constexpr const char* kFailed = "Something went wrong.";
  // After the app's name.
  static constexpr const char* kCannotQuit =
      " can't be quit from Vistrel (it belongs to macOS or another user).";

  // Before and after the app's name.
  static constexpr const char* kAskedBefore =
      "Asked the person in Vistrel's window whether to quit ";
  static constexpr const char* kAskedAfter =
      ". Nothing has quit yet; it quits only if they confirm.";

 private:
  // The tools that read a Snapshot: the application's newest, or one taken on demand.
  nlohmann::ordered_json status(const std::optional<Snapshot>& latest);
  nlohmann::ordered_json listApps(const std::optional<Snapshot>& latest,
                                  const nlohmann::json& args);
  nlohmann::ordered_json getApp(const std::optional<Snapshot>& latest, const nlohmann::json& args);
  nlohmann::ordered_json history(const nlohmann::json& args);
  nlohmann::ordered_json agents();
  nlohmann::ordered_json alerts(const nlohmann::json& args);
  nlohmann::ordered_json quitApp(const nlohmann::json& args);

  ControlHost& host_;
  const Clock& clock_;
  bool forLinux_;
};

}  // namespace vistrel
