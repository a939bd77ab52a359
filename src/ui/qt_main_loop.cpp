#include "ui/qt_main_loop.hpp"

#include <QCoreApplication>
#include <QMetaObject>

namespace vistrel::ui {

QtMainLoop::QtMainLoop() = default;
QtMainLoop::~QtMainLoop() = default;

void QtMainLoop::post(std::function<void()> task) {
  // A queued call: thread-safe, never run inline, delivered in posting order.
  QMetaObject::invokeMethod(
      &context_, [task = std::move(task)] { task(); }, Qt::QueuedConnection);
}

void QtMainLoop::run() {
  QCoreApplication::exec();
}

void QtMainLoop::quit() {
  post([] { QCoreApplication::quit(); });
}

}  // namespace vistrel::ui
