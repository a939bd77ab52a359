#pragma once

// Alerts as desktop notifications: the model's notifier (AlertNotifier) for this platform.
// macOS: the user-notification centre; Linux: org.freedesktop.Notifications on the session bus.
// A click on a notification opens the window on the alerts page (`openAlerts`).

#include <functional>
#include <memory>

#include "alerts/alert_engine.hpp"

namespace vistrel::ui {

// Defined in linux/ or macos/. `openAlerts` runs on the main thread.
std::unique_ptr<AlertNotifier> makeDesktopNotifier(std::function<void()> openAlerts);

}  // namespace vistrel::ui
