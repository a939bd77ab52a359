#include "base/serial_queue.hpp"

#include <algorithm>
#include <cmath>
#include <condition_variable>
#include <deque>
#include <mutex>
#include <stdexcept>
#include <thread>
#include <vector>

#include "base/thread_name.hpp"

namespace vistrel {

namespace {

SerialQueue::TimePoint::duration toDuration(double seconds) {
  // Clamp so that a huge period cannot overflow the clock's representation.
  seconds = std::clamp(seconds, 0.0, 1e9);
  return std::chrono::duration_cast<SerialQueue::TimePoint::duration>(
      std::chrono::duration<double>(seconds));
}

}  // namespace

struct SerialQueue::State {
  std::mutex mutex;
  std::condition_variable cv;
  std::deque<std::function<void()>> tasks;
  std::vector<std::shared_ptr<TimerImpl>> timers;
  bool stopping = false;
  std::thread worker;
  std::thread::id workerId;

  void loop();
};

class SerialQueue::TimerImpl final : public SerialQueue::Timer {
 public:
  TimerImpl(std::weak_ptr<State> state, TimePoint first, double period, std::function<void()> h)
      : state_(std::move(state)), deadline_(first), period_(period), handler_(std::move(h)) {}

  void cancel() override {
    if (auto s = state_.lock()) {
      std::lock_guard lock(s->mutex);
      cancelled_ = true;
      s->cv.notify_all();
    } else {
      cancelled_ = true;
    }
  }
  bool cancelled() const override {
    if (auto s = state_.lock()) {
      std::lock_guard lock(s->mutex);
      return cancelled_;
    }
    return cancelled_;
  }
  void reschedule(double firstDelay, double period) override {
    if (auto s = state_.lock()) {
      std::lock_guard lock(s->mutex);
      period_ = period;
      deadline_ = std::chrono::steady_clock::now() + toDuration(firstDelay);
      s->cv.notify_all();
    }
  }
  double period() const override {
    auto s = state_.lock();
    if (!s) return period_;
    std::lock_guard lock(s->mutex);
    return period_;
  }
  TimePoint nextDeadline() const override {
    auto s = state_.lock();
    if (!s) return deadline_;
    std::lock_guard lock(s->mutex);
    return deadline_;
  }
  uint64_t fireCount() const override {
    auto s = state_.lock();
    if (!s) return fires_;
    std::lock_guard lock(s->mutex);
    return fires_;
  }

  // Guarded by State::mutex.
  std::weak_ptr<State> state_;
  TimePoint deadline_;
  double period_;
  std::function<void()> handler_;
  bool cancelled_ = false;
  uint64_t fires_ = 0;
};

void SerialQueue::State::loop() {
  std::unique_lock lock(mutex);
  for (;;) {
    // Forget cancelled timers.
    std::erase_if(timers, [](const auto& t) { return t->cancelled_; });
    if (!tasks.empty()) {
      auto task = std::move(tasks.front());
      tasks.pop_front();
      lock.unlock();
      task();
      lock.lock();
      continue;
    }
    if (stopping) return;
    auto now = std::chrono::steady_clock::now();
    std::shared_ptr<TimerImpl> due;
    TimePoint earliest = TimePoint::max();
    for (auto& t : timers) {
      if (t->deadline_ <= now && (!due || t->deadline_ < due->deadline_)) due = t;
      earliest = std::min(earliest, t->deadline_);
    }
    if (due) {
      // Next deadline one period after this one, or after now when the fire came late.
      auto period = toDuration(due->period_);
      due->deadline_ += period;
      if (due->deadline_ <= now) due->deadline_ = now + period;
      ++due->fires_;
      auto handler = due->handler_;
      lock.unlock();
      handler();
      lock.lock();
      continue;
    }
    if (earliest == TimePoint::max()) {
      cv.wait(lock);
    } else {
      cv.wait_until(lock, earliest);
    }
  }
}

SerialQueue::SerialQueue(std::string label)
    : label_(std::move(label)), state_(std::make_shared<State>()) {
  auto state = state_;
  std::string name = label_;
  std::unique_lock lock(state->mutex);
  state->worker = std::thread([state, name] {
    setCurrentThreadName(name);
    state->loop();
  });
  state->workerId = state->worker.get_id();
}

SerialQueue::~SerialQueue() {
  shutdown();
}

void SerialQueue::async(std::function<void()> task) {
  {
    std::lock_guard lock(state_->mutex);
    if (state_->stopping) return;
    state_->tasks.push_back(std::move(task));
  }
  state_->cv.notify_all();
}

void SerialQueue::sync(const std::function<void()>& task) {
  if (isCurrent()) throw std::logic_error("SerialQueue::sync called on its own queue: " + label_);
  std::mutex doneMutex;
  std::condition_variable doneCv;
  bool done = false;
  std::exception_ptr error;
  {
    std::lock_guard lock(state_->mutex);
    if (state_->stopping) throw std::logic_error("SerialQueue::sync after shutdown: " + label_);
    state_->tasks.push_back([&] {
      try {
        task();
      } catch (...) {
        error = std::current_exception();
      }
      std::lock_guard l(doneMutex);
      done = true;
      doneCv.notify_all();
    });
  }
  state_->cv.notify_all();
  std::unique_lock l(doneMutex);
  doneCv.wait(l, [&] { return done; });
  if (error) std::rethrow_exception(error);
}

bool SerialQueue::isCurrent() const {
  return std::this_thread::get_id() == state_->workerId;
}

std::shared_ptr<SerialQueue::Timer> SerialQueue::schedule(double firstDelay, double period,
                                                          std::function<void()> handler) {
  auto timer =
      std::make_shared<TimerImpl>(state_, std::chrono::steady_clock::now() + toDuration(firstDelay),
                                  period, std::move(handler));
  {
    std::lock_guard lock(state_->mutex);
    if (state_->stopping) {
      timer->cancelled_ = true;
      return timer;
    }
    state_->timers.push_back(timer);
  }
  state_->cv.notify_all();
  return timer;
}

void SerialQueue::shutdown() {
  {
    std::lock_guard lock(state_->mutex);
    if (state_->stopping && !state_->worker.joinable()) return;
    state_->stopping = true;
    for (auto& t : state_->timers) t->cancelled_ = true;
  }
  state_->cv.notify_all();
  if (!state_->worker.joinable()) return;
  if (isCurrent()) {
    state_->worker.detach();
  } else {
    state_->worker.join();
  }
}

}  // namespace vistrel
