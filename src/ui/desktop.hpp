#pragma once

// What the desktop itself offers the window beyond Qt: the Dock and hiding other applications
// on macOS. Defined in linux/ (nothing to do there) or macos/.

#include <functional>

namespace vistrel::ui::desktop {

// macOS: the regular activation policy (Dock icon and main menu) when `show`, else the accessory
// one (menu bar only); when the policy changes while the window is open, the application is
// activated again so that the window does not drop behind others. Elsewhere: nothing.
void setShowInDock(bool show, bool windowOpen);
// macOS: calls `then` once, on the main thread, if the system reports that it launched this
// application as a login item (its open-application event carries that mark). The mark is known
// only when the application has finished launching, after the window may have been shown; a
// process that has already finished launching is never called back. Elsewhere: never calls it
// (Linux login launches say so with "--login", see app/single_instance.hpp).
void onLoginLaunch(std::function<void()> then);
// Whether "Hide Others" means anything here, and doing it.
bool canHideOthers();
void hideOthers();

}  // namespace vistrel::ui::desktop
