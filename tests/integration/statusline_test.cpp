// Runs the real executable as Claude Code runs its status-line command: a payload on standard
// input, HOME in a temporary folder, the line read from standard output.

#include <fcntl.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>
#include <nlohmann/json.hpp>
#include <sstream>
#include <string>
#include <vector>

extern char** environ;

namespace vistrel {
namespace {

namespace fs = std::filesystem;

struct BinaryRun {
  int status = -1;
  std::string output;
};

// Starts the binary with `args` and `env`, writes `input` to its standard input while reading its
// standard output, and waits for it.
BinaryRun runBinary(const std::vector<std::string>& args, std::vector<std::string> env,
                    const std::string& input) {
  std::string binary = VISTREL_BINARY;
  std::vector<char*> argv{binary.data()};
  std::vector<std::string> argsCopy = args;
  for (auto& a : argsCopy) argv.push_back(a.data());
  argv.push_back(nullptr);
  std::vector<char*> envp;
  for (auto& e : env) envp.push_back(e.data());
  envp.push_back(nullptr);

  int in[2], out[2];
  EXPECT_EQ(::pipe(in), 0);
  EXPECT_EQ(::pipe(out), 0);
  posix_spawn_file_actions_t actions;
  posix_spawn_file_actions_init(&actions);
  posix_spawn_file_actions_adddup2(&actions, in[0], 0);
  posix_spawn_file_actions_adddup2(&actions, out[1], 1);
  posix_spawn_file_actions_addclose(&actions, in[1]);
  posix_spawn_file_actions_addclose(&actions, out[0]);
  pid_t pid = -1;
  BinaryRun run;
  int rc = ::posix_spawn(&pid, binary.c_str(), &actions, nullptr, argv.data(), envp.data());
  posix_spawn_file_actions_destroy(&actions);
  ::close(in[0]);
  ::close(out[1]);
  EXPECT_EQ(rc, 0);
  if (rc != 0) return run;
  // The payload is a few kilobytes, less than a pipe holds: write it whole, then read.
  EXPECT_EQ(::write(in[1], input.data(), input.size()), static_cast<ssize_t>(input.size()));
  ::close(in[1]);
  char buffer[4096];
  for (ssize_t n; (n = ::read(out[0], buffer, sizeof buffer)) > 0;) {
    run.output.append(buffer, static_cast<size_t>(n));
  }
  ::close(out[0]);
  int status = 0;
  ::waitpid(pid, &status, 0);
  run.status = WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
  return run;
}

std::string realPayload(const std::string& sessionId) {
  nlohmann::ordered_json payload = {
      {"hook_event_name", "Status"},
      {"session_id", sessionId},
      {"transcript_path", "/home/u/.claude/projects/-home-u-code-x/" + sessionId + ".jsonl"},
      {"cwd", "/home/u/code/x"},
      {"model", {{"id", "claude-opus-4-1-20250805"}, {"display_name", "Opus"}}},
      {"workspace", {{"current_dir", "/home/u/code/x"}, {"project_dir", "/home/u/code/x"}}},
      {"version", "2.1.32"},
      {"output_style", {{"name", "default"}}},
      {"cost",
       {{"total_cost_usd", 1.2345},
        {"total_duration_ms", 3456789},
        {"total_api_duration_ms", 234567},
        {"total_lines_added", 156},
        {"total_lines_removed", 23}}},
      {"context_window",
       {{"total_input_tokens", 84000},
        {"total_output_tokens", 12000},
        {"context_window_size", 200000},
        {"used_percentage", 42},
        {"remaining_percentage", 58}}},
      {"exceeds_200k_tokens", false},
      {"rate_limits",
       {{"five_hour", {{"used_percentage", 23.5}, {"resets_at", 1738425600}}},
        {"seven_day", {{"used_percentage", 41.2}, {"resets_at", 1738857600}}}}}};
  return payload.dump(2);
}

std::optional<fs::path> findFile(const fs::path& root, const std::string& name) {
  for (const auto& entry : fs::recursive_directory_iterator(root)) {
    if (entry.path().filename() == name) return entry.path();
  }
  return std::nullopt;
}

TEST(StatusLineMode, StoresThePayloadAndPrintsTheShortLine) {
  struct Case {
    const char* name;
    std::string input;
    std::string expectedLine;
    bool stored;
  };
  const std::string id = "7d1c3b52-0a4e-4f7e-8a51-9a3c2e6f1b08";
  const Case cases[] = {
      {"real payload", realPayload(id), "Opus · context 42% · session 23% · week 41%\n", true},
      {"garbage", std::string("\x00\x01\xfe garbage \n", 13), "\n", false},
      {"nothing at all", "", "\n", false},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.name);
    char tmpl[] = "/tmp/vistrel-statusline-XXXXXX";
    fs::path home = ::mkdtemp(tmpl);
    BinaryRun run =
        runBinary({"--statusline"}, {"HOME=" + home.string(), "PATH=/usr/bin:/bin"}, c.input);
    EXPECT_EQ(run.status, 0);
    EXPECT_EQ(run.output, c.expectedLine);
    auto file = findFile(home, id + ".json");
    ASSERT_EQ(file.has_value(), c.stored);
    if (file) {
      std::ifstream in(*file);
      std::stringstream text;
      text << in.rdbuf();
      auto stored = nlohmann::json::parse(text.str());
      EXPECT_EQ(stored["session_id"], id);
      EXPECT_TRUE(stored["received"].is_number());
      EXPECT_EQ(stored["rate_limits"], nlohmann::json::parse(c.input)["rate_limits"]);
    }
    fs::remove_all(home);
  }
}

}  // namespace
}  // namespace vistrel
