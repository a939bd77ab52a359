#pragma once

// What is known of one Codex rollout file, accumulated line by line across refreshes.

#include <cstdint>
#include <optional>
#include <string>
#include <utility>

#include "agents/agent_records.hpp"
#include "agents/codex_rollout_line.hpp"
#include "agents/tail.hpp"
#include "agents/zstd_tail.hpp"
#include "base/clock.hpp"

namespace vistrel {

class CodexRollout {
 public:
  // `dayStart`: the start of the day whose share of the tokens counts as today's.
  explicit CodexRollout(Date dayStart) : dayStart_(dayStart) {}

  // Applies one record. A record dated before the start of the day fixes `beforeToday` at the
  // cumulative usage as it then stood.
  void apply(const RolloutLine& line);

  // Moves the start of today (a new day began since the last refresh). Without reading the file
  // again, everything read so far that is dated before the new start becomes yesterday's.
  void startDay(Date dayStart);

  // Today's tokens: the cumulative usage less what stood before the start of the day (never
  // below 0, should Codex ever report a smaller total).
  TokenTotals today() const;

  // Percent of the context window the last turn's input filled, at most 100; absent when either
  // figure is unknown.
  std::optional<double> contextPercent() const;

  // Reads the file's new lines: plain ".jsonl", or ".jsonl.zst" (`compressed`) decompressed as a
  // stream, the same rules applying to the decompressed lines.
  void read(const std::string& path, const std::function<void(std::string_view)>& body);
  // Bytes of the file consumed (compressed bytes for a compressed file).
  uint64_t offset() const { return compressed ? zstd.offset() : tail.offset(); }

  bool compressed = false;
  Tail tail;
  ZstdTail zstd;
  // The file as it was when it was last read to its end: an unchanged file is not opened again.
  std::optional<std::pair<uint64_t, int64_t>> seen;  // size in bytes, modification time in s

  int64_t prompts = 0;
  int64_t replies = 0;
  int64_t toolCalls = 0;
  CodexUsage total;                      // cumulative, as last reported
  CodexUsage beforeToday;                // cumulative as it stood at the last record before today
  std::optional<int64_t> contextWindow;  // tokens
  std::optional<int64_t> lastInput;      // the last turn's input tokens (cached ones included)
  std::optional<std::string> sessionId;
  std::optional<std::string> model;
  std::optional<std::string> version;
  std::optional<std::string> folder;
  std::optional<std::string> gitBranch;
  std::optional<PlanUsage> plan;  // the latest limits read from this file
  std::optional<Date> first;
  std::optional<Date> last;

 private:
  Date dayStart_;
};

}  // namespace vistrel
