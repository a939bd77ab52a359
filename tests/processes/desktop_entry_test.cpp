#include "processes/desktop_entry.hpp"

#include <gtest/gtest.h>
#include <stdlib.h>
#include <unistd.h>

#include <fstream>
#include <string>
#include <vector>

#include "format/platform_text.hpp"
#include "processes/app_bundles.hpp"

namespace vistrel {
namespace {

struct EntryCase {
  const char* what;
  std::string text;
  std::optional<DesktopEntry> expected;
};

DesktopEntry entry(std::optional<std::string> name, bool noDisplay = false) {
  return DesktopEntry{std::move(name), noDisplay};
}

TEST(DesktopEntryTest, Parse) {
  const std::vector<EntryCase> cases = {
      {"typical", "[Desktop Entry]\nType=Application\nName=Terminal\nExec=gnome-terminal\n",
       entry("Terminal")},
      {"localised names ignored whatever their order",
       "[Desktop Entry]\nName[de]=Terminal DE\nName=Terminal\nName[fr]=Terminal FR\n",
       entry("Terminal")},
      {"action groups' names ignored",
       "[Desktop Entry]\nExec=x\n[Desktop Action new]\nName=New Window\nNoDisplay=true\n",
       entry(std::nullopt)},
      {"keys before the group ignored", "Name=Stray\n[Desktop Entry]\nName=Real\n", entry("Real")},
      {"other group first", "[Other]\nName=No\n[Desktop Entry]\nName=Yes\n", entry("Yes")},
      {"repeated group: the first counts", "[Desktop Entry]\nName=A\n[Desktop Entry]\nName=B\n",
       entry("A")},
      {"first key wins", "[Desktop Entry]\nName=A\nName=B\n", entry("A")},
      {"blanks around the equals sign and CRLF", "[Desktop Entry]\r\n  Name =  Files  \r\n",
       entry("Files")},
      {"escapes", "[Desktop Entry]\nName=A\\sB\\\\C\\tD\\q\\\n", entry("A B\\C\tD\\q\\")},
      {"comments and junk lines", "# Name=No\n[Desktop Entry]\n#Name=No\njunk\n=x\nName=Yes",
       entry("Yes")},
      {"empty name", "[Desktop Entry]\nName=\n", entry("")},
      {"no display", "[Desktop Entry]\nName=Portal\nNoDisplay=true\n", entry("Portal", true)},
      {"no display false", "[Desktop Entry]\nNoDisplay=false\n", entry(std::nullopt)},
      {"no display not a boolean", "[Desktop Entry]\nNoDisplay=yes\n", entry(std::nullopt)},
      {"no display: first key wins", "[Desktop Entry]\nNoDisplay=false\nNoDisplay=true\n",
       entry(std::nullopt)},
      {"group name must match exactly", "[desktop entry]\nName=X\n", std::nullopt},
      {"unterminated group header", "[Desktop Entry\nName=X\n", std::nullopt},
      {"empty", "", std::nullopt},
      {"cut short inside the group", "[Desktop Entry]\nNam", entry(std::nullopt)},
      {"zero bytes", std::string("[Desktop Entry]\nName=A\0B\n", 25),
       entry(std::string("A\0B", 3))},
  };
  for (const auto& c : cases) {
    EXPECT_EQ(parseDesktopEntry(c.text), c.expected) << c.what;
  }
}

TEST(DesktopEntryTest, AppId) {
  const std::vector<std::pair<std::string, std::string>> cases = {
      {"/usr/share/applications/org.gnome.Terminal.desktop", "org.gnome.Terminal"},
      {"firefox.desktop", "firefox"},
      {"/usr/share/applications/.desktop", ".desktop"},
      {"/opt/app/tool", "tool"},
      {"/opt/x.desktop.bak", "x.desktop.bak"},
      {"", ""},
      {"/", ""},
  };
  for (const auto& [path, expected] : cases) EXPECT_EQ(desktopAppId(path), expected) << path;
}

// The platform's AppBundles on Linux, over real files in a temporary folder.
class LinuxAppBundlesTest : public ::testing::Test {
 protected:
  void SetUp() override {
    if (!runningOnLinux()) GTEST_SKIP() << "desktop entries are the Linux app model";
    char pattern[] = "/tmp/vistrel-desktop-XXXXXX";
    ASSERT_NE(::mkdtemp(pattern), nullptr);
    folder_ = pattern;
  }
  void TearDown() override {
    for (const auto& file : files_) ::unlink(file.c_str());
    if (!folder_.empty()) ::rmdir(folder_.c_str());
  }
  std::string write(const std::string& name, const std::string& text) {
    std::string path = folder_ + "/" + name;
    std::ofstream(path) << text;
    files_.push_back(path);
    return path;
  }
  std::string folder_;
  std::vector<std::string> files_;
};

TEST_F(LinuxAppBundlesTest, NamesIdsAndSystemApps) {
  auto bundles = makeAppBundles();
  const std::string terminal =
      write("org.gnome.Terminal.desktop", "[Desktop Entry]\nName[de]=Terminal DE\nName=Terminal\n");
  const std::string portal =
      write("xdg-desktop-portal-gnome.desktop", "[Desktop Entry]\nName=Portal\nNoDisplay=true\n");
  const std::string nameless = write("org.example.Tool.desktop", "[Desktop Entry]\nName=\n");
  const std::string garbage = write("junk.desktop", std::string("\0\xff\n[", 4));
  const std::string missing = folder_ + "/gone.desktop";

  struct Case {
    std::string path;
    std::string name;
    std::optional<std::string> id;
    bool system;
  };
  const std::vector<Case> cases = {
      {terminal, "Terminal", "org.gnome.Terminal", false},
      {portal, "Portal", "xdg-desktop-portal-gnome", true},
      {nameless, "org.example.Tool", "org.example.Tool", false},
      {garbage, "junk", "junk", false},
      {missing, "gone", "gone", false},
      {"/", "/", std::nullopt, false},
  };
  for (const auto& c : cases) {
    EXPECT_EQ(bundles->displayName(c.path), c.name) << c.path;
    EXPECT_EQ(bundles->identifier(c.path), c.id) << c.path;
    EXPECT_EQ(bundles->isSystemApp(c.path), c.system) << c.path;
  }
}

}  // namespace
}  // namespace vistrel
