#pragma once

// The Dock rule (macOS): a Dock icon and main menu while `showInDock` is on (the regular
// activation policy), the menu bar only while it is off (the accessory policy). When the policy
// changes while the window is visible, the application is activated again so that the window
// does not drop behind other applications. Elsewhere the window is always in the task bar and
// this does nothing. Defined in linux/ or macos/.

namespace vistrel::ui {

void applyDockPolicy(bool showInDock, bool windowVisible);

}  // namespace vistrel::ui
