#pragma once

// Runs the real executable with its three standard streams as pipes, for the integration tests.

#include <fcntl.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <string>
#include <vector>

#include "format/platform_text.hpp"

namespace vistrel::testing {

// What puts the executable's home at `home`: HOME, and CFFIXED_USER_HOME, which CoreFoundation on
// macOS reads instead (its preferences would otherwise land in the person's real ones).
inline std::vector<std::string> homeEnvironment(const std::string& home) {
  return {"HOME=" + home, "CFFIXED_USER_HOME=" + home, "PATH=/usr/bin:/bin"};
}

// The support folder the executable uses under `home` when its environment names no other.
inline std::string supportFolderUnder(const std::string& home) {
  return home +
         (runningOnLinux() ? "/.local/share/Vistrel" : "/Library/Application Support/Vistrel");
}

// A started executable; the test holds the other ends of its standard streams.
struct Running {
  pid_t pid = -1;
  int in = -1, out = -1, err = -1;

  // Reads standard output until it holds `text` or five seconds pass.
  bool readUntil(const std::string& text, std::string& output) {
    auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(5);
    char buffer[4096];
    while (output.find(text) == std::string::npos) {
      auto left = std::chrono::duration_cast<std::chrono::milliseconds>(
          deadline - std::chrono::steady_clock::now());
      if (left.count() <= 0) return false;
      pollfd p{out, POLLIN, 0};
      if (::poll(&p, 1, static_cast<int>(left.count())) <= 0) return false;
      ssize_t n = ::read(out, buffer, sizeof buffer);
      if (n <= 0) return false;
      output.append(buffer, static_cast<size_t>(n));
    }
    return true;
  }

  // Closes standard input, reads both outputs to their ends (the tests' outputs are small) and
  // waits for the exit status; a signal reads as 128 + its number.
  int finish(std::string& output, std::string& errors) {
    if (in >= 0) ::close(in);
    in = -1;
    char buffer[4096];
    for (int* fd : {&out, &err}) {
      std::string& into = fd == &out ? output : errors;
      for (ssize_t n; (n = ::read(*fd, buffer, sizeof buffer)) > 0;) {
        into.append(buffer, static_cast<size_t>(n));
      }
      ::close(*fd);
      *fd = -1;
    }
    int status = 0;
    ::waitpid(pid, &status, 0);
    return WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
  }
};

// Starts `binary` with `args` and exactly the environment `env`.
inline Running startBinary(const std::string& binary, std::vector<std::string> args,
                           std::vector<std::string> env) {
  std::vector<char*> envp;
  for (auto& e : env) envp.push_back(e.data());
  envp.push_back(nullptr);
  std::string path = binary;
  std::vector<char*> argv{path.data()};
  for (auto& a : args) argv.push_back(a.data());
  argv.push_back(nullptr);
  int in[2], out[2], err[2];
  EXPECT_EQ(::pipe(in), 0);
  EXPECT_EQ(::pipe(out), 0);
  EXPECT_EQ(::pipe(err), 0);
  posix_spawn_file_actions_t actions;
  posix_spawn_file_actions_init(&actions);
  posix_spawn_file_actions_adddup2(&actions, in[0], 0);
  posix_spawn_file_actions_adddup2(&actions, out[1], 1);
  posix_spawn_file_actions_adddup2(&actions, err[1], 2);
  for (int fd : {in[0], in[1], out[0], out[1], err[0], err[1]}) {
    posix_spawn_file_actions_addclose(&actions, fd);
  }
  Running r;
  EXPECT_EQ(::posix_spawn(&r.pid, path.c_str(), &actions, nullptr, argv.data(), envp.data()), 0);
  posix_spawn_file_actions_destroy(&actions);
  ::close(in[0]);
  ::close(out[1]);
  ::close(err[1]);
  // The ends kept here must not leak into the next binary started: one that held another's
  // standard input open would keep it from ever seeing its end.
  for (int fd : {in[1], out[0], err[0]}) ::fcntl(fd, F_SETFD, FD_CLOEXEC);
  r.in = in[1];
  r.out = out[0];
  r.err = err[0];
  return r;
}

struct BinaryRun {
  int status = -1;
  std::string output;
  std::string errors;
};

// Runs `binary` to its end with `input` (less than a pipe holds) on standard input.
inline BinaryRun runBinary(const std::string& binary, std::vector<std::string> args,
                           std::vector<std::string> env, const std::string& input) {
  Running r = startBinary(binary, std::move(args), std::move(env));
  EXPECT_EQ(::write(r.in, input.data(), input.size()), static_cast<ssize_t>(input.size()));
  BinaryRun run;
  run.status = r.finish(run.output, run.errors);
  return run;
}

}  // namespace vistrel::testing
