#pragma once

// What the desktop itself offers the window beyond Qt: the Dock and hiding other applications
// on macOS. Defined in linux/ (nothing to do there) or macos/.

namespace vistrel::ui::desktop {

// macOS: the regular activation policy (Dock icon and main menu) when `show`, else the accessory
// one (menu bar only); when the policy changes while the window is open, the application is
// activated again so that the window does not drop behind others. Elsewhere: nothing.
void setShowInDock(bool show, bool windowOpen);
// Whether "Hide Others" means anything here, and doing it.
bool canHideOthers();
void hideOthers();

}  // namespace vistrel::ui::desktop
