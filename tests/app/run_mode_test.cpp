#include "app/run_mode.hpp"

#include <gtest/gtest.h>

namespace vistrel {
namespace {

TEST(RunMode, ChosenByMembership) {
  struct Case {
    std::vector<std::string_view> args;
    RunMode mode;
  } cases[] = {
      {{}, RunMode::application},
      {{"--mcp"}, RunMode::mcp},
      {{"--statusline"}, RunMode::statusLine},
      {{"--statusline", "--mcp"}, RunMode::mcp},  // --mcp wins wherever it stands
      {{"--mcp", "--statusline"}, RunMode::mcp},
      {{"-psn_0_12345", "--statusline"}, RunMode::statusLine},
      {{"--mcp=1"}, RunMode::application},  // only exact matches count
      {{"--MCP"}, RunMode::application},
      {{"mcp", "statusline"}, RunMode::application},
  };
  for (const auto& c : cases) {
    EXPECT_EQ(chooseRunMode(c.args), c.mode);
  }
}

}  // namespace
}  // namespace vistrel
