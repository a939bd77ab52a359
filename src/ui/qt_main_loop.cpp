#include "ui/qt_main_loop.hpp"

#include <QCoreApplication>
#include <QMetaObject>

namespace vistrel::ui {

QtMainLoop::QtMainLoop() = default;
QtMainLoop::~QtMainLoop() {
  close();
}

void QtMainLoop::close() {
  std::lock_guard lock(mutex_);
  closed_ = true;
}

void QtMainLoop::post(std::function<void()> task) {
  std::lock_guard lock(mutex_);
  if (closed_) return;
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
