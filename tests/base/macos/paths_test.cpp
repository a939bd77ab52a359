#include <gtest/gtest.h>
#include <stdlib.h>

#include <optional>
#include <string>

#include "base/paths.hpp"

namespace vistrel {
namespace {

// The support folder follows HOME (tests point it at a temporary folder); the settings live in
// the preferences system, so the configuration folder is the support folder.
TEST(MacPaths, SupportFolderFollowsHome) {
  const char* old = ::getenv("HOME");
  const std::optional<std::string> saved = old ? std::optional<std::string>(old) : std::nullopt;
  ::setenv("HOME", "/Users/tester", 1);
  EXPECT_EQ(homeFolder(), "/Users/tester");
  EXPECT_EQ(supportFolder(), "/Users/tester/Library/Application Support/Vistrel");
  EXPECT_EQ(configFolder(), supportFolder());
  saved ? ::setenv("HOME", saved->c_str(), 1) : ::unsetenv("HOME");
}

}  // namespace
}  // namespace vistrel
