// The macOS updater: Sparkle 2's standard controller, which reads the feed address
// (SUFeedURL), the feed's EdDSA public key (SUPublicEDKey) and the daily schedule
// (SUEnableAutomaticChecks, SUScheduledCheckInterval) from the bundle's Info.plist, written there
// by the build. Compiled only when the build names a feed.

#import <Sparkle/Sparkle.h>

#include "app/updater.hpp"

namespace vistrel {
namespace {

class SparkleUpdater final : public Updater {
 public:
  void start() override {
    if (controller_) return;
    // Starting the updater validates the bundle's settings and schedules the daily check; the
    // delegates are optional and the standard user interface is Sparkle's own.
    controller_ = [[SPUStandardUpdaterController alloc] initWithStartingUpdater:YES
                                                                updaterDelegate:nil
                                                             userDriverDelegate:nil];
  }

  void checkNow() override {
    start();
    [controller_ checkForUpdates:nil];
  }

  bool canCheckNow() const override {
    return controller_ != nil && controller_.updater.canCheckForUpdates;
  }

 private:
  // Strong under ARC (this file is built with -fobjc-arc): the controller lives as long as this.
  SPUStandardUpdaterController* controller_ = nil;
};

}  // namespace

std::unique_ptr<Updater> makeUpdater() {
  // A copy of the executable outside the bundle has no Info.plist to read the feed from.
  NSBundle* bundle = [NSBundle mainBundle];
  if (![bundle objectForInfoDictionaryKey:@"SUFeedURL"]) return nullptr;
  return std::make_unique<SparkleUpdater>();
}

}  // namespace vistrel
