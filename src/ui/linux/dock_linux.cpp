#include "ui/dock.hpp"

namespace vistrel::ui {

// Linux desktops have no Dock policy: the window is in the task bar while it is open.
void applyDockPolicy(bool, bool) {}

}  // namespace vistrel::ui
