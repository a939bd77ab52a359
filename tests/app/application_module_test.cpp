#include "app/application_module.hpp"

#include <gtest/gtest.h>
#include <stdlib.h>

#include <filesystem>
#include <fstream>
#include <map>
#include <optional>
#include <set>
#include <string>

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

TEST(ApplicationModule, DisplayProblems) {
  struct Case {
    const char* name;
    std::map<std::string, std::string> env;
    std::set<std::string> existing;
    std::optional<std::string> problem;  // a part of the reason; nullopt: a display is there
  } cases[] = {
      {"nothing set", {}, {}, "no display"},
      {"empty DISPLAY", {{"DISPLAY", ""}}, {}, "no display"},
      {"local X server", {{"DISPLAY", ":0"}}, {"/tmp/.X11-unix/X0"}, std::nullopt},
      {"local X screen", {{"DISPLAY", ":1.0"}}, {"/tmp/.X11-unix/X1"}, std::nullopt},
      {"stale DISPLAY", {{"DISPLAY", ":5"}}, {}, "not running"},
      {"garbled DISPLAY", {{"DISPLAY", ":x"}}, {}, "names no display"},
      {"remote X server", {{"DISPLAY", "host:10.0"}}, {}, std::nullopt},
      {"wayland",
       {{"WAYLAND_DISPLAY", "wayland-0"}, {"XDG_RUNTIME_DIR", "/run/user/1"}},
       {"/run/user/1/wayland-0"},
       std::nullopt},
      {"wayland by path", {{"WAYLAND_DISPLAY", "/run/w"}}, {"/run/w"}, std::nullopt},
      {"stale wayland",
       {{"WAYLAND_DISPLAY", "wayland-0"}, {"XDG_RUNTIME_DIR", "/run/user/1"}},
       {},
       "not there"},
      {"stale wayland, live X",
       {{"WAYLAND_DISPLAY", "wayland-0"}, {"DISPLAY", ":0"}},
       {"/tmp/.X11-unix/X0"},
       std::nullopt},
      {"offscreen", {{"QT_QPA_PLATFORM", "offscreen"}}, {}, std::nullopt},
      {"a platform needing a server", {{"QT_QPA_PLATFORM", "xcb"}}, {}, "no display"},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    auto problem = linuxDisplayProblem(
        [&](const char* name) -> const char* {
          auto found = c.env.find(name);
          return found == c.env.end() ? nullptr : found->second.c_str();
        },
        [&](const std::string& path) { return c.existing.count(path) > 0; });
    ASSERT_EQ(problem.has_value(), c.problem.has_value()) << problem.value_or("");
    if (problem) {
      EXPECT_NE(problem->find(*c.problem), std::string::npos) << *problem;
      EXPECT_EQ(problem->find('\n'), std::string::npos);
    }
  }
}

}  // namespace
}  // namespace vistrel
