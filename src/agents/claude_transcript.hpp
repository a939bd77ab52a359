#pragma once

// What is known of one Claude Code session, accumulated line by line across refreshes from its
// main transcript and its subagent transcripts.

#include <cstdint>
#include <functional>
#include <map>
#include <optional>
#include <string>
#include <string_view>

#include "agents/agent_records.hpp"
#include "agents/message_ledger.hpp"
#include "agents/transcript_line.hpp"
#include "base/clock.hpp"

namespace vistrel {

class ClaudeTranscript {
 public:
  // Counts one line. `subagent`: it comes from a subagent transcript, whose records add tokens
  // and tool calls but no prompts or replies (the main transcript has the user's side). `today`:
  // the start of the current day; usage of lines at or after it counts as today's. `shared`: the
  // ledger of every session, so that a response repeated by a resumed session counts once in
  // today's totals.
  void add(const TranscriptLine& line, bool subagent, Date today, MessageLedger& shared);

  // A new day began: today's figures start again from zero (what was counted stays counted, so a
  // reply streamed across midnight adds only its growth to the new day).
  void startDay();

  std::optional<Date> first, last;  // earliest and latest record
  std::optional<std::string> cwd, gitBranch, version;
  std::optional<std::string> model;  // display name of the model last used (main transcript)
  int64_t prompts = 0, replies = 0, toolCalls = 0;
  int64_t subagents = 0;  // subagent transcripts attached

  TokenTotals todayOwn;     // today's tokens of the session's own lines (its card)
  TokenTotals todayShared;  // its share of today's totals, a repeated response counted once
  std::map<std::string, int64_t, std::less<>> todayByModel;  // fresh tokens of todayShared

 private:
  // Display name of the model of a line, computed once per model id rather than per line.
  const std::string& nameOf(std::string_view modelId);

  MessageLedger own_;  // the session's responses: replies, and the card's tokens
  std::string modelId_, modelName_;
};

// Display name of a model id: "claude-opus-4-1-20250805" reads "Opus 4.1".
std::string claudeModelName(std::string_view id);

}  // namespace vistrel
