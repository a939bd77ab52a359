// The Dock and "Hide Others" through AppKit.

#import <AppKit/AppKit.h>

#include <memory>

#include "ui/desktop.hpp"

namespace vistrel::ui::desktop {

namespace {

// A four-character Apple event code ("oapp") without a multi-character literal.
constexpr FourCharCode fourCharCode(const char (&text)[5]) {
  return (FourCharCode(static_cast<unsigned char>(text[0])) << 24) |
         (FourCharCode(static_cast<unsigned char>(text[1])) << 16) |
         (FourCharCode(static_cast<unsigned char>(text[2])) << 8) |
         FourCharCode(static_cast<unsigned char>(text[3]));
}

}  // namespace

void onLoginLaunch(std::function<void()> then) {
  auto handler = std::make_shared<std::function<void()>>(std::move(then));
  __block id token = nil;
  // queue nil: the block runs while the notification is posted, when the open-application event
  // is still the current Apple event.
  token = [NSNotificationCenter.defaultCenter
      addObserverForName:NSApplicationDidFinishLaunchingNotification
                  object:nil
                   queue:nil
              usingBlock:^(NSNotification* note) {
                (void)note;
                [NSNotificationCenter.defaultCenter removeObserver:token];
                NSAppleEventDescriptor* event =
                    NSAppleEventManager.sharedAppleEventManager.currentAppleEvent;
                // The event's 'prdt' parameter is 'lgit' for a login item's launch.
                const bool atLogin =
                    event && event.eventID == fourCharCode("oapp") &&
                    [event paramDescriptorForKeyword:fourCharCode("prdt")].enumCodeValue ==
                        fourCharCode("lgit");
                if (atLogin && *handler) (*handler)();
              }];
}

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
