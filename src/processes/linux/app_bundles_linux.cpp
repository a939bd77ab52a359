// Apps on Linux are desktop entries: the process sampler resolves a process's systemd app scope,
// Flatpak or Snap to the .desktop file of its app id, and that file's path stands where a .app
// bundle stands on macOS.

#include <memory>

#include "base/files.hpp"
#include "processes/app_bundles.hpp"
#include "processes/desktop_entry.hpp"

namespace vistrel {

namespace {

// Desktop files are a few kilobytes; anything larger is not one worth reading whole.
constexpr size_t kMaxDesktopFile = 256 * 1024;

class LinuxAppBundles : public AppBundles {
 public:
  // The entry's Name, else the app id, else the path itself: never empty for a non-empty path.
  std::string displayName(const std::string& appPath) override {
    if (auto entry = read(appPath); entry && entry->name && !entry->name->empty()) {
      return *entry->name;
    }
    std::string id = desktopAppId(appPath);
    return id.empty() ? appPath : id;
  }

  std::optional<std::string> identifier(const std::string& appPath) override {
    std::string id = desktopAppId(appPath);
    if (id.empty()) return std::nullopt;
    return id;
  }

  // An entry hidden from launchers (NoDisplay=true) is not an app the user started: settings
  // daemons, portals, keyring and the desktop shell's own components ship such entries.
  bool isSystemApp(const std::string& appPath) override {
    auto entry = read(appPath);
    return entry && entry->noDisplay;
  }

 private:
  static std::optional<DesktopEntry> read(const std::string& path) {
    auto text = readFile(path, kMaxDesktopFile);
    if (!text) return std::nullopt;
    return parseDesktopEntry(*text);
  }
};

}  // namespace

std::unique_ptr<AppBundles> makeAppBundles() {
  return std::make_unique<LinuxAppBundles>();
}

}  // namespace vistrel
