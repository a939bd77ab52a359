#pragma once

// Incremental reading of a zstd-compressed file of lines (Codex's ".jsonl.zst" rollouts), with the
// rules of Tail applied to the decompressed stream: only complete lines are handed over, a line
// cut short waits for the rest, a file shorter than what was consumed starts again from 0, one
// call is bounded, and an oversized line is skipped whole.

#include <cstddef>
#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <string_view>

namespace vistrel {

// The decoding itself, fed compressed bytes in pieces of any size; no file, so it is fuzzed alone.
class ZstdLineDecoder {
 public:
  // Frames asking for a larger window than this (2^27 bytes, zstd's own default limit) are
  // refused as corrupt: no real rollout needs one, and the window is memory held per file.
  static constexpr int kWindowLogMax = 27;
  // Decompressed bytes one `feed` produces at most; the input beyond waits for the next call, so
  // that a small file of great ratio cannot hold the reader for long.
  static constexpr size_t kMaxOutputPerFeed = 256u << 20;
  // Lines longer than this are skipped whole, as Tail does.
  static constexpr size_t kMaxLine = 32u << 20;

  ZstdLineDecoder();
  ~ZstdLineDecoder();
  ZstdLineDecoder(ZstdLineDecoder&&) noexcept;
  ZstdLineDecoder& operator=(ZstdLineDecoder&&) noexcept;

  // Decompresses as much of `input` as the output bound allows and hands `body` each complete
  // line of at least 3 bytes. Returns the input bytes consumed. After corrupt data `failed()` is
  // true and nothing more is consumed; what was handed over stays handed over.
  size_t feed(std::string_view input, const std::function<void(std::string_view)>& body);

  bool failed() const { return failed_; }
  // Between frames, with no partial line: the whole input so far decoded cleanly.
  bool atFrameEnd() const { return frameDone_ && partial_.empty(); }

 private:
  struct Context;
  std::unique_ptr<Context> context_;  // created on first use, freed at each frame's end
  std::string partial_;               // decompressed bytes after the last newline
  bool skipping_ = false;             // inside an oversized line
  bool failed_ = false;
  bool frameDone_ = true;
  bool pendingOutput_ = false;  // the last output buffer filled up: more may wait in the context
};

class ZstdTail {
 public:
  static constexpr uint64_t kMaxRead = 64'000'000;  // compressed bytes per call
  static constexpr size_t kChunk = 1 << 20;         // compressed bytes per read from the file

  // Calls `body` with each new complete decompressed line. A file that cannot be opened is left
  // for the next call. A corrupt file is read no further (what was counted stays counted) until
  // it is replaced by a shorter one.
  void read(const std::string& path, const std::function<void(std::string_view line)>& body);

  // Compressed bytes consumed.
  uint64_t offset() const { return offset_; }
  bool failed() const { return decoder_.failed(); }

 private:
  uint64_t offset_ = 0;
  ZstdLineDecoder decoder_;
};

}  // namespace vistrel
