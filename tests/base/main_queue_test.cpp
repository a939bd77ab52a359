#include "base/main_queue.hpp"

#include <gtest/gtest.h>

#include <thread>
#include <vector>

namespace vistrel {
namespace {

TEST(ManualMainQueue, DrainRunsPostedTasksAndTheTasksTheyPost) {
  ManualMainQueue main;
  std::vector<int> order;
  main.post([&] {
    order.push_back(1);
    main.post([&] { order.push_back(3); });
  });
  main.post([&] { order.push_back(2); });
  EXPECT_TRUE(order.empty());  // post never runs inline
  EXPECT_EQ(main.drain(), 3u);
  EXPECT_EQ(order, (std::vector<int>{1, 2, 3}));
  EXPECT_EQ(main.drain(), 0u);
}

TEST(ManualMainQueue, RunEndsOnQuitAfterPendingTasks) {
  ManualMainQueue main;
  int ran = 0;
  std::thread poster([&] {
    for (int i = 0; i < 5; ++i) main.post([&] { ++ran; });
    main.quit();
  });
  main.run();
  poster.join();
  EXPECT_EQ(ran, 5);
  main.run();  // quit already requested: returns at once
}

}  // namespace
}  // namespace vistrel
