#include "agents/tail.hpp"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>

namespace vistrel {

namespace {

// One scratch buffer per thread: the readers run on one queue, so this is one buffer in all.
std::string& scratch() {
  thread_local std::string buffer;
  return buffer;
}

struct FileCloser {
  int fd;
  ~FileCloser() {
    if (fd >= 0) ::close(fd);
  }
};

}  // namespace

void Tail::read(const std::string& path, const std::function<void(std::string_view)>& body) {
  int fd = ::open(path.c_str(), O_RDONLY | O_CLOEXEC);
  if (fd < 0) return;
  FileCloser closer{fd};
  struct stat st {};
  if (::fstat(fd, &st) != 0) return;
  uint64_t size = static_cast<uint64_t>(st.st_size);
  if (size < offset_) {
    offset_ = 0;  // replaced or truncated: start over
    skipping_ = false;
  }
  if (size == offset_) return;

  const uint64_t end = offset_ + std::min(size - offset_, kMaxRead);
  uint64_t pos = offset_;
  std::string& buffer = scratch();
  buffer.clear();
  while (pos < end) {
    size_t want = static_cast<size_t>(std::min<uint64_t>(kChunk, end - pos));
    size_t old = buffer.size();
    buffer.resize(old + want);
    ssize_t n = ::pread(fd, buffer.data() + old, want, static_cast<off_t>(pos));
    if (n < 0 && errno == EINTR) {
      buffer.resize(old);
      continue;
    }
    if (n <= 0) {
      buffer.resize(old);
      break;
    }
    buffer.resize(old + static_cast<size_t>(n));
    pos += static_cast<uint64_t>(n);

    size_t start = 0;
    while (const void* hit = std::memchr(buffer.data() + start, '\n', buffer.size() - start)) {
      size_t newline = static_cast<size_t>(static_cast<const char*>(hit) - buffer.data());
      if (skipping_) {
        skipping_ = false;  // the end of the oversized line: dropped
      } else if (newline - start > kMaxLine) {
        // Too long, though it ended inside this chunk: dropped like the others.
      } else if (newline - start >= 3) {
        body(std::string_view(buffer.data() + start, newline - start));
      }
      start = newline + 1;
    }
    buffer.erase(0, start);
    if (buffer.size() > kMaxLine || (skipping_ && !buffer.empty())) {
      // Part of a line too long to keep: consume it and drop the rest of it later.
      skipping_ = true;
      buffer.clear();
    }
  }
  // Consumed: everything read except an unfinished last line (which waits). While skipping, the
  // partial line is consumed too.
  offset_ = pos - buffer.size();
  if (buffer.capacity() > 2 * kChunk) std::string().swap(buffer);  // give back a grown buffer
}

}  // namespace vistrel
