// Feeds arbitrary bytes, line by line, to the Codex rollout line parser and to one rollout's
// counters: no crash, no undefined behaviour, no checked-sum overflow, and every value kept within
// the bounds the parser promises.
#include <cmath>
#include <cstddef>
#include <cstdint>
#include <string_view>

#include "agents/codex_rollout.hpp"
#include "agents/codex_rollout_line.hpp"

namespace {

bool inBounds(const vistrel::CodexUsage& u) {
  for (int64_t v : {u.input, u.cachedInput, u.output, u.reasoning}) {
    if (v < 0 || v > vistrel::CodexUsage::kMaxTokens) return false;
  }
  return true;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  const vistrel::Date now = vistrel::dateFromSeconds(1'738'321'200.0);
  const vistrel::Date dayStart = vistrel::dateFromSeconds(1'738'281'600.0);
  std::string_view text(reinterpret_cast<const char*>(data), size);
  vistrel::CodexRollout rollout(dayStart);
  vistrel::TokenTotals sum;
  while (!text.empty()) {
    size_t end = text.find('\n');
    std::string_view line = text.substr(0, end);
    text.remove_prefix(end == std::string_view::npos ? text.size() : end + 1);
    std::optional<vistrel::RolloutLine> parsed = vistrel::parseRolloutLine(line, now);
    if (!parsed) continue;
    if (parsed->total && !inBounds(*parsed->total)) __builtin_trap();
    if (parsed->last && !inBounds(*parsed->last)) __builtin_trap();
    if (parsed->contextWindow && *parsed->contextWindow <= 0) __builtin_trap();
    if (parsed->plan) {
      if (parsed->plan->updated != parsed->time) __builtin_trap();
      if (!parsed->plan->session && !parsed->plan->weekly) __builtin_trap();
      for (const auto& w : {parsed->plan->session, parsed->plan->weekly}) {
        if (w && !std::isfinite(w->usedPercent)) __builtin_trap();
        if (w && w->windowMinutes &&
            (*w->windowMinutes < 1 || *w->windowMinutes > vistrel::kLongestWindowMinutes)) {
          __builtin_trap();
        }
        // The pace and reset lines of any window a file can describe stay in range.
        if (w) (void)(w->paceLine(now) + w->resetLine(now));
      }
    }
    rollout.apply(*parsed);
    sum += rollout.today();  // checked: an overflow would stop the process
    if (auto percent = rollout.contextPercent(); percent && !(*percent <= 100.0)) __builtin_trap();
  }
  rollout.startDay(now);
  sum += rollout.today();
  return 0;
}
