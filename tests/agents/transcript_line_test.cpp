#include "agents/transcript_line.hpp"

#include <gtest/gtest.h>

#include <limits>
#include <string>

#include "agents/message_ledger.hpp"
#include "claude_fixture.hpp"

namespace vistrel {
namespace {

using Type = TranscriptLine::Type;

struct LineRow {
  LineRow(const char* name, std::string text, std::optional<Type> type, bool prompt = false,
          int64_t toolCalls = 0, std::optional<TokenTotals> usage = std::nullopt,
          std::optional<std::string> model = std::nullopt)
      : name(name),
        text(std::move(text)),
        type(type),
        prompt(prompt),
        toolCalls(toolCalls),
        usage(usage),
        model(std::move(model)) {}
  const char* name;
  std::string text;
  std::optional<Type> type;  // absent: the line is skipped
  bool prompt;
  int64_t toolCalls;
  std::optional<TokenTotals> usage;
  std::optional<std::string> model;
};

class TranscriptLineTest : public ::testing::TestWithParam<LineRow> {};

TEST_P(TranscriptLineTest, Parses) {
  const LineRow& row = GetParam();
  std::optional<TranscriptLine> line = parseTranscriptLine(row.text);
  ASSERT_EQ(line.has_value(), row.type.has_value());
  if (!line) return;
  EXPECT_EQ(line->type, *row.type);
  EXPECT_EQ(line->prompt, row.prompt);
  EXPECT_EQ(line->toolCalls, row.toolCalls);
  EXPECT_EQ(line->usage, row.usage);
  EXPECT_EQ(line->model ? std::optional<std::string>(*line->model) : std::nullopt, row.model);
}

const std::string kHuge(200 << 10, 'h');  // a tool result or file content of 200 KB

INSTANTIATE_TEST_SUITE_P(
    Table, TranscriptLineTest,
    ::testing::Values(
        LineRow{"Assistant",
                test::assistant("m", "r", {1, 2, 3, 4}, "2025-01-31T10:00:00Z",
                                "claude-opus-4-1-20250805", 2),
                Type::assistant, false, 2, TokenTotals{1, 2, 3, 4}, "claude-opus-4-1-20250805"},
        LineRow{"Synthetic",
                test::assistant("m", "r", {0, 0, 0, 0}, "2025-01-31T10:00:00Z", "<synthetic>"),
                Type::assistant, false, 0, TokenTotals{}, std::nullopt},
        LineRow{"Prompt", test::user(R"("hello")"), Type::user, true},
        LineRow{"ToolResult", test::user(R"([{"type":"tool_result","content":"x"}])"), Type::user},
        LineRow{"Meta", test::user(R"("x")", "2025-01-31T10:00:00Z", true), Type::user},
        LineRow{"ImageAndText", test::user(R"([{"type":"image"},{"type":"text","text":"x"}])"),
                Type::user, true},
        LineRow{"ContentNeitherTextNorList", test::user("42"), Type::user},
        // A huge string is emptied before parsing; the record is still understood.
        LineRow{"LongPrompt", test::user("\"" + kHuge + "\""), Type::user, true},
        LineRow{"LongToolInput",
                test::assistant("m", "r", {5, 6, 0, 0}).insert(1, "\"big\":\"" + kHuge + "\","),
                Type::assistant, false, 0, TokenTotals{5, 6, 0, 0}, "claude-sonnet-4-5-20250929"},
        LineRow{"UsageOnAUserLine",
                R"({"type":"user","message":{"content":"x","usage":{"input_tokens":5}}})",
                Type::user, true},
        LineRow{"UsageNotAnObject", R"({"type":"assistant","message":{"usage":[1]}})",
                Type::assistant},
        LineRow{
            "NegativeAndHugeCounts",
            R"({"type":"assistant","message":{"usage":{"input_tokens":-5,"output_tokens":1e40,"cache_read_input_tokens":"7"}}})",
            Type::assistant, false, 0, TokenTotals{0, TranscriptLine::kMaxTokens, 0, 0}},
        LineRow{"NoMessage", R"({"type":"assistant","timestamp":"2025-01-31T10:00:00Z"})",
                Type::other},
        LineRow{"Summary", R"({"type":"summary","summary":"x","leafUuid":"u"})", Type::other},
        LineRow{"TypeNotAString", R"({"type":["user"],"message":{"content":"x"}})", Type::other},
        LineRow{"Array", "[1,2,3]", std::nullopt},
        LineRow{"Cut", R"({"type":"user")", std::nullopt},
        LineRow{"Binary", std::string("\0\xff\x01{}", 5), std::nullopt},
        // Mostly structure even once compacted: too long to parse.
        LineRow{"HugeStructure", "{\"a\":[" + std::string(1 << 20, '1') + "]}", std::nullopt}),
    [](const auto& info) { return std::string(info.param.name); });

struct CompactRow {
  std::string in;
  size_t keep;
  std::string out;
};
class CompactTest : public ::testing::TestWithParam<CompactRow> {};

TEST_P(CompactTest, EmptiesLongStringsOnly) {
  const CompactRow& row = GetParam();
  std::string out(row.in.size(), '\0');
  const size_t n = compactLongStrings(row.in, out.data(), out.size(), row.keep);
  ASSERT_NE(n, std::numeric_limits<size_t>::max());
  EXPECT_EQ(out.substr(0, n), row.out);
  if (!row.out.empty()) {  // one byte short of the room needed: refused
    EXPECT_EQ(compactLongStrings(row.in, out.data(), n - 1, row.keep),
              std::numeric_limits<size_t>::max());
  }
}

INSTANTIATE_TEST_SUITE_P(
    Table, CompactTest,
    ::testing::Values(CompactRow{R"({"a":"xyz","b":"0123456789"})", 3, R"({"a":"xyz","b":""})"},
                      CompactRow{R"({"a":"ab\"cdefgh","n":1})", 4, R"({"a":"","n":1})"},
                      CompactRow{R"({"a":"ab\\","n":"abcdefgh"})", 4, R"({"a":"ab\\","n":""})"},
                      CompactRow{R"({"a":"\\\"q"})", 8, R"({"a":"\\\"q"})"},
                      CompactRow{R"({"a":"\\\\\"long string"})", 4, R"({"a":""})"},
                      CompactRow{R"({"a":"unterminated long)", 4, R"({"a":")"},
                      CompactRow{R"({"a":"ok"} "tail)", 4, R"({"a":"ok"} "tail)"},
                      CompactRow{"no quotes at all", 0, "no quotes at all"},
                      CompactRow{"", 0, ""}));

struct LedgerStep {
  uint64_t key;
  TokenTotals usage;
  TokenTotals added;
  bool first;
};

TEST(MessageLedger, CountsEachResponseAtItsLargestUsage) {
  const std::vector<LedgerStep> steps = {
      {1, {3, 1, 20, 100}, {3, 1, 20, 100}, true},
      {1, {3, 1, 20, 100}, {}, false},              // repeated line
      {1, {3, 40, 20, 100}, {0, 39, 0, 0}, false},  // streamed output grows
      {1, {3, 12, 20, 100}, {}, false},             // a smaller one adds nothing
      {2, {0, 0, 0, 0}, {}, true},                  // another response
      {2, {1, 0, 0, 0}, {1, 0, 0, 0}, false},
  };
  MessageLedger ledger;
  for (const LedgerStep& step : steps) {
    MessageLedger::Added added = ledger.count(step.key, step.usage);
    EXPECT_EQ(added.tokens, step.added);
    EXPECT_EQ(added.first, step.first);
  }
  EXPECT_EQ(ledger.size(), 2u);
}

TEST(MessageLedger, KeepsEveryKeyThroughGrowth) {
  MessageLedger ledger;
  for (uint64_t k = 0; k < 100'000; ++k) {
    ASSERT_TRUE(ledger.count(messageKey("msg_" + std::to_string(k), "req"), {1, 0, 0, 0}).first);
  }
  for (uint64_t k = 0; k < 100'000; k += 997) {
    EXPECT_FALSE(ledger.count(messageKey("msg_" + std::to_string(k), "req"), {1, 0, 0, 0}).first);
  }
  EXPECT_EQ(ledger.size(), 100'000u);
}

TEST(MessageLedger, KeyDependsOnBothIds) {
  EXPECT_NE(messageKey("a", "b"), messageKey("b", "a"));
  EXPECT_NE(messageKey("ab", ""), messageKey("a", "b"));
  EXPECT_EQ(messageKey("m", "r"), messageKey("m", "r"));
}

TEST(AddSaturating, StopsAtTheLimits) {
  constexpr int64_t kMax = std::numeric_limits<int64_t>::max();
  EXPECT_EQ(addSaturating(kMax - 1, 5), kMax);
  EXPECT_EQ(addSaturating(std::numeric_limits<int64_t>::min(), -1),
            std::numeric_limits<int64_t>::min());
  TokenTotals t{kMax, 1, 2, 3};
  addSaturating(t, {1, 1, 1, 1});
  EXPECT_EQ(t, (TokenTotals{kMax, 2, 3, 4}));
}

}  // namespace
}  // namespace vistrel
