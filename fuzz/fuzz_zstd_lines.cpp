// Feeds arbitrary bytes to the zstd line reader of compressed rollouts, as a stream cut into
// pieces of varying size, and also compresses them, cuts the result short and decodes that: no
// crash, no undefined behaviour, every line handed over is whole, and a stream cut short gives a
// prefix of the lines of what was compressed, never anything else.
#include <zstd.h>

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

#include "agents/zstd_tail.hpp"

namespace {

void checkLine(std::string_view line) {
  if (line.size() < 3 || line.size() > vistrel::ZstdLineDecoder::kMaxLine) __builtin_trap();
  if (line.find('\n') != std::string_view::npos) __builtin_trap();
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  const std::string_view bytes(reinterpret_cast<const char*>(data), size);
  const size_t piece = size == 0 ? 1 : 1 + data[0] % 64;

  // 1. The bytes as a compressed stream.
  {
    vistrel::ZstdLineDecoder decoder;
    for (size_t at = 0; at < bytes.size() && !decoder.failed(); at += piece) {
      const std::string_view chunk = bytes.substr(at, piece);
      const size_t used = decoder.feed(chunk, checkLine);
      if (used > chunk.size()) __builtin_trap();
    }
  }

  // 2. The bytes compressed, then cut short.
  std::string compressed(ZSTD_compressBound(size), '\0');
  const size_t n = ZSTD_compress(compressed.data(), compressed.size(), bytes.data(), size, 1);
  if (ZSTD_isError(n)) return 0;
  compressed.resize(n);
  const size_t cut = size == 0 ? n : (static_cast<size_t>(data[size - 1]) * n) / 255;
  std::vector<std::string> expected;  // the complete lines of the text, as the reader keeps them
  for (size_t start = 0;;) {
    const size_t newline = bytes.find('\n', start);
    if (newline == std::string_view::npos) break;
    if (newline - start >= 3) expected.emplace_back(bytes.substr(start, newline - start));
    start = newline + 1;
  }
  vistrel::ZstdLineDecoder decoder;
  size_t seen = 0;
  for (size_t at = 0; at < cut; at += piece) {
    decoder.feed(std::string_view(compressed).substr(at, std::min(piece, cut - at)),
                 [&](std::string_view line) {
                   checkLine(line);
                   if (seen >= expected.size() || expected[seen] != line) __builtin_trap();
                   ++seen;
                 });
    if (decoder.failed()) __builtin_trap();  // valid data, only cut short
  }
  return 0;
}
