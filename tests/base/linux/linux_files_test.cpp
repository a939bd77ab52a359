#include <gtest/gtest.h>
#include <stdlib.h>

#include <optional>
#include <string>

#include "base/files.hpp"
#include "base/paths.hpp"

namespace vistrel {
namespace {

// The kernel's own files report size 0 yet have contents.
TEST(LinuxFiles, ReadsProcFilesThatReportSizeZero) {
  std::string buffer;
  EXPECT_TRUE(readFile("/proc/self/stat", buffer));
  EXPECT_FALSE(buffer.empty());
}

class ScopedVariable {
 public:
  explicit ScopedVariable(const char* name) : name_(name) {
    if (const char* value = ::getenv(name)) saved_ = value;
  }
  ~ScopedVariable() { saved_ ? ::setenv(name_, saved_->c_str(), 1) : ::unsetenv(name_); }

 private:
  const char* name_;
  std::optional<std::string> saved_;
};

TEST(LinuxPaths, FollowHomeAndXdgVariables) {
  ScopedVariable home("HOME"), data("XDG_DATA_HOME"), config("XDG_CONFIG_HOME");
  ::setenv("HOME", "/home/tester", 1);
  ::unsetenv("XDG_DATA_HOME");
  ::unsetenv("XDG_CONFIG_HOME");
  EXPECT_EQ(homeFolder(), "/home/tester");
  EXPECT_EQ(supportFolder(), "/home/tester/.local/share/Vistrel");
  EXPECT_EQ(configFolder(), "/home/tester/.config/vistrel");
  ::setenv("XDG_DATA_HOME", "/data", 1);
  ::setenv("XDG_CONFIG_HOME", "relative/ignored", 1);
  EXPECT_EQ(supportFolder(), "/data/Vistrel");
  EXPECT_EQ(configFolder(), "/home/tester/.config/vistrel");
}

}  // namespace
}  // namespace vistrel
