// The arithmetic of plan windows and token totals that every agents page and answer relies on.

#include "agents/agent_records.hpp"

#include <gtest/gtest.h>
#include <stdlib.h>
#include <time.h>

#include <chrono>
#include <cstdint>
#include <limits>

#include "format/fmt.hpp"

namespace vistrel {
namespace {

using std::chrono::hours;
using std::chrono::minutes;

const Date kNow = Date(std::chrono::seconds(1'738'317'600));  // 2025-01-31 10:00 UTC

UsageWindow window(double used, std::optional<Date> resets, std::optional<int64_t> length) {
  UsageWindow w;
  w.usedPercent = used;
  w.resetsAt = resets;
  w.windowMinutes = length;
  return w;
}

TEST(UsageWindow, RunsOutOnlyWhenThePaceEndsItBeforeTheReset) {
  struct Case {
    const char* name;
    UsageWindow w;
    std::optional<Date> expected;
  } cases[] = {
      // 150 of 300 minutes gone, 60 % used: 100 % at 250 minutes, 100 minutes from now.
      {"half gone, ahead of pace", window(60, kNow + minutes(150), 300), kNow + minutes(100)},
      {"4 % of the window gone is too early", window(50, kNow + minutes(288), 300), std::nullopt},
      {"exactly 1 % used is too little", window(1.0, kNow + minutes(150), 300), std::nullopt},
      {"on pace lasts until the reset", window(50, kNow + minutes(150), 300), std::nullopt},
      {"no reset time", window(60, std::nullopt, 300), std::nullopt},
      {"no length", window(60, kNow + minutes(150), std::nullopt), std::nullopt},
      {"a length under a minute", window(60, kNow + minutes(150), 0), std::nullopt},
      {"an absurd length stays in range",
       window(50, kNow + hours(1), std::numeric_limits<int64_t>::max()), std::nullopt},
      {"a reset far beyond the window", window(90, kNow + hours(24 * 365 * 200), 300),
       std::nullopt},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.name);
    EXPECT_EQ(c.w.runsOut(kNow), c.expected);
  }
}

TEST(UsageWindow, PaceAndResetLines) {
  // "Today" is the local calendar day: fixed to UTC so that 10:00 + 5 h is the same day.
  ::setenv("TZ", "UTC", 1);
  ::tzset();
  const Date resets = kNow + minutes(150);
  struct Case {
    const char* name;
    UsageWindow w;
    std::string pace;
    std::string reset;
  } cases[] = {
      {"limit reached whatever the pace", window(100, resets, 300), "Limit reached",
       "Resets " + Fmt::clock(resets) + " · in " + Fmt::duration(150 * 60)},
      {"over the limit", window(130, std::nullopt, std::nullopt), "Limit reached",
       "Reset time not reported"},
      {"runs out before the reset", window(60, resets, 300),
       "At this pace: runs out " + Fmt::clock(kNow + minutes(100)),
       "Resets " + Fmt::clock(resets) + " · in " + Fmt::duration(150 * 60)},
      // 4 % gone and 12 % used: ahead, but by less than ten points.
      {"ahead by under ten points", window(12, kNow + minutes(288), 300), "On pace",
       "Resets " + Fmt::clock(kNow + minutes(288)) + " · in " + Fmt::duration(288 * 60)},
      // 4 % gone (too early to extrapolate) and 20 % used: ten points ahead and more.
      {"ahead of pace before it can extrapolate", window(20, kNow + minutes(288), 300),
       "Ahead of pace, still lasts",
       "Resets " + Fmt::clock(kNow + minutes(288)) + " · in " + Fmt::duration(288 * 60)},
      {"reset time passed", window(10, kNow - minutes(1), 300), "On pace",
       "Reset at " + Fmt::clock(kNow - minutes(1))},
      {"reset on another day", window(10, kNow + hours(72), 10080), "On pace",
       "Resets " + Fmt::dayTime(kNow + hours(72)) + " · in " + Fmt::duration(72 * 3600)},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.name);
    EXPECT_EQ(c.w.paceLine(kNow), c.pace);
    EXPECT_EQ(c.w.resetLine(kNow), c.reset);
  }
}

TEST(UsageWindow, AWindowPastItsResetHasRolledOver) {
  for (Date resets : {kNow, kNow - hours(1)}) {
    EXPECT_EQ(window(80, resets, 300).current(kNow), window(0, std::nullopt, 300));
  }
  const UsageWindow running = window(80, kNow + minutes(1), 300);
  EXPECT_EQ(running.current(kNow), running);
}

TEST(TokenTotals, FreshLeavesCacheReadsOut) {
  TokenTotals t{10, 20, 30, 1000};
  EXPECT_EQ(t.fresh(), 60);
  EXPECT_EQ(t.total(), 1060);
  EXPECT_EQ(t + t, (TokenTotals{20, 40, 60, 2000}));
}

TEST(TokenTotalsDeathTest, AnOverflowStopsTheProcess) {
  TokenTotals big{std::numeric_limits<int64_t>::max(), 0, 0, 0};
  EXPECT_DEATH((void)(big + TokenTotals{1, 0, 0, 0}), "overflow");
}

TEST(LatestPlan, TheLatestReportWinsAndTheFirstAmongEquals) {
  PlanUsage early, late, lateToo;
  early.updated = kNow - hours(1);
  early.session = window(10, std::nullopt, 300);
  late.updated = kNow;
  late.session = window(20, std::nullopt, 300);
  lateToo.updated = kNow;
  lateToo.session = window(30, std::nullopt, 300);
  EXPECT_EQ(latestPlan({std::nullopt, late, early, lateToo}), late);
  EXPECT_EQ(latestPlan({early, std::nullopt}), early);
  EXPECT_EQ(latestPlan({std::nullopt}), std::nullopt);
}

TEST(AgentCard, FolderNames) {
  struct Case {
    std::optional<std::string> folder;
    std::string shortFolder;
    std::string project;
  } cases[] = {
      {"/home/ada", "~", "ada"},
      {"/home/ada/code/x", "~/code/x", "x"},
      {"/home/adam/code", "/home/adam/code", "code"},
      {"/tmp/x", "/tmp/x", "x"},
      {std::nullopt, "", "Unknown folder"},
  };
  for (const auto& c : cases) {
    AgentCard card;
    card.folder = c.folder;
    EXPECT_EQ(card.shortFolder("/home/ada"), c.shortFolder);
    EXPECT_EQ(card.project(), c.project);
  }
}

}  // namespace
}  // namespace vistrel
