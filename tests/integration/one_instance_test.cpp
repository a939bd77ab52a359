// One application per user, with the real executable: concurrent starts leave exactly one
// application, a later launch exits at once, and the survivor's control socket is the only one.

#include <dirent.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/stat.h>
#include <unistd.h>

#include <chrono>
#include <cstdlib>
#include <fstream>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include "integration/binary_run.hpp"

namespace vistrel {
namespace {

using testing::Running;

class OneInstance : public ::testing::Test {
 protected:
  void SetUp() override {
    char tmpl[] = "/tmp/vistrel-one-XXXXXX";
    home_ = ::mkdtemp(tmpl);
  }
  void TearDown() override {
    for (pid_t pid : applications()) ::kill(pid, SIGKILL);
    std::system(("rm -rf '" + home_ + "'").c_str());
  }

  // Headless (no display), in a home of the test's own.
  std::vector<std::string> environment() const {
    return {"HOME=" + home_, "PATH=/usr/bin:/bin", "VISTREL_HEADLESS=1"};
  }

  // Application processes of this test's home: the executable without --mcp whose HOME is ours.
  std::vector<pid_t> applications() const {
    std::vector<pid_t> found;
    DIR* proc = ::opendir("/proc");
    if (!proc) return found;
    while (dirent* entry = ::readdir(proc)) {
      char* end = nullptr;
      long pid = std::strtol(entry->d_name, &end, 10);
      if (*end != '\0' || pid <= 0) continue;
      const std::string base = std::string("/proc/") + entry->d_name;
      std::string cmdline = read(base + "/cmdline"), environ = read(base + "/environ");
      if (cmdline.find("--mcp") != std::string::npos) continue;
      if (cmdline.rfind(VISTREL_BINARY, 0) != 0) continue;
      if (environ.find(std::string("HOME=") + home_ + '\0') == std::string::npos) continue;
      found.push_back(static_cast<pid_t>(pid));
    }
    ::closedir(proc);
    return found;
  }

  static std::string read(const std::string& path) {
    std::ifstream file(path, std::ios::binary);
    std::stringstream text;
    text << file.rdbuf();
    return text.str();
  }

  std::string supportFolder() const { return home_ + "/.local/share/Vistrel"; }

  std::string home_;
};

const std::string kStatusCall =
    R"({"jsonrpc":"2.0","id":1,"method":"initialize","params":{"protocolVersion":"2025-06-18",)"
    R"("capabilities":{},"clientInfo":{"name":"test","version":"1"}}})"
    "\n"
    R"({"jsonrpc":"2.0","method":"notifications/initialized"})"
    "\n"
    R"({"jsonrpc":"2.0","id":2,"method":"tools/call","params":{"name":"status","arguments":{}}})"
    "\n";

TEST_F(OneInstance, ConcurrentMcpStartsLeaveOneApplication) {
  if (access("/proc/self/environ", R_OK) != 0) GTEST_SKIP() << "no /proc here";
  // Both find no socket and both start the application at the same moment.
  std::vector<Running> clients;
  for (int i = 0; i < 2; ++i) {
    clients.push_back(testing::startBinary(VISTREL_BINARY, {"--mcp"}, environment()));
  }
  for (Running& c : clients) {
    ASSERT_EQ(::write(c.in, kStatusCall.data(), kStatusCall.size()),
              static_cast<ssize_t>(kStatusCall.size()));
  }
  for (Running& c : clients) {
    std::string output, errors;
    // Each answers its tool call from the one application.
    bool answered = false;
    for (int i = 0; i < 12 && !answered; ++i) answered = c.readUntil(R"("id":2)", output);
    EXPECT_TRUE(answered) << output;
    EXPECT_EQ(output.find(R"("isError":true)"), std::string::npos) << output;
    c.finish(output, errors);
  }
  // The loser of the race has gone by now or goes in a moment.
  std::vector<pid_t> apps;
  for (int i = 0; i < 100; ++i) {
    apps = applications();
    if (apps.size() == 1) break;
    std::this_thread::sleep_for(std::chrono::milliseconds(50));
  }
  ASSERT_EQ(apps.size(), 1u);
  // The lock names the survivor.
  EXPECT_EQ(std::atoi(read(supportFolder() + "/vistrel.lock").c_str()), apps[0]);

  // A later launch (a launcher, the autostart entry) exits at once and leaves the survivor alone.
  for (const char* arg : {"", "--login"}) {
    std::vector<std::string> args;
    if (*arg) args.push_back(arg);
    testing::BinaryRun again = testing::runBinary(VISTREL_BINARY, args, environment(), "");
    EXPECT_EQ(again.status, 0) << again.errors;
    EXPECT_NE(again.errors.find("already running (process " + std::to_string(apps[0])),
              std::string::npos)
        << again.errors;
  }
  EXPECT_EQ(applications(), apps);

  // Ending it removes its socket: nothing stale for the next start.
  ASSERT_EQ(::kill(apps[0], SIGTERM), 0);
  for (int i = 0; i < 200 && !applications().empty(); ++i) {
    std::this_thread::sleep_for(std::chrono::milliseconds(50));
  }
  EXPECT_TRUE(applications().empty());
  struct stat info {};
  EXPECT_NE(::stat((supportFolder() + "/control.sock").c_str(), &info), 0);
}

}  // namespace
}  // namespace vistrel
