#include "base/subprocess.hpp"

#include <gtest/gtest.h>

#include <string>

namespace vistrel {
namespace {

TEST(Subprocess, Cases) {
  std::string big(1 << 20, 'x');  // larger than a pipe's buffer both ways
  struct Case {
    const char* name;
    std::string program;
    std::vector<std::string> args;
    std::optional<std::string> input;
    bool started;
    int status;
    std::string output;
  } cases[] = {
      {"plain output", "/bin/echo", {"hello", "world"}, std::nullopt, true, 0, "hello world\n"},
      {"looked up in PATH", "printf", {"%s|", "a b", "c"}, std::nullopt, true, 0, "a b|c|"},
      {"stdin echoed back",
       "/bin/cat",
       {},
       std::string("line one\nline two"),
       true,
       0,
       "line one\nline two"},
      {"large stdin and stdout", "/bin/cat", {}, big, true, 0, big},
      {"stderr discarded",
       "/bin/sh",
       {"-c", "echo out; echo err >&2; exit 3"},
       std::nullopt,
       true,
       3,
       "out\n"},
      {"no stdin means end of input", "/bin/cat", {}, std::nullopt, true, 0, ""},
      {"child ignores its input", "/bin/true", {}, big, true, 0, ""},
      {"missing program", "/nonexistent/program", {}, std::nullopt, false, -1, ""},
      {"missing program in PATH", "vistrel-no-such-tool", {}, std::nullopt, false, -1, ""},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.name);
    auto result = c.input ? runSubprocess(c.program, c.args, std::string_view(*c.input))
                          : runSubprocess(c.program, c.args);
    EXPECT_EQ(result.started, c.started);
    if (c.started) {
      EXPECT_EQ(result.exitStatus, c.status);
    }
    EXPECT_EQ(result.output.size(), c.output.size());
    EXPECT_TRUE(result.output == c.output);
  }
}

TEST(Subprocess, OutputBeyondTheCapIsDroppedWithoutBlockingTheChild) {
  auto result = runSubprocess("/bin/sh", {"-c", "head -c 300000 /dev/zero"}, std::nullopt, 1000);
  EXPECT_TRUE(result.started);
  EXPECT_EQ(result.exitStatus, 0);
  EXPECT_EQ(result.output.size(), 1000u);
}

}  // namespace
}  // namespace vistrel
