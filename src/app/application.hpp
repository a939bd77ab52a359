#pragma once

#include <memory>
#include <optional>
#include <string>

#include "app/model.hpp"
#include "base/clock.hpp"
#include "base/main_queue.hpp"
#include "base/user_defaults.hpp"
#include "history/history_store.hpp"
#include "sampling/sampler.hpp"

namespace vistrel {

// Options of the application mode, read from the environment by `fromEnvironment`.
struct ApplicationOptions {
  std::optional<int> quitAfterTicks;  // VISTREL_TEST_QUIT: end after this many snapshots
  bool printStatus = false;           // one status line per tick on standard output (a terminal)
  std::string historyFolder;          // where history.sqlite lives; empty: the support folder

  static ApplicationOptions fromEnvironment();
};

// The application without a window: the model with its sampler, history and alerts, run on the
// calling (main) thread until asked to end.
class Application {
 public:
  // `defaults` null: the platform's user defaults.
  Application(ApplicationOptions options, SamplerParts parts, ManualMainQueue& main,
              const Clock& clock = Clock::system(), std::unique_ptr<UserDefaults> defaults = {});
  ~Application();

  // Starts the model and runs the main queue until `requestQuit`, then writes the minute in
  // progress to the history. Returns the exit status.
  int run();
  // Thread-safe: ends `run` after the tasks already posted.
  void requestQuit();

  Model& model() { return *model_; }
  HistoryStore& history() { return *history_; }
  int snapshotsReceived() const { return received_; }

 private:
  void sampled();

  ApplicationOptions options_;
  ManualMainQueue& main_;
  std::unique_ptr<UserDefaults> defaults_;
  std::shared_ptr<Sampler> sampler_;
  // Records every snapshot; without a usable database it runs empty and the application goes on.
  std::unique_ptr<HistoryStore> history_;
  std::unique_ptr<Model> model_;
  int received_ = 0;
};

// The application mode of the executable: blocks SIGINT and SIGTERM, turns them into a clean quit,
// and runs the headless application. Returns the process's exit status.
int runApplicationMode();

}  // namespace vistrel
