#include "agents/iso_date.hpp"

#include <gtest/gtest.h>

#include <chrono>

namespace vistrel {
namespace {

struct DateRow {
  const char* text;
  std::optional<int64_t> millisSince1970;  // absent: no date
};

class ISODateTest : public ::testing::TestWithParam<DateRow> {};

TEST_P(ISODateTest, Parses) {
  std::optional<Date> date = parseISODate(GetParam().text);
  ASSERT_EQ(date.has_value(), GetParam().millisSince1970.has_value()) << GetParam().text;
  if (!date) return;
  EXPECT_EQ(std::chrono::duration_cast<std::chrono::milliseconds>(date->time_since_epoch()).count(),
            *GetParam().millisSince1970)
      << GetParam().text;
}

// 2025-01-31T09:12:45Z is 1738314765 s since 1970.
INSTANTIATE_TEST_SUITE_P(Table, ISODateTest,
                         ::testing::Values(DateRow{"2025-01-31T09:12:45Z", 1738314765000},
                                           DateRow{"2025-01-31T09:12:45.123Z", 1738314765123},
                                           DateRow{"2025-01-31T09:12:45.1Z", 1738314765100},
                                           DateRow{"2025-01-31T09:12:45.123456789Z", 1738314765123},
                                           DateRow{"2025-01-31T10:12:45+01:00", 1738314765000},
                                           DateRow{"2025-01-31T04:42:45.5-04:30", 1738314765500},
                                           DateRow{"2025-01-31t09:12:45z", 1738314765000},
                                           DateRow{"1970-01-01T00:00:00Z", 0},
                                           DateRow{"2024-02-29T00:00:00Z", 1709164800000},
                                           DateRow{"2025-02-29T00:00:00Z", std::nullopt},
                                           DateRow{"2025-13-01T00:00:00Z", std::nullopt},
                                           DateRow{"2025-00-10T00:00:00Z", std::nullopt},
                                           DateRow{"2025-04-31T00:00:00Z", std::nullopt},
                                           DateRow{"2025-01-31T24:00:00Z", std::nullopt},
                                           DateRow{"2025-01-31T09:60:00Z", std::nullopt},
                                           DateRow{"2025-01-31T09:12:45", std::nullopt},
                                           DateRow{"2025-01-31T09:12:45.Z", std::nullopt},
                                           DateRow{"2025-01-31T09:12:45+0100", std::nullopt},
                                           DateRow{"2025-01-31T09:12:45+25:00", std::nullopt},
                                           DateRow{"2025-01-31T09:12:45Zjunk", std::nullopt},
                                           DateRow{"2025-01-31", std::nullopt},
                                           DateRow{"", std::nullopt},
                                           DateRow{"garbage garbage garbage", std::nullopt},
                                           DateRow{"2025-01-31 09:12:45Z", std::nullopt}));

TEST(ISODate, FormatsWholeSecondsInUTC) {
  EXPECT_EQ(isoDate(*parseISODate("2025-01-31T10:12:45.9+01:00")), "2025-01-31T09:12:45Z");
}

}  // namespace
}  // namespace vistrel
