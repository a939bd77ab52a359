#include "app/run_mode.hpp"

#include <algorithm>

namespace vistrel {

RunMode chooseRunMode(const std::vector<std::string_view>& arguments) {
  auto has = [&](std::string_view flag) {
    return std::find(arguments.begin(), arguments.end(), flag) != arguments.end();
  };
  if (has("--mcp")) return RunMode::mcp;
  if (has("--statusline")) return RunMode::statusLine;
  return RunMode::application;
}

}  // namespace vistrel
