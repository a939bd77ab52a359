// Alerts as desktop notifications over org.freedesktop.Notifications. Calls are asynchronous, so
// a slow or missing notification server never holds up the main thread; a "default" action makes
// a click on the notification open the window on the alerts page.

#include <QDBusMessage>
#include <QDBusPendingCallWatcher>
#include <QDBusPendingReply>
#include <QVariantMap>
#include <cstdio>
#include <set>

#include "alerts/alert_event.hpp"
#include "ui/desktop_notifier.hpp"
#include "ui/linux/dbus_notifier.hpp"
#include "ui/linux/notification_signals.hpp"

namespace vistrel::ui {

namespace {

constexpr char kInterface[] = "org.freedesktop.Notifications";
// Notifications kept for a click: the newest this many (a server may keep them for days).
constexpr size_t kRemembered = 64;

class DBusNotifier final : public AlertNotifier {
 public:
  DBusNotifier(QDBusConnection bus, std::function<void()> openAlerts,
               std::function<void(const std::string&)> problem)
      : bus_(std::move(bus)), openAlerts_(std::move(openAlerts)), problem_(std::move(problem)) {
    signals_.onAction = [this](uint id, const QString& action) {
      if (shown_.count(id) == 0) return;  // another application's notification
      if (action == "default" && openAlerts_) openAlerts_();
    };
    signals_.onClosed = [this](uint id) { shown_.erase(id); };
    bus_.connect(kNotificationsService, kNotificationsPath, kInterface, "ActionInvoked", &signals_,
                 SLOT(actionInvoked(uint, QString)));
    bus_.connect(kNotificationsService, kNotificationsPath, kInterface, "NotificationClosed",
                 &signals_, SLOT(notificationClosed(uint, uint)));
  }

  void post(const AlertEvent& event) override {
    if (!bus_.isConnected()) {
      report("there is no session bus");
      return;
    }
    QDBusMessage call = QDBusMessage::createMethodCall(kNotificationsService, kNotificationsPath,
                                                       kInterface, "Notify");
    QVariantMap hints;
    hints["category"] = QString("device");
    hints["desktop-entry"] = QString("vistrel");
    // The alert's id, for servers and tools that show it (the user info of other platforms).
    hints["x-vistrel-alert"] = QString::fromStdString(event.id);
    call << QString("Vistrel") << uint(0) << QString("utilities-system-monitor")
         << QString::fromStdString(event.title) << QString::fromStdString(event.detail)
         << QStringList{"default", "Show in Vistrel"} << hints << int(-1);
    auto* watcher = new QDBusPendingCallWatcher(bus_.asyncCall(call), &signals_);
    QObject::connect(watcher, &QDBusPendingCallWatcher::finished, &signals_,
                     [this](QDBusPendingCallWatcher* w) {
                       QDBusPendingReply<uint> reply = *w;
                       w->deleteLater();
                       if (reply.isError()) {
                         report(reply.error().message().toStdString());
                         return;
                       }
                       shown_.insert(reply.value());
                       while (shown_.size() > kRemembered) shown_.erase(shown_.begin());
                     });
  }

  // Notification servers ask for no permission.
  void requestPermission() override {}

 private:
  void report(const std::string& why) {
    if (reported_) return;
    reported_ = true;
    const std::string line =
        "Desktop notifications are not available (" + why + "); alerts still appear in Vistrel.";
    if (problem_) problem_(line);
  }

  QDBusConnection bus_;
  std::function<void()> openAlerts_;
  std::function<void(const std::string&)> problem_;
  NotificationSignals signals_;
  std::set<uint> shown_;  // ids this process showed (ids only grow, so the smallest is oldest)
  bool reported_ = false;
};

}  // namespace

std::unique_ptr<AlertNotifier> makeDBusNotifier(QDBusConnection bus,
                                                std::function<void()> openAlerts,
                                                std::function<void(const std::string&)> problem) {
  return std::make_unique<DBusNotifier>(std::move(bus), std::move(openAlerts), std::move(problem));
}

std::unique_ptr<AlertNotifier> makeDesktopNotifier(std::function<void()> openAlerts) {
  return makeDBusNotifier(
      QDBusConnection::sessionBus(), std::move(openAlerts),
      [](const std::string& line) { std::fprintf(stderr, "vistrel: %s\n", line.c_str()); });
}

}  // namespace vistrel::ui
