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
#include <filesystem>
#include <fstream>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include "control/control_socket.hpp"
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

// The processes of this user running the executable in application mode with HOME set to `home`.
int applicationsWithHome(const std::string& home) {
  namespace fs = std::filesystem;
  const fs::path binary = fs::canonical(VISTREL_BINARY);
  int count = 0;
  for (const auto& entry : fs::directory_iterator("/proc")) {
    std::error_code error;
    if (fs::read_symlink(entry.path() / "exe", error) != binary || error) continue;
    std::ifstream environFile(entry.path() / "environ"), cmdlineFile(entry.path() / "cmdline");
    std::stringstream environText, cmdlineText;
    environText << environFile.rdbuf();
    cmdlineText << cmdlineFile.rdbuf();
    const std::string environ = '\0' + environText.str();
    if (environ.find(std::string("\0HOME=") + home + '\0') == std::string::npos) continue;
    if (cmdlineText.str().find("--mcp") != std::string::npos) continue;
    ++count;
  }
  return count;
}

// An MCP client passes `--mcp` little more than HOME and PATH. An application started with its
// XDG folders moved is still the one it reaches, and its very first status call is answered,
// however soon after the application opened its socket.
TEST(HeadlessApplication, AReducedEnvironmentsMcpReachesAnApplicationWithXdgFoldersMoved) {
  if (!std::filesystem::exists("/proc/self/exe")) GTEST_SKIP() << "counts processes in /proc";
  char tmpl[] = "/tmp/vistrel-xdg-XXXXXX";
  const std::string elsewhere = ::mkdtemp(tmpl);
  Child app = launch(
      {}, {"XDG_DATA_HOME=" + elsewhere + "/data", "XDG_CONFIG_HOME=" + elsewhere + "/config",
           "XDG_RUNTIME_DIR=" + elsewhere + "/run"});
  const std::string socket = app.home + "/.local/share/Vistrel/control.sock";
  bool listening = false;
  for (int i = 0; i < 6000 && !listening; ++i) {  // polled tightly: the first call comes cold
    listening = std::filesystem::is_socket(socket);
    if (!listening) std::this_thread::sleep_for(std::chrono::milliseconds(5));
  }
  ASSERT_TRUE(listening) << app.stderrText;

  const std::string input =
      R"({"jsonrpc":"2.0","id":1,"method":"initialize","params":{"protocolVersion":"2025-06-18"}})"
      "\n"
      R"({"jsonrpc":"2.0","id":2,"method":"tools/call","params":{"name":"status","arguments":{}}})"
      "\n";
  testing::BinaryRun mcp =
      testing::runBinary(VISTREL_BINARY, {"--mcp"},
                         {"HOME=" + app.home, "PATH=/usr/bin:/bin", "USER=tester", "LOGNAME=tester",
                          "SHELL=/bin/sh", "TERM=dumb"},
                         input);
  EXPECT_EQ(mcp.status, 0) << mcp.errors;
  EXPECT_NE(mcp.output.find(R"("isError":false)"), std::string::npos) << mcp.output;
  EXPECT_NE(mcp.output.find("summary"), std::string::npos) << mcp.output;
  EXPECT_EQ(applicationsWithHome(app.home), 1) << "no second application was started";
  EXPECT_FALSE(std::filesystem::exists(elsewhere + "/data/Vistrel/control.sock"));

  ::kill(app.pid, SIGTERM);
  EXPECT_EQ(app.wait(), 0) << app.stderrText;
  std::filesystem::remove_all(elsewhere);
}

}  // namespace
}  // namespace vistrel
