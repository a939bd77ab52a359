#pragma once

// One line of a Claude Code transcript: a JSON object per line that Claude Code appends as a
// session runs (user prompts, tool results, assistant messages with their token usage, and records
// of other kinds). Parsing is a pure function of the line, so it is fuzzed on its own.

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

#include "agents/agent_records.hpp"
#include "agents/json_values.hpp"
#include "base/clock.hpp"

namespace vistrel {

struct TranscriptLine {
  enum class Type { other, user, assistant };
  // Every token counter is clamped to [0, kMaxTokens] when read, so that sums over any number of
  // lines stay far from the 64-bit limit whatever a file claims.
  static constexpr int64_t kMaxTokens = 1'000'000'000'000;

  Type type = Type::other;
  std::optional<Date> timestamp;
  // Views into the parser's memory: valid until the next line is parsed. Absent when the line has
  // no such string.
  std::optional<std::string_view> gitBranch;
  std::optional<std::string_view> version;
  std::optional<std::string_view> cwd;
  std::optional<std::string_view> sessionId;  // the session the record belongs to
  std::optional<std::string_view> messageId;  // one API response; repeated over its lines
  std::optional<std::string_view> requestId;
  std::optional<std::string_view> model;  // "<synthetic>" (no real model) is left out

  // user: the user typed it (text content, or a list holding a "text" item), not meta, not a
  // tool's answer.
  bool prompt = false;
  int64_t toolCalls = 0;             // assistant: "tool_use" items in the content
  std::optional<TokenTotals> usage;  // assistant: the message's usage, when it has one
};

// Parses lines one after another, reusing its buffers: no allocation per line once warm.
class TranscriptLineParser {
 public:
  // Strings longer than this are not needed (only ids, names, dates and types are read) and are
  // emptied before parsing in long lines, which keeps the parser's tape small and fast.
  static constexpr size_t kLongString = 4096;
  // Lines at least this long have their long strings emptied first.
  static constexpr size_t kCompactFrom = 16 << 10;
  // A line still longer than this once compacted is skipped: simdjson's DOM takes about 13 bytes
  // of index and tape per byte parsed, and no record worth reading is mostly structure.
  static constexpr size_t kMaxParsed = 1 << 20;

  // The line's record; absent when it is not a JSON object (or too long, see above).
  std::optional<TranscriptLine> parse(std::string_view line);

 private:
  DomLineParser parser_;
};

// The same through one parser per thread.
std::optional<TranscriptLine> parseTranscriptLine(std::string_view line);

// Copies JSON text to `out` with the content of every string longer than `keep` bytes left out
// (the string stays, empty). Returns the bytes written, or SIZE_MAX when they would exceed `room`.
// Text that is not valid JSON is copied all the same, never read or written out of bounds.
size_t compactLongStrings(std::string_view text, char* out, size_t room, size_t keep);

}  // namespace vistrel
