#include "app/model.hpp"

#include <algorithm>
#include <cstdio>
#include <cstdlib>

#include "alerts/alert_engine.hpp"
#include "alerts/alert_log.hpp"
#include "format/fmt.hpp"

namespace vistrel {

namespace {

bool debugEnvironment() {
  static const bool on = std::getenv("VISTREL_DEBUG") != nullptr;
  return on;
}

}  // namespace

std::string alertLine(const AlertEvent& event) {
  std::string line = "alert " + std::string(rawValue(event.kind)) + ": " + event.title;
  if (!event.detail.empty()) line += " — " + event.detail;
  // One line each, whatever the texts hold (an app's name comes from outside).
  for (char& c : line) {
    if (c == '\n' || c == '\r') c = ' ';
  }
  return line;
}

Model::Model(Parts parts, const Clock& clock) : parts_(std::move(parts)), clock_(clock) {
  if (!parts_.defaults) {
    // Without a store the settings live for this run only.
    static MemoryUserDefaults fallback;
    parts_.defaults = &fallback;
  }
  settings_ = Settings::load(*parts_.defaults);
  Fmt::setBits(settings_.bits);
  Fmt::setFahrenheit(settings_.fahrenheit);
  alertEngine_ = std::make_unique<AlertEngine>(clock_, parts_.notifier);
  alertLog_ = std::make_unique<AlertLog>(*parts_.defaults, *alertEngine_, clock_);
  if (debugEnvironment()) {
    debugSink_ = [](std::string_view line) { std::fwrite(line.data(), 1, line.size(), stderr); };
  }
}

Model::~Model() {
  *alive_ = false;
  if (parts_.sampler) parts_.sampler->setOnSnapshot(nullptr);
}

void Model::start() {
  if (started_) return;
  started_ = true;
  std::weak_ptr<bool> alive = alive_;
  if (parts_.sampler) {
    // The sampler hands snapshots over on the main queue; the model may be gone by then.
    parts_.sampler->setOnSnapshot([this, alive](Snapshot s) {
      if (auto a = alive.lock(); a && *a) receive(std::move(s));
    });
  }
  if (parts_.history) parts_.history->applyRetention(settings_.retentionDays);
  updateInterval();
}

void Model::store(std::string_view key, nlohmann::json value) {
  parts_.defaults->set(key, std::move(value));
}

void Model::debug(const std::string& line) {
  if (debugSink_) debugSink_(line);
}

// --- Settings ---

void Model::setIntervalSeconds(double seconds) {
  seconds = clampInterval(seconds);
  if (seconds == settings_.intervalSeconds) return;
  settings_.intervalSeconds = seconds;
  store(keys::interval, seconds);
  updateInterval();
}

void Model::setRetentionDays(int days) {
  days = clampRetention(days);
  if (days == settings_.retentionDays) return;
  settings_.retentionDays = days;
  store(keys::retention, days);
  if (parts_.history) parts_.history->applyRetention(days);
}

void Model::setAppearance(Appearance appearance) {
  settings_.appearance = appearance;
  store(keys::appearance, std::string(rawValue(appearance)));
  if (hooks.applyAppearance) hooks.applyAppearance();
}

void Model::setFahrenheit(bool on) {
  settings_.fahrenheit = on;
  store(keys::fahrenheit, on);
  Fmt::setFahrenheit(on);
}

void Model::setBits(bool on) {
  settings_.bits = on;
  store(keys::bits, on);
  Fmt::setBits(on);
}

void Model::setShowInDock(bool on) {
  settings_.showInDock = on;
  store(keys::dock, on);
  if (hooks.applyDock) hooks.applyDock();
}

void Model::setMenuItems(std::vector<Metric> items) {
  settings_.menuItems = std::move(items);
  nlohmann::json raw = nlohmann::json::array();
  for (Metric m : settings_.menuItems) raw.push_back(std::string(rawValue(m)));
  store(keys::menuItems, std::move(raw));
  if (hooks.menuItemsChanged) hooks.menuItemsChanged();
}

void Model::setMcpEnabled(bool on) {
  if (on == settings_.mcpEnabled) return;  // observers see changes only
  settings_.mcpEnabled = on;
  store(keys::mcpEnabled, on);
  for (auto& observer : mcpObservers_) observer(on);
}

void Model::observeMcpEnabled(std::function<void(bool)> observer) {
  observer(settings_.mcpEnabled);
  mcpObservers_.push_back(std::move(observer));
}

void Model::setOpenAtLogin(bool on) {
  settings_.openAtLogin = on;
  store(keys::openAtLogin, on);
}

bool Model::takeFirstLaunch() {
  if (settings_.welcomed) return false;
  settings_.welcomed = true;
  store(keys::welcomed, true);
  showWelcome_ = true;
  return true;
}

// --- State ---

void Model::setPage(Page page) {
  page_ = page;
  if (page == Page::alerts) alertLog_->markRead();
}

void Model::setWindowVisible(bool visible) {
  if (visible == windowVisible_) return;
  windowVisible_ = visible;
  debug(std::string("windowVisible ") + (visible ? "true" : "false") + "\n");
  updateInterval();
  // An opened window never shows stale data until the next tick.
  if (visible) publish();
}

void Model::setPanelVisible(bool visible) {
  if (visible == panelVisible_) return;
  panelVisible_ = visible;
  updateInterval();
}

double Model::effectiveInterval() const {
  bool background = !windowVisible_ && !panelVisible_;
  return background ? std::max(settings_.intervalSeconds, kBackgroundFloor)
                    : settings_.intervalSeconds;
}

void Model::updateInterval() {
  if (!started_ || !parts_.sampler) return;
  bool background = !windowVisible_ && !panelVisible_;
  parts_.sampler->setBackground(background);
  if (!samplerStarted_) {
    samplerStarted_ = true;
    parts_.sampler->start(effectiveInterval());
  } else {
    parts_.sampler->setInterval(effectiveInterval());
  }
}

void Model::addObserver(std::function<void(const Snapshot&)> observer) {
  observers_.push_back(std::move(observer));
}

void Model::publish() {
  if (!latest_) return;
  for (auto& observer : observers_) observer(*latest_);
}

// --- The receiver ---

void Model::receive(Snapshot snapshot) {
  latest_ = std::move(snapshot);
  const Snapshot& s = *latest_;
  if (hooks.windowOnScreen) setWindowVisible(hooks.windowOnScreen());
  dataArrived_ = true;

  double now = clock_.uptime();
  if (hooks.refreshAgents) {
    hooks.refreshAgents(
        s, page_ == Page::agents && windowVisible_ ? kAgentsGapShowing : kAgentsGapHidden);
  }

  for (Metric m : kAllMetrics) {
    auto& series = live_[static_cast<size_t>(m)];
    series.push_back(s.level(m));
    if (series.size() > kLivePoints) series.pop_front();
  }

  if (windowVisible_ || panelVisible_) publish();
  if (hooks.onSample) hooks.onSample();
  if (parts_.history) parts_.history->record(s);

  auto events = alertLog_->receive(s, page_ == Page::alerts);
  for (const auto& event : events) {
    if (hooks.onAlert) {
      hooks.onAlert(event);
    } else {
      debug(alertLine(event) + "\n");
    }
  }

  if (parts_.history && now - totalsAt_ > kTotalsEvery) {
    totalsAt_ = now;
    std::weak_ptr<bool> alive = alive_;
    parts_.history->totals([this, alive](Totals totals) {
      if (auto a = alive.lock(); a && *a) totals_ = std::move(totals);
    });
  }
}

// --- Quit requests ---

bool Model::canQuit(const AppUsage& app) const {
  static const std::vector<ProcessSample> none;
  return vistrel::canQuit(app, latest_ ? latest_->processes : none, QuitContext::current());
}

void Model::confirmQuit(const AppUsage& app) {
  if (!canQuit(app)) return;
  quitRequest_ = QuitRequest::forApp(app);
  if (hooks.quitRequested) hooks.quitRequested();
}

void Model::confirmEndSession(const std::string& agent, const std::string& folder) {
  quitRequest_ = QuitRequest::forAgent(agent, folder);
  if (hooks.quitRequested) hooks.quitRequested();
}

void Model::setQuitTools(std::shared_ptr<SignalSender> signals, std::shared_ptr<AppQuitter> apps) {
  signals_ = std::move(signals);
  appQuitter_ = std::move(apps);
}

std::string Model::perform(const QuitRequest& request, bool force) {
  if (!quitRequest_ || quitRequest_->id != request.id) return "";
  const QuitRequest confirmed = std::move(*quitRequest_);
  quitRequest_.reset();
  if (!signals_) signals_ = makeSignalSender();
  // The platform quitter may send through the signal sender, which the shared pointer keeps alive.
  if (!appQuitter_) appQuitter_ = makeAppQuitter(*signals_);
  static const Snapshot empty;
  QuitOutcome outcome = performQuit(confirmed, force, latest_ ? *latest_ : empty, *appQuitter_,
                                    *signals_, QuitContext::current().ownPid);
  return quitToast(confirmed, force, outcome);
}

}  // namespace vistrel
