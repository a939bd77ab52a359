// The status-line bridge against settings files, saved commands and records in temporary folders.
// Nothing here reads the real home folder.

#include "agents/status_line_bridge.hpp"

#include <gtest/gtest.h>
#include <stdlib.h>

#include <filesystem>
#include <fstream>
#include <nlohmann/json.hpp>
#include <sstream>
#include <stdexcept>

#include "agents/status_payload.hpp"

namespace vistrel {
namespace {

namespace fs = std::filesystem;
using Json = nlohmann::ordered_json;
namespace Bridge = StatusLineBridge;

const Date kNow = dateFromSeconds(1'738'400'000.0);

// A payload the size and shape of what Claude Code pipes to its status line.
std::string realPayload(const std::string& sessionId = "3f2c9a1e-7b4d-4e8a-9c1f-2d6e8b0a4c71") {
  return R"({"hook_event_name":"Status","session_id":")" + sessionId + R"(",)" +
         R"("transcript_path":"/home/u/.claude/projects/-home-u-code-x/s.jsonl",)"
         R"("cwd":"/home/u/code/x","model":{"id":"claude-opus-4-1","display_name":"Opus"},)"
         R"("workspace":{"current_dir":"/home/u/code/x","project_dir":"/home/u/code/x"},)"
         R"("version":"2.1.32","output_style":{"name":"default"},)"
         R"("cost":{"total_cost_usd":1.2345,"total_duration_ms":3456789,)"
         R"("total_api_duration_ms":234567,"total_lines_added":156,"total_lines_removed":23},)"
         R"("context_window":{"total_input_tokens":84000,"total_output_tokens":12000,)"
         R"("context_window_size":200000,"used_percentage":42.7,"remaining_percentage":57.3},)"
         R"("exceeds_200k_tokens":false,"session_name":"refactor",)"
         R"("rate_limits":{"five_hour":{"used_percentage":23.5,"resets_at":1738425600},)"
         R"("seven_day":{"used_percentage":41.2,"resets_in_seconds":3600},)"
         R"("spend_limit":{"used_percentage":12,"used_usd":6,"limit_usd":50,"period":"monthly"}}})";
}

struct TempFolder {
  fs::path path;
  TempFolder() {
    char tmpl[] = "/tmp/vistrel-bridge-XXXXXX";
    path = ::mkdtemp(tmpl);
  }
  ~TempFolder() { fs::remove_all(path); }
};

std::string slurp(const fs::path& p) {
  std::ifstream in(p, std::ios::binary);
  std::stringstream s;
  s << in.rdbuf();
  return s.str();
}

void spit(const fs::path& p, std::string_view bytes) {
  fs::create_directories(p.parent_path());
  std::ofstream(p, std::ios::binary) << bytes;
}

std::vector<std::string> namesIn(const fs::path& folder, std::string_view prefix) {
  std::vector<std::string> names;
  if (!fs::exists(folder)) return names;
  for (const auto& entry : fs::directory_iterator(folder)) {
    std::string name = entry.path().filename().string();
    if (name.starts_with(prefix)) names.push_back(name);
  }
  std::sort(names.begin(), names.end());
  return names;
}

struct Fixture {
  TempFolder temp;
  BridgePaths paths;
  explicit Fixture(std::string executable = "/usr/local/bin/vistrel") {
    paths.settingsFile = (temp.path / "claude/settings.json").string();
    paths.supportFolder = (temp.path / "support").string();
    paths.executable = std::move(executable);
  }
  fs::path settings() const { return paths.settingsFile; }
  fs::path support() const { return paths.supportFolder; }
  Json settingsJson() const { return Json::parse(slurp(settings())); }
  std::vector<std::string> backups() const { return namesIn(support(), "claude-settings-backup-"); }
};

TEST(StatusLineBridge, StateReadsTheSettingsFile) {
  const std::string mac = R"(\"/Applications/Vistrel.app/Contents/MacOS/Vistrel\" --statusline)";
  struct Case {
    const char* name;
    std::optional<std::string> settings;
    std::string executable;
    StatusLineState expected;
  };
  const Case cases[] = {
      {"no file", std::nullopt, "/usr/bin/vistrel", StatusLineState::notConnected()},
      {"invalid", "{\"statusLine\": ", "/usr/bin/vistrel", StatusLineState::notConnected()},
      {"not an object", "[1]", "/usr/bin/vistrel", StatusLineState::notConnected()},
      {"no statusLine", R"({"theme":"dark"})", "/usr/bin/vistrel", StatusLineState::notConnected()},
      {"no command", R"({"statusLine":{"type":"command"}})", "/usr/bin/vistrel",
       StatusLineState::notConnected()},
      {"command not a string", R"({"statusLine":{"command":7}})", "/usr/bin/vistrel",
       StatusLineState::notConnected()},
      {"ours, macOS path, Linux name", R"({"statusLine":{"command":")" + mac + R"("}})",
       "/home/u/.local/bin/vistrel", StatusLineState::connected()},
      {"ours, Linux path, macOS name",
       R"({"statusLine":{"command":"/home/u/bin/vistrel --statusline"}})",
       "/Applications/Vistrel.app/Contents/MacOS/Vistrel", StatusLineState::connected()},
      {"our name without the flag", R"({"statusLine":{"command":"/usr/bin/vistrel"}})",
       "/usr/bin/vistrel", StatusLineState::other("/usr/bin/vistrel")},
      {"the flag without our name", R"({"statusLine":{"command":"ccline --statusline"}})",
       "/usr/bin/vistrel", StatusLineState::other("ccline --statusline")},
      {"the user's script", R"({"statusLine":{"command":"~/bin/line.sh"}})", "/usr/bin/vistrel",
       StatusLineState::other("~/bin/line.sh")},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.name);
    Fixture f(c.executable);
    if (c.settings) spit(f.settings(), *c.settings);
    EXPECT_EQ(Bridge::state(f.paths), c.expected);
  }
}

TEST(StatusLineBridge, ConnectingTwiceSavesTheUsersCommandOnceAndBacksUpEachTime) {
  Fixture f;
  const std::string original =
      "{\n  \"model\": \"opus\",\n  \"statusLine\": {\n    \"type\": \"command\",\n"
      "    \"command\": \"~/bin/line.sh\",\n    \"padding\": 2\n  },\n"
      "  \"permissions\": {\n    \"allow\": [\n      \"Bash(ls)\"\n    ]\n  }\n}\n";
  spit(f.settings(), original);
  const Json originalJson = Json::parse(original);

  ASSERT_EQ(Bridge::connect(f.paths, kNow), std::nullopt);
  const std::string afterFirst = slurp(f.settings());
  ASSERT_EQ(Bridge::connect(f.paths, kNow), std::nullopt);  // same second: a second backup still

  const Json saved = Json::parse(slurp(Bridge::savedStatusLineFile(f.paths)));
  EXPECT_EQ(saved, originalJson["statusLine"]);
  auto backups = f.backups();
  ASSERT_EQ(backups.size(), 2u);
  std::vector<std::string> contents = {slurp(f.support() / backups[0]),
                                       slurp(f.support() / backups[1])};
  std::sort(contents.begin(), contents.end());
  std::vector<std::string> expected = {original, afterFirst};
  std::sort(expected.begin(), expected.end());
  EXPECT_EQ(contents, expected);

  Json settings = f.settingsJson();
  Json ours = {{"type", "command"},
               {"command", "\"/usr/local/bin/vistrel\" --statusline"},
               {"refreshInterval", 60},
               {"padding", 2}};
  EXPECT_EQ(settings["statusLine"], ours);
  std::vector<std::string> keys;
  for (auto& [key, value] : settings.items()) keys.push_back(key);
  EXPECT_EQ(keys, (std::vector<std::string>{"model", "statusLine", "permissions"}));
  EXPECT_EQ(settings["permissions"], originalJson["permissions"]);
  EXPECT_EQ(Bridge::state(f.paths), StatusLineState::connected());
}

TEST(StatusLineBridge, ConnectKeepsEveryOtherKeyInItsOrder) {
  struct Case {
    const char* name;
    std::string settings;
  };
  const Case cases[] = {
      {"no statusLine", R"({"zeta":1,"alpha":{"b":[1,2.5,"x"],"a":null},"mid":true})"},
      {"statusLine in the middle",
       R"({"zeta":1,"statusLine":{"type":"command","command":"x"},"alpha":{"b":1,"a":2}})"},
      {"unicode and big numbers", R"({"name":"Zoë ✓","n":18446744073709551615,"f":-1.5e-7})"},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.name);
    Fixture f;
    spit(f.settings(), c.settings);
    ASSERT_EQ(Bridge::connect(f.paths, kNow), std::nullopt);
    Json before = Json::parse(c.settings);
    Json after = f.settingsJson();
    ASSERT_TRUE(after.contains("statusLine"));
    // Same keys in the same places; statusLine is where it was, or appended.
    if (!before.contains("statusLine")) before["statusLine"] = nullptr;
    ASSERT_EQ(before.size(), after.size());
    auto b = before.items().begin();
    for (auto& [key, value] : after.items()) {
      EXPECT_EQ(key, b.key());
      if (key != "statusLine") {
        EXPECT_EQ(value, b.value()) << key;
      }
      ++b;
    }
    EXPECT_EQ(Bridge::state(f.paths), StatusLineState::connected());
  }
}

TEST(StatusLineBridge, SettingsItCannotParseAreLeftByteForByte) {
  const char* cases[] = {"",
                         "{",
                         "{\"a\": 1,}",
                         "[{\"statusLine\": {}}]",
                         "// comment\n{}",
                         "{\"a\": 1} {\"b\": 2}",
                         "\xff\xfe{}",
                         "{\"a\": NaN}",
                         "\"text\""};
  for (const char* text : cases) {
    SCOPED_TRACE(text);
    Fixture f;
    spit(f.settings(), text);
    EXPECT_EQ(Bridge::connect(f.paths, kNow), std::string(Bridge::kInvalidSettings));
    EXPECT_EQ(Bridge::disconnect(f.paths, kNow), std::string(Bridge::kInvalidSettings));
    Bridge::repairPathIfNeeded(f.paths, kNow);
    EXPECT_EQ(slurp(f.settings()), text);
    EXPECT_TRUE(f.backups().empty());
    EXPECT_FALSE(fs::exists(Bridge::savedStatusLineFile(f.paths)));
    EXPECT_EQ(namesIn(f.settings().parent_path(), "").size(), 1u);
  }
}

TEST(StatusLineBridge, AFailedOrInterruptedRenameLeavesTheSettingsIntact) {
  enum class Step { fails, crashes };
  for (Step step : {Step::fails, Step::crashes}) {
    SCOPED_TRACE(step == Step::fails ? "fails" : "crashes");
    Fixture f;
    const std::string original = R"({"statusLine":{"command":"~/bin/line.sh"},"theme":"dark"})";
    spit(f.settings(), original);
    f.paths.renameStep = [step](const std::string&, const std::string&) -> bool {
      if (step == Step::crashes) throw std::runtime_error("process ends here");
      return false;
    };
    if (step == Step::fails) {
      EXPECT_EQ(Bridge::connect(f.paths, kNow), std::string(Bridge::kNotWritten));
      // Nothing half-written is left beside the settings.
      EXPECT_EQ(namesIn(f.settings().parent_path(), ""), std::vector<std::string>{"settings.json"});
    } else {
      EXPECT_THROW(Bridge::connect(f.paths, kNow), std::runtime_error);
    }
    EXPECT_EQ(slurp(f.settings()), original);
    ASSERT_EQ(f.backups().size(), 1u);
    EXPECT_EQ(slurp(f.support() / f.backups()[0]), original);
    EXPECT_EQ(Bridge::state(f.paths), StatusLineState::other("~/bin/line.sh"));

    // Once the step works again, connecting succeeds and the user's command is still saved.
    f.paths.renameStep = {};
    EXPECT_EQ(Bridge::connect(f.paths, kNow), std::nullopt);
    EXPECT_EQ(Json::parse(slurp(Bridge::savedStatusLineFile(f.paths)))["command"], "~/bin/line.sh");
  }
}

TEST(StatusLineBridge, DisconnectPutsBackWhatWasThere) {
  struct Case {
    const char* name;
    std::optional<std::string> settings;  // before connecting
    bool userReplacesOursBeforeDisconnect;
    std::optional<std::string> expected;  // the settings file after disconnecting; nullopt: none
  };
  const Case cases[] = {
      {"saved command restored exactly",
       R"({"a":1,"statusLine":{"type":"command","command":"~/l.sh","padding":0},"b":2})", false,
       R"({"a":1,"statusLine":{"type":"command","command":"~/l.sh","padding":0},"b":2})"},
      {"nothing saved: statusLine removed", R"({"a":1,"b":[true]})", false,
       R"({"a":1,"b":[true]})"},
      {"no settings file at first", std::nullopt, false, "{}"},
      {"the user's later command is left alone", R"({"a":1})", true,
       R"({"a":1,"statusLine":{"command":"mine"}})"},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.name);
    Fixture f;
    if (c.settings) spit(f.settings(), *c.settings);
    ASSERT_EQ(Bridge::connect(f.paths, kNow), std::nullopt);
    if (c.userReplacesOursBeforeDisconnect) {
      Json s = f.settingsJson();
      s["statusLine"] = {{"command", "mine"}};
      spit(f.settings(), s.dump());
    }
    size_t backupsBefore = f.backups().size();
    ASSERT_EQ(Bridge::disconnect(f.paths, kNow), std::nullopt);
    ASSERT_TRUE(c.expected.has_value());
    EXPECT_EQ(f.settingsJson(), Json::parse(*c.expected));
    if (!c.userReplacesOursBeforeDisconnect) {
      EXPECT_FALSE(fs::exists(Bridge::savedStatusLineFile(f.paths)));
      EXPECT_EQ(f.backups().size(), backupsBefore + 1);
      EXPECT_NE(Bridge::state(f.paths), StatusLineState::connected());
    }
  }
}

TEST(StatusLineBridge, RepairPointsAMovedAppsCommandAtThisExecutable) {
  struct Case {
    const char* name;
    std::string command;
    bool rewritten;
  };
  const Case cases[] = {
      {"moved app", R"(\"/Old/Place/Vistrel.app/Contents/MacOS/Vistrel\" --statusline)", true},
      {"already current", R"(\"/opt/new/vistrel\" --statusline)", false},
      {"the user's own command", "~/bin/line.sh", false},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.name);
    Fixture f("/opt/new/vistrel");
    const std::string original =
        R"({"a":1,"statusLine":{"type":"command","command":")" + c.command + R"(","padding":3}})";
    spit(f.settings(), original);
    Bridge::repairPathIfNeeded(f.paths, kNow);
    if (!c.rewritten) {
      EXPECT_EQ(slurp(f.settings()), original);
      EXPECT_TRUE(f.backups().empty());
      continue;
    }
    Json s = f.settingsJson();
    EXPECT_EQ(s["statusLine"]["command"], Bridge::command(f.paths));
    EXPECT_EQ(s["statusLine"]["padding"], 3);
    EXPECT_EQ(s["a"], 1);
    ASSERT_EQ(f.backups().size(), 1u);
    EXPECT_EQ(slurp(f.support() / f.backups()[0]), original);
  }
}

TEST(StatusLineBridge, CommandQuotesThePathForTheShell) {
  BridgePaths paths;
  paths.executable = "/Users/a b/My $Apps/Vistrel";
  EXPECT_EQ(Bridge::command(paths), R"("/Users/a b/My \$Apps/Vistrel" --statusline)");
  paths.executable.clear();
  EXPECT_EQ(Bridge::command(paths),
            R"("/Applications/Vistrel.app/Contents/MacOS/Vistrel" --statusline)");
  EXPECT_TRUE(Bridge::isOwnCommand(Bridge::command(paths), "/usr/bin/VISTREL"));
}

TEST(StatusLineBridge, RecordsReadThePayloadsLeftBehind) {
  Fixture f;
  fs::path folder = Bridge::recordFolder(f.paths);
  auto withReceived = [](std::string payload, double received) {
    Json j = Json::parse(payload);
    j["received"] = received;
    return j.dump();
  };
  const double now = secondsSince1970(kNow);
  spit(folder / "fresh.json", withReceived(realPayload("fresh"), now - 60));
  spit(folder / "two-days.json", withReceived(realPayload("two-days"), now - 172'800));
  spit(folder / "three-days.json", withReceived(realPayload("three-days"), now - 3 * 86'400));
  spit(
      folder / "no-limits.json",
      R"({"session_id":"no-limits","received":"2025-02-01T08:00:00Z","model":{"display_name":"Sonnet"}})");
  spit(folder / "no-received.json", R"({"session_id":"no-received"})");
  spit(folder / "garbage.json", "\x01\x02{{{");
  spit(folder / ".pending.json.vistrel-abc", withReceived(realPayload("pending"), now));
  spit(folder / "notes.txt", withReceived(realPayload("notes"), now));

  StatusRecords records = Bridge::records(f.paths, kNow);
  std::vector<std::string> ids;
  for (auto& [id, record] : records) ids.push_back(id);
  EXPECT_EQ(ids, (std::vector<std::string>{"fresh", "no-limits", "two-days"}));

  const StatusRecord& r = records.at("fresh");
  const Date received = dateFromSeconds(now - 60);
  EXPECT_EQ(r.received, received);
  EXPECT_EQ(r.model, "Opus");
  EXPECT_EQ(r.sessionName, "refactor");
  EXPECT_EQ(r.contextPercent, 42.7);
  EXPECT_EQ(r.contextSize, 200000);
  EXPECT_EQ(r.cost, 1.2345);
  EXPECT_EQ(r.linesAdded, 156);
  EXPECT_EQ(r.linesRemoved, 23);
  EXPECT_DOUBLE_EQ(r.apiSeconds.value_or(0), 234.567);
  ASSERT_TRUE(r.plan && r.plan->session && r.plan->weekly && r.plan->spend);
  EXPECT_EQ(r.plan->updated, received);
  EXPECT_EQ(*r.plan->session, (UsageWindow{23.5, dateFromSeconds(1738425600), 300}));
  EXPECT_EQ(*r.plan->weekly, (UsageWindow{41.2, received + std::chrono::hours(1), 10080}));
  EXPECT_EQ(*r.plan->spend, (SpendLimit{12, std::nullopt, 6.0, 50.0, "monthly"}));

  const StatusRecord& bare = records.at("no-limits");
  EXPECT_EQ(bare.plan, std::nullopt);
  EXPECT_EQ(bare.received, dateFromSeconds(1738396800));
}

// An object `depth` levels deep: {"a":{"a":...1...}}.
std::string nested(int depth) {
  std::string text;
  for (int i = 0; i < depth; ++i) text += "{\"a\":";
  text += "1";
  text.append(static_cast<size_t>(depth), '}');
  return text;
}

TEST(StatusLineBridge, TheShortLineHasOnlyThePartsThePayloadGives) {
  struct Case {
    const char* name;
    std::string payload;
    std::optional<std::string> expected;  // nullopt: not a payload at all
  };
  const Case cases[] = {
      {"real payload", realPayload(), "Opus · context 42% · session 23% · week 41%"},
      {"no rate_limits",
       R"({"model":{"display_name":"Opus"},"context_window":{"used_percentage":7}})",
       "Opus · context 7%"},
      {"weekly only", R"({"rate_limits":{"seven_day":{"used_percentage":100}}})", "week 100%"},
      {"percent as text ignored",
       R"({"context_window":{"used_percentage":"42"},"rate_limits":{"five_hour":{}}})", ""},
      {"huge numbers bounded", R"({"context_window":{"used_percentage":1e300}})",
       "context 1000000000%"},
      {"control characters dropped", R"({"model":{"display_name":"Op\u001b[31mus\u0007"}})",
       "Op[31mus"},
      {"wrong types everywhere",
       R"({"model":"Opus","cost":[1],"rate_limits":[],"context_window":null,"session_id":5})", ""},
      {"empty object", "{}", ""},
      {"array", "[]", std::nullopt},
      {"garbage", "\x89PNG\r\n", std::nullopt},
      {"nested deeper than any payload", nested(100), std::nullopt},
      {"nested like a payload", nested(8), ""},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.name);
    auto record = parseStatusPayload(c.payload, kNow);
    ASSERT_EQ(record.has_value(), c.expected.has_value());
    if (record) {
      EXPECT_EQ(Bridge::summary(*record), *c.expected);
    }
  }
}

TEST(StatusLineBridge, StatusLineModeStoresThePayloadAndPrintsALine) {
  struct Case {
    const char* name;
    std::string input;
    std::optional<std::string> previousCommand;  // saved at connect; %s is the temp folder
    std::string expectedOutput;                  // %s likewise
    bool stored;
  };
  const std::string shortLine = "Opus · context 42% · session 23% · week 41%\n";
  const Case cases[] = {
      {"no saved command", realPayload(), std::nullopt, shortLine, true},
      {"the user's command, fed the same input", realPayload(),
       "cat > '%s/seen'; echo \"mine $(wc -c < '%s/seen')\"",
       "mine " + std::to_string(realPayload().size()) + "\n", true},
      {"the user's command printing nothing", realPayload(), "true", "", true},
      {"the user's command failing", realPayload(), "echo oops >&2; exit 3", shortLine, true},
      {"the user's command failing after printing", realPayload(), "echo half a line; exit 1",
       shortLine, true},
      {"the user's command killed after printing", realPayload(), "echo partial; kill -9 $$",
       shortLine, true},
      {"the user's command missing", realPayload(), "/nonexistent/line-printer", shortLine, true},
      {"our own command saved by hand is not run", realPayload(),
       "echo ran; : /usr/local/bin/vistrel --statusline", shortLine, true},
      {"garbage input", std::string("\x00\xff garbage", 10), std::nullopt, "\n", false},
      {"garbage input still reaches the user's command", "not json", "cat", "not json", false},
      {"a session id that is a path", realPayload("../../escape"), std::nullopt, shortLine, false},
      {"no session id", R"({"model":{"display_name":"Haiku"}})", std::nullopt, "Haiku\n", false},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.name);
    Fixture f;
    auto fill = [&](std::string text) {
      for (auto at = text.find("%s"); at != std::string::npos; at = text.find("%s")) {
        text.replace(at, 2, f.temp.path.string());
      }
      return text;
    };
    if (c.previousCommand) {
      spit(Bridge::savedStatusLineFile(f.paths),
           Json{{"type", "command"}, {"command", fill(*c.previousCommand)}}.dump());
    }
    std::string output = "left over";
    EXPECT_EQ(Bridge::runStatusLine(f.paths, c.input, output, kNow), 0);
    EXPECT_EQ(output, fill(c.expectedOutput));

    auto files = namesIn(Bridge::recordFolder(f.paths), "");
    if (!c.stored) {
      EXPECT_TRUE(files.empty());
      EXPECT_FALSE(fs::exists(f.temp.path / "escape.json"));
      continue;
    }
    ASSERT_EQ(files.size(), 1u);
    Json stored = Json::parse(slurp(fs::path(Bridge::recordFolder(f.paths)) / files[0]));
    EXPECT_EQ(stored["received"].get<double>(), secondsSince1970(kNow));
    stored.erase("received");
    EXPECT_EQ(stored, Json::parse(c.input));  // as received, keys in their order
    auto records = Bridge::records(f.paths, kNow);
    ASSERT_EQ(records.size(), 1u);
    EXPECT_EQ(records.begin()->second.received, kNow);
  }
}

}  // namespace
}  // namespace vistrel
