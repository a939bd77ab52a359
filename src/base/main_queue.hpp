#pragma once

#include <condition_variable>
#include <deque>
#include <functional>
#include <mutex>

namespace vistrel {

// The main thread's queue. Components hand results back through it; the user interface implements
// it on its event loop. `post` may be called from any thread and never runs the task inline.
class MainQueue {
 public:
  virtual ~MainQueue() = default;
  virtual void post(std::function<void()> task) = 0;
};

// A main queue that is also the main thread's loop: `run` runs posted tasks until `quit` (which
// any thread may call; tasks posted before it still run). The headless application uses the
// manual queue below; the window runs it on its toolkit's event loop.
class MainLoop : public MainQueue {
 public:
  virtual void run() = 0;
  virtual void quit() = 0;
};

// A main queue driven by hand: tests call `drain`, the headless application calls `run` on its
// main thread until `quit`.
class ManualMainQueue final : public MainLoop {
 public:
  void post(std::function<void()> task) override;

  // Runs every task posted so far (and those they post, up to `limit` tasks). Returns how many ran.
  size_t drain(size_t limit = 100000);

  // Runs tasks as they arrive until `quit` is called; tasks already posted when quit is called
  // still run. Returns at once when quit was called before.
  void run() override;
  void quit() override;

  // Waits until at least one task is pending or `seconds` have passed; true when a task is pending.
  bool waitForTask(double seconds);

  size_t pending() const;

 private:
  mutable std::mutex mutex_;
  std::condition_variable cv_;
  std::deque<std::function<void()>> tasks_;
  bool quit_ = false;
};

}  // namespace vistrel
