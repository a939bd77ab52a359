#include "control/mcp_launch.hpp"

#include <fcntl.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <string_view>

#include "base/spawn_platform.hpp"

namespace vistrel {

namespace {

// "NAME" of "NAME=value".
std::string_view variableName(std::string_view entry) {
  return entry.substr(0, entry.find('='));
}

// Between fork and exec only async-signal-safe calls: everything is prepared before the fork.
[[noreturn]] void becomeProgram(const char* program, char* const* argv, char* const* envp,
                                int errorPipe) {
  ::setsid();
  pid_t grandchild = ::fork();
  if (grandchild != 0) ::_exit(grandchild < 0 ? 1 : 0);
  int devNull = ::open("/dev/null", O_RDWR);
  if (devNull >= 0) {
    ::dup2(devNull, STDIN_FILENO);
    ::dup2(devNull, STDOUT_FILENO);
    ::dup2(devNull, STDERR_FILENO);
    if (devNull > STDERR_FILENO) ::close(devNull);
  }
  struct sigaction defaults {};
  defaults.sa_handler = SIG_DFL;
  ::sigaction(SIGPIPE, &defaults, nullptr);
  ::sigaction(SIGCHLD, &defaults, nullptr);
  sigset_t none;
  ::sigemptyset(&none);
  ::sigprocmask(SIG_SETMASK, &none, nullptr);
  ::execve(program, argv, envp);
  int error = errno;
  ssize_t ignored = ::write(errorPipe, &error, sizeof error);
  (void)ignored;
  ::_exit(127);
}

}  // namespace

bool startDetached(const std::string& program, const std::vector<std::string>& arguments,
                   const std::vector<std::string>& extraEnvironment) {
  std::vector<std::string> env;
  for (char** e = processEnvironment(); e && *e; ++e) {
    std::string_view entry(*e);
    bool replaced = false;
    for (const auto& extra : extraEnvironment) {
      if (variableName(extra) == variableName(entry)) replaced = true;
    }
    if (!replaced) env.emplace_back(entry);
  }
  for (const auto& extra : extraEnvironment) env.push_back(extra);
  std::vector<char*> envp;
  for (auto& e : env) envp.push_back(e.data());
  envp.push_back(nullptr);

  std::string argv0 = program;
  std::vector<std::string> args = arguments;
  std::vector<char*> argv{argv0.data()};
  for (auto& a : args) argv.push_back(a.data());
  argv.push_back(nullptr);

  // The exec failure's errno comes back through a pipe that a successful exec closes (it is
  // close-on-exec), so that "started" means the program really runs.
  int fds[2];
  if (::pipe(fds) != 0) return false;
  ::fcntl(fds[0], F_SETFD, FD_CLOEXEC);
  ::fcntl(fds[1], F_SETFD, FD_CLOEXEC);
  pid_t child = ::fork();
  if (child < 0) {
    ::close(fds[0]);
    ::close(fds[1]);
    return false;
  }
  if (child == 0) {
    ::close(fds[0]);
    becomeProgram(program.c_str(), argv.data(), envp.data(), fds[1]);
  }
  ::close(fds[1]);
  int status = 0;
  while (::waitpid(child, &status, 0) < 0 && errno == EINTR) {
  }
  int execError = 0;
  ssize_t got;
  do {
    got = ::read(fds[0], &execError, sizeof execError);
  } while (got < 0 && errno == EINTR);
  ::close(fds[0]);
  const bool intermediateForked = WIFEXITED(status) && WEXITSTATUS(status) == 0;
  return intermediateForked && got == 0;
}

}  // namespace vistrel
