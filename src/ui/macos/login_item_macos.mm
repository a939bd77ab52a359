// Opening at login on macOS: the main app's registration with ServiceManagement (macOS 13 and
// later; earlier systems report it off and refuse it).

#import <Foundation/Foundation.h>
#import <ServiceManagement/ServiceManagement.h>

#include "ui/login_item.hpp"

namespace vistrel::ui {

namespace {

class MainAppService final : public LoginItem {
 public:
  bool enabled() override {
    if (@available(macOS 13.0, *)) {
      return SMAppService.mainAppService.status == SMAppServiceStatusEnabled;
    }
    return false;
  }

  std::optional<std::string> setEnabled(bool on) override {
    if (@available(macOS 13.0, *)) {
      NSError* error = nil;
      BOOL done = on ? [SMAppService.mainAppService registerAndReturnError:&error]
                     : [SMAppService.mainAppService unregisterAndReturnError:&error];
      if (done) return std::nullopt;
    }
    return std::string("macOS didn't allow it. Try again from System Settings › Login Items.");
  }
};

}  // namespace

std::unique_ptr<LoginItem> makeLoginItem(const std::string&) {
  return std::make_unique<MainAppService>();
}

}  // namespace vistrel::ui
