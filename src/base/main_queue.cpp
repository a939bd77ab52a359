#include "base/main_queue.hpp"

#include <chrono>

namespace vistrel {

void ManualMainQueue::post(std::function<void()> task) {
  {
    std::lock_guard lock(mutex_);
    tasks_.push_back(std::move(task));
  }
  cv_.notify_all();
}

size_t ManualMainQueue::drain(size_t limit) {
  size_t ran = 0;
  while (ran < limit) {
    std::function<void()> task;
    {
      std::lock_guard lock(mutex_);
      if (tasks_.empty()) break;
      task = std::move(tasks_.front());
      tasks_.pop_front();
    }
    task();
    ++ran;
  }
  return ran;
}

void ManualMainQueue::run() {
  for (;;) {
    std::function<void()> task;
    {
      std::unique_lock lock(mutex_);
      cv_.wait(lock, [&] { return quit_ || !tasks_.empty(); });
      if (tasks_.empty()) return;  // quit and nothing left
      task = std::move(tasks_.front());
      tasks_.pop_front();
    }
    task();
  }
}

void ManualMainQueue::quit() {
  {
    std::lock_guard lock(mutex_);
    quit_ = true;
  }
  cv_.notify_all();
}

bool ManualMainQueue::waitForTask(double seconds) {
  std::unique_lock lock(mutex_);
  return cv_.wait_for(lock, std::chrono::duration<double>(seconds),
                      [&] { return !tasks_.empty(); });
}

size_t ManualMainQueue::pending() const {
  std::lock_guard lock(mutex_);
  return tasks_.size();
}

}  // namespace vistrel
