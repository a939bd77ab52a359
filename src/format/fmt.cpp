#include "format/fmt.hpp"

#include <algorithm>
#include <atomic>
#include <chrono>
#include <climits>
#include <cmath>
#include <cstdarg>
#include <cstdio>
#include <ctime>
#include <exception>

namespace vistrel::Fmt {

namespace {

std::atomic<bool> bitsFlag{false};
std::atomic<bool> fahrenheitFlag{false};

constexpr double kKiB = 1024.0;
constexpr double kMiB = 1024.0 * 1024.0;
constexpr double kGiB = 1024.0 * 1024.0 * 1024.0;

// printf into a string. Sized by a first pass, so even "%.0f" of 1e300 is written whole.
__attribute__((format(printf, 1, 2))) std::string format(const char* pattern, ...) {
  va_list args;
  va_start(args, pattern);
  va_list again;
  va_copy(again, args);
  char small[64];
  const int needed = std::vsnprintf(small, sizeof small, pattern, args);
  va_end(args);
  std::string out;
  if (needed < 0) {
    va_end(again);
    return out;
  }
  if (static_cast<size_t>(needed) < sizeof small) {
    out.assign(small, static_cast<size_t>(needed));
  } else {
    out.resize(static_cast<size_t>(needed) + 1);
    std::vsnprintf(out.data(), out.size(), pattern, again);
    out.resize(static_cast<size_t>(needed));
  }
  va_end(again);
  return out;
}

// Whole units of a non-negative double as an integer: NaN and negatives are 0, values past the
// 64-bit range are the largest integer (a double that large has no meaningful units digit anyway).
int64_t wholeNonNegative(double x) {
  if (!(x > 0)) return 0;
  if (x >= 9.2e18) return INT64_MAX;
  return static_cast<int64_t>(x);  // truncates toward zero, i.e. floor for x > 0
}

// The digits of |n| with separators inserted right to left, following numpunct's grouping rules.
std::string groupDigits(uint64_t magnitude, const Grouping& grouping) {
  const std::string digits = std::to_string(magnitude);
  if (grouping.separator.empty() || grouping.sizes.empty()) return digits;

  // Group sizes from the right; the last size repeats until the digits run out.
  std::string out;
  size_t end = digits.size();  // one past the last digit not yet copied
  size_t index = 0;
  while (end > 0) {
    const char size = grouping.sizes[std::min(index, grouping.sizes.size() - 1)];
    if (size <= 0 || size == CHAR_MAX || static_cast<size_t>(size) >= end) {
      out.insert(0, digits, 0, end);
      break;
    }
    const size_t start = end - static_cast<size_t>(size);
    out.insert(0, digits, start, end - start);
    out.insert(0, grouping.separator);
    end = start;
    ++index;
  }
  return out;
}

const char* const kWeekdays[] = {"Sun", "Mon", "Tue", "Wed", "Thu", "Fri", "Sat"};
const char* const kMonths[] = {"Jan", "Feb", "Mar", "Apr", "May", "Jun",
                               "Jul", "Aug", "Sep", "Oct", "Nov", "Dec"};

// The broken-down local time of a date, at whole-second resolution (floored, so a date just
// before a minute's start still reads as the previous minute).
std::tm localParts(Date date) {
  const auto seconds = std::chrono::floor<std::chrono::seconds>(date.time_since_epoch());
  const std::time_t t = static_cast<std::time_t>(seconds.count());
  // localtime_r may keep the zone it read first; tzset makes a long-running process follow a
  // change of the system's zone (it rereads TZ and the zone file only when they changed).
  tzset();
  std::tm parts{};
  if (localtime_r(&t, &parts) == nullptr) parts = std::tm{};
  return parts;
}

// "h:mm a": the hour on a 12-hour dial without padding (midnight and noon are 12).
std::string clockOf(const std::tm& parts) {
  const int hour = parts.tm_hour % 12 == 0 ? 12 : parts.tm_hour % 12;
  return format("%d:%02d %s", hour, parts.tm_min, parts.tm_hour < 12 ? "AM" : "PM");
}

const char* weekdayOf(const std::tm& parts) {
  return parts.tm_wday >= 0 && parts.tm_wday < 7 ? kWeekdays[parts.tm_wday] : "";
}

const char* monthOf(const std::tm& parts) {
  return parts.tm_mon >= 0 && parts.tm_mon < 12 ? kMonths[parts.tm_mon] : "";
}

}  // namespace

void setBits(bool on) {
  bitsFlag.store(on, std::memory_order_relaxed);
}
bool bits() {
  return bitsFlag.load(std::memory_order_relaxed);
}
void setFahrenheit(bool on) {
  fahrenheitFlag.store(on, std::memory_order_relaxed);
}
bool fahrenheit() {
  return fahrenheitFlag.load(std::memory_order_relaxed);
}

std::string bytes(double x) {
  if (x >= 1e12) return format("%.1f TB", x / 1e12);
  if (x >= 1e11) return format("%.0f GB", x / 1e9);
  if (x >= 1e9) return format("%.1f GB", x / 1e9);
  if (x >= 1e6) return format("%.0f MB", x / 1e6);
  if (x >= 1e3) return format("%.0f KB", x / 1e3);
  return format("%.0f B", x);
}

std::string bytes(uint64_t x) {
  return bytes(static_cast<double>(x));
}

std::string mem(double x) {
  if (x >= 100 * kGiB) return format("%.0f GB", x / kGiB);
  if (x >= 10 * kGiB) return format("%.1f GB", x / kGiB);
  if (x >= 0.95 * kGiB) return format("%.2f GB", x / kGiB);
  if (x >= kMiB) return format("%.0f MB", x / kMiB);
  return format("%.0f KB", x / kKiB);
}

std::string mem(uint64_t x) {
  return mem(static_cast<double>(x));
}

std::string rate(double bytesPerSecond) {
  if (bits()) {
    const double v = bytesPerSecond * 8;
    if (v >= 1e9) return format("%.1f Gb/s", v / 1e9);
    if (v >= 1e8) return format("%.0f Mb/s", v / 1e6);
    if (v >= 1e6) return format("%.1f Mb/s", v / 1e6);
    if (v >= 1000) return format("%.0f Kb/s", v / 1000);
    return format("%.0f b/s", v);
  }
  const double v = bytesPerSecond;
  if (v >= 1e9) return format("%.1f GB/s", v / 1e9);
  if (v >= 1e8) return format("%.0f MB/s", v / 1e6);
  if (v >= 1e6) return format("%.1f MB/s", v / 1e6);
  if (v >= 1000) return format("%.0f KB/s", v / 1000);
  return format("%.0f B/s", v);
}

std::string shortRate(double bytesPerSecond) {
  const double v = bits() ? bytesPerSecond * 8 : bytesPerSecond;
  if (v >= 1e9) return format("%.1fG", v / 1e9);
  if (v >= 1e8) return format("%.0fM", v / 1e6);
  if (v >= 1e6) return format("%.1fM", v / 1e6);
  if (v >= 1000) return format("%.0fK", v / 1000);
  return format("%.0f", v);
}

std::string percent(double fraction) {
  const double p = fraction * 100;
  if (p > 0 && p < 1) return "<1%";
  return format("%.0f%%", p);
}

std::string temperature(double celsius) {
  if (fahrenheit()) return format("%.0f°F", celsius * 9 / 5 + 32);
  return format("%.0f°", celsius);
}

std::string watts(double w) {
  if (w >= 10) return format("%.0f W", w);
  if (w >= 0.1) return format("%.1f W", w);
  if (w >= 0.001) return format("%.0f mW", w * 1000);
  return "0 W";
}

std::string rpm(double r) {
  // Written as "not at least 1" so that a NaN reading is a resting fan too.
  if (!(r >= 1)) return "Resting";
  return grouped(wholeNonNegative(std::round(r))) + " rpm";
}

Grouping englishGrouping() {
  return Grouping{",", "\3"};
}

Grouping groupingOf(const std::locale& locale) {
  const auto& punct = std::use_facet<std::numpunct<char>>(locale);
  const std::string sizes = punct.grouping();
  const char separator = punct.thousands_sep();
  // No grouping (the C and POSIX locales) or no separator to group with: the English default.
  if (sizes.empty() || sizes[0] <= 0 || sizes[0] == CHAR_MAX || separator == '\0') {
    return englishGrouping();
  }
  return Grouping{std::string(1, separator), sizes};
}

Grouping groupingOfLocaleNamed(const char* name) {
  try {
    return groupingOf(std::locale(name));
  } catch (const std::exception&) {
    // An unknown or uninstalled locale name (a LANG the system has no data for).
    return englishGrouping();
  }
}

const Grouping& userGrouping() {
  static const Grouping grouping = groupingOfLocaleNamed("");
  return grouping;
}

std::string grouped(int64_t n) {
  return grouped(n, userGrouping());
}

std::string grouped(int64_t n, const Grouping& grouping) {
  // The magnitude in unsigned arithmetic, so INT64_MIN has one too.
  const uint64_t magnitude = n < 0 ? 0 - static_cast<uint64_t>(n) : static_cast<uint64_t>(n);
  std::string digits = groupDigits(magnitude, grouping);
  return n < 0 ? "-" + digits : digits;
}

std::string compact(int64_t n) {
  if (n < 10'000) return grouped(n);
  if (n < 1'000'000) return format("%.0f K", static_cast<double>(n) / 1000);
  return format("%.1f M", static_cast<double>(n) / 1e6);
}

std::string duration(double seconds) {
  const int64_t n = wholeNonNegative(seconds);
  if (n < 60) return std::to_string(n) + " s";
  if (n < 3600) return std::to_string(n / 60) + " min";
  if (n < 86'400) {
    if (n % 3600 < 60) return std::to_string(n / 3600) + " h";
    return std::to_string(n / 3600) + " h " + std::to_string(n % 3600 / 60) + " min";
  }
  return std::to_string(n / 86'400) + " d";
}

std::string minutes(int64_t m) {
  if (m < 60) return std::to_string(m) + " min";
  const int64_t h = m / 60;
  const int64_t r = m % 60;
  if (r == 0) return std::to_string(h) + " h";
  return std::to_string(h) + " h " + std::to_string(r) + " m";
}

std::string ago(Date date, Date now) {
  const double seconds = std::chrono::duration<double>(now - date).count();
  // Dates after `now` (a clock set back) read as just now too.
  if (seconds < 45) return "just now";
  return duration(seconds) + " ago";
}

std::string metricValue(Metric metric, double value) {
  switch (metric) {
    // Percent 0-100 in the series; through `percent` so a trace of load reads "<1%".
    case Metric::cpu:
      return percent(value / 100);
    // Bytes in use, in the binary units memory is sold in.
    case Metric::memory:
      return mem(value);
    // Percent 0-100 of the GPU's capacity, like cpu.
    case Metric::gpu:
      return percent(value / 100);
    // Bytes per second, honouring the bits setting.
    case Metric::disk:
      return rate(value);
    // Bytes per second, honouring the bits setting.
    case Metric::network:
      return rate(value);
    // Charge in percent 0-100.
    case Metric::battery:
      return percent(value / 100);
    // Hottest sensor in degrees Celsius, honouring the fahrenheit setting.
    case Metric::heat:
      return temperature(value);
  }
  return format("%.0f", value);
}

std::string appMetricValue(Metric metric, double value) {
  switch (metric) {
    // Percent of one core, so a busy multi-threaded app reads "250%".
    case Metric::cpu:
      return percent(value / 100);
    // Bytes of memory of all the app's processes together.
    case Metric::memory:
      return mem(value);
    // The app's share 0...1 of GPU time, unlike the machine's percent figure.
    case Metric::gpu:
      return percent(value);
    // Bytes per second the app reads or writes.
    case Metric::disk:
      return rate(value);
    // Bytes per second the app sends and receives.
    case Metric::network:
      return rate(value);
    // Not per app; the machine's figure is shown as it is.
    case Metric::battery:
      return metricValue(metric, value);
    // Not per app; the machine's figure is shown as it is.
    case Metric::heat:
      return metricValue(metric, value);
  }
  return format("%.0f", value);
}

std::string clock(Date date) {
  return clockOf(localParts(date));
}

std::string dayTime(Date date) {
  const std::tm parts = localParts(date);
  return std::string(weekdayOf(parts)) + " " + clockOf(parts);
}

std::string dayOnly(Date date) {
  const std::tm parts = localParts(date);
  return format("%s %d %s", weekdayOf(parts), parts.tm_mday, monthOf(parts));
}

std::string monthDay(Date date) {
  const std::tm parts = localParts(date);
  return format("%d %s", parts.tm_mday, monthOf(parts));
}

}  // namespace vistrel::Fmt
