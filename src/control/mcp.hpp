#pragma once

#include "base/json_depth.hpp"

// The `--mcp` run mode: a Model Context Protocol tool server on standard input and output. It owns
// no monitoring state; every tool call becomes one request over the control socket to the running
// application, whose answer goes back to the agent as text.

#include <chrono>
#include <functional>
#include <nlohmann/json.hpp>
#include <optional>
#include <string>
#include <string_view>

namespace vistrel {

// How one exchange with the running application went.
struct ControlExchange {
  enum class Outcome {
    answered,      // `answer` holds the answer line (without its newline)
    notListening,  // no connection could be made: nothing was sent
    noAnswer,      // connected, but no whole answer line came back (time-out or closed)
  };
  Outcome outcome = Outcome::notListening;
  std::string answer;
};

// Everything the server needs from outside, injectable so that the line handler runs in tests and
// under the fuzzer without a socket, a process launch or a clock.
struct McpEnvironment {
  // One connection to the control socket: sends `requestLine` (compact JSON; the callee adds the
  // newline) and reads one answer line.
  std::function<ControlExchange(const std::string& requestLine)> request;
  // Starts the application in the background. False when it could not be started.
  std::function<bool()> launchApplication;
  // Waits between connection attempts while the application starts.
  std::function<void(std::chrono::milliseconds)> sleep;
  // Linux's words ("Linux", "computer") in the instructions and tool descriptions.
  bool forLinux = false;
  // `serverInfo.version`.
  std::string version;
};

// The result of one tool call as the agent sees it.
struct ToolCallResult {
  bool isError = false;
  std::string text;
};

class MCP {
 public:
  // Answered when the client asks for no protocol revision or for one this server cannot speak.
  static constexpr std::string_view kDefaultProtocolVersion = "2025-06-18";
  // Send and receive time-outs of one control connection, in seconds.
  static constexpr int kConnectTimeoutSeconds = 15;
  // After launching the application: this many further attempts, this far apart (15 s in all).
  static constexpr int kLaunchAttempts = 60;
  static constexpr std::chrono::milliseconds kLaunchRetryInterval{250};
  // A longer input line is skipped unparsed (tool arguments are a few
  // hundred bytes; the control socket refuses requests over 1 MiB anyway).
  static constexpr size_t kMaxLineBytes = 1 << 20;
  // Deeper arrays and objects are refused before parsing, so that no recursive walk of a parsed
  // value (writing it out, destroying it) can exhaust the stack.
  static constexpr int kMaxNesting = 64;

  static constexpr std::string_view kNotRunningText =
      "Vistrel isn't running, or AI agent access is off. Turn it on in Vistrel \u203a Settings "
      "\u203a AI agents.";
  static constexpr std::string_view kNoAnswerText = "Vistrel didn't answer.";
  static constexpr std::string_view kBadRequestText = "Bad request";
  static constexpr std::string_view kSomethingWrongText = "Something went wrong.";

  explicit MCP(McpEnvironment environment);

  // One input line (without its newline) in, the answer line (compact JSON, without a newline)
  // out; nullopt when nothing is to be answered (a notification, a line that is not a JSON object,
  // a client's own response). Never throws.
  std::optional<std::string> handleLine(std::string_view line);

  // One control request for a tool call, launching the application when it is not listening.
  ToolCallResult call(const std::string& tool, const nlohmann::ordered_json& args);

  // The server's fixed texts, with the platform's words.
  static std::string instructions(bool forLinux);
  static nlohmann::ordered_json tools(bool forLinux);
  // The protocol revision answered to a client that asks for `requested` (the "protocolVersion"
  // of its initialize request, null when absent).
  static std::string negotiateProtocolVersion(const nlohmann::ordered_json& requested);
  // The command the settings page shows for adding this server to Claude Code.
  static std::string claudeCommand(std::string_view binaryPath);

 private:
  McpEnvironment env_;
};

// The agent's text for one control answer line: "result" itself when it is a string, otherwise
// written as pretty-printed JSON; the answer's "error" (or a generic text) when it is not "ok".
ToolCallResult toolResultFromAnswer(std::string_view answerLine);

// The `--mcp` mode: serves standard input until it ends, then returns 0.
int runMcpMode();

}  // namespace vistrel
