#pragma once

// The platform's words. Every text the system shows or answers is written once, naming the Mac;
// on Linux the same text is shown with "macOS" read as "Linux" and "Mac" as "computer". The
// Mac texts stay testable on any platform through `platformTextFor`.

#include <string>
#include <string_view>

namespace vistrel {

// True in the Linux build, false in the macOS build (chosen by the build, not at run time).
bool runningOnLinux();

// `macText` as this platform says it.
std::string platformText(std::string_view macText);

// `macText` for Linux when `forLinux` is set: the whole word "macOS" becomes "Linux", then the
// whole word "Mac" becomes "computer" ("Mac's" and "Mac." change; "Machine", "MacBook" and "iMac"
// do not); nothing else changes. Unchanged when `forLinux` is false.
std::string platformTextFor(std::string_view macText, bool forLinux);

}  // namespace vistrel
