#pragma once

#include <string>
#include <vector>

namespace vistrel {

// Starts the application in the background for the `--mcp` mode (one definition per platform):
// on macOS `/usr/bin/open -g` with the application bundle, on Linux this executable detached from
// the terminal and session, with Qt's offscreen platform when there is no display. True when the
// launch was handed to the system; whether the application then listens is for the caller to see.
bool launchApplicationInBackground();

// The version `--mcp` reports as its server information (one definition per platform).
std::string applicationVersion();

// Starts `program` with `arguments` (argv[0] is `program`) in a new session, with standard
// input, output and error on /dev/null, the environment of this process plus `extraEnvironment`
// ("NAME=value", replacing a variable of the same name), and SIGPIPE and SIGCHLD back at their
// defaults. It is not this process's child (it is started through an intermediate process that
// ends at once), so it leaves no zombie and outlives this process. True when the program was
// executed; false when it could not be (missing, not executable, no process left).
bool startDetached(const std::string& program, const std::vector<std::string>& arguments,
                   const std::vector<std::string>& extraEnvironment);

}  // namespace vistrel
