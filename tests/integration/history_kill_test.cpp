// The real application keeps its history across a clean end and a kill -9: a minute written on
// SIGTERM is still there, intact, after a later run is killed outright.

#include <dirent.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <signal.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <ctime>
#include <string>
#include <thread>
#include <vector>

#include "integration/binary_run.hpp"

extern char** environ;

namespace vistrel {
namespace {

// One run of the application with HOME at `home`; standard error is collected.
class AppRun {
 public:
  explicit AppRun(const std::string& home) {
    std::vector<std::string> env = testing::homeEnvironment(home);
    env.push_back("VISTREL_DEBUG=1");
    std::vector<char*> envp;
    for (auto& e : env) envp.push_back(e.data());
    envp.push_back(nullptr);
    std::string binary = VISTREL_BINARY;
    char* argv[] = {binary.data(), nullptr};
    int fds[2];
    EXPECT_EQ(::pipe(fds), 0);
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_addopen(&actions, 0, "/dev/null", O_RDONLY, 0);
    posix_spawn_file_actions_addopen(&actions, 1, "/dev/null", O_WRONLY, 0);
    posix_spawn_file_actions_adddup2(&actions, fds[1], 2);
    posix_spawn_file_actions_addclose(&actions, fds[0]);
    EXPECT_EQ(::posix_spawn(&pid_, binary.c_str(), &actions, nullptr, argv, envp.data()), 0);
    posix_spawn_file_actions_destroy(&actions);
    ::close(fds[1]);
    err_ = fds[0];
  }
  ~AppRun() {
    if (pid_ > 0) {
      ::kill(pid_, SIGKILL);
      ::waitpid(pid_, nullptr, 0);
    }
    ::close(err_);
  }

  // Reads standard error until `needle` has appeared `times` times, or a generous bound passes.
  bool waitFor(const std::string& needle, int times = 1, int seconds = 20) {
    auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(seconds);
    char buffer[4096];
    while (occurrences(needle) < times) {
      if (std::chrono::steady_clock::now() > deadline) return false;
      pollfd p{err_, POLLIN, 0};
      if (::poll(&p, 1, 200) <= 0) continue;
      ssize_t n = ::read(err_, buffer, sizeof buffer);
      if (n <= 0) return occurrences(needle) >= times;
      text_.append(buffer, static_cast<size_t>(n));
    }
    return true;
  }

  // Sends `sig` and returns the exit status (128 + signal when killed by it), -1 on no end.
  int end(int sig) {
    ::kill(pid_, sig);
    for (int i = 0; i < 400; ++i) {
      int status = 0;
      if (::waitpid(pid_, &status, WNOHANG) == pid_) {
        pid_ = -1;
        waitFor("\n\n", 1, 0);  // collect what is left of standard error
        return WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
      }
      std::this_thread::sleep_for(std::chrono::milliseconds(50));
    }
    return -1;
  }

  // The figures of the debug line the application prints about its history at start.
  struct Figures {
    long long minutes = -1, oldest = -1;
  };
  Figures figures() const {
    Figures f;
    auto at = text_.find("history: ");
    if (at == std::string::npos) return f;
    auto comma = text_.find(", ", at);
    if (comma == std::string::npos) return f;
    std::sscanf(text_.c_str() + comma, ", %lld minute rows, oldest %lld", &f.minutes, &f.oldest);
    return f;
  }
  const std::string& text() const { return text_; }

 private:
  int occurrences(const std::string& needle) const {
    int n = 0;
    for (auto at = text_.find(needle); at != std::string::npos; at = text_.find(needle, at + 1)) {
      ++n;
    }
    return n;
  }
  pid_t pid_ = -1;
  int err_ = -1;
  std::string text_;
};

TEST(HistoryKill, AFlushedMinuteSurvivesKillNine) {
  char pattern[] = "/tmp/vistrel-home-XXXXXX";
  std::string home = ::mkdtemp(pattern);
  std::string folder = testing::supportFolderUnder(home);
  long long started = static_cast<long long>(std::time(nullptr)) / 60 * 60;

  {
    // A clean end writes the minute under way.
    AppRun first(home);
    ASSERT_TRUE(first.waitFor("history: ")) << first.text();
    EXPECT_EQ(first.figures().minutes, 0) << first.text();
    // "tick self" is written before the snapshot is handed to the main thread; by the second
    // line the first has long been recorded, so the clean end has a minute to write.
    ASSERT_TRUE(first.waitFor("tick self", 2)) << first.text();
    EXPECT_EQ(first.end(SIGTERM), 0) << first.text();
  }
  long long ended = static_cast<long long>(std::time(nullptr));
  AppRun::Figures written;
  {
    AppRun second(home);
    ASSERT_TRUE(second.waitFor("history: ")) << second.text();
    written = second.figures();
    EXPECT_GE(written.minutes, 1) << second.text();
    EXPECT_GE(written.oldest, started);
    EXPECT_LE(written.oldest, ended);
    // Killed outright while it records: its own minute is lost, nothing else.
    ASSERT_TRUE(second.waitFor("tick self", 2)) << second.text();
    EXPECT_EQ(second.end(SIGKILL), 128 + SIGKILL);
  }
  {
    AppRun third(home);
    ASSERT_TRUE(third.waitFor("history: ")) << third.text();
    AppRun::Figures after = third.figures();
    EXPECT_EQ(after.minutes, written.minutes) << third.text();
    EXPECT_EQ(after.oldest, written.oldest);
    EXPECT_EQ(third.end(SIGTERM), 0) << third.text();
    EXPECT_EQ(third.text().find("damaged"), std::string::npos) << third.text();
  }
  // The file was never found damaged and moved aside.
  std::vector<std::string> names;
  if (DIR* d = ::opendir(folder.c_str())) {
    while (dirent* e = ::readdir(d)) names.push_back(e->d_name);
    ::closedir(d);
  }
  for (const auto& n : names) EXPECT_EQ(n.find(".damaged-"), std::string::npos) << n;
  EXPECT_NE(std::find(names.begin(), names.end(), "history.sqlite"), names.end());
  std::system(("rm -rf '" + home + "'").c_str());
}

}  // namespace
}  // namespace vistrel
