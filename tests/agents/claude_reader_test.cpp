#include "agents/claude_reader.hpp"

#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdlib>
#include <filesystem>
#include <set>

#include "claude_fixture.hpp"

namespace vistrel {
namespace {

using test::assistant;
using test::at;
using test::ClaudeFolder;
using test::Usage;
using test::user;

const Date kNow = at("2025-01-31T12:00:00Z");
constexpr const char* kAlpha = "projects/-home-u-code-alpha/";

class ClaudeReaderTest : public ::testing::Test {
 protected:
  ClaudeFolder folder;
  ClaudeReader reader{folder.root, test::utcStartOfDay};

  ClaudeRefresh refresh(Date now = kNow, const std::vector<ClaudeLiveFile>& live = {},
                        const StatusRecords& status = {},
                        const std::vector<AgentSession>& processes = {}) {
    return reader.refresh(live, status, processes, now);
  }
  static const AgentCard* find(const ClaudeRefresh& r, const std::string& id) {
    for (const AgentCard& card : r.cards) {
      if (card.id == id) return &card;
    }
    return nullptr;
  }
};

TEST_F(ClaudeReaderTest, ShorterReplacementIsReadFromItsStart) {
  const std::string path = std::string(kAlpha) + "s1.jsonl";
  folder.write(path,
               assistant("msg_1", "r1", {1, 0, 0, 0}) + assistant("msg_2", "r2", {2, 0, 0, 0}));
  EXPECT_EQ(refresh().today.input, 3);
  folder.write(path, assistant("msg_3", "r3", {10, 0, 0, 0}));
  ClaudeRefresh r = refresh();
  EXPECT_EQ(r.today.input, 13);
  EXPECT_EQ(find(r, "s1")->replies, 3);
}

// Lines of one session: the response's ids and usage; the totals and replies they make.
struct Response {
  const char* id;
  const char* request;
  Usage usage;
  bool refreshAfter = false;  // refresh before the next line
};
struct LedgerRow {
  const char* name;
  std::vector<Response> lines;
  TokenTotals expected;
  int64_t replies;
};

class ResponsesTest : public ClaudeReaderTest, public ::testing::WithParamInterface<LedgerRow> {};

TEST_P(ResponsesTest, EachResponseCountsOnceAtItsLargestUsage) {
  const LedgerRow& row = GetParam();
  ClaudeRefresh r;
  for (const Response& line : row.lines) {
    folder.append(std::string(kAlpha) + "s1.jsonl", assistant(line.id, line.request, line.usage));
    if (line.refreshAfter) refresh();
  }
  r = refresh();
  EXPECT_EQ(r.today, row.expected);
  ASSERT_NE(find(r, "s1"), nullptr);
  EXPECT_EQ(find(r, "s1")->tokens, row.expected);
  EXPECT_EQ(find(r, "s1")->replies, row.replies);
  ASSERT_EQ(r.byModel.size(), 1u);
  EXPECT_EQ(r.byModel[0].second, row.expected.fresh());
}

INSTANTIATE_TEST_SUITE_P(
    Table, ResponsesTest,
    ::testing::Values(LedgerRow{"GrowthAcrossRefreshes",
                                {{"m1", "q1", {3, 1, 20, 100}, true},
                                 {"m1", "q1", {3, 40, 20, 100}, true},
                                 {"m1", "q1", {3, 40, 20, 100}}},
                                {3, 40, 20, 100},
                                1},
                      LedgerRow{"TwoResponses",
                                {{"m1", "q1", {1, 2, 0, 0}}, {"m2", "q2", {10, 20, 0, 0}}},
                                {11, 22, 0, 0},
                                2},
                      LedgerRow{"SameMessageOtherRequest",
                                {{"m1", "q1", {1, 2, 0, 0}}, {"m1", "q2", {1, 2, 0, 0}}},
                                {2, 4, 0, 0},
                                2}),
    [](const auto& info) { return std::string(info.param.name); });

TEST_F(ClaudeReaderTest, ResumedSessionRepeatingAResponseCountsItOnceToday) {
  folder.write(std::string(kAlpha) + "old.jsonl", assistant("m1", "q1", {100, 10, 0, 0}));
  folder.write("projects/-home-u-code-beta/new.jsonl",
               assistant("m1", "q1", {100, 10, 0, 0}, "2025-01-31T10:00:00Z",
                         "claude-sonnet-4-5-20250929", 0, "/home/u/code/beta") +
                   assistant("m2", "q2", {1, 30, 0, 0}, "2025-01-31T11:00:00Z",
                             "claude-opus-4-1-20250805", 0, "/home/u/code/beta"));
  ClaudeRefresh r = refresh();
  EXPECT_EQ(r.today, (TokenTotals{101, 40, 0, 0}));
  EXPECT_EQ(find(r, "old")->tokens, (TokenTotals{100, 10, 0, 0}));
  EXPECT_EQ(find(r, "new")->tokens, (TokenTotals{101, 40, 0, 0}));
  int64_t byModel = 0, byProject = 0;
  for (const auto& [name, tokens] : r.byModel) byModel += tokens;
  for (const auto& [name, tokens] : r.byProject) byProject += tokens;
  EXPECT_EQ(byModel, r.today.fresh());
  EXPECT_EQ(byProject, r.today.fresh());
  EXPECT_EQ(r.sessionsToday, 2);
}

// Subagent transcripts count under the session that ran them, in either layout: the newer one
// (<session>/subagents/agent-*.jsonl) and the older one (agent-*.jsonl beside the transcripts,
// whose records name their session).
TEST(ClaudeSubagents, AddToTheirSessionInEitherLayout) {
  auto ofSession = [](std::string line, const std::string& id) {
    line.replace(line.find(R"("sessionId":"s")"), 15, R"("sessionId":")" + id + "\"");
    return line;
  };
  struct Case {
    const char* name;
    std::string first, second;  // where the two subagent transcripts are written
  } cases[] = {
      {"new layout", "s1/subagents/agent-a.jsonl", "s1/subagents/agent-b.jsonl"},
      {"old layout", "agent-a.jsonl", "agent-b.jsonl"},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.name);
    ClaudeFolder folder;
    ClaudeReader reader{folder.root, test::utcStartOfDay};
    folder.write(std::string(kAlpha) + "s1.jsonl",
                 ofSession(user(R"("go")"), "s1") +
                     ofSession(assistant("m1", "q1", {1, 1, 0, 0}, "2025-01-31T10:00:00Z",
                                         "claude-opus-4-1-20250805", 2),
                               "s1"));
    folder.write(std::string(kAlpha) + c.first,
                 ofSession(user(R"("task for the agent")"), "s1") +
                     ofSession(assistant("m9", "q9", {5, 5, 0, 0}, "2025-01-31T10:30:00Z",
                                         "claude-haiku-4-5-20251001", 3),
                               "s1"));
    // Cut short before its first newline: attached once it is complete.
    const std::string second = ofSession(assistant("m8", "q8", {0, 2, 0, 0}), "s1");
    folder.write(std::string(kAlpha) + c.second, second.substr(0, 30));
    ClaudeRefresh r = reader.refresh({}, {}, {}, kNow);
    folder.append(std::string(kAlpha) + c.second, second.substr(30));
    r = reader.refresh({}, {}, {}, kNow);
    ASSERT_EQ(r.cards.size(), 1u) << "no card of a subagent's own";
    const AgentCard& card = r.cards[0];
    EXPECT_EQ(card.id, "s1");
    EXPECT_EQ(card.prompts, 1);
    EXPECT_EQ(card.replies, 1);
    EXPECT_EQ(card.toolCalls, 5);
    EXPECT_EQ(card.subagents, 2);
    EXPECT_EQ(card.tokens, (TokenTotals{6, 8, 0, 0}));
    EXPECT_EQ(card.model, "Opus 4.1");  // the main transcript's model
    EXPECT_EQ(card.folder, "/home/u/code/alpha");
    EXPECT_EQ(card.lastActivity, at("2025-01-31T10:30:00Z"));
    EXPECT_EQ(r.sessionsToday, 1);
    std::set<std::pair<std::string, int64_t>> models(r.byModel.begin(), r.byModel.end());
    EXPECT_EQ(models, (std::set<std::pair<std::string, int64_t>>{
                          {"Opus 4.1", 2}, {"Haiku 4.5", 10}, {"Sonnet 4.5", 2}}));
  }
}

// Claude Code keeps its data in $CLAUDE_CONFIG_DIR, ~/.config/claude (newer installs) or
// ~/.claude; a machine may have sessions in several. Each is read where it exists, once.
TEST(ClaudeFolders, EveryDataFolderThatExistsIsReadOnce) {
  ClaudeFolder folder;
  const std::string home = folder.root;
  const std::string savedHome = std::getenv("HOME") ? std::getenv("HOME") : "";
  struct Case {
    const char* name;
    std::vector<std::string> exist;  // folders under home holding one session each
    const char* configDir;           // relative to home; nullptr: unset
    int64_t input;                   // today's input tokens: one per session
  } cases[] = {
      {"only ~/.claude", {".claude"}, nullptr, 1},
      {"only ~/.config/claude", {".config/claude"}, nullptr, 1},
      {"both", {".claude", ".config/claude"}, nullptr, 2},
      {"a configured folder beside them", {".claude", "elsewhere"}, "elsewhere", 2},
      {"the configured folder is ~/.claude", {".claude"}, ".claude", 1},
      {"none", {}, nullptr, 0},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.name);
    std::filesystem::remove_all(home);
    std::filesystem::create_directories(home);
    ::setenv("HOME", home.c_str(), 1);
    const std::string configured = c.configDir ? home + "/" + c.configDir : "";
    ::setenv("CLAUDE_CONFIG_DIR", configured.c_str(), 1);
    for (const std::string& f : c.exist) {
      folder.write(f + "/projects/p/" + std::to_string(f.size()) + ".jsonl",
                   assistant("m" + f, "q" + f, {1, 0, 0, 0}));
    }
    ClaudeReader reader(ClaudeReader::defaultFolders(), test::utcStartOfDay);
    EXPECT_EQ(reader.installed(), !c.exist.empty());
    ClaudeRefresh r = reader.refresh({}, {}, {}, kNow);
    EXPECT_EQ(r.today.input, c.input);
    EXPECT_EQ(static_cast<int64_t>(r.cards.size()), c.input);
  }
  ::unsetenv("CLAUDE_CONFIG_DIR");
  ::setenv("HOME", savedHome.c_str(), 1);
}

struct ModelRow {
  const char* id;
  const char* name;
};
class ModelNameTest : public ::testing::TestWithParam<ModelRow> {};
TEST_P(ModelNameTest, ReadsAsFamilyAndVersion) {
  EXPECT_EQ(ClaudeReader::modelName(GetParam().id), GetParam().name);
}
INSTANTIATE_TEST_SUITE_P(Table, ModelNameTest,
                         ::testing::Values(ModelRow{"claude-opus-4-1-20250805", "Opus 4.1"},
                                           ModelRow{"claude-sonnet-4-5", "Sonnet 4.5"},
                                           ModelRow{"claude-haiku-4-5-20251001", "Haiku 4.5"},
                                           ModelRow{"claude-3-5-sonnet-20241022", "3 5"},
                                           ModelRow{"claude-sonnet", "Sonnet"},
                                           ModelRow{"opus", "Opus"},
                                           ModelRow{"claude-opus-4-20250514", "Opus 4"},
                                           ModelRow{"claude-fast-12345678", "Fast"},
                                           ModelRow{"claude-fast-1234567", "Fast 1234567"}));

TEST_F(ClaudeReaderTest, BothTimestampFormsAreToday) {
  folder.write(std::string(kAlpha) + "s1.jsonl",
               assistant("m1", "q1", {1, 0, 0, 0}, "2025-01-31T09:12:45Z") +
                   assistant("m2", "q2", {2, 0, 0, 0}, "2025-01-31T09:12:46.123Z") +
                   assistant("m3", "q3", {4, 0, 0, 0}, "2025-01-30T23:59:59.999Z") +
                   assistant("m4", "q4", {8, 0, 0, 0}, "not a date"));
  ClaudeRefresh r = refresh();
  EXPECT_EQ(r.today.input, 3);  // yesterday's and the undated line are not today's
  const AgentCard* card = find(r, "s1");
  ASSERT_NE(card, nullptr);
  EXPECT_EQ(card->started, at("2025-01-30T23:59:59.999Z"));
  EXPECT_EQ(card->lastActivity, at("2025-01-31T09:12:46.123Z"));
  EXPECT_EQ(card->replies, 4);
}

TEST_F(ClaudeReaderTest, NewDayStartsTodaysFiguresAgain) {
  const std::string path = std::string(kAlpha) + "s1.jsonl";
  folder.write(path, assistant("m1", "q1", {5, 5, 0, 0}, "2025-01-31T23:00:00Z"));
  EXPECT_EQ(refresh(at("2025-01-31T23:30:00Z")).today, (TokenTotals{5, 5, 0, 0}));
  ClaudeRefresh r = refresh(at("2025-02-01T00:10:00Z"));
  EXPECT_EQ(r.today, TokenTotals{});
  EXPECT_TRUE(r.byModel.empty());
  EXPECT_EQ(r.sessionsToday, 0);
  EXPECT_TRUE(r.cards.empty());
  // The same reply streamed on after midnight adds only its growth; a new one adds all of it.
  folder.write(path,
               assistant("m1", "q1", {5, 9, 0, 0}, "2025-02-01T00:11:00Z") +
                   assistant("m2", "q2", {1, 1, 0, 0}, "2025-02-01T00:12:00Z"),
               true, at("2025-02-01T00:12:00Z"));
  r = refresh(at("2025-02-01T00:15:00Z"));
  EXPECT_EQ(r.today, (TokenTotals{1, 5, 0, 0}));
  EXPECT_EQ(find(r, "s1")->tokens, (TokenTotals{1, 5, 0, 0}));
  EXPECT_EQ(r.sessionsToday, 1);
}

TEST_F(ClaudeReaderTest, FilesNotModifiedTodayAreNotReadUnlessLive) {
  folder.write(std::string(kAlpha) + "old.jsonl", assistant("m1", "q1", {5, 0, 0, 0}), false,
               at("2025-01-30T20:00:00Z"));
  folder.write(std::string(kAlpha) + "running.jsonl",
               assistant("m2", "q2", {7, 0, 0, 0}, "2025-01-30T19:00:00Z"), false,
               at("2025-01-30T20:00:00Z"));
  ClaudeLiveFile live{42, "running", "/home/u/code/alpha", "named", "busy", std::nullopt, "2.1.0"};
  AgentSession process{42, kClaudeCode, std::nullopt, std::nullopt, 3, 12.5, 1000, true, {}};
  StatusRecords status;
  status["running"].sessionId = "running";
  status["running"].cost = 1.25;
  status["running"].contextPercent = 40;
  ClaudeRefresh r = refresh(kNow, {live}, status, {process});
  EXPECT_EQ(find(r, "old"), nullptr);
  ASSERT_EQ(r.cards.size(), 1u);
  const AgentCard& card = r.cards[0];
  EXPECT_TRUE(card.live);
  EXPECT_TRUE(card.working);
  EXPECT_EQ(card.pid, 42);
  EXPECT_EQ(card.processCount, 3);
  EXPECT_EQ(card.memory, 1000u);
  EXPECT_EQ(card.name, "named");
  EXPECT_EQ(card.version, "2.1.0");
  EXPECT_EQ(card.cost, 1.25);
  EXPECT_EQ(card.contextPercent, 40);
  EXPECT_EQ(card.model, "Sonnet 4.5");
  EXPECT_EQ(card.replies, 1);
  EXPECT_EQ(card.tokens, TokenTotals{});  // yesterday's reply
  EXPECT_EQ(r.sessionsToday, 0);
}

TEST_F(ClaudeReaderTest, CardsSortByLatestActivityFirst) {
  folder.write(std::string(kAlpha) + "a.jsonl", user(R"("x")", "2025-01-31T08:00:00Z"));
  folder.write(std::string(kAlpha) + "b.jsonl", user(R"("x")", "2025-01-31T11:00:00Z"));
  folder.write(std::string(kAlpha) + "c.jsonl", user(R"("x")", "2025-01-31T09:00:00Z"));
  ClaudeLiveFile idle{7, "d", "/tmp/d", {}, "idle", {}, {}};  // no transcript: sorts last
  ClaudeRefresh r = refresh(kNow, {idle});
  std::vector<std::string> order;
  for (const AgentCard& card : r.cards) order.push_back(card.id);
  EXPECT_EQ(order, (std::vector<std::string>{"b", "c", "a", "d"}));
  EXPECT_FALSE(r.cards[3].working);
  EXPECT_EQ(r.cards[3].folder, "/tmp/d");
}

TEST_F(ClaudeReaderTest, BadLinesAreSkippedAndGoodOnesStillCount) {
  std::string garbage = "\x01\xff\xfe{\"type\":\"assistant\"\x00\x00 binary";
  garbage[20] = '\0';
  folder.write(
      std::string(kAlpha) + "s1.jsonl",
      "not json at all\n" + garbage + "\n" +
          R"({"type":"assistant","message":{"id":"x","usage":"many"},"timestamp":"2025-01-31T10:00:00Z"})"
          "\n"
          R"({"type":"assistant","message":{"id":"y","usage":{"input_tokens":"5","output_tokens":-3,"cache_read_input_tokens":1e300}},"timestamp":"2025-01-31T10:00:00Z"})"
          "\n"
          R"({"type":"assistant","message":[1,2],"timestamp":42})"
          "\n"
          R"({"type":7,"message":{"content":{"type":"text"}}})"
          "\n"
          R"({"type":"user","message":{"content":[{"type":"text"})"
          "\n"  // cut short
          "[1,2,3]\n" +
          assistant("good", "q", {2, 3, 0, 0}));
  ClaudeRefresh r = refresh();
  // The nonsense counters are clamped to [0, 10^12]; the good line counts in full.
  EXPECT_EQ(r.today, (TokenTotals{2, 3, 0, TranscriptLine::kMaxTokens}));
  EXPECT_EQ(find(r, "s1")->replies, 3);
  EXPECT_EQ(find(r, "s1")->prompts, 0);
}

TEST_F(ClaudeReaderTest, HundredMegabyteLineIsSkipped) {
  const std::string path = std::string(kAlpha) + "s1.jsonl";
  folder.write(path, assistant("m1", "q1", {1, 0, 0, 0}));
  {
    FILE* f = std::fopen((folder.root + "/" + path).c_str(), "ab");
    const std::string block(1 << 20, 'a');
    std::fputs(R"({"type":"user","message":{"content":")", f);
    for (int i = 0; i < 100; ++i) std::fwrite(block.data(), 1, block.size(), f);
    std::fputs("\"}}\n", f);
    std::fclose(f);
  }
  folder.append(path, assistant("m2", "q2", {2, 0, 0, 0}));
  ClaudeRefresh r;
  for (int i = 0; i < 3; ++i) r = refresh();  // 64 MB per refresh at most
  EXPECT_EQ(r.today.input, 3);
}

TEST_F(ClaudeReaderTest, UnchangedFilesAreNotOpenedAgain) {
  const std::string path = std::string(kAlpha) + "s1.jsonl";
  const std::string full = folder.write(path, assistant("m1", "q1", {1, 0, 0, 0}));
  refresh();
  struct stat before {};
  ::stat(full.c_str(), &before);
  // The same size and time, other contents: skipped on its size and time alone.
  folder.write(path, assistant("m9", "q9", {9, 0, 0, 0}), false, test::at("2025-01-31T12:00:01Z"));
  EXPECT_EQ(refresh().today.input, 1);
  folder.append(path, assistant("m2", "q2", {2, 0, 0, 0}));
  EXPECT_EQ(refresh().today.input, 3);
}

}  // namespace
}  // namespace vistrel
