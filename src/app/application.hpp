#pragma once

#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

#include "agents/agents_monitor.hpp"
#include "app/control_host_impl.hpp"
#include "app/model.hpp"
#include "base/clock.hpp"
#include "base/main_queue.hpp"
#include "base/user_defaults.hpp"
#include "control/control.hpp"
#include "control/control_server.hpp"
#include "history/history_store.hpp"
#include "sampling/sampler.hpp"

namespace vistrel {

// Options of the application mode, read from the environment by `fromEnvironment`.
struct ApplicationOptions {
  std::optional<int> quitAfterTicks;  // VISTREL_TEST_QUIT: end after this many snapshots
  bool printStatus = false;           // one status line per tick on standard output (a terminal)
  bool alertLines = false;            // each raised alert as one line on standard error (headless)
  std::string supportFolder;          // history, control socket; empty: the platform's folders
  AgentsMonitor::Options agents;      // the agents' folders (tests point them at fixtures)

  static ApplicationOptions fromEnvironment();
};

// The application without a window: the model with its sampler, history, alerts and coding
// agents, and the control socket for AI agents while their access is on; run on the calling
// (main) thread until asked to end.
class Application {
 public:
  // `defaults` null: the platform's user defaults.
  Application(ApplicationOptions options, SamplerParts parts, MainLoop& main,
              const Clock& clock = Clock::system(), std::unique_ptr<UserDefaults> defaults = {});
  ~Application();

  // Starts the model and runs the main queue until `requestQuit`, then writes the minute in
  // progress to the history. Returns the exit status.
  int run();
  // Thread-safe: ends `run` after the tasks already posted.
  void requestQuit();

  Model& model() { return *model_; }
  MainLoop& mainLoop() { return main_; }
  UserDefaults& defaults() { return *defaults_; }
  AgentsMonitor& agentsMonitor() { return *agents_; }
  ControlServer& controlServer() { return *controlServer_; }
  HistoryStore& history() { return *history_; }
  int snapshotsReceived() const { return received_; }

 private:
  void sampled();

  ApplicationOptions options_;
  MainLoop& main_;
  std::unique_ptr<UserDefaults> defaults_;
  std::shared_ptr<Sampler> sampler_;
  // Records every snapshot; without a usable database it runs empty and the application goes on.
  std::unique_ptr<HistoryStore> history_;
  std::unique_ptr<Model> model_;
  std::unique_ptr<AgentsMonitor> agents_;
  std::unique_ptr<ModelControlHost> controlHost_;
  std::unique_ptr<Control> control_;
  // Declared last: stopped first, so no request reaches the parts above while they go.
  std::unique_ptr<ControlServer> controlServer_;
  int received_ = 0;
  // The newest live agent sessions, for agent requests answered on a connection's thread.
  std::mutex sessionsLock_;
  std::vector<AgentSession> latestSessions_;
};

// What a window adds to the application. Made on the main thread once the application exists and
// before it starts; destroyed after its loop has ended and before the application goes.
class ApplicationShell {
 public:
  virtual ~ApplicationShell() = default;
};
using ShellFactory = std::function<std::unique_ptr<ApplicationShell>(Application&)>;

// Blocks SIGINT and SIGTERM in the calling thread and every thread it starts from now on, so that
// only the waiter of `runApplicationMode` takes them. Call it before anything starts a thread.
void blockTerminationSignals();

// The application mode of the executable: blocks SIGINT and SIGTERM, turns them into a clean quit,
// and runs the application on `loop`: headless (on a manual queue, saying so on standard error)
// when `shell` is empty, else with what the shell makes. Returns the process's exit status.
int runApplicationMode();
int runApplicationMode(MainLoop& loop, const ShellFactory& shell, ApplicationOptions options);

}  // namespace vistrel
