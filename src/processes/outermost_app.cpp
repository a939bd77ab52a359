// The app bundle a macOS executable belongs to, from its path alone. Portable string work, so the
// rule is tested on any machine.

#include <string_view>

#include "processes/app_bundles.hpp"

namespace vistrel {

std::optional<std::string> outermostApp(const std::string& path) {
  // The leftmost ".app/" closes the outermost bundle: helpers nested inside an app's Contents
  // belong to the app that contains them.
  const size_t at = path.find(".app/");
  if (at == std::string::npos) return std::nullopt;
  std::string candidate = path.substr(0, at) + ".app";

  // Under /System/Library/ only CoreServices holds apps people use (Finder, Dock); bundles inside
  // frameworks and other system folders are parts of the system, not apps.
  const std::string_view view = candidate;
  if (view.starts_with("/System/Library/") && !view.starts_with("/System/Library/CoreServices/")) {
    return std::nullopt;
  }
  return candidate;
}

}  // namespace vistrel
