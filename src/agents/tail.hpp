#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>
#include <string>
#include <string_view>

namespace vistrel {

// Incremental reader of one append-only file of lines (a transcript, a rollout). Each call hands
// over only the complete lines appended since the last one:
// - a half-written last line is not consumed and waits for the next call;
// - a file shorter than what was consumed was replaced or truncated, and is read again from 0;
// - one call reads at most 64 MB (the rest follows on later calls), in chunks through one buffer
//   per thread, so memory stays bounded whatever the file's size;
// - a single line longer than 32 MB is skipped whole (nothing useful is that long) rather than
//   stalling the file;
// - pieces shorter than 3 bytes are skipped.
class Tail {
 public:
  static constexpr uint64_t kMaxRead = 64'000'000;  // bytes per call
  static constexpr size_t kChunk = 4 << 20;         // bytes per read from the file
  static constexpr size_t kMaxLine = 32 << 20;      // longer lines are skipped

  // Calls `body` with each new complete line (without its newline). A file that cannot be opened
  // is left for the next call.
  void read(const std::string& path, const std::function<void(std::string_view line)>& body);

  uint64_t offset() const { return offset_; }

 private:
  uint64_t offset_ = 0;    // bytes consumed: always just after a newline (or 0)
  bool skipping_ = false;  // inside an oversized line: drop everything up to the next newline
};

}  // namespace vistrel
