#pragma once

#include <memory>
#include <optional>
#include <string>

namespace vistrel {

// What the platform knows about an app given its path (a .app bundle on macOS, a desktop entry
// file on Linux). Each answer may be slow (a file read): callers cache per path.
class AppBundles {
 public:
  virtual ~AppBundles() = default;
  // The name people know the app by, with any ".app" removed. Never empty: falls back to the
  // path's last component.
  virtual std::string displayName(const std::string& appPath) = 0;
  // The bundle identifier (macOS) or desktop application id (Linux); absent when unknown.
  virtual std::optional<std::string> identifier(const std::string& appPath) = 0;
  // The app is part of the operating system itself.
  virtual bool isSystemApp(const std::string& appPath) = 0;
};

std::unique_ptr<AppBundles> makeAppBundles();

// macOS: the outermost .app bundle containing `path` ("/Applications/A.app/Contents/B.app/x" gives
// "/Applications/A.app"); under /System/Library/ only CoreServices bundles count.
std::optional<std::string> outermostApp(const std::string& path);

}  // namespace vistrel
