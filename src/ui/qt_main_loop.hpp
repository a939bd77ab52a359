#pragma once

#include <QObject>
#include <functional>
#include <mutex>

#include "base/main_queue.hpp"

namespace vistrel::ui {

// The main queue on Qt's event loop: tasks posted from any thread run on the thread that made the
// loop (the main thread), in order, between the toolkit's own events. `run` is the application's
// exec; `quit` is itself posted, so tasks posted before it still run.
class QtMainLoop final : public MainLoop {
 public:
  QtMainLoop();
  ~QtMainLoop() override;
  void post(std::function<void()> task) override;
  void run() override;
  void quit() override;
  // From now on posts are dropped: the application has ended, and a worker thread that outlived
  // it (a queue destroyed from its own thread finishes its task detached) must find nothing to
  // run rather than a toolkit being torn down.
  void close();

 private:
  std::mutex mutex_;  // held while posting, so that close waits for a post under way
  bool closed_ = false;
  QObject context_;  // lives on the main thread; queued calls are delivered through it
};

}  // namespace vistrel::ui
