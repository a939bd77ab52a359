#pragma once

#include <chrono>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <type_traits>
#include <utility>

namespace vistrel {

// One worker thread running tasks in the order they were queued, plus repeating timers that fire on
// the same thread. Everything a component owns that is touched only from its queue needs no lock.
class SerialQueue {
 public:
  using TimePoint = std::chrono::steady_clock::time_point;

  // A repeating timer on a queue. Its handler runs on the queue's thread; the handle may be used
  // from any thread and outlive the queue (then it does nothing).
  class Timer {
   public:
    virtual ~Timer() = default;
    // Stops the timer; a handler already running finishes, no later one starts.
    virtual void cancel() = 0;
    virtual bool cancelled() const = 0;
    // Replaces the period; the next fire is `firstDelay` seconds from now.
    virtual void reschedule(double firstDelay, double period) = 0;
    virtual double period() const = 0;
    virtual TimePoint nextDeadline() const = 0;
    virtual uint64_t fireCount() const = 0;
  };

  explicit SerialQueue(std::string label);
  ~SerialQueue();
  SerialQueue(const SerialQueue&) = delete;
  SerialQueue& operator=(const SerialQueue&) = delete;

  const std::string& label() const { return label_; }

  // Queues `task`. After shutdown the task is dropped.
  void async(std::function<void()> task);

  // Runs `task` on the queue and waits for it. Refuses (std::logic_error) when called from the
  // queue's own thread, where waiting would deadlock, and after shutdown.
  void sync(const std::function<void()>& task);

  template <class F>
  auto syncValue(F&& f) -> std::invoke_result_t<F&> {
    using R = std::invoke_result_t<F&>;
    std::optional<R> out;
    sync([&] { out.emplace(f()); });
    return std::move(*out);
  }

  // True on the queue's own thread.
  bool isCurrent() const;

  // A timer whose first fire is `firstDelay` seconds from now, then every `period` seconds. A fire
  // that comes late is not made up for: the next deadline is one period after the late fire.
  std::shared_ptr<Timer> schedule(double firstDelay, double period, std::function<void()> handler);

  // Cancels every timer, runs the tasks already queued, and joins the worker. Idempotent. From the
  // queue's own thread it only stops the loop (the worker is detached, since it cannot join
  // itself).
  void shutdown();

 private:
  struct State;
  class TimerImpl;
  std::string label_;
  std::shared_ptr<State> state_;
};

}  // namespace vistrel
