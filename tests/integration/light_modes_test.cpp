// The executable's two light modes stand on their own: `--statusline` and `--mcp` run from a copy
// of the executable with no application module beside it, and never map SQLite, simdjson or the
// module. The application mode without a usable module ends with a clear error.

#include <dlfcn.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <signal.h>
#include <unistd.h>

#include <chrono>
#include <cmath>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <string>
#include <vector>

#include "integration/binary_run.hpp"

namespace vistrel {
namespace {

namespace fs = std::filesystem;
using Clock = std::chrono::steady_clock;

using testing::Running;

class LightModes : public ::testing::Test {
 protected:
  void SetUp() override {
    char tmpl[] = "/tmp/vistrel-light-XXXXXX";
    // Canonical: the executable reports its folder with links resolved (/tmp is one on macOS).
    folder_ = fs::canonical(::mkdtemp(tmpl)).string();
    fs::create_directories(folder_ + "/home");
    fs::create_directories(folder_ + "/bin");
    lone_ = folder_ + "/bin/vistrel";
    fs::copy_file(VISTREL_BINARY, lone_);
  }
  void TearDown() override { fs::remove_all(folder_); }

  std::vector<std::string> environment() const {
    return testing::homeEnvironment(folder_ + "/home");
  }
  // As if a display were there: Qt's offscreen platform counts as one, so the window would load.
  std::vector<std::string> displayEnvironment() const {
    auto env = environment();
    env.push_back("QT_QPA_PLATFORM=offscreen");
    return env;
  }
  Running start(const std::string& binary, std::vector<std::string> args) {
    return testing::startBinary(binary, std::move(args), environment());
  }
  // Runs `binary` to its end with `input` on standard input.
  int run(const std::string& binary, std::vector<std::string> args, const std::string& input,
          std::string& output, std::string& errors) {
    testing::BinaryRun r = testing::runBinary(binary, std::move(args), environment(), input);
    output = r.output;
    errors = r.errors;
    return r.status;
  }

  std::string folder_;
  std::string lone_;
};

std::string payload() {
  std::ifstream file(std::string(VISTREL_FIXTURES) + "/statusline/payload.json");
  std::stringstream text;
  text << file.rdbuf();
  return text.str();
}

const std::string kInitialize =
    R"({"jsonrpc":"2.0","id":1,"method":"initialize","params":{"protocolVersion":"2025-06-18",)"
    R"("capabilities":{},"clientInfo":{"name":"test","version":"1"}}})"
    "\n";

// The libraries mapped into a running process, from its memory map; empty where there is none.
std::string mappedFiles(pid_t pid) {
  std::ifstream maps("/proc/" + std::to_string(pid) + "/maps");
  std::stringstream text;
  text << maps.rdbuf();
  return text.str();
}

TEST_F(LightModes, RunFromALoneExecutable) {
  std::string output, errors;
  EXPECT_EQ(run(lone_, {"--statusline"}, payload(), output, errors), 0) << errors;
  EXPECT_EQ(output, "Opus · context 42% · session 23% · week 41%\n");

  output.clear();
  errors.clear();
  EXPECT_EQ(run(lone_, {"--mcp"}, kInitialize, output, errors), 0) << errors;
  EXPECT_NE(output.find(R"("id":1)"), std::string::npos) << output;
  EXPECT_NE(output.find(R"("serverInfo")"), std::string::npos) << output;
}

TEST_F(LightModes, NeverMapTheApplicationsLibraries) {
  if (!fs::exists("/proc/self/maps")) GTEST_SKIP() << "no /proc memory maps here";
  // The built executable, with its modules beside it and a display there: the light mode still
  // leaves them and the toolkit alone.
  Running mcp = testing::startBinary(VISTREL_BINARY, {"--mcp"}, displayEnvironment());
  std::string output, errors;
  ASSERT_EQ(::write(mcp.in, kInitialize.data(), kInitialize.size()),
            static_cast<ssize_t>(kInitialize.size()));
  ASSERT_TRUE(mcp.readUntil("\n", output)) << output;
  const std::string maps = mappedFiles(mcp.pid);
  EXPECT_EQ(mcp.finish(output, errors), 0) << errors;
  ASSERT_FALSE(maps.empty());
  for (const char* library :
       {"libsqlite3", "libsimdjson", "libzstd", "vistrel-application", "vistrel-ui", "libQt6"}) {
    EXPECT_EQ(maps.find(library), std::string::npos) << library << " mapped by --mcp:\n" << maps;
  }

  // The status line, caught while it waits for Claude Code's input.
  Running bridge = testing::startBinary(VISTREL_BINARY, {"--statusline"}, displayEnvironment());
  ::usleep(300'000);
  const std::string bridgeMaps = mappedFiles(bridge.pid);
  const std::string input = payload();
  ASSERT_EQ(::write(bridge.in, input.data(), input.size()), static_cast<ssize_t>(input.size()));
  EXPECT_EQ(bridge.finish(output, errors), 0) << errors;
  ASSERT_FALSE(bridgeMaps.empty());
  for (const char* library : {"libsqlite3", "vistrel-application", "vistrel-ui", "libQt6"}) {
    EXPECT_EQ(bridgeMaps.find(library), std::string::npos)
        << library << " mapped by --statusline:\n"
        << bridgeMaps;
  }
}

#ifdef VISTREL_WINDOW_MODULE_PATH
// Read standard error until `text` appears or ten seconds pass.
std::string readErrorsUntil(Running& app, const std::string& text) {
  std::string errors;
  auto deadline = Clock::now() + std::chrono::seconds(10);
  char buffer[4096];
  while (errors.find(text) == std::string::npos && Clock::now() < deadline) {
    pollfd p{app.err, POLLIN, 0};
    if (::poll(&p, 1, 200) <= 0) continue;
    ssize_t n = ::read(app.err, buffer, sizeof buffer);
    if (n <= 0) break;
    errors.append(buffer, static_cast<size_t>(n));
  }
  return errors;
}

TEST_F(LightModes, WithADisplayTheApplicationOpensItsWindow) {
  if (!fs::exists("/proc/self/maps")) GTEST_SKIP() << "no /proc memory maps here";
  auto env = displayEnvironment();
  env.push_back("VISTREL_DEBUG=1");
  Running app = testing::startBinary(VISTREL_BINARY, {}, env);
  std::string errors = readErrorsUntil(app, "window painted");
  const std::string maps = mappedFiles(app.pid);
  ::kill(app.pid, SIGTERM);
  std::string output;
  EXPECT_EQ(app.finish(output, errors), 0) << errors;
  EXPECT_NE(errors.find("window painted"), std::string::npos) << errors;
  EXPECT_EQ(errors.find("running without a window"), std::string::npos) << errors;
  EXPECT_NE(maps.find(fs::path(VISTREL_WINDOW_MODULE_PATH).filename().string()), std::string::npos);
  EXPECT_EQ(maps.find("vistrel-application"), std::string::npos);
}

TEST_F(LightModes, WithoutTheWindowModuleTheApplicationRunsHeadless) {
  if (!fs::exists("/proc/self/maps")) GTEST_SKIP() << "no /proc memory maps here";
  // The lone executable with only the application module beside it, as on a server without Qt.
  const std::string moduleName = fs::path(VISTREL_APPLICATION_MODULE_PATH).filename().string();
  fs::copy_file(VISTREL_APPLICATION_MODULE_PATH, folder_ + "/bin/" + moduleName);
  struct Case {
    const char* name;
    std::vector<std::string> env;
    std::string why;
  } cases[] = {
      {"no display", environment(), "no display"},
      {"no window module", displayEnvironment(), "cannot load the window"},
      {"a stale display",
       [this] {
         auto env = environment();
         env.push_back("DISPLAY=:987");
         return env;
       }(),
       "not running"},
      {"the service's setting",
       [this] {
         auto env = displayEnvironment();
         env.push_back("VISTREL_HEADLESS=1");
         return env;
       }(),
       "VISTREL_HEADLESS is set"},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    Running app = testing::startBinary(lone_, {}, c.env);
    std::string errors = readErrorsUntil(app, "running without a window");
    ::kill(app.pid, SIGTERM);
    std::string output;
    EXPECT_EQ(app.finish(output, errors), 0) << errors;
    EXPECT_NE(errors.find("running without a window"), std::string::npos) << errors;
    // Why, in one line before it.
    size_t why = errors.find(c.why);
    ASSERT_NE(why, std::string::npos) << errors;
    EXPECT_EQ(errors.rfind('\n', why), std::string::npos) << errors;
  }
}
#endif

TEST_F(LightModes, TheApplicationLoadsItsModule) {
  if (!fs::exists("/proc/self/maps")) GTEST_SKIP() << "no /proc memory maps here";
  Running app = start(VISTREL_BINARY, {});
  // The application says it runs once the module is in and has started.
  std::string errors;
  auto deadline = Clock::now() + std::chrono::seconds(10);
  char buffer[4096];
  while (errors.find("running without a window") == std::string::npos && Clock::now() < deadline) {
    pollfd p{app.err, POLLIN, 0};
    if (::poll(&p, 1, 200) <= 0) continue;
    ssize_t n = ::read(app.err, buffer, sizeof buffer);
    if (n <= 0) break;
    errors.append(buffer, static_cast<size_t>(n));
  }
  const std::string maps = mappedFiles(app.pid);
  ::kill(app.pid, SIGTERM);
  std::string output;
  EXPECT_EQ(app.finish(output, errors), 0) << errors;
  EXPECT_NE(maps.find(fs::path(VISTREL_APPLICATION_MODULE_PATH).filename().string()),
            std::string::npos)
      << errors;
}

// The path of the maths library this test runs with: a real shared library that is not ours, and
// one that is harmless to load twice.
std::string someOtherSharedLibrary() {
  Dl_info info{};
  double (*cubeRoot)(double) = &::cbrt;
  if (::dladdr(reinterpret_cast<void*>(cubeRoot), &info) == 0 || !info.dli_fname) return {};
  std::string path = info.dli_fname;
  return fs::exists(path) ? path : std::string();
}

TEST_F(LightModes, TheApplicationWithoutAUsableModuleEndsWithAClearError) {
  const std::string moduleName = fs::path(VISTREL_APPLICATION_MODULE_PATH).filename().string();
  const std::string beside = folder_ + "/bin/" + moduleName;
  struct Case {
    const char* name;
    std::string moduleSource;  // copied beside the lone executable; empty: nothing there
    std::string expected;      // in standard error
  } cases[] = {
      {"missing", "", "not there"},
      {"not a library", std::string(VISTREL_FIXTURES) + "/statusline/payload.json", beside},
      {"another library", someOtherSharedLibrary(), "not a Vistrel application module"},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.name);
    fs::remove(beside);
    if (std::string(c.name) == "another library" && c.moduleSource.empty()) continue;
    if (!c.moduleSource.empty()) fs::copy_file(c.moduleSource, beside);
    std::string output, errors;
    EXPECT_EQ(run(lone_, {}, "", output, errors), 1);
    EXPECT_NE(errors.find("cannot load the application module " + moduleName), std::string::npos)
        << errors;
    EXPECT_NE(errors.find(c.expected), std::string::npos) << errors;
    // Nothing of the application ran: no support folder was made.
    EXPECT_FALSE(fs::exists(testing::supportFolderUnder(folder_ + "/home") + "/history.sqlite"));
  }
  // The light modes do not care.
  std::string output, errors;
  EXPECT_EQ(run(lone_, {"--statusline"}, payload(), output, errors), 0) << errors;
  EXPECT_FALSE(output.empty());
}

}  // namespace
}  // namespace vistrel
