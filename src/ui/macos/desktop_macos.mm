// The Dock and "Hide Others" through AppKit.

#import <AppKit/AppKit.h>

#include "ui/desktop.hpp"

namespace vistrel::ui::desktop {

void setShowInDock(bool show, bool windowOpen) {
  NSApplicationActivationPolicy wanted =
      show ? NSApplicationActivationPolicyRegular : NSApplicationActivationPolicyAccessory;
  if (NSApp.activationPolicy == wanted) return;
  [NSApp setActivationPolicy:wanted];
  if (windowOpen) {
    dispatch_async(dispatch_get_main_queue(), ^{
      [NSApp activateIgnoringOtherApps:YES];
    });
  }
}

bool canHideOthers() {
  return true;
}

void hideOthers() {
  [NSApp hideOtherApplications:nil];
}

}  // namespace vistrel::ui::desktop
