#include "base/clock.hpp"

#include <time.h>

#include <ctime>

namespace vistrel {

double secondsSince1970(Date d) {
  return std::chrono::duration<double>(d.time_since_epoch()).count();
}

Date localStartOfDay(Date date) {
  const std::time_t t = std::chrono::system_clock::to_time_t(date);
  tzset();  // notice a change of time zone while the application runs
  std::tm parts{};
  if (localtime_r(&t, &parts) == nullptr) return date;
  parts.tm_hour = 0;
  parts.tm_min = 0;
  parts.tm_sec = 0;
  parts.tm_isdst = -1;  // let mktime decide whether midnight was in daylight-saving time
  const std::time_t midnight = std::mktime(&parts);
  if (midnight == static_cast<std::time_t>(-1)) return date;
  return std::chrono::system_clock::from_time_t(midnight);
}

Date dateFromSeconds(double seconds) {
  return Date(std::chrono::duration_cast<Date::duration>(std::chrono::duration<double>(seconds)));
}

namespace {

class SystemClock final : public Clock {
 public:
  double uptime() const override {
    // CLOCK_MONOTONIC does not count sleep on Linux; CLOCK_BOOTTIME does. macOS's CLOCK_MONOTONIC
    // already counts sleep, like the system uptime the cadences are defined on.
    timespec ts{};
#ifdef CLOCK_BOOTTIME
    clock_gettime(CLOCK_BOOTTIME, &ts);
#else
    clock_gettime(CLOCK_MONOTONIC, &ts);
#endif
    return static_cast<double>(ts.tv_sec) + static_cast<double>(ts.tv_nsec) / 1e9;
  }
  Date now() const override {
    return std::chrono::system_clock::now();
  }
};

}  // namespace

Clock& Clock::system() {
  static SystemClock clock;
  return clock;
}

ManualClock::ManualClock(double uptime, Date now) : uptime_(uptime), now_(now) {}

double ManualClock::uptime() const {
  std::lock_guard lock(mutex_);
  return uptime_;
}

Date ManualClock::now() const {
  std::lock_guard lock(mutex_);
  return now_;
}

void ManualClock::advance(double seconds) {
  std::lock_guard lock(mutex_);
  uptime_ += seconds;
  now_ += std::chrono::duration_cast<Date::duration>(std::chrono::duration<double>(seconds));
}

void ManualClock::setNow(Date now) {
  std::lock_guard lock(mutex_);
  now_ = now;
}

}  // namespace vistrel
