// What the pages show for a given Snapshot and history answer, without pixels.

#include "ui/views.hpp"

#include <gtest/gtest.h>
#include <stdio.h>

#include <chrono>
#include <functional>
#include <string>

#include "format/fmt.hpp"

namespace vistrel::ui {
namespace {

Snapshot machine() {
  Snapshot s;
  s.cpu.total = 0.2;
  s.cpu.user = 0.15;
  s.cpu.system = 0.05;
  s.cpu.cores = {0.1, 0.3};
  s.memory.total = 16ull << 30;
  s.memory.app = 4ull << 30;
  s.memory.wired = 2ull << 30;
  s.memory.compressed = 1ull << 30;
  s.memory.cached = 3ull << 30;
  s.memory.free = 9ull << 30;  // as the reader gives it: all but apps, wired and compressed
  s.disk.volumes = {{"Data", "/", 500'000'000'000, 200'000'000'000, true}};
  s.network.inRate = 1500;
  s.network.interface = "Wi-Fi";
  AppUsage a;
  a.name = "Editor";
  a.cpu = 12;
  a.memory = 300ull << 20;
  AppUsage b;
  b.name = "Browser";
  b.cpu = 40;
  b.memory = 900ull << 20;
  b.netIn = 1000;
  AppUsage idle;
  idle.name = "Idle";
  s.apps = {b, a, idle};
  return s;
}

// Each case changes the sample and names what its glance must say.
TEST(Views, GlanceStates) {
  struct Case {
    const char* name;
    Metric metric;
    std::function<void(Snapshot&)> change;
    std::string value;
    std::string note;  // "" to leave unchecked
    Attention attention;
    bool available = true;
  } cases[] = {
      {"calm cpu", Metric::cpu, [](Snapshot&) {}, "20%", "", Attention::none},
      {"busy cpu", Metric::cpu, [](Snapshot& s) { s.cpu.total = 0.8; }, "80%", "",
       Attention::notice},
      {"cpu at its limit", Metric::cpu, [](Snapshot& s) { s.cpu.total = 0.95; }, "95%", "",
       Attention::trouble},
      {"memory pressure", Metric::memory,
       [](Snapshot& s) { s.memory.pressure = Pressure::warning; }, "7.00 GB", "pressure high",
       Attention::notice},
      {"no battery", Metric::battery, [](Snapshot&) {}, "No battery", "", Attention::none, false},
      {"low battery unplugged", Metric::battery,
       [](Snapshot& s) {
         s.battery.present = true;
         s.battery.percent = 8;
       },
       "8%", "very low", Attention::trouble},
      {"low battery charging", Metric::battery,
       [](Snapshot& s) {
         s.battery.present = true;
         s.battery.percent = 8;
         s.battery.pluggedIn = true;
         s.battery.charging = true;
       },
       "8%", "charging", Attention::none},
      {"no sensors", Metric::heat, [](Snapshot&) {}, "No sensors", "", Attention::none, false},
      {"hot", Metric::heat, [](Snapshot& s) { s.sensors.cpu = 99; }, "99°", "Very high",
       Attention::trouble},
      {"little space left", Metric::disk,
       [](Snapshot& s) { s.disk.volumes[0].free = 10'000'000'000; }, "0 B/s", "10.0 GB free, low",
       Attention::trouble},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    Snapshot s = machine();
    c.change(s);
    MetricGlance g = glance(c.metric, s);
    EXPECT_EQ(g.value, c.value);
    if (!c.note.empty()) {
      EXPECT_EQ(g.note, c.note);
    }
    EXPECT_EQ(g.attention, c.attention);
    EXPECT_EQ(g.available, c.available);
    // Attention is never colour alone: a word goes with it, in the note or from attentionWord.
    if (g.attention != Attention::none) {
      EXPECT_FALSE(g.note.empty());
    }
  }
}

// The bits and Fahrenheit settings reach every page through Fmt.
TEST(Views, UnitSettingsHold) {
  Snapshot s = machine();
  s.sensors.cpu = 50;
  Fmt::setBits(true);
  Fmt::setFahrenheit(true);
  EXPECT_EQ(glance(Metric::network, s).value, "12 Kb/s");
  EXPECT_EQ(glance(Metric::heat, s).value, "122°F");
  MetricPageView v = metricPageView(Metric::network, s, {});
  EXPECT_EQ(v.facts[0].value, "12 Kb/s");
  Fmt::setBits(false);
  Fmt::setFahrenheit(false);
  EXPECT_EQ(glance(Metric::network, s).value, "2 KB/s");
}

TEST(Views, MetricPageDetails) {
  Snapshot s = machine();
  std::deque<double> live = {0.1, 0.2, 1.5};  // a level above 1 is drawn at full scale
  MetricPageView cpu = metricPageView(Metric::cpu, s, live);
  EXPECT_EQ(cpu.cores, s.cpu.cores);
  EXPECT_EQ(cpu.live.levels, (std::vector<double>{0.1, 0.2, 1.0}));
  EXPECT_EQ(cpu.live.top, "100%");

  MetricPageView memory = metricPageView(Metric::memory, s, live);
  ASSERT_EQ(memory.breakdown.size(), 5u);
  double total = 0;
  for (const Segment& seg : memory.breakdown) total += seg.share;
  EXPECT_NEAR(total, 1.0, 1e-9);
  EXPECT_EQ(memory.breakdown[0].value, "4.00 GB");
  EXPECT_EQ(memory.breakdown[4].value, "6.00 GB");  // the cache is not counted twice

  MetricPageView disk = metricPageView(Metric::disk, s, {});
  ASSERT_EQ(disk.volumes.size(), 1u);
  EXPECT_EQ(disk.volumes[0].free, "200 GB free of 500 GB");
  EXPECT_NEAR(disk.volumes[0].used, 0.6, 1e-9);

  // Without a source the page says so, and draws no flat line pretending to be data.
  for (Metric m : {Metric::battery, Metric::heat}) {
    MetricPageView none = metricPageView(m, s, live);
    EXPECT_FALSE(none.emptyState.empty());
    EXPECT_TRUE(none.live.levels.empty());
  }

  // Rate charts scale to a round figure above what the window holds.
  std::deque<double> net = {0.5};  // half of the network's full scale: 25 MB/s
  MetricPageView n = metricPageView(Metric::network, s, net);
  EXPECT_EQ(n.live.top, "50.0 MB/s");
  EXPECT_DOUBLE_EQ(n.live.levels[0], 0.5);
}

TEST(Views, NiceCeiling) {
  struct Case {
    double in, out;
  } cases[] = {{0, 1},  {-3, 1},      {1, 1},       {1.2, 2},     {2, 2},    {3, 5},
               {7, 10}, {1000, 1000}, {1001, 2000}, {2.5e7, 5e7}, {9e8, 1e9}};
  for (const Case& c : cases) EXPECT_DOUBLE_EQ(niceCeiling(c.in), c.out) << c.in;
}

TEST(Views, BusiestAppsForAMetric) {
  Snapshot s = machine();
  auto cpu = busiestFor(Metric::cpu, s, 5);
  ASSERT_EQ(cpu.size(), 2u);  // an app using none of it is left out
  EXPECT_EQ(cpu[0].label, "Browser");
  EXPECT_EQ(cpu[1].label, "Editor");
  auto net = busiestFor(Metric::network, s, 5);
  ASSERT_EQ(net.size(), 1u);
  EXPECT_EQ(net[0].value, "1 KB/s");
  EXPECT_EQ(busiestFor(Metric::memory, s, 1).size(), 1u);
}

TEST(Views, HistoryPlacesEachPointInItsBar) {
  const int64_t now = 1'700'000'000;
  const Date nowDate{std::chrono::seconds(now)};
  const int64_t first = (now - 3600) / 60 * 60;
  std::vector<HistoryPoint> points = {
      {first, 10, 20},          // the first bar
      {first + 600, 50, 93},    // the peak
      {now / 60 * 60, 30, 30},  // the last bar, the minute under way
      {first - 600, 99, 99},    // before the span: ignored
  };
  std::vector<AppHistory> apps = {{"id", "Editor", 12, {}}};
  HistoryView v = historyView(Metric::cpu, TimeSpan::hour, points, apps, 0, nowDate);
  ASSERT_EQ(v.chart.levels.size(), 61u);
  EXPECT_DOUBLE_EQ(v.chart.levels[0], 0.1);
  EXPECT_DOUBLE_EQ(v.chart.peaks[0], 0.2);
  EXPECT_DOUBLE_EQ(v.chart.levels[10], 0.5);
  EXPECT_DOUBLE_EQ(v.chart.levels[5], 0);  // nothing recorded: a gap, not an invented value
  EXPECT_DOUBLE_EQ(v.chart.levels.back(), 0.3);
  EXPECT_EQ(v.chart.top, "100%");
  EXPECT_EQ(v.peak.rfind("Peak 93% at ", 0), 0u) << v.peak;
  EXPECT_EQ(v.caption, "each bar 1 minute");
  ASSERT_EQ(v.apps.size(), 1u);
  EXPECT_EQ(v.apps[0].value, "12%");
  EXPECT_TRUE(v.empty.empty());

  // Memory is scaled to the machine's memory; rates to a round figure above the peak.
  HistoryView mem =
      historyView(Metric::memory, TimeSpan::day, {{now, 8.0 * (1 << 30), 8.0 * (1 << 30)}}, {},
                  16ull << 30, nowDate);
  EXPECT_DOUBLE_EQ(mem.chart.levels.back(), 0.5);
  HistoryView net = historyView(Metric::network, TimeSpan::week, {{now, 3e6, 7e6}}, {}, 0, nowDate);
  EXPECT_EQ(net.chart.top, "10.0 MB/s");

  // Nothing in the span (none at all, or only older rows) is said, not drawn as zeros.
  for (const auto& none :
       {std::vector<HistoryPoint>{}, std::vector<HistoryPoint>{{first - 600, 9, 9}}}) {
    HistoryView empty = historyView(Metric::cpu, TimeSpan::hour, none, {}, 0, nowDate);
    EXPECT_FALSE(empty.empty.empty());
    EXPECT_TRUE(empty.chart.levels.empty());
  }
}

TEST(Views, OverviewBeforeAndAfterTheFirstSample) {
  const Date now{std::chrono::seconds(1'700'000'000)};
  OverviewView waiting = overviewView(std::nullopt, {}, {}, now);
  EXPECT_EQ(waiting.mood.title, "Reading the machine");
  EXPECT_TRUE(waiting.metrics.empty());

  Snapshot s = machine();
  s.cpu.total = 0.95;
  AgentSession session;
  session.tool = "Claude Code";
  session.folder = "/home/me/code/vistrel/";
  session.working = true;
  s.agents = {session};
  AgentsSnapshot agents;
  PlanUsage plan;
  plan.session = UsageWindow{97, std::nullopt, 300};
  plan.weekly = UsageWindow{41, std::nullopt, 10080};
  agents.claudePlan = plan;
  std::vector<AlertEvent> alerts(5);
  for (size_t i = 0; i < alerts.size(); ++i) {
    alerts[i].title = "alert " + std::to_string(i);
    alerts[i].date = now - std::chrono::minutes(5);
  }
  OverviewView v = overviewView(s, agents, alerts, now);
  EXPECT_EQ(v.mood.title, "Under strain");
  EXPECT_EQ(v.mood.attention, Attention::trouble);
  EXPECT_NE(v.mood.sentence.find("Browser"), std::string::npos) << v.mood.sentence;
  EXPECT_EQ(v.metrics.size(), kAllMetrics.size());
  ASSERT_EQ(v.sessions.size(), 1u);
  EXPECT_EQ(v.sessions[0].folder, "vistrel");
  EXPECT_EQ(v.sessions[0].state, "working");
  ASSERT_EQ(v.plans.size(), 1u);
  EXPECT_EQ(v.plans[0].text, "session 97% · week 41%");
  EXPECT_EQ(v.plans[0].attention, Attention::trouble);
  ASSERT_EQ(v.alerts.size(), 3u);  // the newest three
  EXPECT_EQ(v.alerts[0].title, "alert 0");
  EXPECT_EQ(v.alerts[0].when, "5 min ago");
}

// The commands people paste must reach the executable intact, whatever its path holds.
TEST(Views, AgentCommandsSurviveTheShell) {
  for (std::string path : {std::string("/usr/bin/vistrel"),
                           std::string("/Applications/My Apps/Vistrel.app/Contents/MacOS/Vistrel"),
                           std::string("/tmp/it's \"here\"/vistrel")}) {
    SCOPED_TRACE(path);
    auto commands = agentCommands(path);
    ASSERT_EQ(commands.size(), 3u);
    EXPECT_EQ(commands[0].text.rfind("claude mcp add vistrel -- ", 0), 0u);
    EXPECT_TRUE(commands[0].text.ends_with(" --mcp"));
    // Let a real shell split the word back.
    std::string word = shellWord(path);
    FILE* sh = ::popen(("printf '%s' " + word).c_str(), "r");
    ASSERT_NE(sh, nullptr);
    char buffer[512];
    size_t n = fread(buffer, 1, sizeof buffer, sh);
    ::pclose(sh);
    EXPECT_EQ(std::string(buffer, n), path);
    // The Cursor entry is JSON holding the same path.
    auto json = nlohmann::json::parse(commands[2].text);
    EXPECT_EQ(json["mcpServers"]["vistrel"]["command"], path);
    EXPECT_EQ(json["mcpServers"]["vistrel"]["args"][0], "--mcp");
  }
}

TEST(Views, SettingsTexts) {
  struct Case {
    double seconds;
    const char* text;
  } intervals[] = {{1, "1 second"}, {2, "2 seconds"}, {60, "1 minute"}, {120, "2 minutes"}};
  for (const Case& c : intervals) EXPECT_EQ(intervalTitle(c.seconds), c.text);
  EXPECT_EQ(retentionTitle(90), "90 days");
  EXPECT_EQ(retentionTitle(365), "1 year");
  EXPECT_EQ(retentionTitle(3650), "10 years");
  EXPECT_EQ(historySizeText(5'000'000, std::nullopt), "Nothing recorded yet.");
  EXPECT_EQ(historySizeText(12'000'000, 1'700'000'000).rfind("12 MB on disk, since ", 0), 0u);
}

}  // namespace
}  // namespace vistrel::ui
