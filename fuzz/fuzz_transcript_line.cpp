// One transcript line of any bytes, through the parser and into a session's counters, and through
// the long-string compaction that precedes parsing of long lines.
#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>

#include "agents/claude_transcript.hpp"
#include "agents/transcript_line.hpp"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  const std::string_view text(reinterpret_cast<const char*>(data), size);
  static vistrel::MessageLedger shared;
  static vistrel::ClaudeTranscript session;
  if (std::optional<vistrel::TranscriptLine> line = vistrel::parseTranscriptLine(text)) {
    session.add(*line, size % 2 == 0, vistrel::Date{}, shared);
    if (line->model) (void)vistrel::claudeModelName(*line->model);
  }
  std::string out(size, '\0');
  const size_t keep = size % 7;
  const size_t written = vistrel::compactLongStrings(text, out.data(), size, keep);
  if (written > size) __builtin_trap();  // never more than the input
  // With no room at all, only empty text fits.
  if (vistrel::compactLongStrings(text, out.data(), 0, keep) == 0 && written != 0) __builtin_trap();
  return 0;
}
