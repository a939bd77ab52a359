#include "control/control_request.hpp"

namespace vistrel {

namespace {

// The deepest nesting of arrays and objects in `text`, counted outside strings; false as soon as
// it exceeds `limit`. Malformed text is left to the parser.
bool nestingWithin(std::string_view text, int limit) {
  int depth = 0;
  bool inString = false;
  bool escaped = false;
  for (char c : text) {
    if (inString) {
      if (escaped) {
        escaped = false;
      } else if (c == '\\') {
        escaped = true;
      } else if (c == '"') {
        inString = false;
      }
      continue;
    }
    if (c == '"') {
      inString = true;
    } else if (c == '[' || c == '{') {
      if (++depth > limit) return false;
    } else if (c == ']' || c == '}') {
      --depth;
    }
  }
  return true;
}

}  // namespace

std::optional<ControlRequest> parseControlRequest(std::string_view line) {
  try {
    if (!nestingWithin(line, kMaxRequestDepth)) return std::nullopt;
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
