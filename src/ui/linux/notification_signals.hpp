#pragma once

// Receives the notification server's signals (a D-Bus signal needs a Qt slot to land in).

#include <QObject>
#include <QString>
#include <functional>

namespace vistrel::ui {

class NotificationSignals : public QObject {
  Q_OBJECT
 public:
  std::function<void(uint id, const QString& action)> onAction;
  std::function<void(uint id)> onClosed;

 public Q_SLOTS:
  void actionInvoked(uint id, const QString& action) {
    if (onAction) onAction(id, action);
  }
  void notificationClosed(uint id, uint /*reason*/) {
    if (onClosed) onClosed(id);
  }
};

}  // namespace vistrel::ui
