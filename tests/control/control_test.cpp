#include "control/control.hpp"

#include <gtest/gtest.h>
#include <stdlib.h>

#include <cmath>
#include <filesystem>
#include <limits>
#include <memory>
#include <string>
#include <vector>

#include "agents/iso_date.hpp"
#include "control/quit_request.hpp"
#include "history/history_store.hpp"

namespace vistrel {
namespace {

using nlohmann::json;
using OJson = nlohmann::ordered_json;

constexpr uint32_t kMe = 501;
constexpr int32_t kVistrelPid = 4242;
constexpr double kNow = 1'700'000'000;  // 2023-11-14T22:13:20Z
const char* const kNotReportedText = "not reported yet";

std::vector<std::string> keysOf(const OJson& o) {
  std::vector<std::string> keys;
  for (auto it = o.begin(); it != o.end(); ++it) keys.push_back(it.key());
  return keys;
}

// A host made by hand. canQuit applies the real rules against the fake snapshot, as the model
// does, with a fixed own pid and user.
class FakeHost : public ControlHost {
 public:
  const std::optional<Snapshot>& latestSnapshot() override { return snapshot; }
  const std::vector<AlertEvent>& keptAlerts() override { return kept; }
  bool canQuit(const AppUsage& app) override {
    QuitContext context{kVistrelPid, kMe, [](const std::string&) { return false; }};
    return vistrel::canQuit(app, snapshot ? snapshot->processes : std::vector<ProcessSample>{},
                            context);
  }
  void confirmQuit(const AppUsage& app) override { filed.push_back(app); }
  HistoryStore* history() override { return store; }
  AgentsSnapshot agentsNow() override {
    ++agentsReads;
    return agents;
  }
  // As the application does: a sample on demand only while no Snapshot has arrived.
  std::optional<Snapshot> coldSnapshot() override {
    if (snapshot) return std::nullopt;
    ++coldReads;
    return cold;
  }

  std::optional<Snapshot> snapshot;
  std::vector<AlertEvent> kept;
  std::vector<AppUsage> filed;
  HistoryStore* store = nullptr;
  AgentsSnapshot agents;
  int agentsReads = 0;
  std::optional<Snapshot> cold;  // what a sample taken now would give; absent: no sampler
  int coldReads = 0;
};

// An app with its processes added to the snapshot, owned by `uid`.
AppUsage& addApp(Snapshot& s, const std::string& name, std::vector<int32_t> pids,
                 uint32_t uid = kMe) {
  AppUsage app;
  app.id = "id." + name;
  app.name = name;
  app.pids = pids;
  for (int32_t pid : pids) {
    ProcessSample p;
    p.pid = pid;
    p.ppid = pid == pids.front() ? 1 : pids.front();
    p.name = name + " process " + std::to_string(pid);
    p.uid = uid;
    s.processes.push_back(p);
  }
  s.apps.push_back(app);
  return s.apps.back();
}

class ControlTest : public ::testing::Test {
 protected:
  ControlTest() { host.snapshot = Snapshot{}; }

  // Runs a request the way the server does: off the main thread first, then on it.
  OJson ask(const std::string& tool, const json& args = json::object()) {
    auto off = control.answerOffMain(tool, args);
    std::string line = off ? *off : control.answerOnMain(tool, args);
    EXPECT_EQ(line.find('\n'), std::string::npos);
    return OJson::parse(line);
  }
  OJson result(const std::string& tool, const json& args = json::object()) {
    OJson answer = ask(tool, args);
    EXPECT_EQ(answer.value("ok", false), true) << answer.dump();
    return answer.contains("result") ? answer["result"] : OJson();
  }
  std::string error(const std::string& tool, const json& args = json::object()) {
    OJson answer = ask(tool, args);
    EXPECT_EQ(keysOf(answer), (std::vector<std::string>{"ok", "error"})) << answer.dump();
    EXPECT_EQ(answer.value("ok", true), false);
    return answer.value("error", std::string());
  }

  FakeHost host;
  ManualClock clock{1000, dateFromSeconds(kNow)};
  Control control{host, clock, false};
};

TEST_F(ControlTest, BadRequestsGiveTheirErrorAndChangeNothing) {
  addApp(*host.snapshot, "Safari", {10, 11});
  const double inf = std::numeric_limits<double>::infinity();
  struct Case {
    std::string tool;
    json args;
    std::string error;
  } cases[] = {
      {"frobnicate", json::object(), "Unknown tool frobnicate"},
      {"", json::object(), "Unknown tool "},
      {"Status", json::object(), "Unknown tool Status"},
      {"nope", json::array(), "Unknown tool nope"},  // the tool is judged before its arguments
      {"list_apps", json::array(), Control::kBadArgs},
      {"get_app", "Safari", Control::kBadArgs},
      {"history", 7, Control::kBadArgs},
      {"list_apps", {{"limit", "20"}}, Control::kBadLimit},
      {"list_apps", {{"limit", 2.5}}, Control::kBadLimit},
      {"list_apps", {{"limit", true}}, Control::kBadLimit},
      {"list_apps", {{"limit", json::array({1})}}, Control::kBadLimit},
      {"list_apps", {{"limit", inf}}, Control::kBadLimit},
      {"list_apps", {{"limit", std::nan("")}}, Control::kBadLimit},
      {"list_apps", {{"sort", 5}}, Control::kBadSort},
      {"list_apps", {{"sort", "name"}}, Control::kBadSort},
      {"alerts", {{"limit", "5"}}, Control::kBadLimit},
      {"get_app", json::object(), Control::kNeedName},
      {"get_app", {{"name", 42}}, Control::kNeedName},
      {"get_app", {{"name", "   "}}, Control::kNeedName},
      {"get_app", {{"name", ""}}, Control::kNeedName},
      {"get_app", {{"name", "Xcode"}}, Control::kNoMatch},
      {"quit_app", {{"name", json::object()}}, Control::kNeedName},
      {"quit_app", {{"name", ""}}, Control::kNeedName},
      {"quit_app", {{"name", "Xcode"}}, Control::kNoMatch},
      {"history", json::object(), Control::kBadMetric},
      {"history", {{"metric", 1}}, Control::kBadMetric},
      {"history", {{"metric", "temperature"}}, Control::kBadMetric},
      {"history", {{"metric", "cpu"}, {"span", "2h"}}, Control::kBadSpan},
      {"history", {{"metric", "cpu"}, {"span", 24}}, Control::kBadSpan},
      {"history", {{"metric", "cpu"}}, Control::kNoHistory},  // no store
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.tool + " " + c.args.dump());
    EXPECT_EQ(error(c.tool, c.args), c.error);
  }
  EXPECT_TRUE(host.filed.empty());
}

TEST_F(ControlTest, OnlyHistoryAndAgentsAreAnsweredOffTheMainThread) {
  for (const char* tool : {"status", "list_apps", "get_app", "alerts", "quit_app", "nope"}) {
    EXPECT_FALSE(control.answerOffMain(tool, json::object())) << tool;
  }
  EXPECT_TRUE(control.answerOffMain("agents", json::object()));
  EXPECT_TRUE(control.answerOffMain("history", {{"metric", "cpu"}}));
  // Should they reach the main thread anyway, they are answered the same.
  EXPECT_EQ(control.answerOnMain("agents", json::object()),
            *control.answerOffMain("agents", json::object()));
}

// The socket opens before the first Snapshot reaches the application: the first call is answered
// from a sample taken on demand, not with "no sample yet" or an empty list.
TEST_F(ControlTest, BeforeTheFirstSnapshotTheSnapshotToolsAnswerFromASampleTakenNow) {
  host.snapshot.reset();
  host.cold = Snapshot{};
  addApp(*host.cold, "Safari", {10, 11});
  struct Case {
    const char* tool;
    json args;
  } cases[] = {
      {"status", json::object()}, {"list_apps", {{"limit", 5}}}, {"get_app", {{"name", "saf"}}}};
  for (const auto& c : cases) {
    SCOPED_TRACE(c.tool);
    auto off = control.answerOffMain(c.tool, c.args);
    ASSERT_TRUE(off) << "answered on the connection's thread, without the main thread";
    OJson answer = OJson::parse(*off);
    EXPECT_EQ(answer["ok"], true) << *off;
  }
  EXPECT_EQ(result("list_apps")[0]["name"], "Safari");
  EXPECT_EQ(result("get_app", {{"name", "Safari"}})["process_list"].size(), 2u);
  // A bad argument is still refused, and quit_app never acts on a sample the window never saw.
  EXPECT_EQ(error("list_apps", {{"sort", "name"}}), Control::kBadSort);
  EXPECT_FALSE(control.answerOffMain("quit_app", {{"name", "Safari"}}));

  // No sampler at all: the main thread's answers.
  host.cold.reset();
  EXPECT_EQ(error("status"), Control::kNoSample);
  EXPECT_EQ(result("list_apps"), OJson::array());

  // Once a Snapshot has arrived, no sample is taken on demand.
  host.snapshot = Snapshot{};
  const int reads = host.coldReads;
  result("status");
  result("list_apps");
  EXPECT_EQ(host.coldReads, reads);
}

TEST_F(ControlTest, InvalidUTF8IsReplacedNotThrown) {
  addApp(*host.snapshot, "Bad\xff\xfeName", {10});
  OJson apps = result("list_apps");
  ASSERT_EQ(apps.size(), 1u);
  EXPECT_EQ(apps[0]["name"], "Bad\xEF\xBF\xBD\xEF\xBF\xBDName");
  EXPECT_EQ(error("\xc3\x28"), "Unknown tool \xEF\xBF\xBD(");
}

TEST_F(ControlTest, ListAppsLimits) {
  for (int i = 0; i < 120; ++i) addApp(*host.snapshot, "App " + std::to_string(i), {1000 + i});
  struct Case {
    json args;
    size_t count;
  } cases[] = {
      {json::object(), 15},
      {{{"limit", nullptr}}, 15},
      {{{"limit", 500}}, 100},
      {{{"limit", -3}}, 0},
      {{{"limit", std::numeric_limits<uint64_t>::max()}}, 100},
      {{{"limit", -1e300}}, 0},
      {{{"limit", 20.0}}, 20},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.args.dump());
    OJson apps = result("list_apps", c.args);
    ASSERT_EQ(apps.size(), c.count);
    for (size_t i = 0; i < apps.size(); ++i) EXPECT_EQ(apps[i]["name"], "App " + std::to_string(i));
  }
}

TEST_F(ControlTest, ListAppsSortsHighestFirstKeepingSnapshotOrderForTies) {
  Snapshot& s = *host.snapshot;
  // Snapshot order is impact order.
  AppUsage& a = addApp(s, "A", {1});
  a.impact = 50, a.cpu = 10, a.memory = 300, a.energy = 1, a.diskRead = 5, a.netOut = 9;
  AppUsage& b = addApp(s, "B", {2});
  b.impact = 40, b.cpu = 30, b.memory = 100, b.energy = 1, b.diskWrite = 50, b.netIn = 1;
  AppUsage& c = addApp(s, "C", {3});
  c.impact = 40, c.cpu = 20, c.memory = 200, c.energy = 3, c.diskRead = 20, c.diskWrite = 20;
  struct Case {
    json args;
    std::vector<std::string> order;
  } cases[] = {
      {json::object(), {"A", "B", "C"}},        {{{"sort", "impact"}}, {"A", "B", "C"}},
      {{{"sort", "cpu"}}, {"B", "C", "A"}},     {{{"sort", "memory"}}, {"A", "C", "B"}},
      {{{"sort", "energy"}}, {"C", "A", "B"}},  {{{"sort", "disk"}}, {"B", "C", "A"}},
      {{{"sort", "network"}}, {"A", "B", "C"}}, {{{"sort", "cpu"}, {"limit", 1}}, {"B"}},
  };
  for (const auto& cs : cases) {
    SCOPED_TRACE(cs.args.dump());
    std::vector<std::string> names;
    for (const auto& app : result("list_apps", cs.args)) names.push_back(app["name"]);
    EXPECT_EQ(names, cs.order);
  }
}

TEST_F(ControlTest, PerAppObjectKeysAndFormatting) {
  AppUsage& app = addApp(*host.snapshot, "Xcode", {10, 11, 12});
  app.cpu = 182.46;
  app.memory = uint64_t{3} << 30;  // 3 GiB
  app.energy = 12.25;
  host.snapshot->power.apps = 12.25;
  app.diskRead = 2.5e7;
  app.diskWrite = 1500;
  app.netIn = 2e8;
  app.netOut = 5e7;
  app.gpu = 0.1234;
  app.lean = Lean::memory;
  OJson o = result("list_apps")[0];
  EXPECT_EQ(keysOf(o), (std::vector<std::string>{"name", "cpu_percent_of_one_core", "memory_bytes",
                                                 "energy_watts", "disk_read_per_s",
                                                 "disk_write_per_s", "network_per_s", "gpu_percent",
                                                 "processes", "uses_most", "macos_system"}));
  // Rounded to one place (halves away from zero); the GPU share as a percentage; network both ways.
  EXPECT_DOUBLE_EQ(o["cpu_percent_of_one_core"].get<double>(), 182.5);
  EXPECT_DOUBLE_EQ(o["energy_watts"].get<double>(), 12.3);
  EXPECT_DOUBLE_EQ(o["gpu_percent"].get<double>(), 12.3);
  EXPECT_EQ(o["network_per_s"], "250 MB/s");
  EXPECT_EQ(o["processes"], 3);
  EXPECT_EQ(o["uses_most"], "memory");
}

TEST_F(ControlTest, GetAppFindsExactNameBeforeAnEarlierPartialMatch) {
  Snapshot& s = *host.snapshot;
  addApp(s, "Xcode Helper Tool", {10});
  addApp(s, "Xcode", {20, 21});
  addApp(s, "Safari Technology Preview", {30});
  addApp(s, "Safari", {40});
  addApp(s, "Mail", {50});
  struct Case {
    std::string query;
    std::string found;
  } cases[] = {
      {"xcode", "Xcode"},
      {"XCODE", "Xcode"},
      {"Xcode Helper", "Xcode Helper Tool"},
      {"safari", "Safari"},
      {"saf", "Safari Technology Preview"},  // no exact name: the first partial match
      {"  Mail\t", "Mail"},
      {"ail", "Mail"},
      {"tool", "Xcode Helper Tool"},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.query);
    EXPECT_EQ(result("get_app", {{"name", c.query}})["name"], c.found);
  }
  EXPECT_EQ(error("get_app", {{"name", "Xcodes"}}), Control::kNoMatch);
  host.snapshot.reset();
  EXPECT_EQ(error("get_app", {{"name", "Xcode"}}), Control::kNoMatch);
}

TEST_F(ControlTest, GetAppListsTheProcessesStillRunning) {
  Snapshot& s = *host.snapshot;
  addApp(s, "Chrome", {100, 101, 102});
  s.processes[1].cpu = 45.67;
  s.processes[1].memory = 300 * 1024 * 1024;
  s.processes[1].energy = 0.04;
  s.power.apps = 0.04;
  s.processes.erase(s.processes.begin() + 2);  // pid 102 exited since the grouping
  OJson o = result("get_app", {{"name", "chrome"}});
  EXPECT_EQ(keysOf(o).back(), "process_list");
  EXPECT_EQ(o["processes"], 3);
  ASSERT_EQ(o["process_list"].size(), 2u);
  EXPECT_EQ(o["process_list"][0]["pid"], 100);
  const OJson& p = o["process_list"][1];
  EXPECT_EQ(keysOf(p), (std::vector<std::string>{"pid", "name", "cpu_percent_of_one_core",
                                                 "memory_bytes", "energy_watts"}));
  EXPECT_EQ(p["pid"], 101);
  EXPECT_EQ(p["name"], "Chrome process 101");
  EXPECT_DOUBLE_EQ(p["cpu_percent_of_one_core"].get<double>(), 45.7);
  EXPECT_EQ(p["memory_bytes"], "300 MB");
  EXPECT_DOUBLE_EQ(p["energy_watts"].get<double>(), 0.0);

  // A machine without per-process energy: the figure is left out, not written as 0.
  s.power.apps.reset();
  o = result("get_app", {{"name", "chrome"}});
  EXPECT_FALSE(o.contains("energy_watts"));
  EXPECT_FALSE(o["process_list"][1].contains("energy_watts"));
}

TEST_F(ControlTest, StatusKeysAndFormatting) {
  Snapshot& s = *host.snapshot;
  s.cpu.total = 0.7234;
  s.cpu.cores = std::vector<double>(10, 0.5);
  s.cpu.load = {1.25, 3.5, 0.04};
  s.memory.total = uint64_t{16} << 30;
  s.memory.app = uint64_t{6} << 30;
  s.memory.wired = uint64_t{2} << 30;
  s.memory.pressure = Pressure::warning;
  s.memory.swapUsed = 512ull << 20;
  s.gpu.utilization = 0.456;
  s.disk.readRate = 1500;
  s.disk.writeRate = 2.5e7;
  s.disk.volumes = {{"Data", "/data", 1000, 1, false},
                    {"Macintosh HD", "/", 500'000'000'000, 250'000'000'000, true}};
  s.network.inRate = 2.5e8;
  s.network.outRate = 999;
  s.network.interface = "Wi-Fi";
  s.battery = {true, 87.46, true, true, 95, 12.0, 91.26, 312, 31.0};
  s.sensors.cpu = 61.26;
  s.sensors.gpu = 55.0;
  s.sensors.fans = {{1234.6, 1000, 5000}, {0.4, 0, 5000}};
  s.power.system = 23.456;
  for (int i = 0; i < 7; ++i) {
    AppUsage& app = addApp(s, "App " + std::to_string(i), {100 + i});
    app.cpu = 200 - i;
  }
  OJson o = result("status");
  EXPECT_EQ(
      keysOf(o),
      (std::vector<std::string>{
          "summary",      "cpu_percent",       "cores",        "load_average", "memory_used",
          "memory_total", "memory_pressure",   "swap_used",    "gpu_percent",  "disk_read",
          "disk_write",   "startup_disk_free", "network_down", "network_up",   "network_interface",
          "battery",      "temperatures_c",    "fans_rpm",     "power_watts",  "busiest_apps"}));
  EXPECT_DOUBLE_EQ(o["cpu_percent"].get<double>(), 72.3);
  EXPECT_EQ(o["load_average"], OJson::array({"1.2", "3.5", "0.0"}));  // printf rounds 1.25 to even
  EXPECT_EQ(o["memory_used"], "8.00 GB");                             // app and wired memory
  EXPECT_EQ(o["startup_disk_free"], "250 GB");  // the main volume, not the first
  EXPECT_EQ(keysOf(o["battery"]), (std::vector<std::string>{"percent", "charging", "minutes_left",
                                                            "health_percent", "cycles"}));
  EXPECT_EQ(keysOf(o["temperatures_c"]), (std::vector<std::string>{"cpu", "gpu", "battery"}));
  EXPECT_EQ(o["fans_rpm"], OJson::array({1235, 0}));
  ASSERT_EQ(o["busiest_apps"].size(), 5u);
  EXPECT_EQ(o["busiest_apps"][4]["name"], "App 4");
  EXPECT_EQ(keysOf(o["busiest_apps"][0]), keysOf(result("list_apps")[0]));

  // A desktop without battery or power reading.
  s.battery = {};
  s.power.system.reset();
  o = result("status");
  EXPECT_TRUE(o["battery"].is_null());
  EXPECT_TRUE(o["power_watts"].is_null());
}

TEST_F(ControlTest, SummaryNamesTheMoodAndWhatWeighsMost) {
  struct Case {
    double cpu;
    Pressure pressure;
    std::optional<double> heat;
    std::optional<AppUsage> top;
    bool linux;
    std::string summary;
  };
  auto app = [](std::string name, Lean lean, double cpu, uint64_t memory, double gpu, double net) {
    AppUsage a;
    a.name = std::move(name);
    a.lean = lean;
    a.cpu = cpu;
    a.memory = memory;
    a.gpu = gpu;
    a.netIn = net;
    return a;
  };
  const Case cases[] = {
      {0.3, Pressure::normal, {}, {}, false, "Your Mac is calm."},
      {0.3, Pressure::normal, {}, {}, true, "Your computer is calm."},
      {0.7,
       Pressure::normal,
       {},
       app("Xcode", Lean::cpu, 180.4, 0, 0, 0),
       false,
       "Your Mac is busy: Xcode is using 180% CPU."},
      {0.2,
       Pressure::critical,
       {},
       app("Safari", Lean::memory, 5, 2ull << 30, 0, 0),
       false,
       "Your Mac is under strain: Safari is using 2.00 GB of memory."},
      {0.2, Pressure::normal, 99.0, app("Game", Lean::gpu, 5, 0, 0.42, 0), true,
       "Your computer is under strain: Game is using 42% of the GPU."},
      // The platform's words change the machine, never an app's name.
      {0.1,
       Pressure::normal,
       {},
       app("Mac Mouse Fix", Lean::network, 1, 0, 0, 1500),
       true,
       "Your computer is calm; the busiest app is Mac Mouse Fix, at 2 KB/s of network."},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.summary);
    Snapshot s;
    s.cpu.total = c.cpu;
    s.memory.pressure = c.pressure;
    s.sensors.cpu = c.heat;
    if (c.top) s.apps.push_back(*c.top);
    host.snapshot = s;
    Control platform(host, clock, c.linux);
    auto off = platform.answerOffMain("status", json::object());
    ASSERT_FALSE(off);
    EXPECT_EQ(OJson::parse(platform.answerOnMain("status", json::object()))["result"]["summary"],
              c.summary);
  }
}

TEST_F(ControlTest, AlertsNewestFirstWithLimitClamped) {
  for (int i = 0; i < 250; ++i) {
    AlertEvent e;
    e.id = makeUUID();
    e.date = dateFromSeconds(kNow - i * 60);
    e.kind = i % 2 ? AlertEvent::Kind::heat : AlertEvent::Kind::cpu;
    if (i % 2 == 0) e.app = "App " + std::to_string(i);
    e.title = "Title " + std::to_string(i);
    e.detail = "Detail " + std::to_string(i);
    host.kept.push_back(e);
  }
  struct Case {
    json args;
    size_t count;
  } cases[] = {{json::object(), 10}, {{{"limit", -1}}, 0},    {{{"limit", 500}}, 200},
               {{{"limit", 3}}, 3},  {{{"limit", 200}}, 200}, {{{"limit", 0}}, 0}};
  for (const auto& c : cases) {
    SCOPED_TRACE(c.args.dump());
    OJson alerts = result("alerts", c.args);
    ASSERT_EQ(alerts.size(), c.count);
    for (size_t i = 0; i < alerts.size(); ++i)
      EXPECT_EQ(alerts[i]["title"], "Title " + std::to_string(i));
  }
  OJson two = result("alerts", {{"limit", 2}});
  EXPECT_EQ(keysOf(two[0]), (std::vector<std::string>{"kind", "title", "detail", "name", "date"}));
  EXPECT_EQ(two[0]["kind"], "cpu");
  EXPECT_EQ(two[0]["name"], "App 0");
  EXPECT_EQ(two[0]["date"], "2023-11-14T22:13:20Z");
  EXPECT_EQ(keysOf(two[1]), (std::vector<std::string>{"kind", "title", "detail", "date"}));
  EXPECT_EQ(two[1]["kind"], "heat");
  EXPECT_EQ(two[1]["date"], "2023-11-14T22:12:20Z");
}

TEST_F(ControlTest, QuitAppOnlyFilesARequestForAppsThePersonMayQuit) {
  struct Case {
    std::string name;
    bool isSystem;
    uint32_t uid;
    bool linux;
    std::string error;  // empty: filed
  } cases[] = {
      {"macOS system services", true, 0, false,
       "macOS system services can't be quit from Vistrel (it belongs to macOS or another user)."},
      {"Mac Helper", true, kMe, true,
       "Mac Helper can't be quit from Vistrel (it belongs to Linux or another user)."},
      {"Their Editor", false, kMe + 1, false,
       "Their Editor can't be quit from Vistrel (it belongs to macOS or another user)."},
      {"Mixed", false, kMe, false,
       "Mixed can't be quit from Vistrel (it belongs to macOS or another user)."},
      {"Vistrel", false, kMe, false,
       "Vistrel can't be quit from Vistrel (it belongs to macOS or another user)."},
      {"Xcode", false, kMe, false, ""},
      {"Mac Mouse Fix", false, kMe, true, ""},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.name);
    host.snapshot = Snapshot{};
    host.filed.clear();
    addApp(*host.snapshot, c.name + " Helper", {5});
    AppUsage& app = addApp(*host.snapshot, c.name, {10, 11}, c.uid);
    app.isSystem = c.isSystem;
    if (c.name == "Mixed") host.snapshot->processes.back().uid = 0;  // one helper is root's
    if (c.name == "Vistrel") host.snapshot->apps.back().pids.push_back(kVistrelPid);
    Control platform(host, clock, c.linux);
    OJson answer = OJson::parse(platform.answerOnMain("quit_app", {{"name", c.name}}));
    if (c.error.empty()) {
      EXPECT_EQ(answer["ok"], true);
      EXPECT_EQ(answer["result"], "Asked the person in Vistrel's window whether to quit " + c.name +
                                      ". Nothing has quit yet; it quits only if they confirm.");
      ASSERT_EQ(host.filed.size(), 1u);
      EXPECT_EQ(host.filed[0], host.snapshot->apps.back());
    } else {
      EXPECT_EQ(answer["ok"], false);
      EXPECT_EQ(answer["error"], c.error);
      EXPECT_TRUE(host.filed.empty());
    }
  }
}

// --- agents ---

AgentCard card(std::string tool) {
  AgentCard c;
  c.tool = std::move(tool);
  return c;
}

TEST_F(ControlTest, AgentsPlansSessionsAndUnits) {
  const Date now = dateFromSeconds(kNow);
  auto at = [&](double minutes) { return now + std::chrono::seconds(int64_t(minutes * 60)); };
  auto window = [&](double used, std::optional<double> resetInMinutes, int64_t length) {
    UsageWindow w;
    w.usedPercent = used;
    if (resetInMinutes) w.resetsAt = at(*resetInMinutes);
    w.windowMinutes = length;
    return w;
  };
  struct Case {
    std::string label;
    StatusLineState line;
    std::optional<PlanUsage> plan;
    OJson claudePlan;
    OJson codexPlan;  // Codex reports its limits without a status line
  };
  PlanUsage halfway;  // half of the 5-hour window gone, 80% used: runs out in 37.5 minutes
  halfway.session = window(80, 150, 300);
  halfway.updated = at(-2);
  PlanUsage rolled;  // reset a minute ago: now 0%, reset unknown
  rolled.session = window(80, -1, 300);
  rolled.weekly = window(30.26, 3 * 24 * 60, 10080);
  rolled.updated = at(-400);
  PlanUsage reached;
  reached.session = window(100, 60, 300);
  reached.updated = at(-1);
  OJson halfwayJSON = {{"current_session_5h",
                        {{"used_percent", 80.0},
                         {"resets_at", isoDate(at(150))},
                         {"runs_out_at_current_pace", isoDate(at(37.5))}}},
                       {"weekly", kNotReportedText},
                       {"as_of", isoDate(at(-2))}};
  OJson rolledJSON = {
      {"current_session_5h",
       {{"used_percent", 0.0}, {"resets_at", nullptr}, {"runs_out_at_current_pace", nullptr}}},
      {"weekly",
       {{"used_percent", 30.3},
        {"resets_at", isoDate(at(3 * 24 * 60))},
        {"runs_out_at_current_pace", nullptr}}},
      {"as_of", isoDate(at(-400))}};
  OJson reachedJSON = {{"current_session_5h",
                        {{"used_percent", 100.0},
                         {"resets_at", isoDate(at(60))},
                         {"runs_out_at_current_pace", "limit reached"}}},
                       {"weekly", kNotReportedText},
                       {"as_of", isoDate(at(-1))}};
  OJson nothingJSON = {
      {"current_session_5h", kNotReportedText}, {"weekly", kNotReportedText}, {"as_of", nullptr}};
  const std::string notConnected = "not connected (Vistrel › Coding agents › Connect Claude Code)";
  const Case cases[] = {
      {"not connected", StatusLineState::notConnected(), halfway, notConnected, halfwayJSON},
      {"another command", StatusLineState::other("my-line"), halfway, notConnected, halfwayJSON},
      {"connected, nothing yet", StatusLineState::connected(), {}, nothingJSON, nothingJSON},
      {"connected", StatusLineState::connected(), halfway, halfwayJSON, halfwayJSON},
      {"rolled over", StatusLineState::connected(), rolled, rolledJSON, rolledJSON},
      {"limit reached", StatusLineState::connected(), reached, reachedJSON, reachedJSON},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.label);
    host.agents = {};
    host.agents.statusLine = c.line;
    host.agents.claudePlan = c.plan;
    host.agents.codexPlan = c.plan;
    OJson o = result("agents");
    EXPECT_EQ(keysOf(o), (std::vector<std::string>{"claude_code", "codex"}));
    EXPECT_EQ(keysOf(o["claude_code"]),
              (std::vector<std::string>{"plan", "sessions", "today_fresh_tokens"}));
    EXPECT_EQ(keysOf(o["codex"]), (std::vector<std::string>{"plan", "sessions"}));
    EXPECT_EQ(o["claude_code"]["plan"].dump(), c.claudePlan.dump());
    EXPECT_EQ(o["codex"]["plan"].dump(), c.codexPlan.dump());
  }
}

TEST_F(ControlTest, AgentSessionsAndTokenCounts) {
  AgentCard full = card(kClaudeCode);
  full.name = "fix the build";
  full.folder = "/Users/me/code/vistrel";
  full.live = true;
  full.working = true;
  full.model = "claude-opus-4";
  full.tokens = {1200, 3400, 560, 78000};
  full.contextPercent = 43.21;
  full.cost = 1.23456;
  full.prompts = 7;
  full.toolCalls = 31;
  full.lastActivity = dateFromSeconds(kNow - 5);
  host.agents.claude = {full};
  host.agents.codex = {card(kCodex)};
  host.agents.claudeToday = {1000, 2000, 300, 999999};
  OJson o = result("agents");
  EXPECT_EQ(o["claude_code"]["today_fresh_tokens"], 3300);  // cache reads left out
  ASSERT_EQ(o["claude_code"]["sessions"].size(), 1u);
  const OJson& s = o["claude_code"]["sessions"][0];
  EXPECT_EQ(keysOf(s),
            (std::vector<std::string>{"tool", "name", "folder", "live", "working", "model",
                                      "tokens", "context_used_percent", "cost_usd_estimate",
                                      "prompts", "tool_calls", "last_activity"}));
  EXPECT_EQ(s["tokens"].dump(),
            R"({"input":1200,"output":3400,"cache_write":560,"cache_read":78000})");
  EXPECT_DOUBLE_EQ(s["cost_usd_estimate"].get<double>(), 1.23);
  EXPECT_EQ(s["last_activity"], "2023-11-14T22:13:15Z");
  // What a session does not know is null, not zero or empty.
  const OJson& bare = o["codex"]["sessions"][0];
  for (const char* key :
       {"name", "folder", "model", "context_used_percent", "cost_usd_estimate", "last_activity"}) {
    EXPECT_TRUE(bare[key].is_null()) << key;
  }
  // Counters near the top of 64 bits saturate instead of stopping the application.
  const int64_t big = std::numeric_limits<int64_t>::max() - 5;
  host.agents.claudeToday = {big, big, big, 0};
  EXPECT_EQ(result("agents")["claude_code"]["today_fresh_tokens"],
            std::numeric_limits<int64_t>::max());
}

// --- history ---

class ControlHistoryTest : public ControlTest {
 protected:
  static constexpr int64_t kHour0 = 1'699'999'200;  // the start of an hour, UTC

  ControlHistoryTest() {
    char pattern[] = "/tmp/vistrel-control-XXXXXX";
    folder = ::mkdtemp(pattern);
    clock.setNow(dateFromSeconds(kHour0 + 30 * 60));
    HistoryStoreOptions options;
    options.startOfDay = [](int64_t t) { return t - ((t % 86400) + 86400) % 86400; };
    store = std::make_unique<HistoryStore>(folder, main, clock, options);
    host.store = store.get();
    // Ten minutes: machine CPU 0, 10, ..., 90 %; memory 1 GB plus i bytes; one app at 100 + i %
    // of a core and a GPU share of 0.5.
    for (int i = 0; i < 10; ++i) {
      MinuteSample m;
      m.time = kHour0 + i * 60;
      m.values[static_cast<size_t>(Metric::cpu)] = i * 10;
      m.values[static_cast<size_t>(Metric::memory)] = 1e9 + i;
      m.values[static_cast<size_t>(Metric::heat)] = 50.04;
      MinuteSample::App app;
      app.id = "com.apple.dt.Xcode";
      app.name = "Xcode";
      app.cpu = 100 + i;
      app.gpu = 0.5;
      m.apps.push_back(app);
      store->record(m);
    }
    store->flushNow();
  }
  ~ControlHistoryTest() override {
    store.reset();
    std::error_code ignored;
    std::filesystem::remove_all(folder, ignored);
  }

  std::string folder;
  ManualMainQueue main;
  std::unique_ptr<HistoryStore> store;
};

TEST_F(ControlHistoryTest, EachSpanAndItsUnits) {
  auto minute = [](int i) { return isoDate(dateFromSeconds(kHour0 + i * 60.0)); };
  struct Case {
    json args;
    std::string span;
    std::vector<std::string> at;
    std::vector<double> values;
    std::string peakAt;
  } cases[] = {
      {{{"metric", "cpu"}, {"span", "1h"}},
       "1h",
       {minute(0), minute(1), minute(2), minute(3), minute(4), minute(5), minute(6), minute(7),
        minute(8), minute(9)},
       {0, 10, 20, 30, 40, 50, 60, 70, 80, 90},
       minute(9)},
      {{{"metric", "cpu"}}, "24h", {minute(0), minute(5)}, {20, 70}, minute(5)},  // 5-minute bars
      {{{"metric", "cpu"}, {"span", "7d"}}, "7d", {minute(0)}, {45}, minute(0)},
      // Hour rows only exist once an hour is rolled up.
      {{{"metric", "cpu"}, {"span", "30d"}}, "30d", {}, {}, ""},
      {{{"metric", "cpu"}, {"span", "1y"}}, "1y", {}, {}, ""},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.args.dump());
    OJson o = result("history", c.args);
    EXPECT_EQ(keysOf(o), (std::vector<std::string>{"metric", "span", "unit", "points", "average",
                                                   "peak", "apps_unit", "top_apps"}));
    EXPECT_EQ(o["metric"], "cpu");
    EXPECT_EQ(o["span"], c.span);
    EXPECT_EQ(o["unit"], "percent of all cores (0-100)");
    EXPECT_EQ(o["apps_unit"], "percent of one core");
    ASSERT_EQ(o["points"].size(), c.at.size());
    for (size_t i = 0; i < c.at.size(); ++i) {
      EXPECT_EQ(keysOf(o["points"][i]), (std::vector<std::string>{"at", "value"}));
      EXPECT_EQ(o["points"][i]["at"], c.at[i]);
      EXPECT_DOUBLE_EQ(o["points"][i]["value"].get<double>(), c.values[i]);
    }
    if (c.at.empty()) {
      EXPECT_TRUE(o["average"].is_null());
      EXPECT_TRUE(o["peak"].is_null());
      EXPECT_EQ(o["top_apps"], OJson::array());
      continue;
    }
    EXPECT_DOUBLE_EQ(o["average"].get<double>(), 45.0);
    EXPECT_EQ(keysOf(o["peak"]), (std::vector<std::string>{"value", "at"}));
    EXPECT_DOUBLE_EQ(o["peak"]["value"].get<double>(), 90.0);
    EXPECT_EQ(o["peak"]["at"], c.peakAt);
    ASSERT_EQ(o["top_apps"].size(), 1u);
    const OJson& app = o["top_apps"][0];
    EXPECT_EQ(keysOf(app), (std::vector<std::string>{"name", "average", "peak", "series"}));
    EXPECT_EQ(app["name"], "Xcode");
    EXPECT_DOUBLE_EQ(app["average"].get<double>(), 104.5);
    EXPECT_EQ(app["series"].size(), c.at.size());
  }
}

TEST_F(ControlHistoryTest, ValuesInTheMetricsNaturalUnit) {
  struct Case {
    std::string metric;
    std::string unit;
    std::string appUnit;
    OJson firstValue;
    std::optional<double> appAverage;  // absent: no per-app record of the metric
  } cases[] = {
      {"memory", "bytes", "bytes", 1'000'000'000, 0.0},
      {"heat", "degrees Celsius", "none (not recorded per app)", 50.0, std::nullopt},
      {"gpu", "percent (0-100)", "percent (0-100)", 0.0, 50.0},  // the app's 0.5 share
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.metric);
    OJson o = result("history", {{"metric", c.metric}, {"span", "1h"}});
    EXPECT_EQ(o["unit"], c.unit);
    EXPECT_EQ(o["apps_unit"], c.appUnit);
    ASSERT_FALSE(o["points"].empty());
    EXPECT_EQ(o["points"][0]["value"].dump(), c.firstValue.dump());
    if (!c.appAverage) {
      EXPECT_EQ(o["top_apps"], OJson::array());
    } else if (*c.appAverage > 0) {
      ASSERT_EQ(o["top_apps"].size(), 1u);
      EXPECT_DOUBLE_EQ(o["top_apps"][0]["average"].get<double>(), *c.appAverage);
    }
  }
  // Memory is written in whole bytes: the last minute's 1e9 + 9.
  OJson memory = result("history", {{"metric", "memory"}, {"span", "1h"}});
  EXPECT_EQ(memory["points"][9]["value"], 1'000'000'009);
  EXPECT_TRUE(memory["points"][9]["value"].is_number_integer());
}

}  // namespace
}  // namespace vistrel
