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

// The real-sized payload of the fixture, for the given session.
std::string realPayload(const std::string& sessionId) {
  std::ifstream file(std::string(VISTREL_FIXTURES) + "/statusline/payload.json");
  auto payload = nlohmann::ordered_json::parse(file);
  payload["session_id"] = sessionId;
  payload["transcript_path"] = "/home/u/.claude/projects/-home-u-code-x/" + sessionId + ".jsonl";
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
