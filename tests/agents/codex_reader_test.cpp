#include "agents/codex_reader.hpp"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <stdlib.h>
#include <sys/stat.h>
#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <map>
#include <string>
#include <vector>

#include "agents/codex_rollout_line.hpp"
#include "agents/iso_date.hpp"
#include "base/files.hpp"

namespace vistrel {
namespace {

using Kind = RolloutLine::Kind;

Date at(const char* iso) {
  return parseISODate(iso).value();
}

Date utcDayStart(Date date) {
  return std::chrono::floor<std::chrono::days>(date);
}

// A Codex home folder built in a temporary folder; files are dated as the test says, since the
// reader skips files by their modification time.
class CodexHome {
 public:
  CodexHome() {
    char pattern[] = "/tmp/vistrel-codex-XXXXXX";
    root = ::mkdtemp(pattern);
  }
  ~CodexHome() { std::system(("rm -rf '" + root + "'").c_str()); }

  // `day` as "2025/01/31"; returns the file's path.
  std::string write(const std::string& day, const std::string& name, const std::string& text,
                    Date modified, const char* mode = "wb") {
    const std::string folder = joinPath(root, "sessions/" + day);
    makeFolders(folder);
    const std::string path = joinPath(folder, name);
    FILE* f = std::fopen(path.c_str(), mode);
    std::fwrite(text.data(), 1, text.size(), f);
    std::fclose(f);
    const auto seconds = std::chrono::floor<std::chrono::seconds>(modified).time_since_epoch();
    timespec times[2] = {{static_cast<time_t>(seconds.count()), 0},
                         {static_cast<time_t>(seconds.count()), 0}};
    ::utimensat(AT_FDCWD, path.c_str(), times, 0);
    return path;
  }
  std::string append(const std::string& day, const std::string& name, const std::string& text,
                     Date modified) {
    return write(day, name, text, modified, "ab");
  }

  std::string root;
};

std::string meta(const char* time, const char* id, const char* cwd) {
  return std::string(R"({"timestamp":")") + time + R"(","type":"session_meta","payload":{"id":")" +
         id + R"(","cwd":")" + cwd + R"(","cli_version":"0.46.0","git":{"branch":"main"}}})" + "\n";
}
std::string turn(const char* time, const char* model) {
  return std::string(R"({"timestamp":")") + time +
         R"(","type":"turn_context","payload":{"model":")" + model + R"("}})" + "\n";
}
std::string prompt(const char* time) {
  return std::string(R"({"timestamp":")") + time +
         R"(","type":"event_msg","payload":{"type":"user_message","message":"hi"}})" + "\n";
}
std::string reply(const char* time) {
  return std::string(R"({"timestamp":")") + time +
         R"(","type":"response_item","payload":{"type":"message","role":"assistant"}})" + "\n";
}
// A token count with cumulative usage; `limits` is the "rate_limits" value, or empty for none.
std::string usage(const char* time, int64_t input, int64_t cached, int64_t output,
                  int64_t lastInput = 0, int64_t window = 272000, const std::string& limits = "") {
  std::string total = R"({"input_tokens":)" + std::to_string(input) + R"(,"cached_input_tokens":)" +
                      std::to_string(cached) + R"(,"output_tokens":)" + std::to_string(output) +
                      R"(,"reasoning_output_tokens":0})";
  std::string last = R"({"input_tokens":)" + std::to_string(lastInput) + "}";
  return std::string(R"({"timestamp":")") + time +
         R"(","type":"event_msg","payload":{"type":"token_count","info":{"total_token_usage":)" +
         total + R"(,"last_token_usage":)" + last + R"(,"model_context_window":)" +
         std::to_string(window) + "}" + (limits.empty() ? "" : ",\"rate_limits\":" + limits) +
         "}}\n";
}

TokenTotals tokens(int64_t input, int64_t output, int64_t cacheRead) {
  TokenTotals t;
  t.input = input;
  t.output = output;
  t.cacheRead = cacheRead;
  return t;
}

UsageWindow window(double used, std::optional<Date> resets, std::optional<int64_t> minutes) {
  UsageWindow w;
  w.usedPercent = used;
  w.resetsAt = resets;
  w.windowMinutes = minutes;
  return w;
}

TEST(CodexRolloutLine, WindowRule) {
  const Date stamped = at("2025-01-31T10:00:00Z");
  const Date now = at("2025-01-31T15:30:00Z");  // the time of reading must not matter
  const Date eleven = at("2025-01-31T11:00:00Z");
  struct Case {
    const char* name;
    const char* limits;
    bool stampedRecord;
    std::optional<UsageWindow> session;
    std::optional<UsageWindow> weekly;
  } cases[] = {
      {"reset in seconds counts from the record",
       R"({"primary":{"used_percent":12.5,"window_minutes":300,"resets_in_seconds":3600}})", true,
       window(12.5, eleven, 300), std::nullopt},
      {"unstamped record counts from now",
       R"({"primary":{"used_percent":1,"resets_in_seconds":3600}})", false,
       window(1, now + std::chrono::hours(1), std::nullopt), std::nullopt},
      {"resets_at wins over resets_in_seconds",
       R"({"primary":{"used_percent":5,"resets_at":1738321200,"resets_in_seconds":60}})", true,
       window(5, eleven, std::nullopt), std::nullopt},
      {"no reset given",
       R"({"primary":{"used_percent":5},"secondary":{"used_percent":70,"window_minutes":10080}})",
       true, window(5, std::nullopt, std::nullopt), window(70, std::nullopt, 10080)},
      {"window without used_percent is absent",
       R"({"primary":{"resets_at":1738321200,"window_minutes":300},)"
       R"("secondary":{"used_percent":3,"window_minutes":10080}})",
       true, std::nullopt, window(3, std::nullopt, 10080)},
      {"weekly window reported as primary",
       R"({"primary":{"used_percent":44,"window_minutes":10080,"resets_at":1738321200}})", true,
       std::nullopt, window(44, eleven, 10080)},
      {"windows swapped by their lengths",
       R"({"primary":{"used_percent":60,"window_minutes":10080},)"
       R"("secondary":{"used_percent":20,"window_minutes":300}})",
       true, window(20, std::nullopt, 300), window(60, std::nullopt, 10080)},
      {"by position without lengths",
       R"({"primary":{"used_percent":20},"secondary":{"used_percent":60}})", true,
       window(20, std::nullopt, std::nullopt), window(60, std::nullopt, std::nullopt)},
      {"a length beats a position for the same place",
       R"({"primary":{"used_percent":20},"secondary":{"used_percent":60,"window_minutes":300}})",
       true, window(60, std::nullopt, 300), std::nullopt},
      {"used_percent of the wrong type", R"({"primary":{"used_percent":"12"},"secondary":null})",
       true, std::nullopt, std::nullopt},
      {"reset far beyond the clock's range is unknown",
       R"({"primary":{"used_percent":9,"resets_at":1e300,"resets_in_seconds":-5}})", true,
       window(9, std::nullopt, std::nullopt), std::nullopt},
      {"an absurd length is cut to a year",
       R"({"primary":{"used_percent":50,"window_minutes":9223372036854775807}})", true,
       std::nullopt, window(50, std::nullopt, kLongestWindowMinutes)},
      {"a negative length is no length", R"({"primary":{"used_percent":8,"window_minutes":-300}})",
       true, window(8, std::nullopt, std::nullopt), std::nullopt},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    std::string line = std::string(R"({)") +
                       (c.stampedRecord ? R"("timestamp":"2025-01-31T10:00:00.000Z",)" : "") +
                       R"("type":"event_msg","payload":{"type":"token_count","info":null,)" +
                       R"("rate_limits":)" + c.limits + "}}";
    std::optional<RolloutLine> parsed = parseRolloutLine(line, now);
    ASSERT_TRUE(parsed);
    EXPECT_EQ(parsed->kind, Kind::tokenCount);
    if (!c.session && !c.weekly) {
      EXPECT_FALSE(parsed->plan);  // no window: the plan stays as it was
      continue;
    }
    ASSERT_TRUE(parsed->plan);
    EXPECT_EQ(parsed->plan->session, c.session);
    EXPECT_EQ(parsed->plan->weekly, c.weekly);
    EXPECT_EQ(parsed->plan->updated, c.stampedRecord ? stamped : now);
  }
}

TEST(CodexRolloutLine, KindsAndBadInput) {
  const Date now = at("2025-01-31T12:00:00Z");
  static constexpr char kBinary[] = "\x00\xff{\"type\":\x01\x80\"event_msg\"}";
  const std::string binary(kBinary, sizeof kBinary - 1);
  struct Case {
    std::string line;
    std::optional<Kind> kind;  // nullopt: the line is skipped
  } cases[] = {
      {R"({"type":"response_item","payload":{"type":"function_call","name":"shell"}})",
       Kind::toolCall},
      {R"({"type":"response_item","payload":{"type":"custom_tool_call"}})", Kind::toolCall},
      {R"({"type":"response_item","payload":{"type":"local_shell_call"}})", Kind::toolCall},
      {R"({"type":"response_item","payload":{"role":"assistant","type":"message"}})", Kind::reply},
      {R"({"type":"response_item","payload":{"type":"message","role":"user"}})", Kind::other},
      {R"({"type":"response_item","payload":{"type":"function_call_output"}})", Kind::other},
      {R"({"type":"event_msg","payload":{"type":"user_message","message":"x"}})", Kind::prompt},
      {R"({"type":"event_msg","payload":{"type":"agent_message"}})", Kind::other},
      {R"({"type":"event_msg","payload":"user_message"})", Kind::other},
      {R"({"type":"compacted","payload":{"type":"user_message"}})", Kind::other},
      {R"({"type":"turn_context","payload":[1,2]})", Kind::turnContext},
      {R"({"type":5,"payload":{"type":"user_message"}})", std::nullopt},
      {R"({"payload":{"type":"user_message"}})", std::nullopt},
      {R"([{"type":"event_msg"}])", std::nullopt},
      {R"("event_msg")", std::nullopt},
      {"not json at all", std::nullopt},
      {binary, std::nullopt},
      {"", std::nullopt},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.line);
    std::optional<RolloutLine> parsed = parseRolloutLine(c.line, now);
    ASSERT_EQ(parsed.has_value(), c.kind.has_value());
    if (parsed) {
      EXPECT_EQ(parsed->kind, *c.kind);
    }
  }
}

TEST(CodexRolloutLine, FieldsDatesAndClampedCounters) {
  const Date now = at("2025-01-31T12:00:00Z");
  std::optional<RolloutLine> m = parseRolloutLine(meta("2025-01-31T09:12:45Z", "s1", "/w/a"), now);
  ASSERT_TRUE(m);
  EXPECT_EQ(m->time, at("2025-01-31T09:12:45Z"));
  EXPECT_EQ(m->sessionId, "s1");
  EXPECT_EQ(m->folder, "/w/a");
  EXPECT_EQ(m->version, "0.46.0");
  EXPECT_EQ(m->gitBranch, "main");

  // Dates the clock cannot hold, or no date at all, read as the present.
  for (const char* stamp : {"9999-12-31T23:59:59Z", "0001-01-01T00:00:00Z", "yesterday", "17"}) {
    std::optional<RolloutLine> line = parseRolloutLine(
        std::string(R"({"timestamp":")") + stamp + R"(","type":"turn_context"})", now);
    ASSERT_TRUE(line);
    EXPECT_EQ(line->time, now) << stamp;
  }

  std::optional<RolloutLine> huge = parseRolloutLine(
      R"({"type":"event_msg","payload":{"type":"token_count","info":{"total_token_usage":)"
      R"({"input_tokens":1e30,"cached_input_tokens":-7,"output_tokens":"5",)"
      R"("reasoning_output_tokens":18446744073709551615},"model_context_window":-1}}})",
      now);
  ASSERT_TRUE(huge && huge->total);
  EXPECT_EQ(huge->total->input, CodexUsage::kMaxTokens);
  EXPECT_EQ(huge->total->cachedInput, 0);
  EXPECT_EQ(huge->total->output, 0);
  EXPECT_EQ(huge->total->reasoning, CodexUsage::kMaxTokens);
  EXPECT_FALSE(huge->contextWindow);
}

class CodexReaderTest : public ::testing::Test {
 protected:
  CodexReader reader() { return CodexReader(home.root, utcDayStart); }
  CodexHome home;
};

TEST_F(CodexReaderTest, TodaysShareOfARolloutBegunYesterday) {
  const Date now = at("2025-01-31T09:00:00Z");
  home.write("2025/01/30", "rollout-late.jsonl",
             meta("2025-01-30T23:50:00Z", "late", "/w/a") + turn("2025-01-30T23:50:01Z", "gpt-5") +
                 prompt("2025-01-30T23:51:00Z") + usage("2025-01-30T23:55:00Z", 1000, 200, 100) +
                 prompt("2025-01-31T00:05:00Z") + reply("2025-01-31T00:09:00Z") +
                 usage("2025-01-31T00:10:00Z", 1500, 300, 180),
             at("2025-01-31T00:10:00Z"));
  // Over before midnight: neither counted nor shown.
  home.write(
      "2025/01/30", "rollout-done.jsonl",
      meta("2025-01-30T20:00:00Z", "done", "/w/b") + usage("2025-01-30T21:00:00Z", 5000, 0, 500),
      at("2025-01-30T21:00:00Z"));
  CodexReader r = reader();
  CodexRefresh got = r.refresh({}, now);
  EXPECT_EQ(got.today, tokens(400, 80, 100));
  EXPECT_EQ(got.sessionsToday, 1);
  ASSERT_EQ(got.cards.size(), 1u);
  const AgentCard& card = got.cards[0];
  EXPECT_EQ(card.id, "late");
  EXPECT_EQ(card.tool, kCodex);
  EXPECT_EQ(card.folder, "/w/a");
  EXPECT_EQ(card.model, "gpt-5");
  EXPECT_EQ(card.version, "0.46.0");
  EXPECT_EQ(card.gitBranch, "main");
  EXPECT_EQ(card.started, at("2025-01-30T23:50:00Z"));
  EXPECT_EQ(card.lastActivity, at("2025-01-31T00:10:00Z"));
  EXPECT_EQ(card.tokens, tokens(400, 80, 100));
  EXPECT_EQ(card.prompts, 2);
  EXPECT_EQ(card.replies, 1);
  EXPECT_FALSE(card.live);
  EXPECT_FALSE(card.working);

  // The next day: without new records, yesterday's tokens are no longer today's; new ones are.
  const Date tomorrow = at("2025-02-01T08:00:00Z");
  got = r.refresh({}, tomorrow);
  EXPECT_EQ(got.today, TokenTotals{});
  EXPECT_EQ(got.sessionsToday, 0);
  EXPECT_TRUE(got.cards.empty());
  home.append("2025/01/30", "rollout-late.jsonl", usage("2025-02-01T07:59:00Z", 1600, 300, 190),
              tomorrow);
  got = r.refresh({}, tomorrow);
  EXPECT_EQ(got.today, tokens(100, 10, 0));
  EXPECT_EQ(got.sessionsToday, 1);
}

TEST_F(CodexReaderTest, ContextPercent) {
  const Date now = at("2025-01-31T12:00:00Z");
  struct Case {
    int64_t lastInput;
    int64_t window;
    std::optional<double> percent;
  } cases[] = {{300000, 272000, 100.0}, {136000, 272000, 50.0}, {5000, 0, std::nullopt}};
  int n = 0;
  for (const Case& c : cases) {
    const std::string name = "rollout-" + std::to_string(n++) + ".jsonl";
    home.write("2025/01/31", name,
               usage("2025-01-31T11:00:00Z", c.lastInput, 0, 1, c.lastInput, c.window), now);
  }
  CodexRefresh got = reader().refresh({}, now);
  ASSERT_EQ(got.cards.size(), std::size(cases));
  for (size_t i = 0; i < std::size(cases); ++i) {
    const std::string id = "rollout-" + std::to_string(i);
    auto card = std::find_if(got.cards.begin(), got.cards.end(),
                             [&](const AgentCard& c) { return c.id == id; });
    ASSERT_NE(card, got.cards.end());
    EXPECT_EQ(card->contextPercent, cases[i].percent) << id;
  }
}

// A live Codex process takes a rollout written to within 6 hours, its own folder's first: Codex
// started with --cd, or serving an editor or the desktop app, runs in another folder.
TEST(CodexPairing, RecentRolloutsOwnFolderFirst) {
  const Date now = at("2025-01-31T12:00:00Z");
  struct Rollout {
    const char* id;
    const char* folder;
    const char* last;  // the rollout's last record
  };
  struct Process {
    int32_t pid;
    const char* folder;
    const char* started;
  };
  struct Case {
    const char* name;
    std::vector<Rollout> rollouts;
    std::vector<Process> processes;
    std::map<std::string, int32_t> paired;  // rollout id -> pid; others are not live
  } cases[] = {
      {"its own folder over a more recent one",
       {{"mine", "/w/a", "2025-01-31T11:00:00Z"}, {"newer", "/w/b", "2025-01-31T11:50:00Z"}},
       {{10, "/w/a/", "2025-01-31T10:00:00Z"}},  // a trailing slash still matches
       {{"mine", 10}}},
      {"another folder's when it has none (--cd, an editor, the app)",
       {{"elsewhere", "/w/b", "2025-01-31T09:00:00Z"}},
       {{10, "/home/u", "2025-01-31T08:00:00Z"}},
       {{"elsewhere", 10}}},
      {"never one seven hours old, even of its folder",
       {{"old", "/w/a", "2025-01-31T05:00:00Z"}},
       {{10, "/w/a", "2025-01-31T04:00:00Z"}},
       {}},
      {"two processes: the folder's first, then the newest process the newest rollout",
       {{"a", "/w/a", "2025-01-31T10:00:00Z"},
        {"b", "/w/b", "2025-01-31T11:00:00Z"},
        {"c", "/w/c", "2025-01-31T11:30:00Z"}},
       {{10, "/w/b", "2025-01-31T07:00:00Z"}, {11, "/x", "2025-01-31T09:00:00Z"}},
       {{"b", 10}, {"c", 11}}},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.name);
    CodexHome home;
    for (const Rollout& r : c.rollouts) {
      home.write("2025/01/31", std::string(r.id) + ".jsonl",
                 meta("2025-01-31T04:00:00Z", r.id, r.folder) + prompt(r.last), at(r.last));
    }
    std::vector<AgentSession> processes;
    for (const Process& p : c.processes) {
      AgentSession process;
      process.pid = p.pid;
      process.tool = kCodex;
      process.folder = p.folder;
      process.started = at(p.started);
      process.processCount = 3;
      processes.push_back(process);
    }
    AgentSession claude = processes.back();  // another tool's process is never paired
    claude.pid = 99;
    claude.tool = kClaudeCode;
    processes.push_back(claude);
    CodexRefresh got = CodexReader(home.root, utcDayStart).refresh(processes, now);
    std::map<std::string, int32_t> paired;
    for (const AgentCard& card : got.cards) {
      EXPECT_EQ(card.live, card.pid.has_value()) << card.id;
      if (card.live) paired[card.id] = *card.pid;
    }
    EXPECT_EQ(paired, c.paired);
  }
}

TEST_F(CodexReaderTest, WorkingWhileTheLastRecordIsUnderTenSecondsOld) {
  const Date now = at("2025-01-31T12:00:00Z");
  home.write("2025/01/31", "busy.jsonl", prompt("2025-01-31T11:59:55Z"), now);
  home.write("2025/01/31", "idle.jsonl", prompt("2025-01-31T11:59:45Z"), now);
  CodexRefresh got = reader().refresh({}, now);
  ASSERT_EQ(got.cards.size(), 2u);
  EXPECT_EQ(got.cards[0].id, "busy");  // most recent first
  EXPECT_TRUE(got.cards[0].working);
  EXPECT_FALSE(got.cards[1].working);
}

// A session resumed days later appends to its file in the folder of the day it began.
TEST_F(CodexReaderTest, ASessionResumedAfterWeeksIsFoundByItsFilesTime) {
  const Date now = at("2025-01-31T12:00:00Z");
  home.write("2024/12/20", "resumed.jsonl",
             meta("2024-12-20T10:00:00Z", "resumed", "/w/a") +
                 usage("2024-12-20T11:00:00Z", 1000, 0, 100) + prompt("2025-01-31T11:00:00Z") +
                 usage("2025-01-31T11:05:00Z", 1300, 0, 150),
             at("2025-01-31T11:05:00Z"));
  home.write("2024/12/21", "untouched.jsonl",
             meta("2024-12-21T10:00:00Z", "untouched", "/w/b") + prompt("2024-12-21T10:01:00Z"),
             at("2024-12-21T10:01:00Z"));
  CodexReader r = reader();
  CodexRefresh got = r.refresh({}, now);
  EXPECT_EQ(got.today, tokens(300, 50, 0));
  EXPECT_EQ(got.sessionsToday, 1);
  ASSERT_EQ(got.cards.size(), 1u);
  EXPECT_EQ(got.cards[0].id, "resumed");

  // A day folder listed before is looked at again once a file is added to it.
  home.write("2024/12/21", "later.jsonl",
             meta("2024-12-21T12:00:00Z", "later", "/w/c") + prompt("2025-01-31T11:30:00Z"),
             at("2025-01-31T11:30:00Z"));
  EXPECT_EQ(r.refresh({}, now).sessionsToday, 2);
}

TEST_F(CodexReaderTest, NewestPlanAcrossFiles) {
  const Date now = at("2025-01-31T12:00:00Z");
  const std::string limits10 = R"({"primary":{"used_percent":10,"window_minutes":300}})";
  const std::string limits20 = R"({"primary":{"used_percent":20,"window_minutes":300}})";
  home.write("2025/01/31", "a.jsonl",
             usage("2025-01-31T10:00:00Z", 1, 0, 1, 0, 1, limits10) +
                 usage("2025-01-31T11:30:00Z", 2, 0, 2),  // no limits: the plan stays
             now);
  home.write("2025/01/31", "b.jsonl", usage("2025-01-31T11:00:00Z", 1, 0, 1, 0, 1, limits20), now);
  CodexReader r = reader();
  CodexRefresh got = r.refresh({}, now);
  ASSERT_TRUE(got.plan);
  EXPECT_EQ(got.plan->session, window(20, std::nullopt, 300));
  EXPECT_EQ(got.plan->updated, at("2025-01-31T11:00:00Z"));

  home.append("2025/01/31", "a.jsonl", usage("2025-01-31T11:45:00Z", 3, 0, 3, 0, 1, limits10), now);
  got = r.refresh({}, now);
  ASSERT_TRUE(got.plan);
  EXPECT_EQ(got.plan->updated, at("2025-01-31T11:45:00Z"));
  EXPECT_EQ(got.plan->session->usedPercent, 10);
}

TEST_F(CodexReaderTest, PlanFromAnOlderFileWhenNoneToday) {
  const Date now = at("2025-01-31T12:00:00Z");
  const std::string limits = R"({"primary":{"used_percent":7,"window_minutes":10080}})";
  home.write("2025/01/27", "old.jsonl", usage("2025-01-27T10:00:00Z", 1, 0, 1, 0, 1, limits),
             at("2025-01-27T10:00:00Z"));
  home.write("2025/01/28", "older-but-newer.jsonl", usage("2025-01-28T10:00:00Z", 1, 0, 1),
             at("2025-01-28T10:00:00Z"));
  CodexReader r = reader();
  std::optional<PlanUsage> plan;
  for (int i = 0; i < 3 && !plan; ++i) plan = r.refresh({}, now).plan;
  ASSERT_TRUE(plan);
  EXPECT_EQ(plan->weekly, window(7, std::nullopt, 10080));
  EXPECT_EQ(r.refresh({}, now).cards.size(), 0u);
}

TEST_F(CodexReaderTest, IncrementalAndBadLines) {
  const Date now = at("2025-01-31T12:00:00Z");
  const std::string garbage = std::string("\x00\x01\xfe garbage\n", 12) + "{\"type\":\n" +
                              "[1,2,3]\n" + R"({"type":"event_msg","payload":{"type":7}})" + "\n" +
                              R"({"type":"event_msg","payload":{"type":"user_message"})" + "\n";
  home.write("2025/01/31", "r.jsonl", meta("2025-01-31T11:00:00Z", "r", "/w") + garbage, now);
  CodexReader r = reader();
  CodexRefresh got = r.refresh({}, now);
  ASSERT_EQ(got.cards.size(), 1u);
  EXPECT_EQ(got.cards[0].prompts, 0);

  // A line written in two pieces is read once, when complete.
  std::string line = prompt("2025-01-31T11:10:00Z");
  home.append("2025/01/31", "r.jsonl", line.substr(0, 30), now);
  EXPECT_EQ(r.refresh({}, now).cards.at(0).prompts, 0);
  home.append("2025/01/31", "r.jsonl", line.substr(30), now);
  EXPECT_EQ(r.refresh({}, now).cards.at(0).prompts, 1);
  EXPECT_EQ(r.refresh({}, now).cards.at(0).prompts, 1);

  // A file replaced by a shorter one is counted from its start, not on top of the old counts.
  home.write("2025/01/31", "r.jsonl", prompt("2025-01-31T11:20:00Z"), now);
  got = r.refresh({}, now);
  ASSERT_EQ(got.cards.size(), 1u);
  EXPECT_EQ(got.cards[0].prompts, 1);
  EXPECT_EQ(got.cards[0].id, "r");  // named by its file without a session record
}

TEST_F(CodexReaderTest, MissingFolderAndHomeFolder) {
  CodexReader missing(joinPath(home.root, "absent"), utcDayStart);
  EXPECT_FALSE(missing.installed());
  CodexRefresh got = missing.refresh({}, at("2025-01-31T12:00:00Z"));
  EXPECT_TRUE(got.cards.empty());
  EXPECT_FALSE(got.plan);
  EXPECT_TRUE(reader().installed());

  const char* savedCodex = std::getenv("CODEX_HOME");
  const char* savedHome = std::getenv("HOME");
  const std::string oldCodex = savedCodex ? savedCodex : "";
  const std::string oldHome = savedHome ? savedHome : "";
  ::setenv("HOME", home.root.c_str(), 1);
  ::setenv("CODEX_HOME", "/elsewhere/codex", 1);
  EXPECT_EQ(CodexReader::defaultFolder(), "/elsewhere/codex");
  ::setenv("CODEX_HOME", "", 1);
  EXPECT_EQ(CodexReader::defaultFolder(), home.root + "/.codex");
  ::unsetenv("CODEX_HOME");
  EXPECT_EQ(CodexReader().folder(), home.root + "/.codex");
  if (savedCodex) ::setenv("CODEX_HOME", oldCodex.c_str(), 1);
  if (savedHome) ::setenv("HOME", oldHome.c_str(), 1);
}

}  // namespace
}  // namespace vistrel
