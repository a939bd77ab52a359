#include "agents/agent_records.hpp"

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <ctime>

#include "base/files.hpp"
#include "format/fmt.hpp"

namespace vistrel {

namespace {

double secondsBetween(Date from, Date to) {
  return std::chrono::duration<double>(to - from).count();
}

bool sameLocalDay(Date a, Date b) {
  std::time_t ta = std::chrono::system_clock::to_time_t(a);
  std::time_t tb = std::chrono::system_clock::to_time_t(b);
  std::tm la{}, lb{};
  localtime_r(&ta, &la);
  localtime_r(&tb, &lb);
  return la.tm_year == lb.tm_year && la.tm_yday == lb.tm_yday;
}

}  // namespace

UsageWindow UsageWindow::current(Date now) const {
  if (resetsAt && *resetsAt <= now) return UsageWindow{0, std::nullopt, windowMinutes};
  return *this;
}

std::optional<double> UsageWindow::elapsed(Date now) const {
  if (!resetsAt || !windowMinutes || *windowMinutes < 1) return std::nullopt;
  double length = static_cast<double>(*windowMinutes) * 60;
  return std::clamp(1 - secondsBetween(now, *resetsAt) / length, 0.0, 1.0);
}

std::optional<Date> UsageWindow::runsOut(Date now) const {
  auto gone = elapsed(now);
  // In the first 5 % of a window there is too little to extrapolate from.
  if (!gone || *gone <= 0.05 || usedPercent <= 1.0) return std::nullopt;
  // Worked in seconds as doubles and turned into a date only once it is known to fall before the
  // reset: a window of absurd length (a file may claim anything) must not overflow the clock.
  const double untilReset = secondsBetween(now, *resetsAt);
  const double sinceStart = static_cast<double>(*windowMinutes) * 60 - untilReset;
  if (!(sinceStart > 0)) return std::nullopt;
  const double pace = usedPercent / sinceStart;  // percent per second
  if (!(pace > 0)) return std::nullopt;
  const double left = (100 - usedPercent) / pace;  // seconds until the window is used up
  if (!(left < untilReset)) return std::nullopt;   // the window resets first
  return now + std::chrono::duration_cast<Date::duration>(std::chrono::duration<double>(left));
}

std::string UsageWindow::paceLine(Date now) const {
  if (usedPercent >= 100) return "Limit reached";
  if (auto out = runsOut(now)) return "At this pace: runs out " + Fmt::clock(*out);
  // Use must lead the clock by ten points before the line says so.
  if (auto gone = elapsed(now); gone && *gone + 0.1 < usedPercent / 100) {
    return "Ahead of pace, still lasts";
  }
  return "On pace";
}

std::string UsageWindow::resetLine(Date now) const {
  if (!resetsAt) return "Reset time not reported";
  if (*resetsAt <= now) return "Reset at " + Fmt::clock(*resetsAt);
  std::string when = sameLocalDay(*resetsAt, now) ? Fmt::clock(*resetsAt) : Fmt::dayTime(*resetsAt);
  return "Resets " + when + " · in " + Fmt::duration(secondsBetween(now, *resetsAt));
}

int64_t checkedAdd(int64_t a, int64_t b) {
  int64_t out = 0;
  if (__builtin_add_overflow(a, b, &out)) {
    std::fprintf(stderr, "vistrel: token counter overflow (%lld + %lld)\n",
                 static_cast<long long>(a), static_cast<long long>(b));
    std::abort();
  }
  return out;
}

int64_t TokenTotals::total() const {
  return checkedAdd(checkedAdd(checkedAdd(input, output), cacheWrite), cacheRead);
}

int64_t TokenTotals::fresh() const {
  return checkedAdd(checkedAdd(input, output), cacheWrite);
}

TokenTotals TokenTotals::operator+(const TokenTotals& o) const {
  return {checkedAdd(input, o.input), checkedAdd(output, o.output),
          checkedAdd(cacheWrite, o.cacheWrite), checkedAdd(cacheRead, o.cacheRead)};
}

TokenTotals& TokenTotals::operator+=(const TokenTotals& o) {
  return *this = *this + o;
}

std::string shortFolder(const std::optional<std::string>& folder, const std::string& home) {
  if (!folder) return "";
  if (!home.empty() && folder->compare(0, home.size(), home) == 0 &&
      (folder->size() == home.size() || (*folder)[home.size()] == '/' || home.back() == '/')) {
    std::string out = "~";  // built by append: GCC 12 misreads "~" + substr as overlapping
    out.append(*folder, home.size());
    return out;
  }
  return *folder;
}

std::string AgentCard::project() const {
  if (!folder) return "Unknown folder";
  return std::string(lastComponent(*folder));
}

std::optional<PlanUsage> latestPlan(const std::vector<std::optional<PlanUsage>>& plans) {
  std::optional<PlanUsage> best;
  for (const auto& plan : plans) {
    if (plan && (!best || plan->updated > best->updated)) best = plan;
  }
  return best;
}

}  // namespace vistrel
