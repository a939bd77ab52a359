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
  // The built executable, with its module beside it: the light mode still leaves it alone.
  Running mcp = start(VISTREL_BINARY, {"--mcp"});
  std::string output, errors;
  ASSERT_EQ(::write(mcp.in, kInitialize.data(), kInitialize.size()),
            static_cast<ssize_t>(kInitialize.size()));
  ASSERT_TRUE(mcp.readUntil("\n", output)) << output;
  const std::string maps = mappedFiles(mcp.pid);
  EXPECT_EQ(mcp.finish(output, errors), 0) << errors;
  ASSERT_FALSE(maps.empty());
  for (const char* library : {"libsqlite3", "libsimdjson", "libzstd", "vistrel-application"}) {
    EXPECT_EQ(maps.find(library), std::string::npos) << library << " mapped by --mcp:\n" << maps;
  }
}

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
