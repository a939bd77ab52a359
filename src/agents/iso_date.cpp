#include "agents/iso_date.hpp"

#include <charconv>
#include <cstdio>
#include <ctime>

namespace vistrel {

namespace {

bool digits(std::string_view text, size_t at, size_t count, int& out) {
  if (at + count > text.size()) return false;
  int value = 0;
  for (size_t i = at; i < at + count; ++i) {
    char c = text[i];
    if (c < '0' || c > '9') return false;
    value = value * 10 + (c - '0');
  }
  out = value;
  return true;
}

// Days from 1970-01-01 to a civil date (proleptic Gregorian), valid for any year.
int64_t daysFromCivil(int64_t y, unsigned m, unsigned d) {
  y -= m <= 2;
  const int64_t era = (y >= 0 ? y : y - 399) / 400;
  const unsigned yoe = static_cast<unsigned>(y - era * 400);
  const unsigned doy = (153 * (m + (m > 2 ? -3 : 9)) + 2) / 5 + d - 1;
  const unsigned doe = yoe * 365 + yoe / 4 - yoe / 100 + doy;
  return era * 146097 + static_cast<int64_t>(doe) - 719468;
}

bool leap(int y) {
  return (y % 4 == 0 && y % 100 != 0) || y % 400 == 0;
}

}  // namespace

std::optional<Date> parseISODate(std::string_view t) {
  int year, month, day, hour, minute, second;
  if (!digits(t, 0, 4, year) || t.size() < 20 || t[4] != '-' || !digits(t, 5, 2, month) ||
      t[7] != '-' || !digits(t, 8, 2, day) || (t[10] != 'T' && t[10] != 't') ||
      !digits(t, 11, 2, hour) || t[13] != ':' || !digits(t, 14, 2, minute) || t[16] != ':' ||
      !digits(t, 17, 2, second)) {
    return std::nullopt;
  }
  // The clock counts nanoseconds in 64 bits (about 1678 to 2262): years outside a sane range are
  // refused rather than overflowing it.
  if (year < 1900 || year > 2200) return std::nullopt;
  static constexpr int kDays[] = {31, 28, 31, 30, 31, 30, 31, 31, 30, 31, 30, 31};
  if (month < 1 || month > 12 || day < 1 ||
      day > kDays[month - 1] + (month == 2 && leap(year) ? 1 : 0) || hour > 23 || minute > 59 ||
      second > 60) {
    return std::nullopt;
  }
  size_t at = 19;
  int64_t nanos = 0;
  if (at < t.size() && t[at] == '.') {
    ++at;
    size_t start = at;
    int64_t scale = 100'000'000;
    while (at < t.size() && t[at] >= '0' && t[at] <= '9') {
      if (scale > 0) nanos += (t[at] - '0') * scale;
      scale /= 10;
      ++at;
    }
    if (at == start) return std::nullopt;
  }
  int offsetSeconds = 0;
  if (at < t.size() && (t[at] == 'Z' || t[at] == 'z') && at + 1 == t.size()) {
    offsetSeconds = 0;
  } else if (at + 6 == t.size() && (t[at] == '+' || t[at] == '-') && t[at + 3] == ':') {
    int oh, om;
    if (!digits(t, at + 1, 2, oh) || !digits(t, at + 4, 2, om) || oh > 23 || om > 59) {
      return std::nullopt;
    }
    offsetSeconds = (oh * 3600 + om * 60) * (t[at] == '-' ? -1 : 1);
  } else {
    return std::nullopt;
  }
  int64_t seconds =
      daysFromCivil(year, static_cast<unsigned>(month), static_cast<unsigned>(day)) * 86400 +
      hour * 3600 + minute * 60 + second - offsetSeconds;
  return Date(std::chrono::duration_cast<Date::duration>(std::chrono::seconds(seconds) +
                                                         std::chrono::nanoseconds(nanos)));
}

std::string isoDate(Date date) {
  std::time_t t =
      std::chrono::system_clock::to_time_t(std::chrono::floor<std::chrono::seconds>(date));
  std::tm utc{};
  gmtime_r(&t, &utc);
  char buffer[64];
  std::snprintf(buffer, sizeof buffer, "%04d-%02d-%02dT%02d:%02d:%02dZ", utc.tm_year + 1900,
                utc.tm_mon + 1, utc.tm_mday, utc.tm_hour, utc.tm_min, utc.tm_sec);
  return buffer;
}

}  // namespace vistrel
