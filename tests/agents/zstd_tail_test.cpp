// Compressed rollouts: the zstd line reader on its own, and Codex's reader on ".jsonl.zst" files
// that are compressed in place, appended to frame by frame, cut short or corrupt.

#include "agents/zstd_tail.hpp"

#include <gtest/gtest.h>
#include <stdlib.h>
#include <unistd.h>
#include <zstd.h>

#include <cstdio>
#include <filesystem>
#include <string>
#include <vector>

#include "agents/codex_reader.hpp"
#include "agents/iso_date.hpp"
#include "base/files.hpp"

namespace vistrel {
namespace {

namespace fs = std::filesystem;

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
    bool atFrameEnd;
  } cases[] = {
      {"one frame", compress(text), {"first line", "second line"}, false},
      {"a line across two frames", twoFrames, {"alpha", "beta", "gamma"}, true},
      {"an empty frame", compress(""), {}, true},
  };
  for (const auto& c : cases) {
    for (size_t piece : {size_t{1}, size_t{7}, c.data.size() + 1}) {
      SCOPED_TRACE(std::string(c.name) + ", pieces of " + std::to_string(piece));
      ZstdLineDecoder decoder;
      EXPECT_EQ(decodeInPieces(c.data, piece, decoder), c.lines);
      EXPECT_FALSE(decoder.failed());
      EXPECT_EQ(decoder.atFrameEnd(), c.atFrameEnd);
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

// Codex's reader on compressed rollouts in a Codex folder under /tmp.
class CompressedRollouts : public ::testing::Test {
 protected:
  void SetUp() override {
    char pattern[] = "/tmp/vistrel-zst-XXXXXX";
    ASSERT_NE(::mkdtemp(pattern), nullptr);
    root = pattern;
    day = root + "/sessions/2025/01/31";
    makeFolders(day);
  }
  void TearDown() override { fs::remove_all(root); }

  void write(const std::string& name, const std::string& bytes, bool append = false) {
    FILE* f = std::fopen((day + "/" + name).c_str(), append ? "ab" : "wb");
    std::fwrite(bytes.data(), 1, bytes.size(), f);
    std::fclose(f);
  }
  static std::string prompt(const char* time) {
    return std::string(R"({"timestamp":")") + time +
           R"(","type":"event_msg","payload":{"type":"user_message","message":"hi"}})" + "\n";
  }
  static std::string usage(const char* time, int input) {
    return std::string(R"({"timestamp":")") + time +
           R"(","type":"event_msg","payload":{"type":"token_count","info":{"total_token_usage":)"
           R"({"input_tokens":)" +
           std::to_string(input) +
           R"(,"output_tokens":5}},"rate_limits":{"primary":{"used_percent":30,)"
           R"("window_minutes":300}}}})" +
           "\n";
  }
  CodexRefresh refresh(CodexReader& reader) {
    return reader.refresh({}, *parseISODate("2025-01-31T12:00:00Z"));
  }

  std::string root, day;
};

TEST_F(CompressedRollouts, ARolloutCompressedInPlaceKeepsTodaysTokensAndPlan) {
  const std::string text = prompt("2025-01-31T10:00:00Z") + usage("2025-01-31T10:01:00Z", 700);
  CodexReader reader(root, [](Date d) { return std::chrono::floor<std::chrono::days>(d); });
  write("rollout-a.jsonl", text);
  CodexRefresh before = refresh(reader);
  ASSERT_EQ(before.today.input, 700);
  ASSERT_TRUE(before.plan);

  fs::remove(day + "/rollout-a.jsonl");
  write("rollout-a.jsonl.zst", compress(text));
  CodexRefresh after = refresh(reader);
  EXPECT_EQ(after.today, before.today);
  EXPECT_EQ(after.plan, before.plan);
  ASSERT_EQ(after.cards.size(), 1u);
  EXPECT_EQ(after.cards[0].id, "rollout-a");
  EXPECT_EQ(after.cards[0].prompts, 1);
}

TEST_F(CompressedRollouts, FramesAppendedCutShortOrCorruptAreReadIncrementally) {
  CodexReader reader(root, [](Date d) { return std::chrono::floor<std::chrono::days>(d); });
  const std::string first = compress(prompt("2025-01-31T10:00:00Z"));
  const std::string second =
      compress(prompt("2025-01-31T10:05:00Z") + prompt("2025-01-31T10:06:00Z"));
  write("r.jsonl.zst", first);
  EXPECT_EQ(refresh(reader).cards.at(0).prompts, 1);

  // A frame cut short: its lines wait until the rest arrives, and then count once.
  write("r.jsonl.zst", second.substr(0, second.size() / 2), true);
  EXPECT_EQ(refresh(reader).cards.at(0).prompts, 1);
  write("r.jsonl.zst", second.substr(second.size() / 2), true);
  EXPECT_EQ(refresh(reader).cards.at(0).prompts, 3);
  EXPECT_EQ(refresh(reader).cards.at(0).prompts, 3);

  // Garbage after the good frames: what was counted stays, and nothing crashes.
  write("r.jsonl.zst", std::string("\x28\xb5\x2f\xfd\x08 garbage that is no frame"), true);
  EXPECT_EQ(refresh(reader).cards.at(0).prompts, 3);
  write("r.jsonl.zst", compress(prompt("2025-01-31T10:09:00Z")), true);
  EXPECT_EQ(refresh(reader).cards.at(0).prompts, 3);

  // Replaced by a shorter file: read again from its start.
  write("r.jsonl.zst", first);
  EXPECT_EQ(refresh(reader).cards.at(0).prompts, 1);
}

}  // namespace
}  // namespace vistrel
