#include "format/fmt.hpp"

#include <gtest/gtest.h>

#include <climits>
#include <cmath>
#include <cstdlib>
#include <ctime>
#include <limits>
#include <optional>
#include <string>
#include <vector>

#include "format/platform_text.hpp"

namespace vistrel {
namespace {

constexpr double kGiB = 1073741824.0;  // 2^30
constexpr double kMiB = 1048576.0;     // 2^20
const double kNaN = std::numeric_limits<double>::quiet_NaN();
const double kInf = std::numeric_limits<double>::infinity();

// Sets both flags for one test and restores them afterwards, so test order never matters.
class FlagsScope {
 public:
  FlagsScope(bool bits, bool fahrenheit) : bits_(Fmt::bits()), fahrenheit_(Fmt::fahrenheit()) {
    Fmt::setBits(bits);
    Fmt::setFahrenheit(fahrenheit);
  }
  ~FlagsScope() {
    Fmt::setBits(bits_);
    Fmt::setFahrenheit(fahrenheit_);
  }

 private:
  bool bits_;
  bool fahrenheit_;
};

// Points TZ at `zone` for one test (POSIX zone strings need no zone database) and restores it.
class TimeZoneScope {
 public:
  explicit TimeZoneScope(const char* zone) {
    if (const char* old = std::getenv("TZ")) old_ = old;
    setenv("TZ", zone, 1);
    tzset();
  }
  ~TimeZoneScope() {
    if (old_) {
      setenv("TZ", old_->c_str(), 1);
    } else {
      unsetenv("TZ");
    }
    tzset();
  }

 private:
  std::optional<std::string> old_;
};

struct DoubleCase {
  double input;
  const char* expected;
};

TEST(FmtTest, BytesUseDecimalThresholds) {
  const std::vector<DoubleCase> cases = {
      {0, "0 B"},
      {999, "999 B"},
      {999.4, "999 B"},
      {1000, "1 KB"},
      {1500, "2 KB"},
      {999'999, "1000 KB"},  // still under the MB threshold
      {1e6, "1 MB"},
      {999'999'999, "1000 MB"},
      {1e9, "1.0 GB"},
      {1.5e9, "1.5 GB"},
      {99'999'999'999, "100.0 GB"},
      {1e11, "100 GB"},
      {2.5e11, "250 GB"},
      {999'999'999'999, "1000 GB"},
      {1e12, "1.0 TB"},
      {2e12, "2.0 TB"},
      {-5, "-5 B"},  // negatives compare as given and fall through to bytes
  };
  for (const auto& c : cases) {
    EXPECT_EQ(Fmt::bytes(c.input), c.expected) << "bytes(" << c.input << ")";
  }
}

TEST(FmtTest, BytesOfCountsMatchTheDoubleForm) {
  const std::vector<std::pair<uint64_t, const char*>> cases = {
      {0, "0 B"},
      {999, "999 B"},
      {1000, "1 KB"},
      {1'500'000'000, "1.5 GB"},
      {2'000'000'000'000, "2.0 TB"},
      {UINT64_MAX, "18446744.1 TB"},
  };
  for (const auto& [input, expected] : cases) {
    EXPECT_EQ(Fmt::bytes(input), expected) << "bytes(" << input << "u)";
  }
}

TEST(FmtTest, MemUsesBinaryThresholds) {
  const std::vector<DoubleCase> cases = {
      {0, "0 KB"},
      {1023, "1 KB"},
      {kMiB - 1, "1024 KB"},
      {kMiB, "1 MB"},
      {1e9, "954 MB"},            // below 0.95 GB
      {1'020'054'732, "973 MB"},  // one byte under 0.95 x 2^30 = 1,020,054,732.8
      {1'020'054'733, "0.95 GB"},
      {1'030'000'000, "0.96 GB"},
      {kGiB, "1.00 GB"},
      {10 * kGiB - 1, "10.00 GB"},
      {10 * kGiB, "10.0 GB"},
      {16 * kGiB, "16.0 GB"},
      {100 * kGiB - 1, "100.0 GB"},
      {100 * kGiB, "100 GB"},
      {128 * kGiB, "128 GB"},
  };
  for (const auto& c : cases) {
    EXPECT_EQ(Fmt::mem(c.input), c.expected) << "mem(" << c.input << ")";
  }
  EXPECT_EQ(Fmt::mem(uint64_t{1'030'000'000}), "0.96 GB");
  EXPECT_EQ(Fmt::mem(uint64_t{16} << 30), "16.0 GB");
}

struct RateCase {
  double input;
  const char* bytesMode;
  const char* bitsMode;
};

TEST(FmtTest, RateInBytesAndBits) {
  const std::vector<RateCase> cases = {
      {0, "0 B/s", "0 b/s"},
      {124.9, "125 B/s", "999 b/s"},
      {125, "125 B/s", "1 Kb/s"},
      {999, "999 B/s", "8 Kb/s"},
      {1000, "1 KB/s", "8 Kb/s"},
      {1500, "2 KB/s", "12 Kb/s"},
      {124'999, "125 KB/s", "1000 Kb/s"},
      {125'000, "125 KB/s", "1.0 Mb/s"},
      {999'999, "1000 KB/s", "8.0 Mb/s"},
      {1e6, "1.0 MB/s", "8.0 Mb/s"},
      {1.25e7, "12.5 MB/s", "100 Mb/s"},
      {2.5e7, "25.0 MB/s", "200 Mb/s"},
      {99'999'999, "100.0 MB/s", "800 Mb/s"},
      {1e8, "100 MB/s", "800 Mb/s"},
      {1.25e8, "125 MB/s", "1.0 Gb/s"},
      {2.5e8, "250 MB/s", "2.0 Gb/s"},
      {1e9, "1.0 GB/s", "8.0 Gb/s"},
  };
  for (bool bits : {false, true}) {
    FlagsScope flags(bits, false);
    for (const auto& c : cases) {
      EXPECT_EQ(Fmt::rate(c.input), bits ? c.bitsMode : c.bytesMode)
          << "rate(" << c.input << ") bits=" << bits;
    }
  }
}

TEST(FmtTest, ShortRateHasNoUnitOrSpace) {
  const std::vector<RateCase> cases = {
      {0, "0", "0"},
      {999, "999", "8K"},
      {1000, "1K", "8K"},
      {125'000, "125K", "1.0M"},
      {1.5e6, "1.5M", "12.0M"},
      {1.25e7, "12.5M", "100M"},
      {1e8, "100M", "800M"},
      {1.25e8, "125M", "1.0G"},
      {2.5e9, "2.5G", "20.0G"},
  };
  for (bool bits : {false, true}) {
    FlagsScope flags(bits, false);
    for (const auto& c : cases) {
      EXPECT_EQ(Fmt::shortRate(c.input), bits ? c.bitsMode : c.bytesMode)
          << "shortRate(" << c.input << ") bits=" << bits;
    }
  }
}

TEST(FmtTest, PercentNeverShowsASmallShareAsZero) {
  const std::vector<DoubleCase> cases = {
      {0, "0%"},      {0.00001, "<1%"}, {0.004, "<1%"}, {0.00999, "<1%"}, {0.01, "1%"},
      {0.254, "25%"}, {0.256, "26%"},   {1, "100%"},    {2.5, "250%"},  // an app on two and a half
                                                                        // cores
  };
  for (const auto& c : cases) {
    EXPECT_EQ(Fmt::percent(c.input), c.expected) << "percent(" << c.input << ")";
  }
}

struct TemperatureCase {
  double celsius;
  const char* inCelsius;
  const char* inFahrenheit;
};

TEST(FmtTest, TemperatureFollowsTheFahrenheitFlag) {
  const std::vector<TemperatureCase> cases = {
      {0, "0°", "32°F"},      {-40, "-40°", "-40°F"}, {37, "37°", "99°F"},  // 98.6
      {71.6, "72°", "161°F"}, {100, "100°", "212°F"},
  };
  for (bool fahrenheit : {false, true}) {
    FlagsScope flags(false, fahrenheit);
    for (const auto& c : cases) {
      EXPECT_EQ(Fmt::temperature(c.celsius), fahrenheit ? c.inFahrenheit : c.inCelsius)
          << "temperature(" << c.celsius << ") fahrenheit=" << fahrenheit;
    }
  }
}

TEST(FmtTest, Watts) {
  const std::vector<DoubleCase> cases = {
      {-1, "0 W"},     {0, "0 W"},      {0.0004, "0 W"},    {0.000999, "0 W"},
      {0.001, "1 mW"}, {0.05, "50 mW"}, {0.0999, "100 mW"}, {0.1, "0.1 W"},
      {3.44, "3.4 W"}, {9.9, "9.9 W"},  {10, "10 W"},       {123.6, "124 W"},
  };
  for (const auto& c : cases) {
    EXPECT_EQ(Fmt::watts(c.input), c.expected) << "watts(" << c.input << ")";
  }
}

TEST(FmtTest, RpmRestsBelowOneAndGroupsAbove) {
  if (Fmt::userGrouping() != Fmt::englishGrouping()) {
    GTEST_SKIP() << "the environment's locale groups digits differently from English";
  }
  const std::vector<DoubleCase> cases = {
      {0, "Resting"},        {0.5, "Resting"},         {0.999, "Resting"},
      {-100, "Resting"},     {kNaN, "Resting"},        {1, "1 rpm"},
      {999.4, "999 rpm"},    {999.5, "1,000 rpm"},  // rounds half away from zero, not to even
      {1234.6, "1,235 rpm"}, {12'345.4, "12,345 rpm"},
  };
  for (const auto& c : cases) {
    EXPECT_EQ(Fmt::rpm(c.input), c.expected) << "rpm(" << c.input << ")";
  }
}

struct GroupedCase {
  int64_t n;
  Fmt::Grouping grouping;
  const char* expected;
};

TEST(FmtTest, GroupedWithExplicitGrouping) {
  const Fmt::Grouping english{",", "\3"};
  const Fmt::Grouping german{".", "\3"};
  const Fmt::Grouping indian{",", "\3\2"};
  const Fmt::Grouping narrowSpace{"\u202F", "\3"};
  const Fmt::Grouping once{",", std::string("\3") + static_cast<char>(CHAR_MAX)};
  const Fmt::Grouping none{",", ""};
  const std::vector<GroupedCase> cases = {
      {0, english, "0"},
      {999, english, "999"},
      {1000, english, "1,000"},
      {1235, english, "1,235"},
      {999'999, english, "999,999"},
      {1'000'000, english, "1,000,000"},
      {-1, english, "-1"},
      {-999, english, "-999"},
      {-1235, english, "-1,235"},
      {-1'234'567, english, "-1,234,567"},
      {INT64_MAX, english, "9,223,372,036,854,775,807"},
      {INT64_MIN, english, "-9,223,372,036,854,775,808"},
      {1'234'567, german, "1.234.567"},
      {1'234'567, indian, "12,34,567"},
      {123'456'789, indian, "12,34,56,789"},
      {1'234'567, narrowSpace, "1\u202F234\u202F567"},
      {1'234'567, once, "1234,567"},
      {1'234'567, none, "1234567"},
      {1'234'567, Fmt::Grouping{"", "\3"}, "1234567"},
  };
  for (const auto& c : cases) {
    EXPECT_EQ(Fmt::grouped(c.n, c.grouping), c.expected) << "grouped(" << c.n << ")";
  }
}

// A numpunct facet with chosen separator and grouping, standing in for a user's locale.
class TestPunct : public std::numpunct<char> {
 public:
  TestPunct(char separator, std::string grouping)
      : separator_(separator), grouping_(std::move(grouping)) {}

 protected:
  char do_thousands_sep() const override { return separator_; }
  std::string do_grouping() const override { return grouping_; }

 private:
  char separator_;
  std::string grouping_;
};

TEST(FmtTest, GroupingComesFromTheLocaleOrFallsBackToEnglish) {
  struct Case {
    const char* name;
    std::locale locale;
    Fmt::Grouping expected;
  };
  const std::locale c = std::locale::classic();
  const std::vector<Case> cases = {
      {"classic", c, {",", "\3"}},
      {"german", std::locale(c, new TestPunct('.', "\3")), {".", "\3"}},
      {"indian", std::locale(c, new TestPunct(',', "\3\2")), {",", "\3\2"}},
      {"no grouping", std::locale(c, new TestPunct('.', "")), {",", "\3"}},
      {"zero group", std::locale(c, new TestPunct('.', std::string(1, '\0'))), {",", "\3"}},
      {"no separator", std::locale(c, new TestPunct('\0', "\3")), {",", "\3"}},
  };
  for (const auto& test : cases) {
    EXPECT_EQ(Fmt::groupingOf(test.locale), test.expected) << test.name;
  }
  // A locale the system cannot make (as with a LANG it has no data for) is not an error.
  EXPECT_EQ(Fmt::groupingOfLocaleNamed("xx_NOWHERE.NO-SUCH-CODESET"), Fmt::englishGrouping());
  EXPECT_EQ(Fmt::groupingOfLocaleNamed("C"), Fmt::englishGrouping());
}

TEST(FmtTest, CompactCounts) {
  if (Fmt::userGrouping() != Fmt::englishGrouping()) {
    GTEST_SKIP() << "the environment's locale groups digits differently from English";
  }
  const std::vector<std::pair<int64_t, const char*>> cases = {
      {0, "0"},
      {999, "999"},
      {9'999, "9,999"},
      {10'000, "10 K"},
      {12'345, "12 K"},
      {999'499, "999 K"},
      {1'000'000, "1.0 M"},
      {1'250'000, "1.2 M"},  // an exact half rounds to even, as printf does
      {1'260'000, "1.3 M"},
      {45'600'000, "45.6 M"},
  };
  for (const auto& [input, expected] : cases) {
    EXPECT_EQ(Fmt::compact(input), expected) << "compact(" << input << ")";
  }
}

TEST(FmtTest, DurationInWholeSeconds) {
  const std::vector<DoubleCase> cases = {
      {-5, "0 s"},
      {kNaN, "0 s"},
      {0, "0 s"},
      {0.9, "0 s"},
      {59.9, "59 s"},
      {60, "1 min"},
      {119, "1 min"},
      {3599, "59 min"},
      {3600, "1 h"},
      {3659, "1 h"},
      {3660, "1 h 1 min"},
      {7500, "2 h 5 min"},
      {86'399, "23 h 59 min"},
      {86'400, "1 d"},
      {3 * 86'400 + 7200, "3 d"},
      {kInf, "106751991167300 d"},  // clamped to the 64-bit range, not undefined
  };
  for (const auto& c : cases) {
    EXPECT_EQ(Fmt::duration(c.input), c.expected) << "duration(" << c.input << ")";
  }
}

TEST(FmtTest, MinutesShortForm) {
  const std::vector<std::pair<int64_t, const char*>> cases = {
      {0, "0 min"},     {59, "59 min"}, {60, "1 h"},    {61, "1 h 1 m"},
      {125, "2 h 5 m"}, {180, "3 h"},   {1500, "25 h"},
  };
  for (const auto& [input, expected] : cases) {
    EXPECT_EQ(Fmt::minutes(input), expected) << "minutes(" << input << ")";
  }
}

TEST(FmtTest, AgoFromSecondsBeforeNow) {
  const Date now = dateFromSeconds(1'700'000'000);
  const std::vector<DoubleCase> cases = {
      {-30, "just now"},  // a date after now (the clock was set back)
      {0, "just now"},   {44, "just now"},  {44.9, "just now"},      {45, "45 s ago"},
      {90, "1 min ago"}, {3600, "1 h ago"}, {2 * 86'400, "2 d ago"},
  };
  for (const auto& c : cases) {
    const Date date =
        now - std::chrono::duration_cast<Date::duration>(std::chrono::duration<double>(c.input));
    EXPECT_EQ(Fmt::ago(date, now), c.expected) << c.input << " s before now";
  }
}

struct MetricCase {
  Metric metric;
  double value;
  const char* expected;
};

TEST(FmtTest, MetricValueUsesEachMetricsUnit) {
  const std::vector<MetricCase> cases = {
      {Metric::cpu, 45.4, "45%"},
      {Metric::cpu, 0.3, "<1%"},
      {Metric::cpu, 100, "100%"},
      {Metric::memory, 1e9, "954 MB"},
      {Metric::memory, 16 * kGiB, "16.0 GB"},
      {Metric::gpu, 62.6, "63%"},
      {Metric::gpu, 0.5, "<1%"},
      {Metric::disk, 2.5e7, "25.0 MB/s"},
      {Metric::network, 1500, "2 KB/s"},
      {Metric::battery, 80, "80%"},
      {Metric::battery, 0, "0%"},
      {Metric::heat, 71.6, "72°"},
  };
  for (const auto& c : cases) {
    EXPECT_EQ(Fmt::metricValue(c.metric, c.value), c.expected)
        << rawValue(c.metric) << " " << c.value;
  }
}

TEST(FmtTest, AppMetricValueUsesTheAppsUnits) {
  const std::vector<MetricCase> cases = {
      {Metric::cpu, 250, "250%"},  // percent of one core, past 100 on several cores
      {Metric::cpu, 0.5, "<1%"},         {Metric::memory, 1'030'000'000, "0.96 GB"},
      {Metric::gpu, 0.5, "50%"},  // a share, not a percent
      {Metric::gpu, 0.004, "<1%"},       {Metric::disk, 2.5e8, "250 MB/s"},
      {Metric::network, 999, "999 B/s"}, {Metric::battery, 80, "80%"},
      {Metric::heat, 100, "100°"},
  };
  for (const auto& c : cases) {
    EXPECT_EQ(Fmt::appMetricValue(c.metric, c.value), c.expected)
        << rawValue(c.metric) << " " << c.value;
  }
}

TEST(FmtTest, MetricValuesFollowTheFlags) {
  FlagsScope flags(true, true);
  const std::vector<MetricCase> cases = {
      {Metric::network, 1500, "12 Kb/s"},
      {Metric::disk, 1.25e8, "1.0 Gb/s"},
      {Metric::heat, 100, "212°F"},
  };
  for (const auto& c : cases) {
    EXPECT_EQ(Fmt::metricValue(c.metric, c.value), c.expected) << rawValue(c.metric);
    EXPECT_EQ(Fmt::appMetricValue(c.metric, c.value), c.expected) << rawValue(c.metric);
  }
}

TEST(FmtTest, FlagsDefaultToOffAndToggle) {
  EXPECT_FALSE(Fmt::bits());
  EXPECT_FALSE(Fmt::fahrenheit());
  {
    FlagsScope flags(true, false);
    EXPECT_TRUE(Fmt::bits());
    EXPECT_FALSE(Fmt::fahrenheit());
  }
  {
    FlagsScope flags(false, true);
    EXPECT_FALSE(Fmt::bits());
    EXPECT_TRUE(Fmt::fahrenheit());
  }
  EXPECT_FALSE(Fmt::bits());
  EXPECT_FALSE(Fmt::fahrenheit());
}

struct DateCase {
  double secondsSince1970;
  const char* clock;
  const char* dayTime;
  const char* dayOnly;
  const char* monthDay;
};

TEST(FmtTest, DateFormatsInUTC) {
  TimeZoneScope zone("UTC");
  constexpr double kNewYear2024 = 1'704'067'200;  // Monday 1 January 2024, 00:00 UTC
  const std::vector<DateCase> cases = {
      {kNewYear2024, "12:00 AM", "Mon 12:00 AM", "Mon 1 Jan", "1 Jan"},
      {kNewYear2024 + 5 * 60, "12:05 AM", "Mon 12:05 AM", "Mon 1 Jan", "1 Jan"},
      {kNewYear2024 + 5 * 60 + 59.9, "12:05 AM", "Mon 12:05 AM", "Mon 1 Jan", "1 Jan"},
      {kNewYear2024 + 11 * 3600 + 59 * 60, "11:59 AM", "Mon 11:59 AM", "Mon 1 Jan", "1 Jan"},
      {kNewYear2024 + 12 * 3600, "12:00 PM", "Mon 12:00 PM", "Mon 1 Jan", "1 Jan"},
      {kNewYear2024 + 13 * 3600, "1:00 PM", "Mon 1:00 PM", "Mon 1 Jan", "1 Jan"},
      {kNewYear2024 + 23 * 3600 + 59 * 60, "11:59 PM", "Mon 11:59 PM", "Mon 1 Jan", "1 Jan"},
      {kNewYear2024 + 24 * 3600, "12:00 AM", "Tue 12:00 AM", "Tue 2 Jan", "2 Jan"},
      // Thursday 29 February 2024, 09:30
      {kNewYear2024 + 59 * 86'400 + 9.5 * 3600, "9:30 AM", "Thu 9:30 AM", "Thu 29 Feb", "29 Feb"},
      // Wednesday 25 December 2024, 18:45
      {kNewYear2024 + 359 * 86'400 + 18.75 * 3600, "6:45 PM", "Wed 6:45 PM", "Wed 25 Dec",
       "25 Dec"},
      // Half a second before 1970 is still 1969: the date floors, it does not round toward 0.
      {-0.5, "11:59 PM", "Wed 11:59 PM", "Wed 31 Dec", "31 Dec"},
      {0, "12:00 AM", "Thu 12:00 AM", "Thu 1 Jan", "1 Jan"},
  };
  for (const auto& c : cases) {
    const Date date = dateFromSeconds(c.secondsSince1970);
    EXPECT_EQ(Fmt::clock(date), c.clock) << c.secondsSince1970;
    EXPECT_EQ(Fmt::dayTime(date), c.dayTime) << c.secondsSince1970;
    EXPECT_EQ(Fmt::dayOnly(date), c.dayOnly) << c.secondsSince1970;
    EXPECT_EQ(Fmt::monthDay(date), c.monthDay) << c.secondsSince1970;
  }
}

TEST(FmtTest, DateFormatsFollowTheLocalZone) {
  constexpr double kInstant = 1'704'067'200 + 5 * 60;  // 2024-01-01 00:05 UTC
  const Date date = dateFromSeconds(kInstant);
  struct Case {
    const char* zone;
    const char* dayTime;
    const char* monthDay;
  };
  // POSIX zone strings: the offset is west of Greenwich, so "-5:30" is five and a half hours east.
  const std::vector<Case> cases = {
      {"UTC", "Mon 12:05 AM", "1 Jan"},
      {"IST-5:30", "Mon 5:35 AM", "1 Jan"},
      {"EST5", "Sun 7:05 PM", "31 Dec"},
  };
  for (const auto& c : cases) {
    TimeZoneScope zone(c.zone);
    EXPECT_EQ(Fmt::dayTime(date), c.dayTime) << c.zone;
    EXPECT_EQ(Fmt::monthDay(date), c.monthDay) << c.zone;
  }
}

struct WordsCase {
  const char* mac;
  const char* onLinux;
};

TEST(PlatformTextTest, LinuxReplacesWholeWordsOnly) {
  const std::vector<WordsCase> cases = {
      {"Your Mac is calm", "Your computer is calm"},
      {"macOS system services", "Linux system services"},
      {"The Mac right now: 40% CPU", "The computer right now: 40% CPU"},
      {"Mac", "computer"},
      {"macOS", "Linux"},
      {"Your Mac's fans", "Your computer's fans"},
      {"Restart your Mac.", "Restart your computer."},
      {"Mac/macOS (Mac)", "computer/Linux (computer)"},
      {"Mac Mac", "computer computer"},
      {"Machine learning", "Machine learning"},
      {"MacBook Pro", "MacBook Pro"},
      {"iMac", "iMac"},
      {"Macs", "Macs"},
      {"Mac_mini", "Mac_mini"},
      {"macOSX", "macOSX"},
      {"MacMac", "MacMac"},
      {"MAC address, mac", "MAC address, mac"},
      {"Mac\u00e9", "Mac\u00e9"},
      {"", ""},
  };
  for (const auto& c : cases) {
    EXPECT_EQ(platformTextFor(c.mac, true), c.onLinux) << c.mac;
    EXPECT_EQ(platformTextFor(c.mac, false), c.mac) << c.mac;
  }
}

TEST(PlatformTextTest, BuildPicksThisPlatformsWords) {
#ifdef __linux__
  EXPECT_TRUE(runningOnLinux());
  EXPECT_EQ(platformText("Your Mac is calm"), "Your computer is calm");
#else
  EXPECT_FALSE(runningOnLinux());
  EXPECT_EQ(platformText("Your Mac is calm"), "Your Mac is calm");
#endif
}

}  // namespace
}  // namespace vistrel
