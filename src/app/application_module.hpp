#pragma once

#include <string>
#include <string_view>
#include <vector>

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

// Where the module may be, most likely first, for the executable at `executable` (absolute) and
// the module's file name: beside the executable (a build folder, a plain install), in the
// bundle's Frameworks folder (".../Vistrel.app/Contents/MacOS/vistrel"), and in ../lib/vistrel
// (a Linux install into a prefix).
std::vector<std::string> applicationModuleCandidates(std::string_view executable,
                                                     std::string_view moduleName);

// The application mode: finds and loads the module, and runs it. On failure writes why to
// standard error and returns 1; nothing else of the application has run by then.
int runApplicationModule();

}  // namespace vistrel
