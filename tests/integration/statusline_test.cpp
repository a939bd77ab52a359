// Runs the real executable as Claude Code runs its status-line command: a payload on standard
// input, HOME in a temporary folder, the line read from standard output.

#include <gtest/gtest.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>
#include <nlohmann/json.hpp>
#include <sstream>
#include <string>
#include <vector>

#include "integration/binary_run.hpp"

namespace vistrel {
namespace {

namespace fs = std::filesystem;

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
    testing::BinaryRun run = testing::runBinary(VISTREL_BINARY, {"--statusline"},
                                                testing::homeEnvironment(home.string()), c.input);
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
