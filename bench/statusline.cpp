// The wall time of one `vistrel --statusline` run, as Claude Code pays it on every update of its
// status line: start the process, write a real-sized payload to its standard input, read the line
// it prints, wait for it to end. Beside it, in the same run and interleaved with it, a plain C++
// program that reads its input and prints a line: the floor any status-line command pays. HOME
// points at a temporary folder, so the runs store their records there and no saved command of the
// user's is found.

#include <fcntl.h>
#include <spawn.h>
#include <stdlib.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <nlohmann/json.hpp>
#include <string>
#include <vector>

#include "machine.hpp"

namespace {

using Timer = std::chrono::steady_clock;
constexpr int kRuns = 200;

// About 1.5 KB, the shape of Claude Code's status-line payload on a Max plan (the fixture the
// integration test feeds the binary too).
std::string realPayload() {
  std::ifstream file(STATUSLINE_PAYLOAD);
  return std::string(std::istreambuf_iterator<char>(file), {});
}

// One run of `argv` fed `input`, in milliseconds of wall time; negative when it failed.
double timeOneRun(const std::vector<std::string>& args, std::vector<std::string>& env,
                  const std::string& input) {
  std::vector<char*> argv;
  std::vector<std::string> copy = args;
  for (auto& a : copy) argv.push_back(a.data());
  argv.push_back(nullptr);
  std::vector<char*> envp;
  for (auto& e : env) envp.push_back(e.data());
  envp.push_back(nullptr);

  auto start = Timer::now();
  int in[2], out[2];
  if (::pipe(in) != 0 || ::pipe(out) != 0) return -1;
  posix_spawn_file_actions_t actions;
  posix_spawn_file_actions_init(&actions);
  posix_spawn_file_actions_adddup2(&actions, in[0], 0);
  posix_spawn_file_actions_adddup2(&actions, out[1], 1);
  posix_spawn_file_actions_addclose(&actions, in[1]);
  posix_spawn_file_actions_addclose(&actions, out[0]);
  pid_t pid = -1;
  int rc = ::posix_spawn(&pid, argv[0], &actions, nullptr, argv.data(), envp.data());
  posix_spawn_file_actions_destroy(&actions);
  ::close(in[0]);
  ::close(out[1]);
  bool ok = rc == 0;
  // The payload fits in a pipe's buffer: write it whole, then read the line.
  if (ok) ok = ::write(in[1], input.data(), input.size()) == static_cast<ssize_t>(input.size());
  ::close(in[1]);
  std::string output;
  char buffer[4096];
  for (ssize_t n; (n = ::read(out[0], buffer, sizeof buffer)) > 0;) {
    output.append(buffer, static_cast<size_t>(n));
  }
  ::close(out[0]);
  int status = 0;
  if (rc == 0) ::waitpid(pid, &status, 0);
  auto end = Timer::now();
  if (!ok || !WIFEXITED(status) || WEXITSTATUS(status) != 0 || output.empty()) return -1;
  return std::chrono::duration<double, std::milli>(end - start).count();
}

double median(std::vector<double> v) {
  std::sort(v.begin(), v.end());
  return v.size() % 2 ? v[v.size() / 2] : (v[v.size() / 2 - 1] + v[v.size() / 2]) / 2;
}

}  // namespace

int main() {
  char tmpl[] = "/tmp/vistrel-bench-statusline-XXXXXX";
  std::string home = ::mkdtemp(tmpl);
  std::vector<std::string> env = {"HOME=" + home, "PATH=/usr/bin:/bin"};
  const std::string payload = realPayload();
  const std::vector<std::string> statusline = {VISTREL_BINARY, "--statusline"};
  const std::vector<std::string> plain = {PLAIN_LINE_BINARY};

  // A few runs first so that both binaries are in the page cache.
  for (int i = 0; i < 10; ++i) {
    timeOneRun(statusline, env, payload);
    timeOneRun(plain, env, payload);
  }
  std::vector<double> ours, floor;
  for (int i = 0; i < kRuns; ++i) {
    double a = timeOneRun(statusline, env, payload);
    double b = timeOneRun(plain, env, payload);
    if (a < 0 || b < 0) {
      std::fprintf(stderr, "a run failed\n");
      std::filesystem::remove_all(home);
      return 1;
    }
    ours.push_back(a);
    floor.push_back(b);
  }
  std::filesystem::remove_all(home);
  double m = median(ours), p = median(floor);
  std::printf("machine: %s\n", vistrel::bench::describeMachine().c_str());
  std::printf("payload: %zu bytes\n", payload.size());
  std::printf("runs: %d each, interleaved\n", kRuns);
  std::printf("statusline median: %.3f ms\n", m);
  std::printf("plain median: %.3f ms\n", p);
  std::printf("ratio vs plain: %.2f\n", m / p);
  std::printf("target: under 2 ms: %s\n", m < 2.0 ? "met" : "missed");
  return 0;
}
