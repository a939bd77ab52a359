#include "base/serial_queue.hpp"

#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <stdexcept>
#include <thread>
#include <vector>

namespace vistrel {
namespace {

using namespace std::chrono_literals;

// Polls `done` until it holds; a stuck queue fails the test after a generous bound instead of
// hanging CI. Nothing here measures time.
template <class F>
bool eventually(F done) {
  for (int i = 0; i < 4000; ++i) {
    if (done()) return true;
    std::this_thread::sleep_for(5ms);
  }
  return done();
}

TEST(SerialQueue, RunsTasksInOrderOnOneThread) {
  SerialQueue queue("org.brackwood.vistrel.test");
  std::vector<int> order;
  std::thread::id worker;
  bool sameThread = true;
  for (int i = 0; i < 100; ++i) {
    queue.async([&, i] {
      if (i == 0) worker = std::this_thread::get_id();
      sameThread = sameThread && std::this_thread::get_id() == worker;
      order.push_back(i);
    });
  }
  queue.sync([] {});
  ASSERT_EQ(order.size(), 100u);
  for (int i = 0; i < 100; ++i) EXPECT_EQ(order[i], i);
  EXPECT_TRUE(sameThread);
  EXPECT_NE(worker, std::this_thread::get_id());
}

TEST(SerialQueue, SyncRefusesOnItsOwnThreadAndPassesExceptionsBack) {
  SerialQueue queue("q");
  bool refused = false;
  queue.sync([&] {
    EXPECT_TRUE(queue.isCurrent());
    try {
      queue.sync([] {});
    } catch (const std::logic_error&) {
      refused = true;
    }
  });
  EXPECT_TRUE(refused);
  EXPECT_FALSE(queue.isCurrent());
  EXPECT_THROW(queue.sync([] { throw std::runtime_error("boom"); }), std::runtime_error);
  // The queue survives a throwing task.
  EXPECT_EQ(queue.syncValue([] { return 42; }), 42);
}

TEST(SerialQueue, ShutdownRunsQueuedTasksThenRefusesNewWork) {
  std::atomic<int> ran{0};
  SerialQueue queue("q");
  queue.async([&] { std::this_thread::sleep_for(20ms); });
  for (int i = 0; i < 10; ++i) queue.async([&] { ++ran; });
  queue.shutdown();
  EXPECT_EQ(ran.load(), 10);
  queue.async([&] { ++ran; });  // dropped
  EXPECT_THROW(queue.sync([] {}), std::logic_error);
  EXPECT_EQ(ran.load(), 10);
  queue.shutdown();  // idempotent
}

TEST(SerialQueue, ShutdownFromItsOwnThreadDoesNotDeadlock) {
  auto queue = std::make_unique<SerialQueue>("q");
  std::atomic<bool> done{false};
  queue->async([&] {
    queue->shutdown();
    done = true;
  });
  ASSERT_TRUE(eventually([&] { return done.load(); }));
  queue.reset();
}

TEST(SerialQueueTimer, FirstDeadlineThenRepeats) {
  SerialQueue queue("q");
  std::atomic<int> fires{0};
  auto timer = queue.schedule(0, 0.01, [&] { ++fires; });
  ASSERT_TRUE(eventually([&] { return fires.load() >= 3; }));
  timer->cancel();
  queue.sync([] {});  // a fire in progress has finished
  int after = fires.load();
  std::this_thread::sleep_for(50ms);
  EXPECT_EQ(fires.load(), after);
  EXPECT_TRUE(timer->cancelled());
}

TEST(SerialQueueTimer, FarDeadlineDoesNotFireAndRescheduleMovesIt) {
  SerialQueue queue("q");
  std::atomic<int> fires{0};
  auto before = std::chrono::steady_clock::now();
  auto timer = queue.schedule(3600, 3600, [&] { ++fires; });
  EXPECT_GE(timer->nextDeadline(), before + 3599s);
  EXPECT_DOUBLE_EQ(timer->period(), 3600);
  timer->reschedule(0, 0.01);
  ASSERT_TRUE(eventually([&] { return fires.load() >= 2; }));
  EXPECT_DOUBLE_EQ(timer->period(), 0.01);
  timer->cancel();
}

TEST(SerialQueueTimer, TimersAndTasksInterleaveOnTheSameThread) {
  SerialQueue queue("q");
  std::atomic<bool> onQueue{true};
  std::atomic<int> fires{0};
  auto timer = queue.schedule(0, 0.005, [&] {
    onQueue = onQueue && queue.isCurrent();
    ++fires;
  });
  for (int i = 0; i < 50; ++i) queue.async([] { std::this_thread::sleep_for(1ms); });
  ASSERT_TRUE(eventually([&] { return fires.load() >= 3; }));
  EXPECT_TRUE(onQueue.load());
  timer->cancel();
}

TEST(SerialQueueTimer, HandleOutlivesTheQueue) {
  std::shared_ptr<SerialQueue::Timer> timer;
  {
    SerialQueue queue("q");
    timer = queue.schedule(10, 10, [] {});
  }
  timer->cancel();
  timer->reschedule(1, 1);  // no queue any more: nothing happens, nothing crashes
  EXPECT_TRUE(timer->cancelled());
}

}  // namespace
}  // namespace vistrel
