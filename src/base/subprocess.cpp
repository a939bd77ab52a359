#include "base/subprocess.hpp"

#include <errno.h>
#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <string_view>

#include "base/spawn_platform.hpp"

namespace vistrel {

namespace {

// Closes a descriptor once; -1 means closed.
struct Fd {
  int fd = -1;
  Fd() = default;
  explicit Fd(int f) : fd(f) {}
  Fd(const Fd&) = delete;
  Fd& operator=(const Fd&) = delete;
  ~Fd() { reset(); }
  void reset() {
    if (fd >= 0) ::close(fd);
    fd = -1;
  }
};

bool makePipe(Fd& readEnd, Fd& writeEnd) {
  int fds[2];
  if (::pipe(fds) != 0) return false;
  ::fcntl(fds[0], F_SETFD, FD_CLOEXEC);
  ::fcntl(fds[1], F_SETFD, FD_CLOEXEC);
  readEnd.fd = fds[0];
  writeEnd.fd = fds[1];
  return true;
}

// "NAME" of "NAME=value".
std::string_view variableName(std::string_view entry) {
  return entry.substr(0, entry.find('='));
}

// This process's environment with `extra` added, each replacing a variable of the same name. The
// pointers refer into `extra` and into this process's environment.
std::vector<char*> mergedEnvironment(const std::vector<std::string>& extra) {
  std::vector<char*> merged;
  for (char** e = processEnvironment(); e != nullptr && *e != nullptr; ++e) {
    bool replaced = false;
    for (const std::string& entry : extra)
      replaced = replaced || variableName(entry) == variableName(*e);
    if (!replaced) merged.push_back(*e);
  }
  for (const std::string& entry : extra) merged.push_back(const_cast<char*>(entry.c_str()));
  merged.push_back(nullptr);
  return merged;
}

}  // namespace

SubprocessResult runSubprocess(const std::string& program,
                               const std::vector<std::string>& arguments,
                               std::optional<std::string_view> input, size_t maxOutput,
                               const std::vector<std::string>& environment) {
  // A child that exits before reading all its input must not kill us with SIGPIPE; the monitor
  // ignores the signal process-wide (it also writes to sockets whose peers may vanish).
  static const bool sigpipeIgnored = [] {
    ::signal(SIGPIPE, SIG_IGN);
    return true;
  }();
  (void)sigpipeIgnored;
  SubprocessResult result;
  Fd outRead, outWrite, inRead, inWrite;
  if (!makePipe(outRead, outWrite)) return result;
  if (input && !makePipe(inRead, inWrite)) return result;

  posix_spawn_file_actions_t actions;
  posix_spawn_file_actions_init(&actions);
  posix_spawnattr_t attributes;
  posix_spawnattr_init(&attributes);
  if (input) {
    posix_spawn_file_actions_adddup2(&actions, inRead.fd, STDIN_FILENO);
  } else {
    posix_spawn_file_actions_addopen(&actions, STDIN_FILENO, "/dev/null", O_RDONLY, 0);
  }
  posix_spawn_file_actions_adddup2(&actions, outWrite.fd, STDOUT_FILENO);
  posix_spawn_file_actions_addopen(&actions, STDERR_FILENO, "/dev/null", O_WRONLY, 0);
  const bool isolated = inheritOnlyStandardStreams(attributes, actions);

  std::vector<char*> argv;
  argv.push_back(const_cast<char*>(program.c_str()));
  for (const auto& a : arguments) argv.push_back(const_cast<char*>(a.c_str()));
  argv.push_back(nullptr);

  std::vector<char*> envp = mergedEnvironment(environment);

  pid_t pid = -1;
  int rc = -1;
  if (isolated) {
    rc =
        program.find('/') == std::string::npos
            ? ::posix_spawnp(&pid, program.c_str(), &actions, &attributes, argv.data(), envp.data())
            : ::posix_spawn(&pid, program.c_str(), &actions, &attributes, argv.data(), envp.data());
  }
  posix_spawnattr_destroy(&attributes);
  posix_spawn_file_actions_destroy(&actions);
  outWrite.reset();
  inRead.reset();
  if (rc != 0) return result;

  // Feed stdin and drain stdout together so that neither side can fill a pipe and stall.
  std::string_view pending = input.value_or(std::string_view());
  if (inWrite.fd >= 0) {
    ::fcntl(inWrite.fd, F_SETFL, O_NONBLOCK);
    if (pending.empty()) inWrite.reset();
  }
  char buffer[16384];
  while (outRead.fd >= 0) {
    pollfd fds[2];
    int count = 0;
    fds[count++] = {outRead.fd, POLLIN, 0};
    if (inWrite.fd >= 0) fds[count++] = {inWrite.fd, POLLOUT, 0};
    if (::poll(fds, static_cast<nfds_t>(count), -1) < 0) {
      if (errno == EINTR) continue;
      break;
    }
    if (count == 2 && (fds[1].revents & (POLLOUT | POLLERR | POLLHUP))) {
      ssize_t n = ::write(inWrite.fd, pending.data(), pending.size());
      if (n > 0) pending.remove_prefix(static_cast<size_t>(n));
      if ((n < 0 && errno != EAGAIN && errno != EINTR) || pending.empty() ||
          (fds[1].revents & (POLLERR | POLLHUP))) {
        inWrite.reset();
      }
    }
    if (fds[0].revents & (POLLIN | POLLHUP | POLLERR)) {
      ssize_t n = ::read(outRead.fd, buffer, sizeof buffer);
      if (n > 0) {
        size_t room = maxOutput > result.output.size() ? maxOutput - result.output.size() : 0;
        result.output.append(buffer, std::min(room, static_cast<size_t>(n)));
      } else if (n == 0 || (errno != EINTR && errno != EAGAIN)) {
        outRead.reset();
      }
    }
  }
  inWrite.reset();

  int status = 0;
  while (::waitpid(pid, &status, 0) < 0 && errno == EINTR) {
  }
  result.started = true;
  // posix_spawnp reports a program missing from PATH through the child's exit status 127 on some
  // systems instead of an error; treat it as not started.
  if (WIFEXITED(status)) {
    result.exitStatus = WEXITSTATUS(status);
    if (result.exitStatus == 127 && result.output.empty()) result.started = false;
  }
  return result;
}

}  // namespace vistrel
