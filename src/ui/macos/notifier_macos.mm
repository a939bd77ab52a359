// Alerts as user notifications through the user-notification centre. A click on one opens the
// window on the alerts page; notifications arriving while Vistrel is frontmost are still shown,
// as a banner with sound. A build that is not a signed application bundle (development) has no
// notification centre of its own: that is said once, and the alerts stay in the window.

#import <Foundation/Foundation.h>
#import <UserNotifications/UserNotifications.h>

#include <cstdio>
#include <functional>
#include <memory>
#include <string>

#include "alerts/alert_event.hpp"
#include "ui/desktop_notifier.hpp"

@interface VistrelNotificationDelegate : NSObject <UNUserNotificationCenterDelegate>
@property(nonatomic, copy) void (^onClick)(void);
@end

@implementation VistrelNotificationDelegate
- (void)userNotificationCenter:(UNUserNotificationCenter*)center
    didReceiveNotificationResponse:(UNNotificationResponse*)response
             withCompletionHandler:(void (^)(void))completionHandler {
  if (self.onClick) self.onClick();
  completionHandler();
}

- (void)userNotificationCenter:(UNUserNotificationCenter*)center
       willPresentNotification:(UNNotification*)notification
         withCompletionHandler:(void (^)(UNNotificationPresentationOptions))completionHandler {
  completionHandler(UNNotificationPresentationOptionBanner | UNNotificationPresentationOptionSound);
}
@end

namespace vistrel::ui {

namespace {

void sayOnce(bool& said, const char* line) {
  if (said) return;
  said = true;
  std::fprintf(stderr, "vistrel: %s\n", line);
}

class CenterNotifier final : public AlertNotifier {
 public:
  explicit CenterNotifier(std::function<void()> openAlerts) {
    // Without a bundle identifier the centre raises an exception on first use.
    usable_ = NSBundle.mainBundle.bundleIdentifier != nil;
    if (!usable_) {
      sayOnce(said_, "notifications need the application bundle; alerts stay in the window");
      return;
    }
    delegate_ = [[VistrelNotificationDelegate alloc] init];
    auto open = std::make_shared<std::function<void()>>(std::move(openAlerts));
    delegate_.onClick = ^{
      // The delegate may be called off the main thread.
      dispatch_async(dispatch_get_main_queue(), ^{
        if (*open) (*open)();
      });
    };
    UNUserNotificationCenter.currentNotificationCenter.delegate = delegate_;
  }

  ~CenterNotifier() override {
    if (usable_) UNUserNotificationCenter.currentNotificationCenter.delegate = nil;
    [delegate_ release];  // manual reference counting: the build does not turn on ARC
  }

  void post(const AlertEvent& event) override {
    if (!usable_) return;
    UNMutableNotificationContent* content = [[UNMutableNotificationContent alloc] init];
    content.title = [NSString stringWithUTF8String:event.title.c_str()];
    content.body = [NSString stringWithUTF8String:event.detail.c_str()];
    NSString* alertId = [NSString stringWithUTF8String:event.id.c_str()];
    content.userInfo = @{@"alert" : alertId};
    content.sound = UNNotificationSound.defaultSound;
    UNNotificationRequest* request = [UNNotificationRequest requestWithIdentifier:alertId
                                                                          content:content
                                                                          trigger:nil];
    [UNUserNotificationCenter.currentNotificationCenter addNotificationRequest:request
                                                         withCompletionHandler:nil];
    [content release];  // the request holds its own copy
  }

  void requestPermission() override {
    if (!usable_) return;
    // Once per process, whichever notifier asked.
    static bool said = false;
    [UNUserNotificationCenter.currentNotificationCenter
        requestAuthorizationWithOptions:(UNAuthorizationOptionAlert | UNAuthorizationOptionSound)
                      completionHandler:^(BOOL granted, NSError* error) {
                        // A refusal with an error is what an unsigned build gets; a person's
                        // "Don't Allow" is not reported (alerts still reach the list).
                        if (!granted && error) {
                          dispatch_async(dispatch_get_main_queue(), ^{
                            sayOnce(said,
                                    "macOS refused notifications to this build; alerts stay in "
                                    "the window");
                          });
                        }
                      }];
  }

 private:
  bool usable_ = false;
  bool said_ = false;
  VistrelNotificationDelegate* delegate_ = nil;
};

}  // namespace

std::unique_ptr<AlertNotifier> makeDesktopNotifier(std::function<void()> openAlerts) {
  return std::make_unique<CenterNotifier>(std::move(openAlerts));
}

}  // namespace vistrel::ui
