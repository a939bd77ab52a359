#include "base/subprocess.hpp"

#include <gtest/gtest.h>

#include <fcntl.h>
#include <stdlib.h>
#include <unistd.h>

#include <optional>
#include <string>
#include <vector>

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
      {"child ignores its input", "/usr/bin/true", {}, big, true, 0, ""},
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

TEST(Subprocess, EnvironmentIsInheritedWithAdditionsAndReplacements) {
  ::setenv("VISTREL_TEST_INHERITED", "kept", 1);
  ::setenv("LC_ALL", "de_DE.UTF-8", 1);
  const auto result = runSubprocess(
      "/bin/sh", {"-c", "printf '%s %s %s' \"$VISTREL_TEST_INHERITED\" \"$LC_ALL\" \"$ADDED\""},
      std::nullopt, 1 << 20, {"LC_ALL=C", "ADDED=a=b"});
  ::unsetenv("VISTREL_TEST_INHERITED");
  ::unsetenv("LC_ALL");
  EXPECT_EQ(result.output, "kept C a=b");
}

// A descriptor this process opened without close-on-exec (or has not marked yet, as another
// thread between socket() and fcntl()) does not reach the child.
TEST(Subprocess, ChildInheritsOnlyItsStandardStreams) {
  // A free descriptor the shell can name in a redirection (one digit).
  int probe = 9;
  while (probe > 2 && ::fcntl(probe, F_GETFD) != -1) --probe;
  if (probe == 2) GTEST_SKIP() << "descriptors 3 to 9 are all in use";
  const int file = ::open("/dev/null", O_WRONLY);
  ASSERT_GE(file, 0);
  ASSERT_EQ(::dup2(file, probe), probe);  // dup2 leaves close-on-exec off
  if (file != probe) ::close(file);
  ASSERT_EQ(::fcntl(probe, F_GETFD) & FD_CLOEXEC, 0);
  const std::string n = std::to_string(probe);
  const std::string test =
      "if { true >&" + n + "; } 2>/dev/null; then echo inherited; else echo closed; fi";
  const auto result = runSubprocess("/bin/sh", {"-c", test});
  ::close(probe);
  EXPECT_EQ(result.output, "closed\n");
  // The probe itself tells an open descriptor from a closed one.
  EXPECT_EQ(runSubprocess("/bin/sh", {"-c", "exec " + n + ">/dev/null; " + test}).output,
            "inherited\n");
}

}  // namespace
}  // namespace vistrel
