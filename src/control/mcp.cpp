// The JSON-RPC side of the MCP server: one input line in, at most one answer line out.

#include "control/mcp.hpp"

#include "base/json_depth.hpp"

#include <utility>

namespace vistrel {

namespace {

using nlohmann::ordered_json;

// JSON-RPC 2.0 error codes. A line that is not a JSON object is skipped, never answered: it has no
// id to answer with, and an answer with a null id is one that clients cannot pair with anything.
constexpr int kInvalidRequest = -32600;
constexpr int kMethodNotFound = -32601;
constexpr int kInvalidParams = -32602;

// Written compactly; text that is not valid UTF-8 (it cannot come from a parsed line, but an
// answer must never throw) is replaced rather than refused.
std::string compact(const ordered_json& message) {
  return message.dump(-1, ' ', false, ordered_json::error_handler_t::replace);
}

std::string reply(const ordered_json& id, ordered_json result) {
  return compact(ordered_json{{"jsonrpc", "2.0"}, {"id", id}, {"result", std::move(result)}});
}

std::string errorReply(const ordered_json& id, int code, std::string message) {
  return compact(ordered_json{{"jsonrpc", "2.0"},
                              {"id", id},
                              {"error", {{"code", code}, {"message", std::move(message)}}}});
}

std::string_view trimmed(std::string_view s) {
  auto blank = [](char c) { return c == ' ' || c == '\t' || c == '\r' || c == '\n'; };
  while (!s.empty() && blank(s.front())) s.remove_prefix(1);
  while (!s.empty() && blank(s.back())) s.remove_suffix(1);
  return s;
}

// Parses `text` as JSON; discarded when it is not JSON, nests deeper than `maxNesting`, or holds
// a number too large for a double.
ordered_json parseBounded(std::string_view text, int maxNesting) {
  if (jsonNestingDepth(text, maxNesting) > maxNesting) return ordered_json::value_t::discarded;
  try {
    return ordered_json::parse(text, nullptr, /*allow_exceptions=*/false);
  } catch (...) {  // allocation failure: treated as unparseable
    return ordered_json::value_t::discarded;
  }
}

ordered_json toolCallContent(const ToolCallResult& result) {
  return ordered_json{{"content", ordered_json::array({{{"type", "text"}, {"text", result.text}}})},
                      {"isError", result.isError}};
}

}  // namespace

MCP::MCP(McpEnvironment environment) : env_(std::move(environment)) {}

std::optional<std::string> MCP::handleLine(std::string_view rawLine) {
  try {
    const std::string_view line = trimmed(rawLine);
    if (line.empty()) return std::nullopt;
    if (line.size() > kMaxLineBytes) return std::nullopt;
    ordered_json message = parseBounded(line, kMaxNesting);
    // Batches were dropped from the protocol; an array, like any non-object, is no request.
    if (!message.is_object()) return std::nullopt;

    // A message without an "id" member is a notification and is never answered, whatever it
    // holds; "id": null is present, so it is answered.
    const auto idIt = message.find("id");
    const bool hasId = idIt != message.end();
    const ordered_json id = hasId ? *idIt : ordered_json(nullptr);

    const auto methodIt = message.find("method");
    if (methodIt == message.end() || !methodIt->is_string()) {
      // A response to a request (this server sends none) or something without a method.
      if (message.contains("result") || message.contains("error")) return std::nullopt;
      return errorReply(id, kInvalidRequest, "Invalid Request");
    }
    if (!hasId) return std::nullopt;
    const std::string& method = methodIt->get_ref<const std::string&>();

    ordered_json params = ordered_json::object();
    if (auto p = message.find("params"); p != message.end() && !p->is_null()) {
      if (!p->is_object()) return errorReply(id, kInvalidParams, "Invalid params");
      params = *p;
    }

    if (method == "initialize") {
      const ordered_json requested =
          params.contains("protocolVersion") ? params["protocolVersion"] : ordered_json(nullptr);
      return reply(
          id, ordered_json{{"protocolVersion", negotiateProtocolVersion(requested)},
                           {"capabilities", {{"tools", ordered_json::object()}}},
                           {"serverInfo",
                            {{"name", "Vistrel"}, {"title", "Vistrel"}, {"version", env_.version}}},
                           {"instructions", instructions(env_.forLinux)}});
    }
    if (method == "ping") return reply(id, ordered_json::object());
    if (method == "tools/list") return reply(id, ordered_json{{"tools", tools(env_.forLinux)}});
    if (method == "tools/call") {
      // A call without a name is passed on with an empty one: the application answers it with
      // its own "Unknown tool" error.
      std::string name;
      if (auto n = params.find("name"); n != params.end() && n->is_string()) name = *n;
      ordered_json arguments = ordered_json::object();
      if (auto a = params.find("arguments"); a != params.end() && !a->is_null()) arguments = *a;
      return reply(id, toolCallContent(call(name, arguments)));
    }
    return errorReply(id, kMethodNotFound, "Method not found: " + method);
  } catch (...) {
    // Nothing above is expected to throw; if it does (allocation), the line is dropped rather
    // than ending the server.
    return std::nullopt;
  }
}

ToolCallResult MCP::call(const std::string& tool, const ordered_json& args) {
  if (!args.is_object()) return {true, std::string(kBadRequestText)};
  std::string line;
  try {
    line = ordered_json{{"tool", tool}, {"args", args}}.dump();
  } catch (...) {  // text that is not UTF-8 cannot be encoded
    return {true, std::string(kBadRequestText)};
  }

  auto ask = [&] { return env_.request ? env_.request(line) : ControlExchange{}; };
  ControlExchange exchange = ask();
  if (exchange.outcome == ControlExchange::Outcome::notListening) {
    if (!env_.launchApplication || !env_.launchApplication()) {
      return {true, std::string(kNotRunningText)};
    }
    for (int attempt = 0;
         attempt < kLaunchAttempts && exchange.outcome == ControlExchange::Outcome::notListening;
         ++attempt) {
      if (env_.sleep) env_.sleep(kLaunchRetryInterval);
      exchange = ask();
    }
    if (exchange.outcome == ControlExchange::Outcome::notListening) {
      return {true, std::string(kNotRunningText)};
    }
  }
  if (exchange.outcome == ControlExchange::Outcome::noAnswer) {
    return {true, std::string(kNoAnswerText)};
  }
  return toolResultFromAnswer(exchange.answer);
}

ToolCallResult toolResultFromAnswer(std::string_view answerLine) {
  // The application's answers are a few levels deep; the bound only keeps a broken or hostile
  // answer from exhausting the stack when it is written out again.
  constexpr int kMaxAnswerNesting = 256;
  ordered_json answer = parseBounded(trimmed(answerLine), kMaxAnswerNesting);
  if (!answer.is_object()) return {true, std::string(MCP::kSomethingWrongText)};
  if (auto ok = answer.find("ok"); ok != answer.end() && ok->is_boolean() && ok->get<bool>()) {
    auto result = answer.find("result");
    if (result == answer.end()) return {false, "null"};
    if (result->is_string()) return {false, result->get<std::string>()};
    return {false, result->dump(2, ' ', false, ordered_json::error_handler_t::replace)};
  }
  if (auto error = answer.find("error"); error != answer.end() && error->is_string()) {
    return {true, error->get<std::string>()};
  }
  return {true, std::string(MCP::kSomethingWrongText)};
}

}  // namespace vistrel
