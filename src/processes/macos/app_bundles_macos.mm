// What macOS knows about an app bundle: the name the Finder shows for it, its bundle identifier
// from Info.plist, and whether it belongs to the operating system. Each call reads the disk, so
// the callers cache per path.

#import <Foundation/Foundation.h>

#include <initializer_list>
#include <memory>
#include <optional>
#include <string>
#include <string_view>

#include "base/files.hpp"
#include "processes/app_bundles.hpp"
#include "sampling/macos/cf_util.hpp"

namespace vistrel {
namespace {

// The file manager's display name for a path (localised, as the Finder shows it); empty when it
// has none.
std::string fileManagerDisplayName(const std::string& path) {
  @autoreleasepool {
    NSString* nsPath = [NSString stringWithUTF8String:path.c_str()];
    if (nsPath == nil) return {};
    NSString* name = [[NSFileManager defaultManager] displayNameAtPath:nsPath];
    const char* utf8 = name != nil ? [name UTF8String] : nullptr;
    return utf8 != nullptr ? std::string(utf8) : std::string();
  }
}

// The bundle at `path`, owned; null when the path is not a readable bundle.
mac::CFRef<CFBundleRef> openBundle(const std::string& path) {
  const mac::CFRef<CFURLRef> url(CFURLCreateFromFileSystemRepresentation(
      kCFAllocatorDefault, reinterpret_cast<const UInt8*>(path.data()),
      static_cast<CFIndex>(path.size()), true));
  if (!url) return {};
  return mac::CFRef<CFBundleRef>(CFBundleCreate(kCFAllocatorDefault, url.get()));
}

// The bundle's own name from its Info.plist: CFBundleDisplayName, else CFBundleName.
std::string infoPlistName(const std::string& path) {
  const mac::CFRef<CFBundleRef> bundle = openBundle(path);
  if (!bundle) return {};
  for (CFStringRef key : {CFSTR("CFBundleDisplayName"), CFSTR("CFBundleName")}) {
    // Get rule: the value belongs to the bundle.
    const std::optional<std::string> name =
        mac::cfString(CFBundleGetValueForInfoDictionaryKey(bundle.get(), key));
    if (name && !name->empty()) return *name;
  }
  return {};
}

class MacAppBundles final : public AppBundles {
 public:
  std::string displayName(const std::string& appPath) override {
    std::string name = withoutAppSuffix(fileManagerDisplayName(appPath));
    if (name.empty()) name = withoutAppSuffix(infoPlistName(appPath));
    if (name.empty()) name = withoutAppSuffix(std::string(lastComponent(appPath)));
    return name.empty() ? appPath : name;
  }

  std::optional<std::string> identifier(const std::string& appPath) override {
    const mac::CFRef<CFBundleRef> bundle = openBundle(appPath);
    if (!bundle) return std::nullopt;
    // Get rule: the identifier belongs to the bundle.
    std::optional<std::string> id = mac::cfString(CFBundleGetIdentifier(bundle.get()));
    if (id && id->empty()) return std::nullopt;
    return id;
  }

  bool isSystemApp(const std::string& appPath) override {
    // Safari's cryptex reads as /System/Applications/ (an ordinary app), the system's as /System/.
    const std::string_view path = withoutCryptexPrefix(appPath);
    return path.starts_with("/System/") && !path.starts_with("/System/Applications/") &&
           pathExists(appPath);
  }
};

}  // namespace

std::unique_ptr<AppBundles> makeAppBundles() {
  return std::make_unique<MacAppBundles>();
}

}  // namespace vistrel
