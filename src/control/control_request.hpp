#pragma once

#include <nlohmann/json.hpp>
#include <optional>
#include <string>
#include <string_view>

namespace vistrel {

// One parsed request line: {"tool": string, "args": object}.
struct ControlRequest {
  std::string tool;
  nlohmann::json args = nlohmann::json::object();
};

// Nesting deeper than this (arrays and objects inside each other) is refused before parsing, so
// that no handler walks an absurdly deep value recursively.
inline constexpr int kMaxRequestDepth = 64;

// Parses the bytes of one request line (without its newline). nullopt for anything that is not a
// JSON object with a string "tool" and, when present, an object "args": invalid JSON or UTF-8,
// nesting deeper than kMaxRequestDepth, numbers too large for a double. A missing "args" is {}.
// Pure; never throws.
std::optional<ControlRequest> parseControlRequest(std::string_view line);

}  // namespace vistrel
