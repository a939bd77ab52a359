#include "app/application_module.hpp"

#include <gtest/gtest.h>
#include <stdlib.h>

#include <filesystem>
#include <fstream>
#include <optional>

namespace vistrel {
namespace {

namespace fs = std::filesystem;

TEST(ApplicationModule, CandidatesFollowTheExecutable) {
  const std::string m = "libvistrel-application.so";
  struct Case {
    std::string executable;
    std::vector<std::string> expected;
  } cases[] = {
      // A build folder or a plain install: beside it first, then a prefix's lib folder.
      {"/work/build/src/vistrel", {"/work/build/src/" + m, "/work/build/src/../lib/vistrel/" + m}},
      {"/usr/bin/vistrel", {"/usr/bin/" + m, "/usr/bin/../lib/vistrel/" + m}},
      // Inside a bundle the Frameworks folder comes before the prefix guess.
      {"/Applications/Vistrel.app/Contents/MacOS/Vistrel",
       {"/Applications/Vistrel.app/Contents/MacOS/" + m,
        "/Applications/Vistrel.app/Contents/MacOS/../Frameworks/" + m,
        "/Applications/Vistrel.app/Contents/MacOS/../lib/vistrel/" + m}},
      // At the root the folder is "/", not "".
      {"/vistrel", {"/" + m, "/../lib/vistrel/" + m}},
      // Without a folder there is nothing to look beside.
      {"vistrel", {}},
      {"", {}},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.executable);
    EXPECT_EQ(applicationModuleCandidates(c.executable, m), c.expected);
  }
  EXPECT_TRUE(applicationModuleCandidates("/usr/bin/vistrel", "").empty());
}

// Every layout the build installs, laid out for real side by side in one folder: from each
// installed executable, the first candidate that exists is that layout's own module, for the
// application module and for the interface module alike (the application module finds the
// interface by the same search).
TEST(ApplicationModule, EachInstalledLayoutFindsItsOwnModules) {
  char tmpl[] = "/tmp/vistrel-layouts-XXXXXX";
  const fs::path root = ::mkdtemp(tmpl);
  struct Layout {
    const char* name;
    std::string executable;  // relative to root
    std::string modules;     // the folder the install puts both modules in
  } layouts[] = {
      {"build folder", "build/src/vistrel", "build/src"},
      {"Debian package", "usr/bin/vistrel", "usr/lib/vistrel"},
      {"cmake --install, default prefix", "usr/local/bin/vistrel", "usr/local/lib/vistrel"},
      {"cmake --install, own prefix", "opt/vistrel/bin/vistrel", "opt/vistrel/lib/vistrel"},
      {"installed bundle", "Applications/Vistrel.app/Contents/MacOS/Vistrel",
       "Applications/Vistrel.app/Contents/Frameworks"},
      {"build folder's bundle", "build/Vistrel.app/Contents/MacOS/Vistrel",
       "build/Vistrel.app/Contents/Frameworks"},
  };
  const char* moduleNames[] = {"libvistrel-application.so", "libvistrel-ui.so"};
  auto touch = [](const fs::path& file) {
    fs::create_directories(file.parent_path());
    std::ofstream(file) << "x";
  };
  for (const auto& layout : layouts) {
    touch(root / layout.executable);
    for (const char* name : moduleNames) touch(root / layout.modules / name);
  }

  for (const auto& layout : layouts) {
    for (const char* name : moduleNames) {
      SCOPED_TRACE(std::string(layout.name) + ", " + name);
      const fs::path expected = fs::canonical(root / layout.modules / name);
      std::optional<fs::path> found;
      for (const std::string& candidate :
           applicationModuleCandidates((root / layout.executable).string(), name)) {
        if (fs::exists(candidate)) {
          found = fs::canonical(candidate);
          break;
        }
      }
      ASSERT_TRUE(found.has_value());
      EXPECT_EQ(*found, expected);
    }
  }

  fs::remove_all(root);
}

}  // namespace
}  // namespace vistrel
