#include <signal.h>

#include "control/quit_request.hpp"

namespace vistrel {

namespace {

// Linux has no workspace of running applications: an app is asked to quit the way a desktop's
// window manager does when its last window closes, by SIGTERM to its main process (the first of
// its pids), which may save and clean up; forcing sends SIGKILL, which it cannot refuse.
class SignalQuitter final : public AppQuitter {
 public:
  explicit SignalQuitter(SignalSender& signals) : signals_(signals) {}

  int quit(const std::vector<int32_t>& pids, bool force) override {
    if (pids.empty()) return 0;
    return signals_.send(pids.front(), force ? SIGKILL : SIGTERM) ? 1 : 0;
  }

 private:
  SignalSender& signals_;
};

}  // namespace

std::unique_ptr<AppQuitter> makeAppQuitter(SignalSender& signals) {
  return std::make_unique<SignalQuitter>(signals);
}

}  // namespace vistrel
