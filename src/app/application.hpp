#pragma once

#include <functional>
#include <memory>
#include <optional>
#include <string>

#include "base/clock.hpp"
#include "base/main_queue.hpp"
#include "history/history_store.hpp"
#include "sampling/records.hpp"
#include "sampling/sampler.hpp"

namespace vistrel {

// Options of the application mode, read from the environment by `fromEnvironment`.
struct ApplicationOptions {
  double interval = 2;                // seconds between ticks
  std::optional<int> quitAfterTicks;  // VISTREL_TEST_QUIT: end after this many snapshots
  bool printStatus = false;           // one status line per tick on standard output (a terminal)
  std::string historyFolder;          // where history.sqlite lives; empty: the support folder

  static ApplicationOptions fromEnvironment();
};

// The application without a window: the sampler with the real readers, a receiver on the main queue
// that keeps the latest snapshot, and a clean end on request. Runs on the calling (main) thread.
class Application {
 public:
  Application(ApplicationOptions options, SamplerParts parts, ManualMainQueue& main,
              const Clock& clock = Clock::system());
  ~Application();

  // Starts the sampler and runs the main queue until `requestQuit`. Returns the exit status.
  int run();
  // Thread-safe: ends `run` after the tasks already posted.
  void requestQuit();

  const std::optional<Snapshot>& latest() const { return latest_; }
  int snapshotsReceived() const { return received_; }
  HistoryStore& history() { return *history_; }

 private:
  void receive(Snapshot snapshot);

  ApplicationOptions options_;
  ManualMainQueue& main_;
  std::shared_ptr<Sampler> sampler_;
  std::optional<Snapshot> latest_;
  int received_ = 0;
  // Records every snapshot; without a usable database it runs empty and the application goes on.
  std::unique_ptr<HistoryStore> history_;
};

// The application mode of the executable: blocks SIGINT and SIGTERM, turns them into a clean quit,
// and runs the headless application. Returns the process's exit status.
int runApplicationMode();

}  // namespace vistrel
