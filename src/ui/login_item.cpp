#include "ui/login_item.hpp"

namespace vistrel::ui {

std::string autostartEntry(const std::string& executable) {
  // Exec takes a quoted argument when the path needs it; inside quotes, backslash, double quote,
  // dollar and backquote are escaped (the desktop entry specification's rules).
  std::string exec = executable;
  if (exec.find_first_of(" \t\"'\\$`") != std::string::npos) {
    std::string quoted = "\"";
    for (char c : executable) {
      if (c == '"' || c == '`' || c == '$' || c == '\\') quoted += '\\';
      quoted += c;
    }
    exec = quoted + "\"";
  }
  return "[Desktop Entry]\n"
         "Type=Application\n"
         "Name=Vistrel\n"
         "Comment=Watches this machine, its apps and your coding agents\n"
         // "--login" marks the launch, so that it starts in the tray without its window.
         "Exec=" +
         exec +
         " --login\n"
         "Terminal=false\n"
         "X-GNOME-Autostart-enabled=true\n";
}

std::string autostartPath(const std::string& xdgConfigHome, const std::string& home) {
  const std::string root =
      !xdgConfigHome.empty() && xdgConfigHome.front() == '/' ? xdgConfigHome : home + "/.config";
  return root + "/autostart/vistrel.desktop";
}

}  // namespace vistrel::ui
