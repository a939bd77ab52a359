#pragma once

// One line of a Codex rollout file: a JSON object {"timestamp", "type", "payload"} that Codex
// appends as a session runs. Parsing is a pure function of the line (and of the present time, for
// a record that carries no timestamp), so it is fuzzed on its own.

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

#include "agents/agent_records.hpp"
#include "base/clock.hpp"

namespace vistrel {

// One of Codex's token-usage objects, in tokens. Codex counts cached input inside `input` and
// reasoning inside `output`. Every counter is clamped to [0, kMaxTokens] when read, so that sums
// over any number of sessions stay far from the 64-bit limit whatever a file claims.
struct CodexUsage {
  static constexpr int64_t kMaxTokens = 1'000'000'000'000;  // a trillion: no real session nears it

  int64_t input = 0;
  int64_t cachedInput = 0;
  int64_t output = 0;
  int64_t reasoning = 0;

  // The counters as token totals: input less the cached part, cached input as cache reads, the
  // output; Codex reports no cache writes.
  TokenTotals totals() const;
  bool operator==(const CodexUsage&) const = default;
};

struct RolloutLine {
  enum class Kind {
    other,        // a record that changes no counter (reasoning, tool output, agent text...)
    sessionMeta,  // the session's metadata: id, folder, version, git branch
    turnContext,  // a turn's settings: model, folder
    toolCall,     // a function, custom-tool or shell call
    reply,        // an assistant message
    prompt,       // a user message
    tokenCount,   // usage and plan limits
  };

  Kind kind = Kind::other;
  Date time{};  // the record's timestamp; the present time when it has none

  std::optional<std::string> sessionId;
  std::optional<std::string> folder;
  std::optional<std::string> version;
  std::optional<std::string> gitBranch;
  std::optional<std::string> model;

  // tokenCount: cumulative usage of the session, the last turn's usage, the context window.
  std::optional<CodexUsage> total;
  std::optional<CodexUsage> last;
  std::optional<int64_t> contextWindow;
  // tokenCount: the plan limits, `updated` being `time`; absent when the record reports none.
  std::optional<PlanUsage> plan;

  bool operator==(const RolloutLine&) const = default;
};

// Windows of at most this many minutes are the short (5-hour) session window, longer ones the
// weekly window.
inline constexpr int64_t kLongestSessionWindowMinutes = 24 * 60;
// A window's length as read is at most a year (longer claims are cut to it).
inline constexpr int64_t kLongestWindowMinutes = 366 * 24 * 60;

// Parses one rollout line. Absent when the line is not a JSON object, is longer than
// kMaxRolloutLine, or lacks a string "type". Fields of the wrong type read as absent (counters as
// 0); dates outside 1970-2200 are not dates. Never throws.
std::optional<RolloutLine> parseRolloutLine(std::string_view line, Date now);

// Longer lines are not parsed: the parser needs several bytes of index per byte of the line, and no
// record worth counting is that long.
inline constexpr size_t kMaxRolloutLine = 8 << 20;

}  // namespace vistrel
