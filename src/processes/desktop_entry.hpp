#pragma once

// Desktop entry files (freedesktop.org .desktop files): how a Linux desktop names its apps. Pure
// parsing, tested and fuzzed on any machine.

#include <optional>
#include <string>
#include <string_view>

namespace vistrel {

struct DesktopEntry {
  std::optional<std::string> name;  // the unlocalised Name, escapes decoded; absent when missing
  bool noDisplay = false;           // NoDisplay=true: not listed by launchers
  bool operator==(const DesktopEntry&) const = default;
};

// The [Desktop Entry] group of a desktop file. Other groups (actions) and localised keys
// ("Name[de]") are ignored; the first occurrence of a key wins. nullopt when the text has no
// [Desktop Entry] group. Never throws.
std::optional<DesktopEntry> parseDesktopEntry(std::string_view text);

// The application id of a desktop file path: its file name without ".desktop"
// ("/usr/share/applications/org.gnome.Terminal.desktop" gives "org.gnome.Terminal").
std::string desktopAppId(std::string_view path);

}  // namespace vistrel
