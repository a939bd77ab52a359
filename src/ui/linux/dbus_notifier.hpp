#pragma once

// The Linux notifier on a given bus, so that tests run it against a notification server of their
// own on a private bus.

#include <QDBusConnection>
#include <functional>
#include <memory>
#include <string>

#include "alerts/alert_engine.hpp"

namespace vistrel::ui {

inline constexpr char kNotificationsService[] = "org.freedesktop.Notifications";
inline constexpr char kNotificationsPath[] = "/org/freedesktop/Notifications";

// `problem` hears, once, why notifications cannot be shown (no server on the bus, a refusal);
// alerts still reach the window.
std::unique_ptr<AlertNotifier> makeDBusNotifier(QDBusConnection bus,
                                                std::function<void()> openAlerts,
                                                std::function<void(const std::string&)> problem);

}  // namespace vistrel::ui
