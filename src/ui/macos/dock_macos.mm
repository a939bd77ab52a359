// The Dock rule on macOS: the regular activation policy (Dock icon and main menu) while the
// setting is on, the accessory policy (menu bar only) while it is off.

#import <AppKit/AppKit.h>

#include "ui/dock.hpp"

namespace vistrel::ui {

void applyDockPolicy(bool showInDock, bool windowVisible) {
  NSApplicationActivationPolicy wanted =
      showInDock ? NSApplicationActivationPolicyRegular : NSApplicationActivationPolicyAccessory;
  if (NSApp.activationPolicy == wanted) return;
  [NSApp setActivationPolicy:wanted];
  if (windowVisible) {
    // After the policy change has settled, or the window drops behind other applications.
    dispatch_async(dispatch_get_main_queue(), ^{
      [NSApp activateIgnoringOtherApps:YES];
    });
  }
}

}  // namespace vistrel::ui
