#include <cstdlib>

#include "agents/executable_path.hpp"
#include "control/mcp_launch.hpp"

namespace vistrel {

namespace {

bool isSet(const char* name) {
  const char* value = std::getenv(name);
  return value && *value;
}

}  // namespace

bool launchApplicationInBackground() {
  // This very executable, in application mode. "/proc/self/exe" itself would also run it, but
  // the resolved path gives the application a meaningful argv[0].
  const std::string program = runningExecutablePath().value_or("/proc/self/exe");
  std::vector<std::string> environment;
  // No display to connect to: Qt draws nowhere, and the application serves agents headless.
  if (!isSet("DISPLAY") && !isSet("WAYLAND_DISPLAY")) {
    environment.push_back("QT_QPA_PLATFORM=offscreen");
  }
  // "--background": the application starts in the tray without a window, and exits at once when
  // another application (started a moment earlier, say by a second agent) already runs.
  return startDetached(program, {"--background"}, environment);
}

std::string applicationVersion() {
#ifdef VISTREL_VERSION
  return VISTREL_VERSION;
#else
  return "0.1.0";
#endif
}

}  // namespace vistrel
