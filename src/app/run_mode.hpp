#pragma once

#include <string_view>
#include <vector>

namespace vistrel {

enum class RunMode { mcp, statusLine, application };

// The mode the arguments ask for. By membership, not position: "--mcp" anywhere wins over
// "--statusline" anywhere; every other argument is ignored.
RunMode chooseRunMode(const std::vector<std::string_view>& arguments);

}  // namespace vistrel
