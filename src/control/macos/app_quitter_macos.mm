// The workspace's running applications: asking one to terminate is what choosing Quit from its menu
// does (it may ask to save, or refuse); forceTerminate ends it at once. Needs AppKit.

#import <AppKit/AppKit.h>

#include <algorithm>

#include "control/quit_request.hpp"

namespace vistrel {

namespace {

class WorkspaceQuitter final : public AppQuitter {
 public:
  int quit(const std::vector<int32_t>& pids, bool force) override {
    int asked = 0;
    @autoreleasepool {
      // The list is a snapshot taken atomically; it may be read from any thread.
      NSArray<NSRunningApplication*>* running = [[NSWorkspace sharedWorkspace] runningApplications];
      for (NSRunningApplication* app in running) {
        const int32_t pid = static_cast<int32_t>(app.processIdentifier);
        if (std::find(pids.begin(), pids.end(), pid) == pids.end()) continue;
        const BOOL accepted = force ? [app forceTerminate] : [app terminate];
        if (accepted) ++asked;
      }
    }
    return asked;
  }
};

}  // namespace

std::unique_ptr<AppQuitter> makeAppQuitter(SignalSender& /*signals*/) {
  return std::make_unique<WorkspaceQuitter>();
}

}  // namespace vistrel
