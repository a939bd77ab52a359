#include "children.hpp"

#include <dirent.h>
#include <fcntl.h>
#include <signal.h>
#include <spawn.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cctype>
#include <cstdio>

extern char** environ;

namespace vistrel::bench {

IdleChildren::~IdleChildren() {
  for (pid_t pid : pids_) ::kill(pid, SIGKILL);
  for (pid_t pid : pids_) ::waitpid(pid, nullptr, 0);
}

bool IdleChildren::startOne() {
  posix_spawn_file_actions_t actions;
  posix_spawn_file_actions_init(&actions);
  posix_spawn_file_actions_addopen(&actions, 0, "/dev/null", O_RDONLY, 0);
  posix_spawn_file_actions_addopen(&actions, 1, "/dev/null", O_WRONLY, 0);
  char sleepPath[] = "/bin/sleep";
  char seconds[] = "3600";
  char* argv[] = {sleepPath, seconds, nullptr};
  pid_t pid = -1;
  int rc = ::posix_spawn(&pid, sleepPath, &actions, nullptr, argv, environ);
  posix_spawn_file_actions_destroy(&actions);
  if (rc != 0) return false;
  pids_.push_back(pid);
  return true;
}

void IdleChildren::endOldest() {
  if (pids_.empty()) return;
  pid_t pid = pids_.front();
  pids_.erase(pids_.begin());
  ::kill(pid, SIGKILL);
  ::waitpid(pid, nullptr, 0);
}

void IdleChildren::fillTo(size_t total, size_t limit) {
  size_t now = countProcesses();
  while (now < total && pids_.size() < limit && startOne()) ++now;
}

size_t countProcesses() {
  size_t count = 0;
  if (DIR* dir = ::opendir("/proc")) {
    while (dirent* e = ::readdir(dir)) {
      if (std::isdigit(static_cast<unsigned char>(e->d_name[0]))) ++count;
    }
    ::closedir(dir);
  }
  return count;
}

size_t residentBytes() {
  if (FILE* f = std::fopen("/proc/self/statm", "r")) {
    unsigned long size = 0, resident = 0;
    int n = std::fscanf(f, "%lu %lu", &size, &resident);
    std::fclose(f);
    if (n == 2) return resident * static_cast<size_t>(::sysconf(_SC_PAGESIZE));
  }
  rusage r{};
  ::getrusage(RUSAGE_SELF, &r);
  return static_cast<size_t>(r.ru_maxrss) * 1024;  // peak, where the current figure is not exposed
}

}  // namespace vistrel::bench
