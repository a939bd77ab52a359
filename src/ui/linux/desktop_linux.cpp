// Linux desktops keep every window in their task bar and have no application-wide hiding.

#include "ui/desktop.hpp"

namespace vistrel::ui::desktop {

void setShowInDock(bool, bool) {}

void onLoginLaunch(std::function<void()>) {}

bool canHideOthers() {
  return false;
}

void hideOthers() {}

}  // namespace vistrel::ui::desktop
