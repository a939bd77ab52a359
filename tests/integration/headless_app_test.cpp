// Runs the real executable in application mode with HOME in a temporary folder.

#include <fcntl.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <signal.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <cstdlib>
#include <string>
#include <thread>
#include <vector>

#include "integration/binary_run.hpp"

extern char** environ;

namespace vistrel {
namespace {

struct Child {
  pid_t pid = -1;
  int err = -1;  // read end of its standard error
  std::string home;
  std::string stderrText;

  Child() = default;
  Child(Child&& o) noexcept
      : pid(o.pid), err(o.err), home(std::move(o.home)), stderrText(std::move(o.stderrText)) {
    o.home.clear();
  }
  Child(const Child&) = delete;
  ~Child() {
    if (!home.empty()) std::system(("rm -rf '" + home + "'").c_str());
  }

  // Reads standard error until `needle` shows up, the child closes it, or a generous bound passes.
  bool waitFor(const std::string& needle, int seconds = 60) {
    auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(seconds);
    char buffer[4096];
    while (stderrText.find(needle) == std::string::npos) {
      if (std::chrono::steady_clock::now() > deadline) return false;
      pollfd p{err, POLLIN, 0};
      if (::poll(&p, 1, 200) <= 0) continue;
      ssize_t n = ::read(err, buffer, sizeof buffer);
      if (n <= 0) return stderrText.find(needle) != std::string::npos;
      stderrText.append(buffer, static_cast<size_t>(n));
    }
    return true;
  }

  // The exit status, or -1 if it has not ended within the bound (then it is killed).
  int wait(int seconds = 60) {
    for (int i = 0; i < seconds * 20; ++i) {
      int status = 0;
      if (::waitpid(pid, &status, WNOHANG) == pid) {
        ::close(err);
        return WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
      }
      std::this_thread::sleep_for(std::chrono::milliseconds(50));
    }
    ::kill(pid, SIGKILL);
    ::waitpid(pid, nullptr, 0);
    ::close(err);
    return -1;
  }
};

Child launch(std::vector<std::string> args, std::vector<std::string> extraEnv) {
  char tmpl[] = "/tmp/vistrel-home-XXXXXX";
  std::string home = ::mkdtemp(tmpl);
  std::vector<std::string> env = testing::homeEnvironment(home);
  for (auto& e : extraEnv) env.push_back(e);
  std::vector<char*> envp;
  for (auto& e : env) envp.push_back(e.data());
  envp.push_back(nullptr);
  std::string binary = VISTREL_BINARY;
  std::vector<char*> argv{binary.data()};
  for (auto& a : args) argv.push_back(a.data());
  argv.push_back(nullptr);

  int fds[2];
  EXPECT_EQ(::pipe(fds), 0);
  posix_spawn_file_actions_t actions;
  posix_spawn_file_actions_init(&actions);
  posix_spawn_file_actions_addopen(&actions, 0, "/dev/null", O_RDONLY, 0);
  posix_spawn_file_actions_addopen(&actions, 1, "/dev/null", O_WRONLY, 0);
  posix_spawn_file_actions_adddup2(&actions, fds[1], 2);
  posix_spawn_file_actions_addclose(&actions, fds[0]);
  Child child;
  EXPECT_EQ(::posix_spawn(&child.pid, binary.c_str(), &actions, nullptr, argv.data(), envp.data()),
            0);
  posix_spawn_file_actions_destroy(&actions);
  ::close(fds[1]);
  child.err = fds[0];
  child.home = home;
  return child;
}

TEST(HeadlessApplication, TestQuitEndsOnItsOwnAfterAFewTicks) {
  Child app = launch({}, {"VISTREL_TEST_QUIT=1", "VISTREL_DEBUG=1"});
  ASSERT_TRUE(app.waitFor("tick self")) << app.stderrText;
  EXPECT_EQ(app.wait(), 0) << app.stderrText;
}

TEST(HeadlessApplication, EndsCleanlyOnSigtermAndSigint) {
  for (int sig : {SIGTERM, SIGINT}) {
    SCOPED_TRACE(sig);
    Child app = launch({"--unknown-argument"}, {"VISTREL_DEBUG=1"});
    // The timing line proves the sampler ticks; its shape is the documented one. Nothing is on
    // screen (no window, no terminal), so the sampler runs in the background.
    ASSERT_TRUE(app.waitFor(", bg yes\n")) << app.stderrText;
    double self = -1, children = -1;
    auto at = app.stderrText.find("tick self");
    ASSERT_EQ(std::sscanf(app.stderrText.c_str() + at, "tick self %lf ms, children %lf ms", &self,
                          &children),
              2);
    ::kill(app.pid, sig);
    EXPECT_EQ(app.wait(), 0) << app.stderrText;
  }
}

TEST(HeadlessApplication, McpModeEndsQuietlyWithItsInput) {
  // "--mcp" wins over "--statusline" wherever each stands. Its input is empty, so the MCP server
  // ends at once: exit 0, nothing said on standard error (the application never ends by itself).
  for (std::vector<std::string> args :
       {std::vector<std::string>{"--mcp"}, std::vector<std::string>{"--statusline", "--mcp"}}) {
    Child app = launch(args, {});
    app.waitFor("\n", 30);
    EXPECT_EQ(app.wait(), 0) << args.front();
    EXPECT_EQ(app.stderrText, "") << args.front();
  }
}

}  // namespace
}  // namespace vistrel
