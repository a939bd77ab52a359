#pragma once

#include <nlohmann/json.hpp>
#include <optional>
#include <string>

namespace vistrel {

// What the control server asks of whoever answers its requests. The server parses the request
// line ({"tool": string, "args": object}) and hands the tool name and arguments over.
class ControlHandler {
 public:
  virtual ~ControlHandler() = default;
  // Called on the connection's own thread first: the answer line (compact JSON, no newline) for
  // requests that read slow sources (the history, the agents' files), or nullopt for the others.
  virtual std::optional<std::string> answerOffMain(const std::string& tool,
                                                   const nlohmann::json& args) = 0;
  // Called on the main thread for every request `answerOffMain` left: the answer line.
  virtual std::string answerOnMain(const std::string& tool, const nlohmann::json& args) = 0;
};

}  // namespace vistrel
