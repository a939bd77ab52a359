#include <gtest/gtest.h>
#include <pthread.h>

#include <string>
#include <thread>

#include "base/thread_name.hpp"

namespace vistrel {
namespace {

// A name over the system's 63 bytes is cut, not refused: the thread still carries its start.
TEST(MacThreadName, LongNamesAreCutToSixtyThreeBytes) {
  const std::string name = "org.brackwood.vistrel." + std::string(80, 'x');
  std::string seen;
  std::thread worker([&] {
    setCurrentThreadName(name);
    char buffer[128] = {};
    if (pthread_getname_np(pthread_self(), buffer, sizeof buffer) == 0) seen = buffer;
  });
  worker.join();
  EXPECT_EQ(seen, name.substr(0, 63));
}

}  // namespace
}  // namespace vistrel
