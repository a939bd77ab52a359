// Entry point: chooses the run mode before anything else is created. The light modes run here;
// the application is a module loaded only when it runs.

#include <string_view>
#include <vector>

#include "agents/status_line_mode.hpp"
#include "app/application_module.hpp"
#include "app/run_mode.hpp"
#include "control/mcp.hpp"

int main(int argc, char** argv) {
  std::vector<std::string_view> arguments(argv + 1, argv + argc);
  switch (vistrel::chooseRunMode(arguments)) {
    case vistrel::RunMode::mcp:
      return vistrel::runMcpMode();
    case vistrel::RunMode::statusLine:
      return vistrel::runStatusLineMode();
    case vistrel::RunMode::application:
      return vistrel::runApplicationModule(vistrel::launchKind(arguments));
  }
  return 0;
}
