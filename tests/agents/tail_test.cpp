#include "agents/tail.hpp"

#include <gtest/gtest.h>

#include <cstdio>
#include <string>
#include <vector>

#include "claude_fixture.hpp"

namespace vistrel {
namespace {

class TailTest : public ::testing::Test {
 protected:
  test::ClaudeFolder folder;
  std::string path = folder.root + "/t.jsonl";
  Tail tail;

  void write(const std::string& text, bool append = false) {
    folder.write("t.jsonl", text, append);
  }
  std::vector<std::string> read() {
    std::vector<std::string> lines;
    tail.read(path, [&](std::string_view line) { lines.emplace_back(line); });
    return lines;
  }
  // Appends `count` bytes of `c`, in large writes.
  void appendBytes(char c, size_t count) {
    FILE* f = std::fopen(path.c_str(), "ab");
    const std::string block(1 << 20, c);
    for (size_t left = count; left > 0;) {
      const size_t n = std::min(left, block.size());
      std::fwrite(block.data(), 1, n, f);
      left -= n;
    }
    std::fclose(f);
  }
};

using Lines = std::vector<std::string>;

TEST_F(TailTest, HalfWrittenLastLineWaitsAndIsReadOnce) {
  write("first\nsec");
  EXPECT_EQ(read(), Lines{"first"});
  EXPECT_EQ(tail.offset(), 6u);
  EXPECT_EQ(read(), Lines{});
  write("ond\n", true);
  EXPECT_EQ(read(), Lines{"second"});
  EXPECT_EQ(read(), Lines{});
}

TEST_F(TailTest, ShorterFileStartsAgainAtZero) {
  write("aaaa\nbbbb\ncccc\n");
  EXPECT_EQ(read(), (Lines{"aaaa", "bbbb", "cccc"}));
  write("dddd\n");
  EXPECT_EQ(read(), Lines{"dddd"});
  write("");
  EXPECT_EQ(read(), Lines{});
  EXPECT_EQ(tail.offset(), 0u);
}

TEST_F(TailTest, PiecesShorterThanThreeBytesAreSkipped) {
  write("ab\n\n\nabc\nx\n\r\nlong enough\n");
  EXPECT_EQ(read(), (Lines{"abc", "long enough"}));
}

TEST_F(TailTest, MissingFileIsLeftForLater) {
  EXPECT_EQ(read(), Lines{});
  write("late\n");
  EXPECT_EQ(read(), Lines{"late"});
}

TEST_F(TailTest, OneCallReadsAtMost64MB) {
  // 100 MB of 1000-byte lines.
  const std::string line = std::string(999, 'x') + "\n";
  {
    FILE* f = std::fopen(path.c_str(), "wb");
    for (int i = 0; i < 100'000; ++i) std::fwrite(line.data(), 1, line.size(), f);
    std::fclose(f);
  }
  size_t first = 0, second = 0;
  tail.read(path, [&](std::string_view l) { first += l.size() == 999; });
  EXPECT_LE(tail.offset(), Tail::kMaxRead);
  EXPECT_GT(tail.offset(), Tail::kMaxRead - 1000);
  tail.read(path, [&](std::string_view l) { second += l.size() == 999; });
  EXPECT_EQ(first, Tail::kMaxRead / 1000);
  EXPECT_EQ(first + second, 100'000u);
  EXPECT_EQ(tail.offset(), 100'000'000u);
}

TEST_F(TailTest, LinesOver32MBAreSkippedWholeWhereverTheyEnd) {
  struct Case {
    const char* name;
    size_t length;
    bool kept;
  } cases[] = {
      {"exactly the limit", Tail::kMaxLine, true},
      {"just over, ending in the chunk that crosses the limit", Tail::kMaxLine + 1000, false},
      {"over by more than a chunk", Tail::kMaxLine + Tail::kChunk + 1000, false},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.name);
    tail = Tail();
    write("before\n");
    appendBytes('y', c.length);
    write("\nafter\n", true);
    Lines lines;
    for (int i = 0; i < 3; ++i) {
      for (std::string& l : read()) lines.push_back(l.size() > 100 ? "<long>" : l);
    }
    EXPECT_EQ(lines, c.kept ? (Lines{"before", "<long>", "after"}) : (Lines{"before", "after"}));
  }
}

}  // namespace
}  // namespace vistrel
