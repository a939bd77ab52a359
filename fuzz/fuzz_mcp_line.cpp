// Feeds arbitrary bytes to the MCP line handler with a fake application. Every line yields no
// answer or exactly one JSON-RPC message on one line; a tool call asks the fake at most once
// (plus the retries after one launch).
#include <cstddef>
#include <cstdint>
#include <nlohmann/json.hpp>
#include <string_view>

#include "control/mcp.hpp"

namespace {

// The fake's answer depends on the request so that every answer path is reached: a string, a
// nested value built from the request itself, an error, no answer, nothing listening.
vistrel::ControlExchange fakeAnswer(const std::string& request) {
  using Outcome = vistrel::ControlExchange::Outcome;
  switch (request.size() % 5) {
    case 0:
      return {Outcome::answered, R"({"ok":true,"result":"text"})"};
    case 1:
      return {Outcome::answered, R"({"ok":true,"result":)" + request + "}"};
    case 2:
      return {Outcome::answered, R"({"ok":false,"error":"No"})"};
    case 3:
      return {Outcome::noAnswer, {}};
    default:
      return {Outcome::notListening, {}};
  }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  std::string_view line(reinterpret_cast<const char*>(data), size);
  int requests = 0, launches = 0;
  vistrel::McpEnvironment env;
  env.request = [&](const std::string& request) {
    ++requests;
    return fakeAnswer(request);
  };
  env.launchApplication = [&] {
    ++launches;
    return true;
  };
  env.sleep = [](std::chrono::milliseconds) {};
  env.forLinux = size % 2 == 0;
  env.version = "0.0.0";
  vistrel::MCP server(std::move(env));
  auto answer = server.handleLine(line);
  if (launches > 1 || requests > 1 + vistrel::MCP::kLaunchAttempts) __builtin_trap();
  if (answer) {
    if (answer->find('\n') != std::string::npos) __builtin_trap();
    auto message = nlohmann::json::parse(*answer, nullptr, false);
    if (!message.is_object() || message["jsonrpc"] != "2.0" || !message.contains("id")) {
      __builtin_trap();
    }
    if (message.contains("result") == message.contains("error")) __builtin_trap();
  }
  // The answer to a malformed line also comes from the extracted answer parser.
  auto result = vistrel::toolResultFromAnswer(line);
  if (result.text.empty() && result.isError) __builtin_trap();
  return 0;
}
