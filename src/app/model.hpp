#pragma once

#include <array>
#include <deque>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "agents/agent_records.hpp"
#include "app/settings.hpp"
#include "base/clock.hpp"
#include "base/user_defaults.hpp"
#include "control/quit_request.hpp"
#include "history/history_store.hpp"
#include "sampling/records.hpp"
#include "sampling/sampler.hpp"

namespace vistrel {

class AlertEngine;
class AlertLog;
class AlertNotifier;
struct AlertEvent;

// The application model: settings, what the window shows, the live series, and the snapshot
// receiver that feeds the history and the alerts. Qt-free; runs on the main thread only. The user
// interface fills the hooks; headless, they stay empty.
// One line for an alert, without a newline: "alert <kind>: <title> — <detail>".
std::string alertLine(const AlertEvent& event);

class Model {
 public:
  // Optional callbacks installed by the application delegate (the window, the menu-bar items).
  struct Hooks {
    std::function<void()> openWindow;
    std::function<bool()> windowOnScreen;  // the window is really visible to the user
    std::function<void()> applyAppearance;
    std::function<void()> applyDock;
    std::function<void()> menuItemsChanged;
    std::function<void()> onSample;  // redraw the menu-bar items
    // Each newly raised alert, oldest first, after it has been filed. Headless, the application
    // writes it to standard error (`alertLine`); the debug line is then left out.
    std::function<void(const AlertEvent&)> onAlert;
    // Ask the coding-agents monitor to refresh with this tick's live agent sessions, no sooner than
    // `minimumGap` seconds after its last refresh (the monitor enforces the gap).
    std::function<void(const Snapshot&, double minimumGap)> refreshAgents;
    // A quit request was filed (or replaced a pending one): bring the window forward and ask the
    // person. Left empty where nothing can be shown (no display), so nobody can be asked.
    std::function<void()> quitRequested;
  };

  struct Parts {
    std::shared_ptr<Sampler> sampler;
    HistoryStore* history = nullptr;  // may be null: the application runs without history
    UserDefaults* defaults = nullptr;
    AlertNotifier* notifier = nullptr;  // null: no notifications (headless)
  };

  // Points kept per metric in the live series: five minutes at the 2-second interval.
  static constexpr size_t kLivePoints = 150;
  // Minimum seconds between agent refreshes: while the agents page is on screen, and otherwise.
  static constexpr double kAgentsGapShowing = 4.5;
  static constexpr double kAgentsGapHidden = 120;
  // Seconds between two readings of the history's totals.
  static constexpr double kTotalsEvery = 60;
  // The interval's floor while nothing is visible (the menu bar alone).
  static constexpr double kBackgroundFloor = 5;

  Model(Parts parts, const Clock& clock = Clock::system());
  ~Model();
  Model(const Model&) = delete;
  Model& operator=(const Model&) = delete;

  Hooks hooks;

  // Installs the receiver as the sampler's consumer and starts sampling with the interval rule.
  void start();

  // --- Settings (each stored at once) ---
  const Settings& settings() const { return settings_; }
  void setIntervalSeconds(double seconds);
  void setRetentionDays(int days);
  void setAppearance(Appearance appearance);
  void setFahrenheit(bool on);
  void setBits(bool on);
  void setShowInDock(bool on);
  void setMenuItems(std::vector<Metric> items);
  void setMcpEnabled(bool on);
  void setOpenAtLogin(bool on);
  // Calls `observer` with the current value now, then on every change (duplicates removed).
  void observeMcpEnabled(std::function<void(bool)> observer);

  // --- State ---
  Page page() const { return page_; }
  void setPage(Page page);
  bool windowVisible() const { return windowVisible_; }
  void setWindowVisible(bool visible);
  bool panelVisible() const { return panelVisible_; }
  void setPanelVisible(bool visible);
  bool showWelcome() const { return showWelcome_; }
  void setShowWelcome(bool show) { showWelcome_ = show; }
  // Once per user account: true the first time, after which "welcomed" is stored.
  bool takeFirstLaunch();

  // --- Data ---
  const std::optional<Snapshot>& latest() const { return latest_; }
  bool dataArrived() const { return dataArrived_; }
  const std::deque<double>& live(Metric m) const { return live_[static_cast<size_t>(m)]; }
  const std::optional<Totals>& totals() const { return totals_; }
  AlertLog& alerts() { return *alertLog_; }
  // The coding agents as last read by the agents monitor; empty until the first refresh.
  const AgentsSnapshot& agents() const { return agents_; }
  void setAgents(AgentsSnapshot agents) { agents_ = std::move(agents); }
  AlertEngine& alertEngine() { return *alertEngine_; }

  // Observers of published snapshots: called only while the window or the panel is visible, and
  // at once when the window becomes visible.
  void addObserver(std::function<void(const Snapshot&)> observer);

  // The receiver, in order: keep the snapshot, re-check the window, mark data arrived, ask for an
  // agents refresh, extend the live series, publish while visible, redraw the menu bar, record
  // the history, run the alerts, and read the totals when a minute has passed.
  void receive(Snapshot snapshot);

  // The sampling interval rule; runs at start and whenever visibility or the interval changes.
  void updateInterval();
  // The interval the rule gives for the current state.
  double effectiveInterval() const;

  // --- Quit requests: nothing quits without the person's confirmation ---
  // The pending request, shown by the window as a confirmation dialog; absent when none. Until the
  // window exists a pending request is only held.
  const std::optional<QuitRequest>& quitRequest() const { return quitRequest_; }
  // Whether the app may be asked to quit at all, judged against the newest snapshot (see
  // `quitRefusal`: not the system's, not a macOS bundle, not this application, only this user's).
  bool canQuit(const AppUsage& app) const;
  // When `canQuit(app)`, files a new request for the app (replacing a pending one). Never quits.
  void confirmQuit(const AppUsage& app);
  // Whether a person can be asked to confirm here: a window is there to show the question.
  bool canAskPerson() const { return static_cast<bool>(hooks.quitRequested); }
  // Files a request to end a coding-agent session (the agent's name, the session's folder).
  void confirmEndSession(const std::string& agent, const std::string& folder);
  // Carries out the request the person confirmed, as a normal or a forced quit, then clears it and
  // returns the toast's text. Only the pending request can be carried out: any other (an old or a
  // made-up one) does nothing and gives an empty text.
  std::string perform(const QuitRequest& request, bool force);
  // The person cancelled the dialog: clears the request; nothing else happens.
  void cancelQuit() { quitRequest_.reset(); }
  // How `perform` reaches processes: the platform's unless replaced (tests pass recording fakes).
  void setQuitTools(std::shared_ptr<SignalSender> signals, std::shared_ptr<AppQuitter> apps);

  // Where debug lines go (windowVisible changes, raised alerts). Default: standard error when
  // VISTREL_DEBUG is set, else nowhere.
  void setDebugSink(std::function<void(std::string_view)> sink) { debugSink_ = std::move(sink); }

 private:
  void debug(const std::string& line);
  void publish();
  void store(std::string_view key, nlohmann::json value);

  Parts parts_;
  const Clock& clock_;
  Settings settings_;
  Page page_ = Page::overview;
  bool windowVisible_ = false;
  bool panelVisible_ = false;
  bool showWelcome_ = false;
  bool started_ = false;
  bool samplerStarted_ = false;
  std::optional<Snapshot> latest_;
  bool dataArrived_ = false;
  std::array<std::deque<double>, kAllMetrics.size()> live_;
  std::optional<Totals> totals_;
  double totalsAt_ = -1e9;  // uptime seconds of the last totals request
  AgentsSnapshot agents_;
  std::vector<std::function<void(const Snapshot&)>> observers_;
  std::vector<std::function<void(bool)>> mcpObservers_;
  std::unique_ptr<AlertEngine> alertEngine_;
  std::unique_ptr<AlertLog> alertLog_;
  std::function<void(std::string_view)> debugSink_;
  std::optional<QuitRequest> quitRequest_;
  std::shared_ptr<SignalSender> signals_;  // created on first use when not injected
  std::shared_ptr<AppQuitter> appQuitter_;
  std::shared_ptr<bool> alive_ = std::make_shared<bool>(true);  // held weakly by callbacks
};

}  // namespace vistrel
