// Where the window opens and what the developer hooks ask for.

#include "ui/shell_state.hpp"

#include <gtest/gtest.h>

#include <stdlib.h>

#include <filesystem>
#include <fstream>
#include <map>

#include "base/files.hpp"
#include "ui/login_item.hpp"

namespace vistrel::ui {
namespace {

TEST(ShellState, RestoredFrame) {
  const Frame screen{0, 25, 1920, 1055};
  const Frame centred{(1920 - 1180) / 2, 25 + (1055 - 780) / 2, 1180, 780};
  struct Case {
    const char* name;
    std::optional<Frame> saved;
    Frame expected;
  } cases[] = {
      {"first launch", std::nullopt, centred},
      {"smaller than the minimum", Frame{10, 10, 900, 600}, centred},
      {"too narrow only", Frame{10, 10, 1000, 900}, centred},
      {"too low only", Frame{10, 10, 1300, 650}, centred},
      {"the minimum itself", Frame{10, 10, 1040, 700}, Frame{10, 10, 1040, 700}},
      {"a larger frame", Frame{200, 100, 1400, 900}, Frame{200, 100, 1400, 900}},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    EXPECT_EQ(restoredFrame(c.saved, screen), c.expected);
  }
}

TEST(ShellState, StoredFrameIsCheckedBeforeUse) {
  using nlohmann::json;
  EXPECT_EQ(frameFromJson(frameToJson({1, 2, 1200, 800})), (Frame{1, 2, 1200, 800}));
  for (const json& bad :
       {json(nullptr), json("1180x780"), json::array({1, 2, 3}), json::array({1, 2, 3, 4, 5}),
        json::array({1, 2, "wide", 800}), json::array({1, 2, 0, 800}), json::array({1, 2, -5, 800}),
        json::array({1, 2, 1e300, 800})}) {
    EXPECT_FALSE(frameFromJson(bad)) << bad.dump();
  }
}

TEST(ShellState, ParseHookValues) {
  EXPECT_EQ(parseSize("1180x780"), (std::pair{1180, 780}));
  EXPECT_EQ(parseSize("800,600"), (std::pair{800, 600}));
  for (const char* bad :
       {"", "1180", "1180x", "x780", "1180xx780", "0x780", "-1x780", "wide", "1180x780px"}) {
    EXPECT_FALSE(parseSize(bad)) << bad;
  }
  EXPECT_EQ(parseSeconds("7"), 7.0);
  EXPECT_EQ(parseSeconds("0.5"), 0.5);
  for (const char* bad : {"", "-1", "soon", "3s", "inf", "nan"}) {
    EXPECT_FALSE(parseSeconds(bad)) << bad;
  }
}

TEST(ShellState, ShowTargets) {
  struct Case {
    const char* value;
    std::optional<Page> page;  // nullopt: the value is refused
    bool welcome = false;
    std::optional<TimeSpan> span = std::nullopt;
    bool hidden = false;
  } cases[] = {
      {"", Page::overview},
      {"overview", Page::overview},
      {"settings", Page::settings},
      {"agents", Page::agents},
      {"heat", Page::heat},
      {"welcome", Page::overview, true},
      {"quit", Page::apps},
      {"cpu:day", Page::cpu, false, TimeSpan::day},
      {"network:year", Page::network, false, TimeSpan::year},
      {"hidden", Page::overview, false, std::nullopt, true},
      {"apps:day", std::nullopt},  // only metric pages have a history
      {"cpu:fortnight", std::nullopt},
      {"CPU", std::nullopt},
      {"nonsense", std::nullopt},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.value);
    auto t = showTarget(c.value);
    ASSERT_EQ(t.has_value(), c.page.has_value());
    if (!t) continue;
    EXPECT_EQ(t->page, *c.page);
    EXPECT_EQ(t->welcome, c.welcome);
    EXPECT_EQ(t->span, c.span);
    EXPECT_EQ(t->hidden, c.hidden);
  }
}

TEST(ShellState, DevHooksIgnoreWhatTheyCannotRead) {
  std::map<std::string, std::string> env = {{"VISTREL_SIZE", "huge"},
                                            {"VISTREL_SHOT_DELAY", "later"},
                                            {"VISTREL_THEME", "sepia"},
                                            {"VISTREL_SHOW", ""}};
  auto lookup = [&](const char* name) -> const char* {
    auto found = env.find(name);
    return found == env.end() ? nullptr : found->second.c_str();
  };
  DevHooks h = readDevHooks(lookup);
  EXPECT_FALSE(h.size);
  EXPECT_EQ(h.shotDelay, 7);
  EXPECT_FALSE(h.theme);
  EXPECT_EQ(h.show, "");  // set but empty: show the window on the overview
  EXPECT_FALSE(h.shot);
  EXPECT_FALSE(h.shotQuit);

  env = {{"VISTREL_SIZE", "1040x700"},
         {"VISTREL_SHOT_DELAY", "2.5"},
         {"VISTREL_THEME", "paper"},
         {"VISTREL_SHOT", "/tmp/x.png"},
         {"VISTREL_SHOT_QUIT", ""}};
  h = readDevHooks(lookup);
  EXPECT_EQ(h.size, (std::pair{1040, 700}));
  EXPECT_EQ(h.shotDelay, 2.5);
  EXPECT_EQ(h.theme, Appearance::paper);
  EXPECT_EQ(h.shot, "/tmp/x.png");
  EXPECT_TRUE(h.shotQuit);
  EXPECT_FALSE(h.show);
}

}  // namespace
}  // namespace vistrel::ui

namespace vistrel::ui {
namespace {

TEST(LoginItem, AutostartEntry) {
  EXPECT_EQ(autostartPath("", "/home/me"), "/home/me/.config/autostart/vistrel.desktop");
  EXPECT_EQ(autostartPath("/x/conf", "/home/me"), "/x/conf/autostart/vistrel.desktop");
  // A relative XDG_CONFIG_HOME is invalid by the specification and ignored.
  EXPECT_EQ(autostartPath("conf", "/home/me"), "/home/me/.config/autostart/vistrel.desktop");
  EXPECT_NE(autostartEntry("/usr/bin/vistrel").find("\nExec=/usr/bin/vistrel --login\n"),
            std::string::npos);
  EXPECT_NE(
      autostartEntry("/opt/my apps/vi$trel").find("\nExec=\"/opt/my apps/vi\\$trel\" --login\n"),
      std::string::npos);
}

#ifdef __linux__
TEST(LoginItem, LinuxEntryFollowsTheSwitch) {
  char tmpl[] = "/tmp/vistrel-login-XXXXXX";
  const std::string folder = ::mkdtemp(tmpl);
  ::setenv("XDG_CONFIG_HOME", folder.c_str(), 1);
  auto item = makeLoginItem("/usr/bin/vistrel");
  EXPECT_FALSE(item->enabled());
  EXPECT_FALSE(item->setEnabled(true));
  EXPECT_TRUE(item->enabled());
  EXPECT_TRUE(std::filesystem::exists(folder + "/autostart/vistrel.desktop"));
  EXPECT_FALSE(item->setEnabled(false));
  EXPECT_FALSE(item->enabled());
  EXPECT_FALSE(item->setEnabled(false));  // already off: nothing to do, no complaint

  // An entry the person edited is kept beside it before it is replaced, and again before removal.
  const std::string entry = folder + "/autostart/vistrel.desktop";
  std::ofstream(entry) << "[Desktop Entry]\nExec=/usr/bin/vistrel --mine\n";
  EXPECT_FALSE(item->setEnabled(true));
  EXPECT_EQ(readFile(entry + ".bak"), "[Desktop Entry]\nExec=/usr/bin/vistrel --mine\n");
  EXPECT_EQ(readFile(entry), autostartEntry("/usr/bin/vistrel"));
  std::ofstream(entry, std::ios::app) << "Hidden=true\n";
  EXPECT_FALSE(item->setEnabled(false));
  EXPECT_FALSE(std::filesystem::exists(entry));
  EXPECT_NE(readFile(entry + ".bak")->find("Hidden=true"), std::string::npos);

  // A folder that cannot be made: the refusal is said and the state stays off.
  std::filesystem::remove_all(folder + "/autostart");
  std::ofstream(folder + "/autostart") << "not a folder";
  auto refused = item->setEnabled(true);
  ASSERT_TRUE(refused);
  EXPECT_NE(refused->find("could not be written"), std::string::npos) << *refused;
  EXPECT_FALSE(item->enabled());
  ::unsetenv("XDG_CONFIG_HOME");
  std::filesystem::remove_all(folder);
}
#endif

}  // namespace
}  // namespace vistrel::ui
