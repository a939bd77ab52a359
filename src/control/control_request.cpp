#include "control/control_request.hpp"

#include "base/json_depth.hpp"

namespace vistrel {

namespace {}  // namespace

std::optional<ControlRequest> parseControlRequest(std::string_view line) {
  try {
    if (!jsonNestingWithin(line, kMaxRequestDepth)) return std::nullopt;
    // Without exceptions: invalid JSON, invalid UTF-8 and numbers beyond a double's range all
    // come back as a discarded value.
    nlohmann::json value = nlohmann::json::parse(line.begin(), line.end(), nullptr, false);
    if (value.is_discarded() || !value.is_object()) return std::nullopt;
    auto tool = value.find("tool");
    if (tool == value.end() || !tool->is_string()) return std::nullopt;
    ControlRequest request;
    request.tool = tool->get<std::string>();
    auto args = value.find("args");
    if (args != value.end()) {
      if (!args->is_object()) return std::nullopt;
      request.args = std::move(*args);
    }
    return request;
  } catch (...) {  // allocation failure on a huge line
    return std::nullopt;
  }
}

}  // namespace vistrel
