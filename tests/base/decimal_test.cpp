#include "base/decimal.hpp"

#include <gtest/gtest.h>

#include <clocale>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <limits>
#include <optional>
#include <random>
#include <string>

namespace vistrel {
namespace {

TEST(DecimalTest, ReadsWhatToolsPrintAndRefusesAnythingElse) {
  const double kMax = std::numeric_limits<double>::max();
  struct Case {
    const char* text;
    std::optional<double> want;
  } cases[] = {
      {"12.5", 12.5},
      {"-0.3", -0.3},
      {"+7", 7.0},
      {"0", 0.0},
      {".5", 0.5},
      {"5.", 5.0},
      {"0.00", 0.0},
      {"1e-3", 0.001},
      {"2.5E+2", 250.0},
      {"00012", 12.0},
      {"123456789012345678901234567890", 123456789012345678901234567890.0},
      {"0.1000000000000000055511151231257827", 0.1},
      {"1.7976931348623157e308", kMax},
      {"1e-400", 0.0},  // below the smallest subnormal: the nearest double is 0
      {"1e400", std::nullopt},
      {"1e99999999999999999999", std::nullopt},
      {"", std::nullopt},
      {"-", std::nullopt},
      {".", std::nullopt},
      {"e5", std::nullopt},
      {"1e", std::nullopt},
      {"1e+", std::nullopt},
      {"0,5", std::nullopt},  // a comma locale's decimal point is not one
      {"1,234.5", std::nullopt},
      {" 1", std::nullopt},
      {"1 ", std::nullopt},
      {"1.2.3", std::nullopt},
      {"--1", std::nullopt},
      {"inf", std::nullopt},
      {"nan", std::nullopt},
      {"0x10", std::nullopt},
      {"12%", std::nullopt},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.text);
    const std::optional<double> got = parseDecimal(c.text);
    ASSERT_EQ(got.has_value(), c.want.has_value());
    if (c.want) {
      EXPECT_EQ(*got, *c.want);
    }
  }
  EXPECT_TRUE(std::signbit(parseDecimal("-0").value()));
}

// Every value agrees bit for bit with the C library's strtod in the "C" locale, on the short
// numbers the fast path takes and the long ones it hands on.
TEST(DecimalTest, RoundsExactlyAsStrtodInTheCLocale) {
  std::mt19937_64 random(20240611);
  std::uniform_int_distribution<int> digitCount(1, 30), digit(0, 9), exponent(-330, 310),
      coin(0, 3);
  for (int round = 0; round < 20000; ++round) {
    std::string text = coin(random) == 0 ? "-" : "";
    const int whole = digitCount(random);
    for (int i = 0; i < whole; ++i) text += static_cast<char>('0' + digit(random));
    if (coin(random) != 0) {
      text += '.';
      const int fraction = digitCount(random) % 20;
      for (int i = 0; i < fraction; ++i) text += static_cast<char>('0' + digit(random));
    }
    if (coin(random) == 0) text += "e" + std::to_string(exponent(random));
    SCOPED_TRACE(text);
    const double expected = std::strtod(text.c_str(), nullptr);
    const std::optional<double> got = parseDecimal(text);
    if (!std::isfinite(expected)) {
      EXPECT_FALSE(got.has_value());
      continue;
    }
    ASSERT_TRUE(got.has_value());
    EXPECT_EQ(*got, expected);
  }
}

// A process whose locale writes "0,5" (German, French, ...) still reads "0.5" and refuses "0,5".
// Skipped where no such locale is installed (minimal Linux images have none).
TEST(DecimalTest, IgnoresACommaDecimalLocale) {
  const std::string saved = std::setlocale(LC_ALL, nullptr);
  const char* found = nullptr;
  for (const char* name : {"de_DE.UTF-8", "de_DE.utf8", "fr_FR.UTF-8", "fr_FR.utf8", "de_DE"}) {
    if (std::setlocale(LC_ALL, name) != nullptr) {
      found = name;
      break;
    }
  }
  if (found == nullptr) GTEST_SKIP() << "no locale with a comma decimal point is installed";
  char printed[16];
  std::snprintf(printed, sizeof printed, "%.1f", 0.5);
  const bool commaLocale = std::string(printed) == "0,5";
  EXPECT_EQ(parseDecimal("0.5"), 0.5);
  EXPECT_EQ(parseDecimal("0,5"), std::nullopt);
  EXPECT_EQ(parseDecimal("123456789.123456789012345"), 123456789.123456789012345);
  std::setlocale(LC_ALL, saved.c_str());
  EXPECT_TRUE(commaLocale) << found << " printed " << printed;
}

}  // namespace
}  // namespace vistrel
