#pragma once

// The one QApplication of the UI tests (offscreen), shared by every test file of the executable,
// and a way to run its event loop for a while.

#include <stdlib.h>

#include <QApplication>
#include <QElapsedTimer>

#include "ui/theme.hpp"

namespace vistrel::ui::qtest {

inline QApplication& qtApp() {
  static int argc = 1;
  static char name[] = "ui_tests";
  static char* argv[] = {name, nullptr};
  static QApplication* app = [] {
    setenv("QT_QPA_PLATFORM", "offscreen", 0);
    // Another test file of this executable may have made the application first.
    auto* a = qobject_cast<QApplication*>(QCoreApplication::instance());
    if (!a) a = new QApplication(argc, argv);
    QApplication::setQuitOnLastWindowClosed(false);
    loadFonts();
    return a;
  }();
  return *app;
}

// Runs the event loop until `done` holds or `ms` have passed.
template <class F>
bool pumpUntil(F done, int ms = 3000) {
  QElapsedTimer timer;
  timer.start();
  while (!done() && timer.elapsed() < ms) {
    QCoreApplication::processEvents(QEventLoop::AllEvents, 20);
  }
  return done();
}

}  // namespace vistrel::ui::qtest
