#include "base/files.hpp"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <stdlib.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <string>

namespace vistrel {
namespace {

class TempFolder {
 public:
  TempFolder() {
    char tmpl[] = "/tmp/vistrel-files-XXXXXX";
    path = ::mkdtemp(tmpl);
  }
  ~TempFolder() { std::system(("rm -rf '" + path + "'").c_str()); }
  void write(const std::string& name, const std::string& text) {
    FILE* f = std::fopen(joinPath(path, name).c_str(), "wb");
    std::fwrite(text.data(), 1, text.size(), f);
    std::fclose(f);
  }
  std::string path;
};

TEST(Files, ReadFileCases) {
  TempFolder dir;
  std::string large(200000, 'z');
  dir.write("empty", "");
  dir.write("small", "12345\n");
  dir.write("large", large);
  std::string buffer = "stale contents";
  EXPECT_TRUE(readFile(joinPath(dir.path, "empty"), buffer));
  EXPECT_EQ(buffer, "");
  EXPECT_TRUE(readFile(joinPath(dir.path, "large"), buffer));
  EXPECT_EQ(buffer, large);
  EXPECT_TRUE(readFile(joinPath(dir.path, "large"), buffer, 1000));  // capped
  EXPECT_EQ(buffer.size(), 1000u);
  EXPECT_FALSE(readFile(joinPath(dir.path, "missing"), buffer));
  EXPECT_EQ(buffer, "");
  EXPECT_FALSE(readFile(dir.path, buffer));  // a folder is not a file
}

TEST(Files, NumbersAndLines) {
  TempFolder dir;
  struct Case {
    const char* text;
    std::optional<uint64_t> number;
    std::optional<std::string> line;
  } cases[] = {
      {"42\n", 42, "42"},
      {"  7  \n", 7, "7"},
      {"18446744073709551615", UINT64_MAX, "18446744073709551615"},
      {"18446744073709551616", std::nullopt, "18446744073709551616"},  // overflow
      {"-1", std::nullopt, "-1"},
      {"", std::nullopt, ""},
      {"12abc", std::nullopt, "12abc"},
      {"first\nsecond", std::nullopt, "first"},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.text);
    dir.write("f", c.text);
    EXPECT_EQ(readNumber(joinPath(dir.path, "f")), c.number);
    EXPECT_EQ(readLine(joinPath(dir.path, "f")), c.line);
  }
  EXPECT_EQ(readNumber(joinPath(dir.path, "missing")), std::nullopt);
}

TEST(Files, FoldersLinksAndPaths) {
  TempFolder dir;
  dir.write("a", "");
  dir.write("b", "");
  ASSERT_EQ(::symlink("a", joinPath(dir.path, "link").c_str()), 0);
  auto names = listFolder(dir.path);
  std::sort(names.begin(), names.end());
  EXPECT_EQ(names, (std::vector<std::string>{"a", "b", "link"}));
  EXPECT_TRUE(listFolder(joinPath(dir.path, "missing")).empty());
  EXPECT_EQ(readLink(joinPath(dir.path, "link")), "a");
  EXPECT_EQ(readLink(joinPath(dir.path, "a")), std::nullopt);
  EXPECT_TRUE(makeFolders(joinPath(dir.path, "x/y/z")));
  EXPECT_TRUE(pathExists(joinPath(dir.path, "x/y/z")));
  EXPECT_FALSE(makeFolders(joinPath(dir.path, "a/sub")));  // a file is in the way

  struct JoinCase {
    const char *a, *b, *joined;
  } joins[] = {{"/x", "y", "/x/y"}, {"/x/", "/y", "/x/y"}, {"/", "y", "/y"}, {"", "y", "y"}};
  for (const auto& j : joins) EXPECT_EQ(joinPath(j.a, j.b), j.joined);
  struct LastCase {
    const char *path, *last;
  } lasts[] = {{"/Volumes/Data", "Data"}, {"/media/usb/", "usb"}, {"/", ""}, {"name", "name"}};
  for (const auto& l : lasts) EXPECT_EQ(lastComponent(l.path), l.last);
}

// The platform's own field is read, to the nanosecond, for dates on both sides of 1970.
TEST(Files, ModificationTimeToTheNanosecond) {
  TempFolder dir;
  dir.write("f", "x");
  const std::string path = joinPath(dir.path, "f");
  struct Case {
    int64_t seconds;
    int64_t nanoseconds;
  } cases[] = {{1'700'000'000, 123'456'789}, {0, 1}, {4'102'444'800, 999'999'999}, {-86'400, 5}};
  for (const Case& c : cases) {
    SCOPED_TRACE(c.seconds);
    const timespec times[2] = {{static_cast<time_t>(c.seconds), static_cast<long>(c.nanoseconds)},
                               {static_cast<time_t>(c.seconds), static_cast<long>(c.nanoseconds)}};
    ASSERT_EQ(::utimensat(AT_FDCWD, path.c_str(), times, 0), 0);
    struct stat info {};
    ASSERT_EQ(::stat(path.c_str(), &info), 0);
    // Some file systems keep coarser times: compare with what the kernel reports in seconds.
    ASSERT_EQ(static_cast<int64_t>(info.st_mtime), c.seconds);
    const int64_t ns = modifiedNanoseconds(info);
    EXPECT_EQ(ns / 1'000'000'000 - (ns % 1'000'000'000 < 0 ? 1 : 0), c.seconds);
    EXPECT_LE(std::abs(ns - (c.seconds * 1'000'000'000 + c.nanoseconds)), 1'000'000'000);
    EXPECT_EQ(modifiedDate(info).time_since_epoch(),
              std::chrono::duration_cast<Date::duration>(std::chrono::nanoseconds(ns)));
  }
}

}  // namespace
}  // namespace vistrel
