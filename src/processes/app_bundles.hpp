#pragma once

#include <memory>
#include <optional>
#include <string>
#include <string_view>

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
// "/Applications/A.app"); under /System/Library/ only CoreServices bundles count, and a bundle
// inside a .framework is none. The path is returned as it is (cryptex paths included).
std::optional<std::string> outermostApp(const std::string& path);

// An app's name without a trailing ".app" ("Safari.app" -> "Safari"), the way the Finder shows
// it with extensions hidden; ".app" elsewhere in the name stays ("My.apps", "Web.app Helper").
std::string withoutAppSuffix(std::string name);

// macOS: the path a system cryptex's path stands for, for the rules that look at where a bundle
// lives: ".../Preboot/Cryptexes/App/System/Applications/Safari.app" (Safari since macOS 13) reads
// as "/System/Applications/Safari.app", ".../Cryptexes/OS/System/Library/x" as
// "/System/Library/x". Any other path is returned unchanged. A view into `path`.
std::string_view withoutCryptexPrefix(std::string_view path);

}  // namespace vistrel
