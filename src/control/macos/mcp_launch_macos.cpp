#include <CoreFoundation/CoreFoundation.h>

#include <string>
#include <string_view>

#include "agents/executable_path.hpp"
#include "base/subprocess.hpp"
#include "control/mcp_launch.hpp"

namespace vistrel {

namespace {

// ".../Vistrel.app" for ".../Vistrel.app/Contents/MacOS/vistrel"; empty outside a bundle.
std::string bundleOf(std::string_view executable) {
  constexpr std::string_view kInside = "/Contents/MacOS/";
  const size_t at = executable.rfind(kInside);
  if (at == std::string_view::npos) return {};
  std::string_view bundle = executable.substr(0, at);
  if (!bundle.ends_with(".app")) return {};
  return std::string(bundle);
}

}  // namespace

bool launchApplicationInBackground() {
  auto executable = runningExecutablePath();
  if (!executable) return false;
  const std::string bundle = bundleOf(*executable);
  if (!bundle.empty()) {
    // -g: in the background, without taking the focus from the agent's terminal.
    // "--background": a fresh start stays in the menu bar without its window.
    SubprocessResult opened =
        runSubprocess("/usr/bin/open", {"-g", bundle, "--args", "--background"});
    return opened.started && opened.exitStatus == 0;
  }
  // A build outside a bundle (development) has nothing for `open`: start it directly.
  return startDetached(*executable, {"--background"}, {});
}

std::string applicationVersion() {
#ifdef VISTREL_VERSION
  std::string version = VISTREL_VERSION;
#else
  std::string version = "0.1.0";
#endif
  CFBundleRef bundle = CFBundleGetMainBundle();  // not owned
  if (!bundle) return version;
  CFTypeRef value =
      CFBundleGetValueForInfoDictionaryKey(bundle, CFSTR("CFBundleShortVersionString"));
  if (!value || CFGetTypeID(value) != CFStringGetTypeID()) return version;
  char buffer[256];
  if (CFStringGetCString(static_cast<CFStringRef>(value), buffer, sizeof buffer,
                         kCFStringEncodingUTF8)) {
    version = buffer;
  }
  return version;
}

}  // namespace vistrel
