#include "agents/json_values.hpp"

#include <gtest/gtest.h>

#include <limits>
#include <string>

#include "agents/iso_date.hpp"

namespace vistrel {
namespace {

// Each row: the JSON text of the field "v" and what every converter makes of it.
struct Row {
  const char* json;
  int64_t asInt;
  std::optional<double> asDouble;
  std::optional<std::string> asString;
  bool isDate;
};

class JsonValuesTest : public ::testing::TestWithParam<Row> {};

TEST_P(JsonValuesTest, ConvertersAgreeWithTheValuesType) {
  const Row& row = GetParam();
  const std::string line = std::string("{\"v\":") + row.json + ",\"w\":1}";
  JsonLineParser parser;
  // A fresh parse per converter: on-demand values are consumed as they are read.
  auto fresh = [&] {
    auto o = parser.parse(line);
    EXPECT_TRUE(o.has_value()) << line;
    return *o;
  };
  EXPECT_EQ(jsonInt(fresh()["v"]), row.asInt) << row.json;
  EXPECT_EQ(dbl(fresh()["v"]), row.asDouble) << row.json;
  EXPECT_EQ(str(fresh()["v"]), row.asString) << row.json;
  EXPECT_EQ(parseDate(fresh()["v"]).has_value(), row.isDate) << row.json;
  // A missing key is absent for every converter, and the next field is still readable.
  auto o = fresh();
  EXPECT_EQ(jsonInt(o["missing"]), 0);
  EXPECT_EQ(jsonInt(o["w"]), 1);
}

constexpr int64_t kMax = std::numeric_limits<int64_t>::max();
constexpr int64_t kMin = std::numeric_limits<int64_t>::min();

INSTANTIATE_TEST_SUITE_P(
    Table, JsonValuesTest,
    ::testing::Values(
        Row{"42", 42, 42.0, std::nullopt, false}, Row{"-7", -7, -7.0, std::nullopt, false},
        Row{"12.9", 12, 12.9, std::nullopt, false}, Row{"1e300", kMax, 1e300, std::nullopt, false},
        Row{"-1e300", kMin, -1e300, std::nullopt, false},
        Row{"18446744073709551615", kMax, 18446744073709551615.0, std::nullopt, false},
        Row{"\"42\"", 0, std::nullopt, "42", false},
        Row{"null", 0, std::nullopt, std::nullopt, false},
        Row{"true", 0, std::nullopt, std::nullopt, false},
        Row{"[1]", 0, std::nullopt, std::nullopt, false},
        Row{"{\"a\":1}", 0, std::nullopt, std::nullopt, false},
        Row{"\"2025-01-31T09:12:45.123Z\"", 0, std::nullopt, "2025-01-31T09:12:45.123Z", true},
        Row{"\"2025-01-31T09:12:45Z\"", 0, std::nullopt, "2025-01-31T09:12:45Z", true},
        Row{"\"2025-01-31\"", 0, std::nullopt, "2025-01-31", false}));

TEST(JsonValues, DateIsTheInstantTheTextNames) {
  JsonLineParser parser;
  auto o = parser.parse(R"({"t":"2025-01-31T10:12:45+01:00"})");
  ASSERT_TRUE(o);
  EXPECT_EQ(parseDate((*o)["t"]), parseISODate("2025-01-31T09:12:45Z"));
}

TEST(JsonValues, NotAnObjectIsAbsent) {
  JsonLineParser parser;
  for (const char* text : {"[1,2]", "42", "\"x\"", "", "{", "{\"a\":", "\x01\xff garbage"}) {
    auto o = parser.parse(text);
    if (!o) continue;  // rejected up front
    // An on-demand parser may only notice a broken object while reading it: reading must fail
    // softly then.
    EXPECT_EQ(jsonInt((*o)["a"]), 0) << text;
  }
}

TEST(JsonValues, ObjectAndArrayHelpersGiveNestedValues) {
  JsonLineParser parser;
  auto o = parser.parse(R"({"m":{"u":{"n":5}},"l":[{"t":"x"}],"b":true})");
  ASSERT_TRUE(o);
  auto m = object((*o)["m"]);
  ASSERT_TRUE(m);
  EXPECT_EQ(jsonInt((*m)["u"]["n"]), 5);
  auto l = array((*o)["l"]);
  ASSERT_TRUE(l);
  int items = 0;
  for (auto item : *l) {
    EXPECT_EQ(str(item["t"]), "x");
    ++items;
  }
  EXPECT_EQ(items, 1);
  EXPECT_EQ(boolean((*o)["b"]), true);
  EXPECT_FALSE(object((*o)["l"]));
}

TEST(JsonValues, TrimKeepsTheParserUsable) {
  JsonLineParser parser;
  std::string big = "{\"a\":\"" + std::string(1 << 20, 'x') + "\",\"n\":3}";
  auto o = parser.parse(big);
  ASSERT_TRUE(o);
  EXPECT_EQ(jsonInt((*o)["n"]), 3);
  parser.trim(4096);
  o = parser.parse(R"({"n":4})");
  ASSERT_TRUE(o);
  EXPECT_EQ(jsonInt((*o)["n"]), 4);
}

}  // namespace
}  // namespace vistrel
