#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdlib>
#include <set>

#include "agents/claude_reader.hpp"
#include "claude_fixture.hpp"

namespace vistrel {
namespace {

using test::ClaudeFolder;

struct LiveRow {
  const char* text;
  std::optional<ClaudeLiveFile> expected;
};
class LiveFileTest : public ::testing::TestWithParam<LiveRow> {};

TEST_P(LiveFileTest, Parses) {
  EXPECT_EQ(parseLiveFile(GetParam().text), GetParam().expected);
}

INSTANTIATE_TEST_SUITE_P(
    Table, LiveFileTest,
    ::testing::Values(
        LiveRow{R"({"pid":4242,"sessionId":"abc","cwd":"/w","startedAt":1738314765123,)"
                R"("name":"n","status":"busy","version":"2.0.1","extra":[1]})",
                ClaudeLiveFile{4242, "abc", "/w", "n", "busy", test::at("2025-01-31T09:12:45.123Z"),
                               "2.0.1"}},
        LiveRow{R"({"pid":7,"sessionId":"abc"})", ClaudeLiveFile{7, "abc", "", {}, {}, {}, {}}},
        LiveRow{R"({"pid":7,"sessionId":"abc","cwd":5,"name":null,"startedAt":"soon"})",
                ClaudeLiveFile{7, "abc", "", {}, {}, {}, {}}},
        LiveRow{R"({"pid":7,"sessionId":"abc","startedAt":1e300})",
                ClaudeLiveFile{7, "abc", "", {}, {}, {}, {}}},
        LiveRow{R"({"pid":"7","sessionId":"abc"})", std::nullopt},
        LiveRow{R"({"pid":0,"sessionId":"abc"})", std::nullopt},
        LiveRow{R"({"pid":-1,"sessionId":"abc"})", std::nullopt},
        LiveRow{R"({"pid":4294967297,"sessionId":"abc"})", std::nullopt},
        LiveRow{R"({"pid":7,"sessionId":""})", std::nullopt},
        LiveRow{R"({"sessionId":"abc"})", std::nullopt}, LiveRow{R"([7])", std::nullopt},
        LiveRow{R"({"pid":7,"sessionId":"abc")", std::nullopt}, LiveRow{"", std::nullopt}));

// A pid that existed and has exited (reaped, so no zombie keeps it).
int32_t exitedPid() {
  pid_t child = ::fork();
  if (child == 0) ::_exit(0);
  int status = 0;
  ::waitpid(child, &status, 0);
  return child;
}

TEST(ProcessExists, ProbesWithSignalZero) {
  EXPECT_TRUE(processExists(static_cast<int32_t>(::getpid())));
  EXPECT_FALSE(processExists(exitedPid()));
  EXPECT_FALSE(processExists(0));   // kill() would signal the process group
  EXPECT_FALSE(processExists(-1));  // and every process
}

TEST(ProcessExists, AnotherUsersProcessCounts) {
  if (::geteuid() == 0) GTEST_SKIP() << "root may signal any process: no EPERM to see";
  EXPECT_TRUE(processExists(1));  // init: EPERM
}

TEST(ClaudeLiveFiles, DeadAndBrokenFilesAreLeftOut) {
  ClaudeFolder folder;
  std::set<int32_t> running = {100, 300};
  ClaudeReader reader(folder.root, test::utcStartOfDay,
                      [&](int32_t pid) { return running.count(pid) > 0; });
  EXPECT_TRUE(reader.liveFiles().empty());  // no sessions folder
  folder.write("sessions/100.json", R"({"pid":100,"sessionId":"a","cwd":"/x"})");
  folder.write("sessions/200.json", R"({"pid":200,"sessionId":"b","cwd":"/y"})");  // exited
  folder.write("sessions/300.json", R"({"pid":300,"sessionId":"c",)");             // cut short
  folder.write("sessions/300.txt", R"({"pid":300,"sessionId":"d"})");              // not .json
  folder.write("sessions/big.json", std::string(200 << 10, ' ') + R"({"pid":300,"sessionId":"e"})");
  std::vector<ClaudeLiveFile> live = reader.liveFiles();
  ASSERT_EQ(live.size(), 1u);
  EXPECT_EQ(live[0].sessionId, "a");
}

TEST(ClaudeLiveFiles, RealProbeKeepsThisProcessAndDropsAnExitedOne) {
  ClaudeFolder folder;
  ClaudeReader reader(folder.root, test::utcStartOfDay);
  folder.write("sessions/me.json",
               R"({"pid":)" + std::to_string(::getpid()) + R"(,"sessionId":"me"})");
  folder.write("sessions/gone.json",
               R"({"pid":)" + std::to_string(exitedPid()) + R"(,"sessionId":"gone"})");
  std::vector<ClaudeLiveFile> live = reader.liveFiles();
  ASSERT_EQ(live.size(), 1u);
  EXPECT_EQ(live[0].sessionId, "me");
}

}  // namespace
}  // namespace vistrel
