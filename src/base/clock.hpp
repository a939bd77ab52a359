#pragma once

#include <chrono>
#include <mutex>

namespace vistrel {

// Wall-clock instant. Records carry these; the history turns them into whole seconds since 1970.
using Date = std::chrono::system_clock::time_point;

// Local midnight at the start of the day holding `date` (the time zone as the system has it now;
// daylight-saving days handled by the C library). `date` itself when the conversion fails.
Date localStartOfDay(Date date);

// Seconds since 1970 (UTC) as a double, and back.
double secondsSince1970(Date d);
Date dateFromSeconds(double seconds);

// The two clocks every component reads. Cadences use `uptime` (monotonic seconds since boot, never
// jumps); records use `now` (wall time, may jump when the user or NTP sets the clock). Injected so
// that cadences and stretches are tested without sleeping.
class Clock {
 public:
  virtual ~Clock() = default;
  virtual double uptime() const = 0;
  virtual Date now() const = 0;

  // The machine's clocks. Lives for the whole process.
  static Clock& system();
};

// A clock that moves only when told to. Thread-safe, so a test can advance it while a queue reads
// it.
class ManualClock final : public Clock {
 public:
  explicit ManualClock(double uptime = 1000.0, Date now = dateFromSeconds(1'700'000'000.0));
  double uptime() const override;
  Date now() const override;
  // Moves both clocks forward by `seconds`.
  void advance(double seconds);
  // Moves only the wall clock (a user setting the time); uptime is unaffected.
  void setNow(Date now);

 private:
  mutable std::mutex mutex_;
  double uptime_;
  Date now_;
};

}  // namespace vistrel
