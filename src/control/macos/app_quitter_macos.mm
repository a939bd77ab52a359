// The running applications of the workspace: asking one to terminate is what choosing Quit from its
// menu does (it may ask to save, or refuse); forceTerminate ends it at once. Needs AppKit.

#import <AppKit/AppKit.h>

#include "control/quit_request.hpp"

namespace vistrel {

namespace {

class WorkspaceQuitter final : public AppQuitter {
 public:
  int quit(const std::vector<int32_t>& pids, bool force) override {
    int asked = 0;
    @autoreleasepool {
      for (int32_t pid : pids) {
        // Each pid is looked up on its own: the workspace's runningApplications list is refreshed
        // only while the main run loop turns, and this may run before it ever has (or on another
        // thread), so an app launched since would be missing from it. nil: the process is no
        // application (a helper, a tool) or has gone.
        NSRunningApplication* app =
            [NSRunningApplication runningApplicationWithProcessIdentifier:static_cast<pid_t>(pid)];
        if (app == nil || app.terminated) continue;
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
