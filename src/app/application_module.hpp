#pragma once

#include <functional>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "app/single_instance.hpp"

namespace vistrel {

// The application mode lives in a module loaded at run time, so that the executable's light modes
// (`--statusline` on every update of Claude Code's status line, `--mcp` with every agent session)
// start without mapping SQLite, simdjson, the readers or, later, the user-interface toolkit.
//
// The contract between the two, kept deliberately C-shaped so that no C++ object, exception or
// allocation crosses it (the executable and the module may each carry their own C++ runtime):
//   extern "C" int vistrel_application_main(int interfaceVersion);
// returns the process's exit status, or kApplicationModuleMismatch when built for another version
// of this contract.
inline constexpr char kApplicationEntryName[] = "vistrel_application_main";
inline constexpr int kApplicationModuleInterface = 1;
inline constexpr int kApplicationModuleMismatch = 70;  // EX_SOFTWARE

// The window: a second module holding the same application with its Qt user interface, tried
// first when a display is there, so that a machine without Qt (a server) never maps it:
//   extern "C" int vistrel_ui_main(int interfaceVersion);
// with the same contract as the application's entry.
inline constexpr char kWindowEntryName[] = "vistrel_ui_main";

// Why the window cannot open on this machine, or nullopt when a display is there. Linux: neither
// WAYLAND_DISPLAY nor DISPLAY names a display, or the one named is a local socket that does not
// exist (a stale variable), in which case the toolkit would stop the process instead of failing.
// A QT_QPA_PLATFORM that draws without a display server (offscreen) counts as a display.
// `env` reads an environment variable (null when unset); `exists` tells whether a path exists.
std::optional<std::string> linuxDisplayProblem(
    const std::function<const char*(const char*)>& env,
    const std::function<bool(const std::string&)>& exists);

// Where the module may be, most likely first, for the executable at `executable` (absolute) and
// the module's file name: beside the executable (a build folder, a plain install), in the
// bundle's Frameworks folder (".../Vistrel.app/Contents/MacOS/vistrel"), and in ../lib/vistrel
// (a Linux install into a prefix).
std::vector<std::string> applicationModuleCandidates(std::string_view executable,
                                                     std::string_view moduleName);

// The application mode: with a display, finds and runs the window module; without one, or when
// the window module or the toolkit's libraries cannot be loaded, writes why in one line to
// standard error and runs the application module headless. When neither can be loaded, writes
// why to standard error and returns 1; nothing else of the application has run by then.
// `kind` is how it was launched: the launch first claims the single instance (app/single_instance)
// and ends at once, status 0, when another application already runs. VISTREL_HEADLESS set to
// anything but "" or "0" runs the application headless even with a display.
int runApplicationModule(LaunchKind kind);
// Whether a value of VISTREL_HEADLESS asks for a headless run.
bool headlessForced(const char* value);

}  // namespace vistrel
