#pragma once

// Opening at login: the system's own registration, which the model's `openAtLogin` setting only
// mirrors. macOS: the main app's login item (ServiceManagement); Linux: an XDG autostart entry.

#include <memory>
#include <optional>
#include <string>

namespace vistrel::ui {

class LoginItem {
 public:
  virtual ~LoginItem() = default;
  // Whether the system will open Vistrel at login now.
  virtual bool enabled() = 0;
  // Registers or unregisters. nullopt when done, else the sentence telling the person why not.
  virtual std::optional<std::string> setEnabled(bool on) = 0;
};

// The platform's registration, for this executable. Defined in linux/ or macos/.
std::unique_ptr<LoginItem> makeLoginItem(const std::string& executable);

// The XDG autostart entry that opens `executable` at login (a desktop entry file's text), with the
// argument "--login" so that such a launch stays in the tray without a window.
std::string autostartEntry(const std::string& executable);
// Where the autostart entry lives, given XDG_CONFIG_HOME (may be empty) and the home folder.
std::string autostartPath(const std::string& xdgConfigHome, const std::string& home);

}  // namespace vistrel::ui
