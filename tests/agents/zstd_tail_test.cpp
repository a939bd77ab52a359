// The zstd line reader on its own: Codex's reader on compressed rollouts is tested with the
// reader's other tests.

#include "agents/zstd_tail.hpp"

#include <gtest/gtest.h>
#include <zstd.h>

#include <string>
#include <vector>

namespace vistrel {
namespace {

std::string compress(const std::string& text, int level = 3) {
  std::string out(ZSTD_compressBound(text.size()), '\0');
  const size_t n = ZSTD_compress(out.data(), out.size(), text.data(), text.size(), level);
  EXPECT_FALSE(ZSTD_isError(n));
  out.resize(n);
  return out;
}

std::vector<std::string> decodeInPieces(const std::string& data, size_t piece,
                                        ZstdLineDecoder& decoder) {
  std::vector<std::string> lines;
  for (size_t at = 0; at < data.size(); at += piece) {
    const std::string_view chunk = std::string_view(data).substr(at, piece);
    const size_t used = decoder.feed(chunk, [&](std::string_view l) { lines.emplace_back(l); });
    if (!decoder.failed()) {
      EXPECT_EQ(used, chunk.size()) << "all input taken";
    }
  }
  return lines;
}

TEST(ZstdLineDecoder, LinesWhateverThePiecesAndFrames) {
  const std::string text = "first line\nsecond line\nx\n\nthird, cut";
  const std::string twoFrames = compress("alpha\nbe") + compress("ta\ngamma\n");
  struct Case {
    const char* name;
    std::string data;
    std::vector<std::string> lines;
  } cases[] = {
      {"one frame", compress(text), {"first line", "second line"}},
      {"a line across two frames", twoFrames, {"alpha", "beta", "gamma"}},
      {"an empty frame", compress(""), {}},
  };
  for (const auto& c : cases) {
    for (size_t piece : {size_t{1}, size_t{7}, c.data.size() + 1}) {
      SCOPED_TRACE(std::string(c.name) + ", pieces of " + std::to_string(piece));
      ZstdLineDecoder decoder;
      EXPECT_EQ(decodeInPieces(c.data, piece, decoder), c.lines);
      EXPECT_FALSE(decoder.failed());
    }
  }
}

TEST(ZstdLineDecoder, CorruptOrForeignDataStopsWithoutTakingBackWhatWasRead) {
  // A frame's magic number, then a header with its reserved bit set: never valid.
  const std::string badFrame = "\x28\xb5\x2f\xfd\x08 and whatever follows\n";
  const std::string corrupt = compress("kept line\n") + badFrame + compress("lost line\n");
  struct Case {
    const char* name;
    std::string data;
    std::vector<std::string> lines;
  } cases[] = {
      {"plain text", "not compressed at all\n", {}},
      {"a good frame then garbage", corrupt, {"kept line"}},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.name);
    ZstdLineDecoder decoder;
    std::vector<std::string> lines = decodeInPieces(c.data, 5, decoder);
    EXPECT_EQ(lines, c.lines);
    EXPECT_TRUE(decoder.failed());
    EXPECT_EQ(decoder.feed(compress("more\n"), [&](std::string_view) { ADD_FAILURE(); }), 0u);
  }
}

TEST(ZstdLineDecoder, AnOversizedLineIsSkippedWhole) {
  const std::string text =
      "before\n" + std::string(ZstdLineDecoder::kMaxLine + 10, 'x') + "\nafter\n";
  ZstdLineDecoder decoder;
  std::vector<std::string> lines = decodeInPieces(compress(text, 1), 1 << 16, decoder);
  EXPECT_EQ(lines, (std::vector<std::string>{"before", "after"}));
}

}  // namespace
}  // namespace vistrel
