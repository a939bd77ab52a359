// Entry point: chooses the run mode before anything else is created.

#include <cstdio>
#include <string_view>
#include <vector>

#include "app/application.hpp"
#include "app/run_mode.hpp"

int main(int argc, char** argv) {
  std::vector<std::string_view> arguments(argv + 1, argv + argc);
  switch (vistrel::chooseRunMode(arguments)) {
    case vistrel::RunMode::mcp:
      std::fputs("vistrel: the MCP server is not part of this build yet\n", stderr);
      return 2;
    case vistrel::RunMode::statusLine:
      std::fputs("vistrel: the status-line bridge is not part of this build yet\n", stderr);
      return 2;
    case vistrel::RunMode::application:
      return vistrel::runApplicationMode();
  }
  return 0;
}
