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

// The descriptors' shape, which clients validate; their texts are constants, not tested here.
TEST(McpTexts, SevenClosedToolsOnlyQuitAppNotReadOnlyAndLinuxNeverSaysMac) {
  for (bool forLinux : {false, true}) {
    SCOPED_TRACE(forLinux ? "Linux" : "macOS");
    FakeApplication app;
    MCP server(app.environment(forLinux));
    auto answer = parsed(server.handleLine(R"({"jsonrpc":"2.0","id":2,"method":"tools/list"})"));
    const ordered_json& tools = answer["result"]["tools"];
    struct Expected {
      const char* name;
      std::vector<std::string> required;
    } expected[] = {{"status", {}},          {"list_apps", {}}, {"get_app", {"name"}},
                    {"history", {"metric"}}, {"agents", {}},    {"alerts", {}},
                    {"quit_app", {"name"}}};
    ASSERT_EQ(tools.size(), std::size(expected));
    for (size_t i = 0; i < tools.size(); ++i) {
      const ordered_json& t = tools[i];
      EXPECT_EQ(t["name"], expected[i].name);
      EXPECT_EQ(t["inputSchema"]["type"], "object");
      EXPECT_EQ(t["inputSchema"]["required"], ordered_json(expected[i].required));
      EXPECT_EQ(t["inputSchema"]["additionalProperties"], false);
      EXPECT_EQ(t["annotations"], (ordered_json{{"readOnlyHint", i != 6},
                                                {"destructiveHint", false},
                                                {"openWorldHint", false}}));
      if (forLinux) {
        EXPECT_EQ(t["description"].dump().find("Mac"), std::string::npos);
      }
    }
    const std::string instructions = MCP::instructions(forLinux);
    EXPECT_EQ(instructions.find(forLinux ? "Mac" : "computer"), std::string::npos);
  }
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
