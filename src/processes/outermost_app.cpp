// The app bundle a macOS executable belongs to, from its path alone. Portable string work, so the
// rule is tested on any machine.

#include <string_view>

#include "processes/app_bundles.hpp"

namespace vistrel {

std::string withoutAppSuffix(std::string name) {
  if (std::string_view(name).ends_with(".app")) name.resize(name.size() - 4);
  return name;
}

std::string_view withoutCryptexPrefix(std::string_view path) {
  // Since macOS 13 Safari and parts of the system (WebKit among them) are updated apart from the
  // rest, from cryptexes mounted under the Preboot volume (also reachable as /System/Cryptexes):
  // ".../Cryptexes/App/System/Applications/Safari.app" stands for
  // "/System/Applications/Safari.app" and ".../Cryptexes/OS/System/..." for "/System/...".
  constexpr std::string_view kSystem = "/System/";
  for (std::string_view root : {"/System/Volumes/Preboot/Cryptexes", "/System/Cryptexes"}) {
    if (!path.starts_with(root)) continue;
    const std::string_view rest =
        path.substr(root.size());  // "/App/System/..." or "/OS/System/..."
    for (std::string_view cryptex : {"/App", "/OS"}) {
      if (rest.starts_with(cryptex) && rest.substr(cryptex.size()).starts_with(kSystem)) {
        return rest.substr(cryptex.size());
      }
    }
  }
  return path;
}

std::optional<std::string> outermostApp(const std::string& path) {
  // The leftmost ".app/" closes the outermost bundle: helpers nested inside an app's Contents
  // belong to the app that contains them.
  const size_t at = path.find(".app/");
  if (at == std::string::npos) return std::nullopt;
  std::string candidate = path.substr(0, at) + ".app";

  // A bundle inside a framework is a part of the framework, not an app: Python from Homebrew,
  // python.org and the Command Line Tools runs from ".../Python.framework/.../Python.app", and
  // its scripts are named by their script labels.
  if (candidate.find(".framework/") != std::string::npos) return std::nullopt;

  // Under /System/Library/ only CoreServices holds apps people use (Finder, Dock); bundles inside
  // frameworks and other system folders are parts of the system, not apps. The system's cryptexes
  // follow the same rule as the folders they stand for.
  const std::string_view view = withoutCryptexPrefix(candidate);
  if (view.starts_with("/System/Library/") && !view.starts_with("/System/Library/CoreServices/")) {
    return std::nullopt;
  }
  return candidate;
}

}  // namespace vistrel
