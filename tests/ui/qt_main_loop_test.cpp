// The main queue on Qt's event loop: tasks from any thread run on the main thread, in the order
// posted; quit lets what was posted before it run first; after close nothing runs.

#include "ui/qt_main_loop.hpp"

#include <gtest/gtest.h>
#include <stdlib.h>

#include <QApplication>
#include <QTimer>
#include <thread>
#include <vector>

namespace vistrel::ui {
namespace {

QCoreApplication& app() {
  static int argc = 1;
  static char name[] = "ui_tests";
  static char* argv[] = {name, nullptr};
  setenv("QT_QPA_PLATFORM", "offscreen", 0);
  if (!QCoreApplication::instance()) new QApplication(argc, argv);
  return *QCoreApplication::instance();
}

TEST(QtMainLoop, RunsPostsInOrderOnTheMainThreadUntilQuit) {
  app();
  QtMainLoop loop;
  const auto mainThread = std::this_thread::get_id();
  std::vector<int> ran;
  bool allOnMain = true;
  std::thread worker([&] {
    for (int i = 0; i < 200; ++i) {
      loop.post([&, i] {
        ran.push_back(i);
        allOnMain = allOnMain && std::this_thread::get_id() == mainThread;
      });
    }
    loop.quit();
  });
  // A safety net: a loop that never quits fails the test instead of hanging it.
  QTimer::singleShot(10000, [] { QCoreApplication::exit(1); });
  loop.run();
  worker.join();
  ASSERT_EQ(ran.size(), 200u);
  for (int i = 0; i < 200; ++i) EXPECT_EQ(ran[static_cast<size_t>(i)], i);
  EXPECT_TRUE(allOnMain);

  loop.close();
  bool late = false;
  loop.post([&] { late = true; });
  QCoreApplication::processEvents();
  EXPECT_FALSE(late);
}

}  // namespace
}  // namespace vistrel::ui
