// The real executable, copied into the layouts the install produces, finds and runs its
// application module there: a prefix's lib/vistrel folder and a bundle's Frameworks folder, also
// when started through a symbolic link. No copy of the module is within reach of the copied
// executable otherwise, so only the search can find it.

#include <gtest/gtest.h>
#include <poll.h>
#include <signal.h>
#include <unistd.h>

#include <chrono>
#include <filesystem>
#include <string>

#include "integration/binary_run.hpp"

namespace vistrel {
namespace {

namespace fs = std::filesystem;

TEST(InstalledLayout, TheExecutableFindsItsModuleWhereTheInstallPutsIt) {
  char tmpl[] = "/tmp/vistrel-installed-XXXXXX";
  const fs::path root = fs::canonical(::mkdtemp(tmpl));
  const std::string moduleName = fs::path(VISTREL_APPLICATION_MODULE_PATH).filename().string();
  struct Layout {
    const char* name;
    std::string executable;
    std::string modules;
    std::string link;  // if set, started through a symbolic link here (say ~/.local/bin/vistrel)
  } layouts[] = {
      {"prefix", "opt/vistrel/bin/vistrel", "opt/vistrel/lib/vistrel", ""},
      {"bundle", "Vistrel.app/Contents/MacOS/Vistrel", "Vistrel.app/Contents/Frameworks", ""},
      {"linked bundle", "Applications/Vistrel.app/Contents/MacOS/Vistrel",
       "Applications/Vistrel.app/Contents/Frameworks", "home/.local/bin/vistrel"},
  };
  for (const auto& layout : layouts) {
    SCOPED_TRACE(layout.name);
    const fs::path executable = root / layout.executable;
    const fs::path module = root / layout.modules / moduleName;
    fs::create_directories(executable.parent_path());
    fs::create_directories(module.parent_path());
    fs::copy_file(VISTREL_BINARY, executable);
    fs::copy_file(VISTREL_APPLICATION_MODULE_PATH, module);
    fs::path started = executable;
    if (!layout.link.empty()) {
      started = root / layout.link;
      fs::create_directories(started.parent_path());
      fs::create_symlink(executable, started);
    }
    const fs::path home = root / (std::string("home-") + layout.name);
    fs::create_directories(home);

    // Once the module runs, the application says so; then it is asked to end as a service
    // manager would.
    testing::Running app =
        testing::startBinary(started.string(), {}, {"HOME=" + home.string(), "PATH=/usr/bin:/bin"});
    std::string errors;
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(30);
    char buffer[4096];
    while (errors.find("running without a window") == std::string::npos &&
           std::chrono::steady_clock::now() < deadline) {
      pollfd p{app.err, POLLIN, 0};
      if (::poll(&p, 1, 200) <= 0) continue;
      ssize_t n = ::read(app.err, buffer, sizeof buffer);
      if (n <= 0) break;
      errors.append(buffer, static_cast<size_t>(n));
    }
    ::kill(app.pid, SIGTERM);
    std::string output;
    EXPECT_EQ(app.finish(output, errors), 0) << errors;
    EXPECT_NE(errors.find("running without a window"), std::string::npos) << errors;

    // And without it, the error names the place the install uses.
    fs::remove(module);
    testing::BinaryRun run = testing::runBinary(
        started.string(), {}, {"HOME=" + home.string(), "PATH=/usr/bin:/bin"}, "");
    EXPECT_EQ(run.status, 1);
    EXPECT_NE(run.errors.find(layout.modules.substr(layout.modules.rfind('/') + 1) + "/" +
                              moduleName + ": not there"),
              std::string::npos)
        << run.errors;
  }
  fs::remove_all(root);
}

}  // namespace
}  // namespace vistrel
