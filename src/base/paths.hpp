#pragma once

#include <string>

namespace vistrel {

// The user's home folder: $HOME, else the password database's entry. Tests point HOME at a
// temporary folder, so everything derived from it follows.
std::string homeFolder();

// Where the application keeps its files (history database, control socket, status-line files):
// macOS "~/Library/Application Support/Vistrel"; Linux "$XDG_DATA_HOME/Vistrel", by default
// "~/.local/share/Vistrel". Not created here.
std::string supportFolder();

// The support folder as it is when no XDG variable is set: "~/.local/share/Vistrel" on Linux,
// the support folder itself on macOS. The control socket lives here, because MCP clients start
// `vistrel --mcp` with a reduced environment (HOME and PATH, rarely more): the application and
// `--mcp` must agree on the socket whatever XDG variables either was started with.
std::string defaultSupportFolder();

// Linux only: "$XDG_CONFIG_HOME/vistrel", by default "~/.config/vistrel" (the user defaults file).
// On macOS the preferences system owns the settings; this returns the support folder there.
std::string configFolder();

}  // namespace vistrel
