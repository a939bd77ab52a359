// The MCP server's line handler, driven with JSON-RPC lines against a fake control socket.

#include "control/mcp.hpp"

#include <gtest/gtest.h>
#include <unistd.h>

#include <chrono>
#include <cstdlib>
#include <deque>
#include <fstream>
#include <sstream>
#include <thread>

#include "control/mcp_launch.hpp"

namespace vistrel {
namespace {

using nlohmann::ordered_json;
using Outcome = ControlExchange::Outcome;

// The application as the server sees it: scripted exchanges, in order; once they run out, the
// last one repeats. Records every request line, every launch and every wait.
struct FakeApplication {
  std::deque<ControlExchange> script;
  std::vector<std::string> requests;
  int launches = 0;
  bool launchWorks = true;
  std::vector<std::chrono::milliseconds> sleeps;

  McpEnvironment environment(bool forLinux = false) {
    McpEnvironment env;
    env.request = [this](const std::string& line) {
      requests.push_back(line);
      ControlExchange next = script.empty() ? ControlExchange{} : script.front();
      if (script.size() > 1) script.pop_front();
      return next;
    };
    env.launchApplication = [this] {
      ++launches;
      return launchWorks;
    };
    env.sleep = [this](std::chrono::milliseconds d) { sleeps.push_back(d); };
    env.forLinux = forLinux;
    env.version = "9.8.7";
    return env;
  }
};

ControlExchange answered(std::string line) {
  return {Outcome::answered, std::move(line)};
}

ordered_json parsed(const std::optional<std::string>& line) {
  if (!line) return ordered_json(ordered_json::value_t::discarded);
  EXPECT_EQ(line->find('\n'), std::string::npos) << "one message is one line";
  return ordered_json::parse(*line);
}

ordered_json errorAnswer(ordered_json id, int code, std::string message) {
  return ordered_json{
      {"jsonrpc", "2.0"}, {"id", id}, {"error", {{"code", code}, {"message", message}}}};
}

TEST(McpLines, EachLineGetsTheJsonRpcAnswerItCalls) {
  const std::string deep(100000, '[');
  const std::string shallowParams = R"({"jsonrpc":"2.0","id":3,"method":"ping","params":{"a":)" +
                                    std::string(20, '[') + std::string(20, ']') + "}}";
  struct Case {
    std::string name;
    std::string line;
    std::optional<ordered_json> answer;  // nullopt: no answer at all
  };
  const std::vector<Case> cases = {
      {"ping", R"({"jsonrpc":"2.0","id":1,"method":"ping"})",
       ordered_json{{"jsonrpc", "2.0"}, {"id", 1}, {"result", ordered_json::object()}}},
      {"string id kept", R"({"jsonrpc":"2.0","id":"abc-1","method":"ping"})",
       ordered_json{{"jsonrpc", "2.0"}, {"id", "abc-1"}, {"result", ordered_json::object()}}},
      {"CRLF line", "{\"jsonrpc\":\"2.0\",\"id\":2,\"method\":\"ping\"}\r",
       ordered_json{{"jsonrpc", "2.0"}, {"id", 2}, {"result", ordered_json::object()}}},
      {"nesting within the bound", shallowParams,
       ordered_json{{"jsonrpc", "2.0"}, {"id", 3}, {"result", ordered_json::object()}}},
      {"initialized notification", R"({"jsonrpc":"2.0","method":"notifications/initialized"})",
       std::nullopt},
      {"cancel notification",
       R"({"jsonrpc":"2.0","method":"notifications/cancelled","params":{"requestId":1}})",
       std::nullopt},
      {"a known method sent as a notification", R"({"jsonrpc":"2.0","method":"tools/list"})",
       std::nullopt},
      {"unknown notification", R"({"jsonrpc":"2.0","method":"resources/list"})", std::nullopt},
      {"unknown method with an id", R"({"jsonrpc":"2.0","id":7,"method":"resources/list"})",
       errorAnswer(7, -32601, "Method not found: resources/list")},
      {"unknown method with id null", R"({"jsonrpc":"2.0","id":null,"method":"prompts/get"})",
       errorAnswer(nullptr, -32601, "Method not found: prompts/get")},
      {"a response from the client", R"({"jsonrpc":"2.0","id":5,"result":{}})", std::nullopt},
      {"blank line", "   \t", std::nullopt},
      {"empty line", "", std::nullopt},
      // Lines that are not a JSON object are skipped: no answer, not even one with id null.
      {"garbage", "hello there", std::nullopt},
      {"cut short", R"({"jsonrpc":"2.0","id":1,"meth)", std::nullopt},
      {"invalid UTF-8 in a string", "{\"jsonrpc\":\"2.0\",\"id\":1,\"method\":\"ping\xff\xfe\"}",
       std::nullopt},
      {"overlong UTF-8", "{\"id\":1,\"method\":\"\xc0\xaf\"}", std::nullopt},
      {"deep nesting", deep, std::nullopt},
      {"deep nesting inside params", R"({"id":1,"method":"ping","params":{"x":)" + deep + "}}",
       std::nullopt},
      {"number beyond a double", R"({"id":1e999,"method":"ping"})", std::nullopt},
      {"line over the bound",
       R"({"id":1,"method":"ping","params":{"x":")" + std::string(MCP::kMaxLineBytes, 'a') + "\"}}",
       std::nullopt},
      {"a batch", R"([{"jsonrpc":"2.0","id":1,"method":"ping"}])", std::nullopt},
      {"a number", "42", std::nullopt},
      {"method not a string", R"({"jsonrpc":"2.0","id":4,"method":17})",
       errorAnswer(4, -32600, "Invalid Request")},
      {"no method", R"({"jsonrpc":"2.0","id":4})", errorAnswer(4, -32600, "Invalid Request")},
      {"params not an object", R"({"jsonrpc":"2.0","id":6,"method":"tools/call","params":[1]})",
       errorAnswer(6, -32602, "Invalid params")},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.name);
    FakeApplication app;
    MCP server(app.environment());
    auto answer = server.handleLine(c.line);
    if (!c.answer) {
      EXPECT_FALSE(answer) << *answer;
    } else {
      ASSERT_TRUE(answer);
      EXPECT_EQ(parsed(answer), *c.answer);
    }
    EXPECT_TRUE(app.requests.empty()) << "only tools/call asks the application";
  }
}

TEST(McpLines, InitializeAnswersTheRevisionTheClientCanUse) {
  struct Case {
    std::string params;
    std::string expected;
  };
  const std::vector<Case> cases = {
      {R"({"protocolVersion":"2025-06-18"})", "2025-06-18"},
      {R"({"protocolVersion":"2025-03-26"})", "2025-03-26"},
      {R"({"protocolVersion":"2024-11-05"})", "2024-11-05"},
      {R"({"protocolVersion":"2025-11-25"})", "2025-11-25"},  // newer: the client's own
      {R"({})", "2025-06-18"},
      {R"({"protocolVersion":null})", "2025-06-18"},
      {R"({"protocolVersion":20250618})", "2025-06-18"},
      {R"({"protocolVersion":"latest"})", "2025-06-18"},
      {R"({"protocolVersion":"2023-01-01"})", "2025-06-18"},  // before any revision
      {R"({"protocolVersion":"2025-06-1x"})", "2025-06-18"},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.params);
    FakeApplication app;
    MCP server(app.environment());
    auto answer = parsed(server.handleLine(
        R"({"jsonrpc":"2.0","id":0,"method":"initialize","params":)" + c.params + "}"));
    EXPECT_EQ(answer["result"]["protocolVersion"], c.expected);
  }
}

TEST(McpLines, InitializeGivesTheServerInformationInOrder) {
  for (bool forLinux : {false, true}) {
    FakeApplication app;
    MCP server(app.environment(forLinux));
    auto line = server.handleLine(
        R"({"jsonrpc":"2.0","id":1,"method":"initialize","params":{"protocolVersion":"2025-06-18","capabilities":{},"clientInfo":{"name":"t","version":"1"}}})");
    ASSERT_TRUE(line);
    const ordered_json expected = {
        {"jsonrpc", "2.0"},
        {"id", 1},
        {"result",
         {{"protocolVersion", "2025-06-18"},
          {"capabilities", {{"tools", ordered_json::object()}}},
          {"serverInfo", {{"name", "Vistrel"}, {"title", "Vistrel"}, {"version", "9.8.7"}}},
          {"instructions", MCP::instructions(forLinux)}}}};
    // Compared as text: key order is part of the answer.
    EXPECT_EQ(*line, expected.dump());
  }
}

TEST(McpTexts, InstructionsWithThePlatformsWords) {
  const std::string mac =
      "Vistrel watches this Mac: CPU, memory, GPU, disk, network, battery, temperatures, every app "
      "and its helpers,\nand Claude Code / Codex sessions with their plan limits, and keeps a "
      "history for up to a year.\nStart with `status` for the whole picture, `list_apps` to see "
      "what is using the Mac (sort by cpu, memory, energy,\ndisk or network), `history` to see "
      "when something happened and which apps were busy then, and `agents` for\nClaude Code and "
      "Codex: live sessions (tokens, context, cost) and how much of the 5-hour and weekly limits "
      "is used. `quit_app` never quits by itself: it asks the person in Vistrel's window, and they "
      "decide.";
  EXPECT_EQ(MCP::instructions(false), mac);
  std::string linux = mac;
  linux.replace(linux.find("this Mac"), 8, "this computer");
  linux.replace(linux.find("the Mac"), 7, "the computer");
  EXPECT_EQ(MCP::instructions(true), linux);
}

TEST(McpTexts, SevenToolsWithExactDescriptors) {
  FakeApplication app;
  MCP server(app.environment());
  auto answer = parsed(server.handleLine(R"({"jsonrpc":"2.0","id":2,"method":"tools/list"})"));
  const ordered_json& tools = answer["result"]["tools"];
  ASSERT_EQ(tools.size(), 7u);
  std::vector<std::string> names;
  for (const auto& t : tools) names.push_back(t["name"]);
  EXPECT_EQ(names, (std::vector<std::string>{"status", "list_apps", "get_app", "history", "agents",
                                             "alerts", "quit_app"}));

  auto annotations = [](bool readOnly) {
    return ordered_json{
        {"readOnlyHint", readOnly}, {"destructiveHint", false}, {"openWorldHint", false}};
  };
  const ordered_json listApps = {
      {"name", "list_apps"},
      {"description",
       "Running apps with helpers grouped under them: CPU (percent of one core), memory, energy "
       "(watts), disk and network rates, GPU share and an impact score."},
      {"inputSchema",
       {{"type", "object"},
        {"properties",
         {{"sort",
           {{"type", "string"},
            {"description", "impact (default), cpu, memory, energy, disk or network."}}},
          {"limit", {{"type", "integer"}, {"description", "How many, default 15, up to 100."}}}}},
        {"required", ordered_json::array()},
        {"additionalProperties", false}}},
      {"annotations", annotations(true)}};
  EXPECT_EQ(tools[1].dump(), listApps.dump());

  const ordered_json quitApp = {
      {"name", "quit_app"},
      {"description",
       "Ask the person to quit an app. Vistrel shows its confirmation in its window; nothing "
       "quits unless they confirm there."},
      {"inputSchema",
       {{"type", "object"},
        {"properties",
         {{"name", {{"type", "string"}, {"description", "App name, as list_apps shows it."}}}}},
        {"required", {"name"}},
        {"additionalProperties", false}}},
      {"annotations", annotations(false)}};
  EXPECT_EQ(tools[6].dump(), quitApp.dump());

  // The rest, field by field: description, property names and types, required, read-only.
  struct Expected {
    size_t index;
    std::string description;
    std::vector<std::pair<std::string, std::string>> properties;
    std::vector<std::string> required;
  };
  const std::vector<Expected> others = {
      {0,
       "The Mac right now: CPU, memory and pressure, GPU, disk and network rates, battery, "
       "temperatures, fans, power, and the five busiest apps.",
       {},
       {}},
      {2,
       "One app in detail: totals and each of its processes with pid, CPU, memory and energy.",
       {{"name", "string"}},
       {"name"}},
      {3,
       "A metric over a time span from Vistrel's record, with the peak and the apps that used the "
       "most of it.",
       {{"metric", "string"}, {"span", "string"}},
       {"metric"}},
      {4,
       "Claude Code and Codex: plan limits (current 5-hour session and weekly: percent used, reset "
       "time), today's tokens, and every live or earlier-today session with model, folder, "
       "tokens, context used, cost, prompts and tool calls.",
       {},
       {}},
      {5,
       "Recent alerts Vistrel raised: runaway CPU, growing memory, heavy disk or network, heat, "
       "low space.",
       {{"limit", "integer"}},
       {}},
  };
  for (const auto& e : others) {
    SCOPED_TRACE(names[e.index]);
    const auto& t = tools[e.index];
    EXPECT_EQ(t["description"], e.description);
    std::vector<std::pair<std::string, std::string>> properties;
    for (const auto& [key, value] : t["inputSchema"]["properties"].items()) {
      properties.emplace_back(key, value["type"]);
    }
    EXPECT_EQ(properties, e.properties);
    EXPECT_EQ(t["inputSchema"]["required"], ordered_json(e.required));
    EXPECT_EQ(t["annotations"], annotations(true));
  }
  EXPECT_EQ(tools[3]["inputSchema"]["properties"]["metric"]["description"],
            "cpu, memory, gpu, disk, network, battery or heat.");
  EXPECT_EQ(tools[3]["inputSchema"]["properties"]["span"]["description"],
            "1h, 24h, 7d, 30d or 1y. Default 24h.");
  EXPECT_EQ(tools[5]["inputSchema"]["properties"]["limit"]["description"], "How many, default 10.");
}

TEST(McpTexts, LinuxToolDescriptionsSayComputer) {
  const ordered_json mac = MCP::tools(false);
  const ordered_json linux = MCP::tools(true);
  EXPECT_EQ(linux[0]["description"],
            "The computer right now: CPU, memory and pressure, GPU, disk and network rates, "
            "battery, temperatures, fans, power, and the five busiest apps.");
  for (size_t i = 1; i < 7; ++i) EXPECT_EQ(linux[i], mac[i]) << i;
}

struct CallCase {
  std::string name;
  std::string params;   // the tools/call params
  std::string request;  // the control request line expected
  std::string answer;   // the application's answer line
  bool isError;         // the tool result
  std::string text;
};

TEST(McpCalls, EachToolIsOneControlRequestAndItsAnswerIsTheText) {
  const std::vector<CallCase> cases = {
      {"status", R"({"name":"status"})", R"({"tool":"status","args":{}})",
       R"({"ok":true,"result":"all calm"})", false, "all calm"},
      {"status with arguments null", R"({"name":"status","arguments":null})",
       R"({"tool":"status","args":{}})", R"({"ok":true,"result":"x"})", false, "x"},
      {"list_apps keeps argument order",
       R"({"name":"list_apps","arguments":{"sort":"cpu","limit":5}})",
       R"({"tool":"list_apps","args":{"sort":"cpu","limit":5}})", R"({"ok":true,"result":[]})",
       false, "[]"},
      {"get_app", R"({"name":"get_app","arguments":{"name":"Safari"}})",
       R"({"tool":"get_app","args":{"name":"Safari"}})",
       R"({"ok":true,"result":{"name":"Safari","processes":3}})", false,
       "{\n  \"name\": \"Safari\",\n  \"processes\": 3\n}"},
      {"history", R"({"name":"history","arguments":{"metric":"cpu","span":"1h"}})",
       R"({"tool":"history","args":{"metric":"cpu","span":"1h"}})",
       R"({"ok":true,"result":{"metric":"cpu","points":[{"at":"2025-01-01T00:00:00Z","value":1.5}]}})",
       false,
       "{\n  \"metric\": \"cpu\",\n  \"points\": [\n    {\n      \"at\": "
       "\"2025-01-01T00:00:00Z\",\n      \"value\": 1.5\n    }\n  ]\n}"},
      {"agents, slashes not escaped", R"({"name":"agents","arguments":{}})",
       R"({"tool":"agents","args":{}})", R"({"ok":true,"result":{"folder":"/home/a/b"}})", false,
       "{\n  \"folder\": \"/home/a/b\"\n}"},
      {"alerts, a number as the result", R"({"name":"alerts","arguments":{"limit":-3}})",
       R"({"tool":"alerts","args":{"limit":-3}})", R"({"ok":true,"result":0})", false, "0"},
      {"quit_app", R"({"name":"quit_app","arguments":{"name":"Zoom"}})",
       R"({"tool":"quit_app","args":{"name":"Zoom"}})",
       R"({"ok":true,"result":"Asked the person in Vistrel's window whether to quit Zoom."})",
       false, "Asked the person in Vistrel's window whether to quit Zoom."},
      {"an error answer", R"({"name":"get_app","arguments":{"name":"nothing"}})",
       R"({"tool":"get_app","args":{"name":"nothing"}})",
       R"({"ok":false,"error":"No running app matches that name. Use list_apps."})", true,
       "No running app matches that name. Use list_apps."},
      {"an error that is not text", R"({"name":"status"})", R"({"tool":"status","args":{}})",
       R"({"ok":false,"error":{"code":1}})", true, "Something went wrong."},
      {"ok that is not true", R"({"name":"status"})", R"({"tool":"status","args":{}})",
       R"({"ok":1,"result":"x"})", true, "Something went wrong."},
      {"ok without a result", R"({"name":"status"})", R"({"tool":"status","args":{}})",
       R"({"ok":true})", false, "null"},
      {"an answer that is no JSON", R"({"name":"status"})", R"({"tool":"status","args":{}})",
       "Busy\xff", true, "Something went wrong."},
      {"an answer that is not an object", R"({"name":"status"})", R"({"tool":"status","args":{}})",
       R"(["ok"])", true, "Something went wrong."},
      {"an answer nested too deep", R"({"name":"status"})", R"({"tool":"status","args":{}})",
       R"({"ok":true,"result":)" + std::string(5000, '[') + std::string(5000, ']') + "}", true,
       "Something went wrong."},
      {"no name: passed on empty", R"({"arguments":{}})", R"({"tool":"","args":{}})",
       R"({"ok":false,"error":"Unknown tool "})", true, "Unknown tool "},
      {"a name that is not text", R"({"name":5})", R"({"tool":"","args":{}})",
       R"({"ok":false,"error":"Unknown tool "})", true, "Unknown tool "},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.name);
    FakeApplication app;
    app.script = {answered(c.answer)};
    MCP server(app.environment());
    auto answer = parsed(server.handleLine(
        R"({"jsonrpc":"2.0","id":11,"method":"tools/call","params":)" + c.params + "}"));
    ASSERT_EQ(app.requests.size(), 1u);
    EXPECT_EQ(app.requests[0], c.request);
    EXPECT_EQ(app.launches, 0);
    const ordered_json expected = {
        {"jsonrpc", "2.0"},
        {"id", 11},
        {"result",
         {{"content", ordered_json::array({{{"type", "text"}, {"text", c.text}}})},
          {"isError", c.isError}}}};
    EXPECT_EQ(answer.dump(), expected.dump());
  }
}

TEST(McpCalls, ArgumentsThatAreNotAnObjectAskNothing) {
  for (std::string arguments : {"[1,2]", "\"name\"", "3", "true"}) {
    SCOPED_TRACE(arguments);
    FakeApplication app;
    MCP server(app.environment());
    auto answer = parsed(server.handleLine(
        R"({"jsonrpc":"2.0","id":1,"method":"tools/call","params":{"name":"status","arguments":)" +
        arguments + "}}"));
    EXPECT_TRUE(app.requests.empty());
    EXPECT_EQ(answer["result"]["isError"], true);
    EXPECT_EQ(answer["result"]["content"][0]["text"], "Bad request");
  }
}

TEST(McpCalls, TheApplicationNotRunningIsStartedAndWaitedFor) {
  const ControlExchange down{Outcome::notListening, {}};
  const std::string notRunning(MCP::kNotRunningText);
  struct Case {
    std::string name;
    int downFor;  // requests that find nothing listening before the application answers
    bool launchWorks;
    bool neverComesUp;
    size_t requests;
    int launches;
    size_t sleeps;
    bool isError;
    std::string text;
  };
  const std::vector<Case> cases = {
      {"running already", 0, true, false, 1, 0, 0, false, "up"},
      {"comes up on the first retry", 1, true, false, 2, 1, 1, false, "up"},
      {"comes up after 10 retries", 10, true, false, 11, 1, 10, false, "up"},
      {"comes up on the last retry", 60, true, false, 61, 1, 60, false, "up"},
      {"never comes up", 0, true, true, 61, 1, 60, true, notRunning},
      {"cannot be launched", 0, false, true, 1, 1, 0, true, notRunning},
      {"comes up but does not answer", 3, true, false, 4, 1, 3, true, "Vistrel didn't answer."},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.name);
    FakeApplication app;
    app.launchWorks = c.launchWorks;
    for (int i = 0; i < c.downFor; ++i) app.script.push_back(down);
    if (c.neverComesUp) {
      app.script.push_back(down);
    } else if (c.text == "up") {
      app.script.push_back(answered(R"({"ok":true,"result":"up"})"));
    } else {
      app.script.push_back({Outcome::noAnswer, {}});
    }
    MCP server(app.environment());
    ToolCallResult result = server.call("status", ordered_json::object());
    EXPECT_EQ(result.isError, c.isError);
    EXPECT_EQ(result.text, c.text);
    EXPECT_EQ(app.requests.size(), c.requests);
    EXPECT_EQ(app.launches, c.launches);
    ASSERT_EQ(app.sleeps.size(), c.sleeps);
    for (auto d : app.sleeps) EXPECT_EQ(d, std::chrono::milliseconds(250));
  }
}

TEST(McpCalls, ASecondCallAfterAFailedStartTriesAgain) {
  FakeApplication app;
  app.launchWorks = false;
  MCP server(app.environment());
  EXPECT_TRUE(server.call("status", ordered_json::object()).isError);
  app.launchWorks = true;
  app.script = {{Outcome::notListening, {}}, answered(R"({"ok":true,"result":"ok"})")};
  ToolCallResult second = server.call("status", ordered_json::object());
  EXPECT_FALSE(second.isError);
  EXPECT_EQ(app.launches, 2);
}

TEST(McpTexts, ClaudeCommandQuotesThePath) {
  EXPECT_EQ(MCP::claudeCommand("/Applications/My Tools/Vistrel.app/Contents/MacOS/vistrel"),
            "claude mcp add vistrel -- \"/Applications/My Tools/Vistrel.app/Contents/MacOS/"
            "vistrel\"");
}

TEST(JsonNesting, CountsBracketsOutsideStringsOnly) {
  struct Case {
    std::string text;
    int depth;
  };
  const std::vector<Case> cases = {
      {"1", 0},
      {"[]", 1},
      {R"({"a":[{"b":[]}]})", 4},
      {R"({"a":"[[[[[["})", 1},
      {R"({"a":"\"[[[["})", 1},
      {R"({"a":"\\"})", 1},
      {"]]]][", 1},
      {std::string(1000, '['), 9},  // stops counting past the limit
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.text.substr(0, 40));
    EXPECT_EQ(jsonNestingDepth(c.text, 8), c.depth);
  }
}

// The real detached start: the program runs in its own session with the extra variables, its
// standard streams on /dev/null, and a program that cannot run is reported.
TEST(McpLaunch, StartDetachedRunsTheProgramInItsOwnSession) {
  if (::access("/proc/self/stat", R_OK) != 0) GTEST_SKIP() << "reads the process's /proc entry";
  char tmpl[] = "/tmp/vistrel-mcp-launch-XXXXXX";
  const std::string folder = ::mkdtemp(tmpl);
  const std::string out = folder + "/out";
  // Field 6 of stat is the session id, which must be the new session's, not this test's.
  const std::string script =
      "i=$(readlink /proc/$$/fd/0); o=$(readlink /proc/$$/fd/1); "
      "s=$(awk '{print $6}' /proc/$$/stat); "
      "printf '%s %s %s %s %s' \"$VISTREL_PROBE\" \"$HOME\" \"$s\" \"$i\" \"$o\" > '" +
      out + ".tmp'; mv '" + out + ".tmp' '" + out + "'";
  ASSERT_TRUE(startDetached("/bin/sh", {"-c", script}, {"VISTREL_PROBE=probe", "HOME=/nowhere"}));
  std::string text;
  for (int i = 0; i < 200 && text.empty(); ++i) {
    std::ifstream in(out);
    std::stringstream s;
    s << in.rdbuf();
    text = s.str();
    if (text.empty()) std::this_thread::sleep_for(std::chrono::milliseconds(50));
  }
  std::istringstream fields(text);
  std::string probe, home, sid, stdinTarget, stdoutTarget;
  fields >> probe >> home >> sid >> stdinTarget >> stdoutTarget;
  EXPECT_EQ(probe, "probe");
  EXPECT_EQ(home, "/nowhere");
  EXPECT_NE(sid, std::to_string(::getsid(0)));
  EXPECT_FALSE(sid.empty());
  EXPECT_EQ(stdinTarget, "/dev/null");
  EXPECT_EQ(stdoutTarget, "/dev/null");
  EXPECT_FALSE(startDetached(folder + "/no-such-program", {}, {}));
  std::system(("rm -rf '" + folder + "'").c_str());
}

}  // namespace
}  // namespace vistrel
