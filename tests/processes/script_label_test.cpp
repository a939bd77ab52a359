#include "processes/script_label.hpp"

#include <gtest/gtest.h>

#include <string>
#include <vector>

namespace vistrel {
namespace {

struct LabelCase {
  const char* what;
  std::string path;
  std::vector<std::string> args;
  std::string expected;
};

TEST(ScriptLabelTest, Describe) {
  const std::vector<LabelCase> cases = {
      {"python module server",
       "/usr/bin/python3",
       {"python3", "-m", "http.server", "8000"},
       "python3 http.server"},
      {"other module by its name",
       "/usr/bin/python3.12",
       {"python3.12", "-m", "pytest", "-x"},
       "pytest"},
      {"options before the module", "/usr/bin/python3", {"python3", "-u", "-m", "pip"}, "pip"},
      {"-m last is an option", "/usr/bin/python3", {"python3", "-m"}, "python3"},
      {"scoped package named by its scope",
       "/usr/local/bin/node",
       {"node", "/usr/local/lib/node_modules/@anthropic-ai/claude-code/cli.js"},
       "anthropic-ai"},
      {"package bin", "/usr/bin/node", {"node", "./node_modules/.bin/vite"}, "vite"},
      {"plain package", "/usr/bin/node", {"node", "/app/node_modules/next/dist/bin/next"}, "next"},
      {"innermost node_modules wins",
       "/usr/bin/node",
       {"node", "/a/node_modules/x/node_modules/y/index.js"},
       "y"},
      {".bin without a command is the package",
       "/usr/bin/node",
       {"node", "/a/node_modules/.bin"},
       ".bin"},
      {"nothing after node_modules: the folder's name",
       "/usr/bin/node",
       {"node", "/a/node_modules/"},
       "node_modules"},
      {"django", "/usr/bin/python", {"python", "manage.py", "runserver"}, "django"},
      {"script without extension", "/usr/bin/python3", {"python3", "/home/me/script.py"}, "script"},
      {"python under a versioned name reads python3",
       "/opt/py/Python3.11",
       {"Python3.11", "x.py"},
       "x"},
      {"hidden file keeps its name", "/usr/bin/ruby", {"ruby", "/home/me/.irbrc"}, ".irbrc"},
      {"a script path with no name leaves nothing", "/usr/bin/ruby", {"ruby", "/"}, "ruby"},
      {"empty script argument", "/usr/bin/perl", {"perl", ""}, "perl"},
      {"only options", "/usr/bin/python3", {"python3", "-u", "-B"}, "python3"},
      {"no arguments after the interpreter", "/usr/bin/node", {"node"}, "node"},
      {"no arguments at all", "/usr/bin/Node", {}, "node"},
      {"changed process title", "/usr/bin/node", {"next-server (v14)", "x"}, "next-server (v14)"},
      {"a0 with a slash is not a title", "/usr/bin/node", {"/usr/bin/node", "server.js"}, "server"},
      {"a0 naming an interpreter is not a title",
       "/usr/bin/python3.12",
       {"python3", "app.py"},
       "app"},
      {"a0 equal to the program", "/usr/bin/deno", {"deno", "run", "main.ts"}, "run"},
      {"not an interpreter", "/usr/bin/git", {"git", "status"}, "git"},
      {"not an interpreter, empty a0", "/usr/bin/git", {""}, "git"},
      {"title wins over a plain tool",
       "/usr/lib/postgresql/bin/postgres",
       {"postgres: writer"},
       "postgres: writer"},
      {"a title holding a slash is not taken", "/usr/sbin/sshd", {"sshd: me@pts/0"}, "sshd"},
  };
  for (const auto& c : cases) {
    EXPECT_EQ(ScriptLabel::describe(c.path, c.args), c.expected) << c.what;
  }
}

TEST(ScriptLabelTest, Sets) {
  for (const char* name : {"node", "bun", "deno", "python", "python3", "python3.12", "ruby", "php",
                           "java", "perl", "uvicorn"}) {
    EXPECT_TRUE(ScriptLabel::isInterpreter(name)) << name;
  }
  for (const char* name : {"nodejs", "bash", "Node", "", "pyt"}) {
    EXPECT_FALSE(ScriptLabel::isInterpreter(name)) << name;
  }
  for (const char* name : {"zsh", "bash", "sh", "fish", "login", "tmux", "screen", "dash"}) {
    EXPECT_TRUE(ScriptLabel::isShell(name)) << name;
  }
  for (const char* name : {"node", "Zsh", "zsh5", ""}) {
    EXPECT_FALSE(ScriptLabel::isShell(name)) << name;
  }
}

}  // namespace
}  // namespace vistrel
