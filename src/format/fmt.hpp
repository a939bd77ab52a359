#pragma once

// The one formatter of values for people and agents: every byte amount, rate, percentage,
// temperature, duration and time of day that the menu bar, the pages, alerts and control answers
// show is written here, so the whole program uses the same units and the same rounding.
//
// Units on input: bytes, bytes per second, watts, revolutions per minute, degrees Celsius,
// seconds; `percent` takes a fraction (0.25 is "25%"). Numbers are written with printf's
// rounding (round half to even on exact halves), never with the user's decimal separator.

#include <cstdint>
#include <locale>
#include <string>

#include "base/clock.hpp"
#include "sampling/records.hpp"

namespace vistrel::Fmt {

// Process-wide settings mirrored from the application model. Atomic, so any thread may read them
// while the main thread changes them; both are false until set.
void setBits(bool on);  // rates in bits per second instead of bytes
bool bits();
void setFahrenheit(bool on);  // temperatures in degrees Fahrenheit instead of Celsius
bool fahrenheit();

// Decimal units, as a file browser counts: "999 B", "1 KB", "1.5 GB", "250 GB", "2.0 TB".
std::string bytes(double x);
std::string bytes(uint64_t x);

// Binary units for memory (1 GB = 2^30 bytes) labelled GB, MB, KB. From 0.95 GB on a size is
// shown in GB with two decimals: 1e9 bytes is "954 MB", 1.03e9 bytes is "0.96 GB".
std::string mem(double x);
std::string mem(uint64_t x);

// Bytes per second with the unit "/s"; bits per second ("12 Kb/s") when `bits()` is set.
std::string rate(double bytesPerSecond);
// The same scale without unit or space ("1.5M"), for narrow menu-bar items.
std::string shortRate(double bytesPerSecond);

// A fraction as a whole percentage; a share above 0 but under 1% is "<1%", never "0%".
std::string percent(double fraction);
// "72°" in Celsius (no letter), "162°F" when `fahrenheit()` is set.
std::string temperature(double celsius);
// "12 W", "3.4 W", "50 mW"; under a milliwatt "0 W".
std::string watts(double w);
// "1,235 rpm"; under 1 rpm the fan is "Resting".
std::string rpm(double r);

// How digits are grouped: `separator` between groups, `sizes` in std::numpunct::grouping() form
// (the first char is the rightmost group's size, the last one repeats; 0 or CHAR_MAX ends
// grouping). English is {",", "\3"}.
struct Grouping {
  std::string separator;
  std::string sizes;
  bool operator==(const Grouping&) const = default;
};
// The English default, used when a locale defines no grouping (C, POSIX) or cannot be read.
Grouping englishGrouping();
// The grouping of a locale's numpunct facet, or the English default when it defines none.
Grouping groupingOf(const std::locale& locale);
// The grouping of the named locale ("" is the user's environment); English when it cannot be made.
Grouping groupingOfLocaleNamed(const char* name);
// The user's grouping, read once from the environment's locale and kept for the process.
const Grouping& userGrouping();

// An integer with grouping separators; the sign is kept ("-1,234").
std::string grouped(int64_t n);
std::string grouped(int64_t n, const Grouping& grouping);
// Counts for narrow places: up to 9,999 grouped, then "12 K", then "1.2 M".
std::string compact(int64_t n);

// Whole seconds (negative is 0): "59 s", "59 min", "2 h", "2 h 5 min", "3 d".
std::string duration(double seconds);
// Whole minutes: "45 min", "2 h", "2 h 5 m" (shorter than `duration` on purpose).
std::string minutes(int64_t m);
// "just now" under 45 seconds (and for dates after `now`), else "1 min ago" and so on.
std::string ago(Date date, Date now);

// A metric's value as carried in the Snapshot's series: cpu, gpu and battery in percent (0-100),
// memory in bytes, disk and network in bytes per second, heat in degrees Celsius.
std::string metricValue(Metric metric, double value);
// An app's figure for the metric: cpu in percent of one core (may exceed 100), memory in bytes,
// gpu as a 0...1 share, disk and network in bytes per second; battery and heat as `metricValue`.
std::string appMetricValue(Metric metric, double value);

// Times in the local time zone with English names: "1:05 PM", "Mon 1:05 PM", "Mon 1 Jan",
// "1 Jan". The zone is re-read on each call, so a running process follows a change of zone.
std::string clock(Date date);
std::string dayTime(Date date);
std::string dayOnly(Date date);
std::string monthDay(Date date);

}  // namespace vistrel::Fmt
