// The agents monitor's discipline: refreshes no closer than the caller's gap, never two at once,
// results handed back on the main queue.

#include "agents/agents_monitor.hpp"

#include <gtest/gtest.h>

#include <atomic>
#include <condition_variable>
#include <filesystem>
#include <mutex>

#include "claude_fixture.hpp"

namespace vistrel {
namespace {

// A monitor over a Claude Code folder with one session today. The readers' every run asks for the
// start of the day once: counting those calls counts the runs, and holding one up makes a read
// slow.
class AgentsMonitorTest : public ::testing::Test {
 protected:
  AgentsMonitorTest() {
    folder.write("projects/p/s1.jsonl", test::assistant("m1", "q1", {5, 0, 0, 0}));
    AgentsMonitor::Options options;
    options.claudeFolders = {folder.root};
    options.codexFolder = folder.root + "/no-codex";
    options.bridge.settingsFile = folder.root + "/settings.json";
    options.bridge.supportFolder = folder.root + "/support";
    options.startOfDay = [this](Date d) {
      std::unique_lock lock(mutex);
      ++runs;
      cv.notify_all();
      cv.wait(lock, [&] { return !holding; });
      return test::utcStartOfDay(d);
    };
    monitor = std::make_unique<AgentsMonitor>(main, clock, options);
  }
  ~AgentsMonitorTest() override {
    release();
    monitor.reset();
  }

  void refresh(double gap) {
    monitor->refresh({}, gap, [this](AgentsSnapshot s) { delivered.push_back(std::move(s)); });
  }
  // Waits until the readers have run `n` times in all.
  bool waitForRuns(int n) {
    std::unique_lock lock(mutex);
    return cv.wait_for(lock, std::chrono::seconds(10), [&] { return runs >= n; });
  }
  void release() {
    std::lock_guard lock(mutex);
    holding = false;
    cv.notify_all();
  }
  // Lets the queued work finish and runs what it posted to the main queue.
  void settle() {
    monitor->readNow({});  // after everything queued before it
    main.drain();
  }

  test::ClaudeFolder folder{test::at("2025-01-31T11:00:00Z")};
  ManualMainQueue main;
  ManualClock clock{1000, test::at("2025-01-31T12:00:00Z")};
  std::mutex mutex;
  std::condition_variable cv;
  int runs = 0;
  bool holding = false;
  std::vector<AgentsSnapshot> delivered;
  std::unique_ptr<AgentsMonitor> monitor;
};

TEST_F(AgentsMonitorTest, RefreshesWithinTheGapRunTheReadersOnce) {
  struct Step {
    double advance;  // seconds before this refresh
    double gap;
    bool runs;  // the readers run for it
  } steps[] = {
      {0, 4.5, true},    // the first refresh always runs
      {1, 4.5, false},   // within the gap
      {3, 4.5, false},   // 4 s after the first began: still within
      {0.6, 4.5, true},  // 4.6 s after
      {10, 120, false},  // the gap while the agents page is hidden
      {111, 120, true},
  };
  size_t expected = 0;
  for (const auto& step : steps) {
    clock.advance(step.advance);
    const int before = runs;
    refresh(step.gap);
    settle();
    expected += step.runs ? 1 : 0;
    EXPECT_EQ(delivered.size(), expected);
    EXPECT_EQ(runs - before, step.runs ? 2 : 1) << "settle's own read is the other one";
  }
  ASSERT_FALSE(delivered.empty());
  EXPECT_EQ(delivered[0].claudeToday.input, 5);
  EXPECT_TRUE(delivered[0].claudeInstalled);
  EXPECT_FALSE(delivered[0].codexInstalled);
}

TEST_F(AgentsMonitorTest, ASlowReadNeverPilesUp) {
  {
    std::lock_guard lock(mutex);
    holding = true;
  }
  refresh(0);
  ASSERT_TRUE(waitForRuns(1));
  // While the first read is held up, every further refresh is dropped, whatever the gap.
  for (int i = 0; i < 5; ++i) {
    clock.advance(200);
    refresh(0);
  }
  release();
  settle();
  EXPECT_EQ(delivered.size(), 1u);
  // Once it is done, the next one runs.
  refresh(0);
  settle();
  EXPECT_EQ(delivered.size(), 2u);
}

}  // namespace
}  // namespace vistrel
