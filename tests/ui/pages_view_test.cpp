// The view models of the coding agents, sensors and share pages: what each shows for the data it
// is given, and what it says when there is none.

#include <gtest/gtest.h>

#include "format/platform_text.hpp"
#include "ui/agents_view.hpp"
#include "ui/sensors_view.hpp"
#include "ui/share_view.hpp"

namespace vistrel::ui {
namespace {

using std::chrono::hours;
using std::chrono::minutes;

const Date kNow = dateFromSeconds(1'700'000'000);

UsageWindow window(double used, std::optional<Date> resets, int64_t length) {
  return {used, resets, length};
}

TEST(PlanBars, PaceMarkLinesAndAttention) {
  struct Case {
    std::string label;
    UsageWindow window;
    std::optional<double> pace;
    Attention attention;
    std::string paceLine;
  } cases[] = {
      // Half of a 5-hour window gone with 30 % used: calm.
      {"on pace", window(30, kNow + minutes(150), 300), 0.5, Attention::none, "On pace"},
      // Half gone with 60 % used: at this pace it runs out before the reset.
      {"runs out", window(60, kNow + minutes(150), 300), 0.5, Attention::notice, ""},
      {"limit reached", window(100, kNow + minutes(150), 300), 0.5, Attention::trouble,
       "Limit reached"},
      {"no reset time", window(10, std::nullopt, 300), std::nullopt, Attention::none, "On pace"},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.label);
    PlanBar b = planBar("5-hour window", c.window, kNow);
    ASSERT_EQ(b.pace.has_value(), c.pace.has_value());
    if (c.pace) {
      EXPECT_NEAR(*b.pace, *c.pace, 1e-9);
    }
    EXPECT_EQ(b.attention, c.attention);
    if (c.paceLine.empty()) {
      EXPECT_EQ(b.paceLine.rfind("At this pace: runs out ", 0), 0u) << b.paceLine;
    } else {
      EXPECT_EQ(b.paceLine, c.paceLine);
    }
    EXPECT_LE(b.used, 1.0);
    EXPECT_EQ(b.resetLine, c.window.resetLine(kNow));
  }
}

TEST(AgentsPage, ColumnsAndTheStatusLineCard) {
  AgentsSnapshot a;
  a.claudeInstalled = true;
  a.codexInstalled = false;
  PlanUsage plan;
  plan.session = window(40, kNow + hours(2), 300);
  plan.weekly = window(150, kNow - hours(1), 10080);  // past its reset: rolled over to 0 %
  plan.spend = SpendLimit{24, std::nullopt, 12.4, 50, std::string("month")};
  a.claudePlan = plan;
  AgentCard live;
  live.tool = kClaudeCode;
  live.folder = "/home/u/code/x";
  live.live = true;
  live.working = true;
  live.model = "Opus 4.1";
  live.contextPercent = 42;
  live.contextSize = 200000;
  live.cost = 1.5;
  live.processCount = 3;
  AgentCard ended = live;
  ended.live = false;
  ended.lastActivity = kNow - hours(1);
  a.claude = {live, ended};
  a.claudeSessionsToday = 2;
  a.claudeTodayByModel = {{"Opus 4.1", 1200}};

  AgentsPageView v = agentsPageView(a, kNow, "/home/u");
  ASSERT_EQ(v.claude.windows.size(), 2u);
  EXPECT_EQ(v.claude.windows[1].percent, "0%");
  EXPECT_EQ(v.claude.spend, "Spend $12.40 of $50.00 · 24% used this month");
  EXPECT_EQ(v.claude.status, "1 live session");
  ASSERT_EQ(v.claude.sessions.size(), 2u);
  EXPECT_EQ(v.claude.sessions[0].state, "Busy");
  EXPECT_TRUE(v.claude.sessions[0].live);
  EXPECT_EQ(v.claude.sessions[0].subtitle, "~/code/x · Opus 4.1");
  EXPECT_EQ(v.claude.sessions[0].folder, "/home/u/code/x");
  EXPECT_FALSE(v.claude.sessions[1].live);
  EXPECT_EQ(v.claude.byModel.size(), 1u);
  EXPECT_EQ(v.codex.status, platformText("Not installed on this Mac"));
  EXPECT_TRUE(v.codex.windows.empty());

  struct Case {
    StatusLineState state;
    std::string text;
    std::string action;
    bool keepsYours;
  } cases[] = {
      {StatusLineState::notConnected(), "Not connected", "Connect", false},
      {StatusLineState::connected(), "Connected", "Disconnect", true},
      {StatusLineState::other("ccline"), "Your own status line is set: ccline", "Connect", true},
  };
  for (const auto& c : cases) {
    a.statusLine = c.state;
    StatusLineView s = agentsPageView(a, kNow, "/home/u").statusLine;
    EXPECT_EQ(s.state, c.text);
    EXPECT_EQ(s.action, c.action);
    EXPECT_EQ(!s.keepsYours.empty(), c.keepsYours);
  }
  EXPECT_EQ(connectedText("/s/claude-settings-backup-1.json"),
            "Connected. Claude Code sends its limits after its next reply in any session (Pro "
            "and Max plans). Your settings were backed up first to "
            "/s/claude-settings-backup-1.json.");
}

TEST(SensorSections, SayPlainlyWhatThisMachineLacks) {
  Snapshot none;
  for (const SensorSection& s : sensorSections(none)) {
    SCOPED_TRACE(s.title);
    EXPECT_TRUE(s.rows.empty());
    EXPECT_FALSE(s.empty.empty());
  }

  Snapshot s;
  s.sensors.cpu = 96;
  s.sensors.gpu = 50;
  s.sensors.fans = {{2000, 1000, 5000}};
  s.power.system = 12.5;
  s.battery.present = true;
  s.battery.percent = 8;
  s.battery.cycles = 1234;
  s.bluetooth = {{"Keyboard", 55}};
  s.audio = {{10, "Recorder", std::nullopt, false, true}};
  auto sections = sensorSections(s);
  ASSERT_EQ(sections.size(), 6u);
  EXPECT_EQ(sections[0].rows.size(), 2u);
  EXPECT_EQ(sections[0].rows[0].attention, Attention::trouble);  // 96 °C
  EXPECT_EQ(sections[0].rows[1].attention, Attention::none);
  EXPECT_NEAR(sections[1].rows[0].level, 0.25, 1e-9);  // 2000 rpm in 1000...5000
  EXPECT_EQ(sections[2].rows.size(), 1u);
  EXPECT_EQ(sections[3].rows[0].attention, Attention::trouble);  // 8 % on battery
  EXPECT_EQ(sections[3].rows[0].note, "on battery");
  EXPECT_EQ(sections[4].rows[0].label, "Keyboard");
  EXPECT_EQ(sections[5].rows[0].value, "recording");
  EXPECT_EQ(sections[5].rows[0].attention, Attention::notice);
}

TEST(ShareCard, CountsOnlyTodaysBusyTimeAndAlerts) {
  const Date dayStart = kNow - hours(10);
  const auto t = [&](Date d) { return static_cast<int64_t>(secondsSince1970(d)); };
  std::vector<HistoryPoint> cpu = {
      {t(dayStart - hours(1)), 90, 95},  // yesterday: not counted
      {t(dayStart + hours(1)), 75, 80},  // busy
      {t(dayStart + hours(2)), 50, 60},  // exactly half: busy
      {t(dayStart + hours(3)), 20, 30},  // calm
  };
  AgentsSnapshot agents;
  agents.claudeToday = {1000, 500, 0, 90000};
  agents.codexToday = {200, 300, 0, 0};
  AlertEvent old, fresh;
  old.date = dayStart - hours(2);
  fresh.date = dayStart + hours(2);
  std::vector<AppHistory> top = {{"a", "Editor", 120, {}},
                                 {"b", "Browser", 40, {}},
                                 {"c", "Mail", 5, {}},
                                 {"d", "Music", 1, {}}};
  ShareCardView v = shareCardView(cpu, 300, top, agents, {fresh, old}, dayStart, kNow);
  EXPECT_EQ(v.busy, "10 min");
  EXPECT_EQ(v.alerts, "1");
  EXPECT_EQ(v.alertsNote, "alert");
  EXPECT_EQ(v.apps.size(), 3u);
  EXPECT_EQ(v.apps[0].label, "Editor");
  EXPECT_EQ(v.apps[0].value, "120% CPU");
  EXPECT_EQ(v.tokens, "2,000");
  EXPECT_EQ(shareCardView({}, 300, {}, {}, {}, dayStart, kNow).busy, "0 min");
}

}  // namespace
}  // namespace vistrel::ui
