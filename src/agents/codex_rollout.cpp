#include "agents/codex_rollout.hpp"

#include <algorithm>

namespace vistrel {

namespace {

template <typename T>
void replaceIfGiven(std::optional<T>& field, const std::optional<T>& value) {
  if (value) field = value;
}

}  // namespace

void CodexRollout::apply(const RolloutLine& line) {
  if (!first || line.time < *first) first = line.time;
  if (!last || line.time > *last) last = line.time;
  replaceIfGiven(sessionId, line.sessionId);
  replaceIfGiven(folder, line.folder);
  replaceIfGiven(version, line.version);
  replaceIfGiven(gitBranch, line.gitBranch);
  replaceIfGiven(model, line.model);
  switch (line.kind) {
    case RolloutLine::Kind::toolCall:
      ++toolCalls;
      break;
    case RolloutLine::Kind::reply:
      ++replies;
      break;
    case RolloutLine::Kind::prompt:
      ++prompts;
      break;
    case RolloutLine::Kind::tokenCount:
      if (line.total) total = *line.total;
      if (line.last) lastInput = line.last->input;
      replaceIfGiven(contextWindow, line.contextWindow);
      // A record without limits leaves the plan as it was; an out-of-order older one too.
      if (line.plan && (!plan || line.plan->updated >= plan->updated)) plan = line.plan;
      break;
    default:
      break;
  }
  if (line.time < dayStart_) beforeToday = total;
}

void CodexRollout::read(const std::string& path,
                        const std::function<void(std::string_view)>& body) {
  if (compressed) {
    zstd.read(path, body);
  } else {
    tail.read(path, body);
  }
}

void CodexRollout::startDay(Date dayStart) {
  if (dayStart > dayStart_ && last && *last < dayStart) beforeToday = total;
  dayStart_ = dayStart;
}

TokenTotals CodexRollout::today() const {
  const TokenTotals now = total.totals();
  const TokenTotals before = beforeToday.totals();
  TokenTotals out;
  out.input = std::max<int64_t>(now.input - before.input, 0);
  out.output = std::max<int64_t>(now.output - before.output, 0);
  out.cacheWrite = std::max<int64_t>(now.cacheWrite - before.cacheWrite, 0);
  out.cacheRead = std::max<int64_t>(now.cacheRead - before.cacheRead, 0);
  return out;
}

std::optional<double> CodexRollout::contextPercent() const {
  if (!lastInput || !contextWindow || *contextWindow <= 0) return std::nullopt;
  const double percent =
      static_cast<double>(*lastInput) / static_cast<double>(*contextWindow) * 100.0;
  return std::min(percent, 100.0);
}

}  // namespace vistrel
