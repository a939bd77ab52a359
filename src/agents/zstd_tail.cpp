#include "agents/zstd_tail.hpp"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>
#include <zstd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>

namespace vistrel {

struct ZstdLineDecoder::Context {
  ZSTD_DCtx* dctx = ZSTD_createDCtx();
  ~Context() { ZSTD_freeDCtx(dctx); }
};

namespace {

// One output buffer per thread: the readers run on one queue.
std::string& outputBuffer() {
  thread_local std::string buffer(ZSTD_DStreamOutSize(), '\0');
  return buffer;
}

struct FileCloser {
  int fd;
  ~FileCloser() {
    if (fd >= 0) ::close(fd);
  }
};

}  // namespace

ZstdLineDecoder::ZstdLineDecoder() = default;
ZstdLineDecoder::~ZstdLineDecoder() = default;
ZstdLineDecoder::ZstdLineDecoder(ZstdLineDecoder&&) noexcept = default;
ZstdLineDecoder& ZstdLineDecoder::operator=(ZstdLineDecoder&&) noexcept = default;

size_t ZstdLineDecoder::feed(std::string_view input,
                             const std::function<void(std::string_view)>& body) {
  if (failed_) return 0;
  std::string& out = outputBuffer();
  ZSTD_inBuffer in{input.data(), input.size(), 0};
  size_t produced = 0;
  while ((in.pos < in.size || pendingOutput_) && produced < kMaxOutputPerFeed) {
    if (!context_) {
      context_ = std::make_unique<Context>();
      if (!context_->dctx || ZSTD_isError(ZSTD_DCtx_setParameter(
                                 context_->dctx, ZSTD_d_windowLogMax, kWindowLogMax))) {
        context_.reset();
        failed_ = true;
        pendingOutput_ = false;
        break;
      }
    }
    ZSTD_outBuffer ob{out.data(), out.size(), 0};
    const size_t result = ZSTD_decompressStream(context_->dctx, &ob, &in);
    if (ZSTD_isError(result)) {
      // Corrupt or foreign data: nothing after it can be trusted to line up.
      context_.reset();
      failed_ = true;
      pendingOutput_ = false;
      break;
    }
    pendingOutput_ = ob.pos == ob.size;
    frameDone_ = result == 0;
    produced += ob.pos;

    const char* data = out.data();
    size_t start = 0;
    while (start < ob.pos) {
      const void* hit = std::memchr(data + start, '\n', ob.pos - start);
      if (!hit) {
        if (!skipping_) {
          partial_.append(data + start, ob.pos - start);
          if (partial_.size() > kMaxLine) {  // too long to keep: dropped up to its newline
            skipping_ = true;
            partial_.clear();
          }
        }
        break;
      }
      const size_t end = static_cast<size_t>(static_cast<const char*>(hit) - data);
      if (skipping_) {
        skipping_ = false;
      } else {
        std::string_view line(data + start, end - start);
        if (!partial_.empty()) {
          partial_.append(line);
          line = partial_;
        }
        if (line.size() >= 3 && line.size() <= kMaxLine) body(line);
        partial_.clear();
      }
      start = end + 1;
    }
  }
  // A finished frame needs its window no more: the memory goes back until the next one.
  if (frameDone_ && !pendingOutput_) context_.reset();
  if (partial_.capacity() > (4u << 20) && partial_.empty()) std::string().swap(partial_);
  return in.pos;
}

void ZstdTail::read(const std::string& path, const std::function<void(std::string_view)>& body) {
  int fd = ::open(path.c_str(), O_RDONLY | O_CLOEXEC);
  if (fd < 0) return;
  FileCloser closer{fd};
  struct stat st {};
  if (::fstat(fd, &st) != 0) return;
  const uint64_t size = static_cast<uint64_t>(st.st_size);
  if (size < offset_) {  // replaced or truncated: start over
    offset_ = 0;
    decoder_ = ZstdLineDecoder();
  }
  if (decoder_.failed()) return;

  const uint64_t end = offset_ + std::min(size - offset_, kMaxRead);
  thread_local std::string chunk;
  chunk.resize(kChunk);
  // One empty feed at least: output held back by the last call's bound comes out even when the
  // file has not grown.
  bool fedOnce = false;
  while (offset_ < end || !fedOnce) {
    size_t got = 0;
    if (offset_ < end) {
      const size_t want = static_cast<size_t>(std::min<uint64_t>(kChunk, end - offset_));
      ssize_t n = ::pread(fd, chunk.data(), want, static_cast<off_t>(offset_));
      if (n < 0 && errno == EINTR) continue;
      if (n <= 0) break;
      got = static_cast<size_t>(n);
    }
    fedOnce = true;
    const size_t used = decoder_.feed(std::string_view(chunk.data(), got), body);
    offset_ += used;
    if (decoder_.failed() || used < got || got == 0) break;  // failed, bounded, or nothing new
  }
}

}  // namespace vistrel
