#pragma once

// What the quit confirmation shows: its title, its sentence, the force-quit note and the list of
// what will end, for the pending request against the newest snapshot. Qt-free.

#include <optional>
#include <string>
#include <vector>

#include "control/quit_request.hpp"
#include "sampling/records.hpp"

namespace vistrel::ui {

// One thing that will end: a process's name and a detail ("pid 812 · 120 MB").
struct Affected {
  std::string name;
  std::string detail;
  bool operator==(const Affected&) const = default;
};

// What carrying out `request` would reach in `latest`, in the order it is reached: an app's
// processes (main process first) and then their children; a session's process tree. Processes
// no longer in the snapshot are left out, as carrying out the request would not find them.
std::vector<Affected> affected(const QuitRequest& request, const Snapshot& latest);

struct QuitDialogView {
  std::string title;      // "Quit Xcode?"
  std::string message;    // "Xcode will be asked to quit, like choosing Quit from its menu."
  std::string forceNote;  // beside Force Quit; apps only
  std::vector<Affected> affected;
  std::string nothingLeft;  // shown instead of the list when nothing of it runs any more
};
QuitDialogView quitDialogView(const QuitRequest& request, const std::optional<Snapshot>& latest);

}  // namespace vistrel::ui
