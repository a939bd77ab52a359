#include "app/single_instance.hpp"

#include <fcntl.h>
#include <signal.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <thread>

namespace vistrel {

namespace {

// Creates every missing folder of `path` with mode 0700 (the support folder is the user's alone).
bool makePrivateFolders(const std::string& path) {
  for (size_t at = 1; at <= path.size(); ++at) {
    if (at != path.size() && path[at] != '/') continue;
    const std::string part = path.substr(0, at);
    if (::mkdir(part.c_str(), 0700) != 0 && errno != EEXIST) return false;
  }
  return true;
}

// The pid written in the lock file, or 0 when there is none (yet).
pid_t readHolder(int fd) {
  char text[32] = {};
  ssize_t n = ::pread(fd, text, sizeof text - 1, 0);
  if (n <= 0) return 0;
  char* end = nullptr;
  long pid = std::strtol(text, &end, 10);
  if (end == text || pid <= 0 || pid > 0x3fffffff) return 0;
  return static_cast<pid_t>(pid);
}

}  // namespace

LaunchKind launchKind(const std::vector<std::string_view>& arguments) {
  for (std::string_view a : arguments) {
    if (a == "--login") return LaunchKind::login;
    if (a == "--background") return LaunchKind::background;
  }
  return LaunchKind::interactive;
}

std::string_view launchWord(LaunchKind kind) {
  switch (kind) {
    case LaunchKind::login:
      return "login";
    case LaunchKind::background:
      return "background";
    case LaunchKind::interactive:
      break;
  }
  return "";
}

LaunchKind launchKindFromWord(std::string_view word) {
  if (word == "login") return LaunchKind::login;
  if (word == "background") return LaunchKind::background;
  return LaunchKind::interactive;
}

void blockShowRequests() {
  sigset_t set;
  sigemptyset(&set);
  sigaddset(&set, SIGUSR1);
  pthread_sigmask(SIG_BLOCK, &set, nullptr);
}

std::string instanceLockPath(std::string_view socketPath) {
  const size_t slash = socketPath.rfind('/');
  std::string folder =
      slash == std::string_view::npos ? "." : std::string(socketPath.substr(0, slash));
  return folder + "/vistrel.lock";
}

InstanceClaim claimInstance(const std::string& path, double pidWaitSeconds) {
  InstanceClaim claim;
  const size_t slash = path.rfind('/');
  if (slash != std::string::npos && slash > 0 && !makePrivateFolders(path.substr(0, slash))) {
    claim.problem = "cannot make the folder of " + path + ": " + std::strerror(errno);
    return claim;
  }
  // Never truncated on open: a running holder's pid must survive a second launch's open.
  int fd = ::open(path.c_str(), O_RDWR | O_CREAT | O_CLOEXEC | O_NOFOLLOW, 0600);
  if (fd < 0) {
    claim.problem = "cannot open " + path + ": " + std::strerror(errno);
    return claim;
  }
  int locked;
  do {
    locked = ::flock(fd, LOCK_EX | LOCK_NB);
  } while (locked != 0 && errno == EINTR);
  if (locked == 0) {
    char text[32];
    int n = std::snprintf(text, sizeof text, "%d\n", static_cast<int>(::getpid()));
    // A failed write only costs a later launch the pid (it then cannot ask for the window).
    if (::ftruncate(fd, 0) != 0 || ::pwrite(fd, text, static_cast<size_t>(n), 0) != n) {
      std::fprintf(stderr, "vistrel: cannot write the process id into %s\n", path.c_str());
    }
    claim.outcome = InstanceClaim::Outcome::ours;
    claim.fd = fd;
    return claim;
  }
  if (errno != EWOULDBLOCK) {
    claim.problem = "cannot lock " + path + ": " + std::strerror(errno);
    ::close(fd);
    return claim;
  }
  claim.outcome = InstanceClaim::Outcome::taken;
  // The holder writes its pid just after locking; a launch racing it may look in between.
  auto deadline = std::chrono::steady_clock::now() +
                  std::chrono::milliseconds(static_cast<int64_t>(pidWaitSeconds * 1000));
  while ((claim.holder = readHolder(fd)) == 0 && std::chrono::steady_clock::now() < deadline) {
    std::this_thread::sleep_for(std::chrono::milliseconds(10));
  }
  ::close(fd);
  return claim;
}

bool becomeTheInstance(LaunchKind kind, const std::string& lockPath) {
  blockShowRequests();
  InstanceClaim claim = claimInstance(lockPath);
  switch (claim.outcome) {
    case InstanceClaim::Outcome::ours:
      // Held open (and so locked) until the process ends.
      return true;
    case InstanceClaim::Outcome::unavailable:
      std::fprintf(stderr, "vistrel: %s; starting without checking for a running Vistrel\n",
                   claim.problem.c_str());
      return true;
    case InstanceClaim::Outcome::taken:
      break;
  }
  if (kind != LaunchKind::interactive) {
    std::fprintf(stderr, "vistrel: already running (process %d)\n", static_cast<int>(claim.holder));
  } else if (claim.holder > 0 && ::kill(claim.holder, SIGUSR1) == 0) {
    std::fprintf(stderr, "vistrel: already running (process %d); showing its window\n",
                 static_cast<int>(claim.holder));
  } else {
    std::fprintf(stderr, "vistrel: already running, but its window cannot be reached\n");
  }
  return false;
}

}  // namespace vistrel
