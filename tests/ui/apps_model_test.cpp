// The apps page's lines and tree model: grouping processes under their app, sorting both levels,
// filtering that keeps each match under its app, and the item-model contract checked by Qt's own
// tester while the model is reset, sorted and filtered.

#include <gtest/gtest.h>

#include <QHeaderView>
#include <QTreeView>

#ifdef VISTREL_HAVE_QT_TEST
#include <QAbstractItemModelTester>
#endif

#include "app/model.hpp"
#include "base/user_defaults.hpp"
#include "format/platform_text.hpp"
#include "sampling/fakes.hpp"
#include "ui/apps_model.hpp"
#include "ui/apps_view.hpp"
#include "ui/page.hpp"
#include "ui/qt_app.hpp"

namespace vistrel::ui {
namespace {

ProcessSample proc(int32_t pid, std::string name, double cpu, uint64_t memory) {
  ProcessSample p;
  p.pid = pid;
  p.ppid = 1;
  p.name = std::move(name);
  p.path = "/usr/bin/" + p.name;
  p.cpu = cpu;
  p.memory = memory;
  return p;
}

AppUsage app(std::string id, std::string name, std::vector<int32_t> pids, double impact, double cpu,
             uint64_t memory, bool isSystem = false) {
  AppUsage a;
  a.id = std::move(id);
  a.name = std::move(name);
  a.pids = std::move(pids);
  a.impact = impact;
  a.cpu = cpu;
  a.memory = memory;
  a.isSystem = isSystem;
  return a;
}

// Browser: 3 processes; Editor: 1; the system's daemon; Claude Code's tree under its agent; and
// an app whose process has exited since the grouping.
Snapshot machine() {
  Snapshot s;
  s.processes = {proc(10, "Browser", 30, 500),
                 proc(11, "Browser Helper (Renderer)", 60, 900),
                 proc(12, "Browser Helper (GPU)", 5, 100),
                 proc(20, "Editor", 80, 300),
                 proc(30, "launchd", 1, 50),
                 proc(40, "claude", 12, 400),
                 proc(41, "node", 3, 200)};
  s.apps = {app("/Applications/Browser.app", "Browser", {10, 11, 12}, 40, 95, 1500),
            app("/Applications/Editor.app", "Editor", {20}, 30, 80, 300),
            app("proc:launchd", "launchd", {30}, 1, 1, 50, true),
            app("agent:Claude Code", "Claude Code", {40, 41}, 5, 15, 600),
            app("proc:gone", "gone", {99}, 0, 0, 0)};
  return s;
}

std::vector<std::string> names(const std::vector<AppLine>& lines) {
  std::vector<std::string> out;
  for (const auto& l : lines) out.push_back(l.name);
  return out;
}
std::vector<int32_t> pids(const AppLine& line) {
  std::vector<int32_t> out;
  for (const auto& p : line.processes) out.push_back(p.pid);
  return out;
}

TEST(AppLines, GroupSortAndFilter) {
  const std::string system = platformText("launchd (part of macOS)");
  struct Case {
    std::string label;
    AppsQuery query;
    std::vector<std::string> apps;
    std::vector<int32_t> firstAppPids;  // the processes kept under the first app, in order
  } cases[] = {
      {"impact, highest first",
       {AppColumn::impact, true, ""},
       {"Browser", "Editor", "Claude Code", system, "gone"},
       {11, 10, 12}},
      {"cpu, lowest first",
       {AppColumn::cpu, false, ""},
       {"gone", system, "Claude Code", "Editor", "Browser"},
       {}},
      {"memory, highest first",
       {AppColumn::memory, true, ""},
       {"Browser", "Claude Code", "Editor", system, "gone"},
       {11, 10, 12}},
      {"name, A to Z",
       {AppColumn::name, false, ""},
       {"Browser", "Claude Code", "Editor", "gone", system},
       {10, 12, 11}},
      {"name, Z to A",
       {AppColumn::name, true, ""},
       {system, "gone", "Editor", "Claude Code", "Browser"},
       {}},
      // A process matches: its app stays, with only the matching process under it.
      {"a helper's name", {AppColumn::impact, true, "renderer"}, {"Browser"}, {11}},
      // The app's own name matches: all its processes stay.
      {"an app's name, any case", {AppColumn::impact, true, "bROWser"}, {"Browser"}, {11, 10, 12}},
      {"a pid", {AppColumn::impact, true, "41"}, {"Claude Code"}, {41}},
      {"the system mark", {AppColumn::impact, true, "part of"}, {system}, {30}},
      {"nothing", {AppColumn::impact, true, "zzz"}, {}, {}},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.label);
    auto lines = appLines(machine(), c.query);
    EXPECT_EQ(names(lines), c.apps);
    if (!c.firstAppPids.empty()) {
      ASSERT_FALSE(lines.empty());
      EXPECT_EQ(pids(lines[0]), c.firstAppPids);
    }
  }
}

TEST(AppLines, CountsOnlyProcessesStillRunningAndMarksTheSystem) {
  auto lines = appLines(machine(), {});
  for (const auto& l : lines) {
    SCOPED_TRACE(l.name);
    if (l.id == "proc:gone") {
      EXPECT_EQ(l.processCount, 0);
    }
    if (l.id == "/Applications/Browser.app") {
      EXPECT_EQ(l.processCount, 3);
    }
    EXPECT_EQ(l.isSystem, l.id == "proc:launchd");
  }
  const AppLine& browser = lines[0];
  EXPECT_EQ(cellText(browser, AppColumn::cpu), "95%");
  EXPECT_EQ(cellText(browser, AppColumn::impact), "40");
  EXPECT_EQ(cellText(browser.processes[0], AppColumn::impact), "");
  EXPECT_EQ(cellText(browser.processes[0], AppColumn::lean), "");

  // The machine's own remainder is named once, without the mark every other system app gets.
  Snapshot withRest = machine();
  AppUsage rest;
  rest.id = "system";
  rest.name = "macOS system services";
  rest.isSystem = true;
  withRest.apps.push_back(rest);
  for (const auto& l : appLines(withRest, {})) {
    if (l.id == "system") {
      EXPECT_EQ(l.name, rest.name);
    }
  }

  // Energy: a dash where the machine gives no per-process figure, never a 0 that reads as none.
  for (bool known : {false, true}) {
    SCOPED_TRACE(known ? "energy known" : "energy unknown");
    Snapshot s = machine();
    if (known) s.power.apps = 0.0;
    const AppLine line = appLines(s, {})[0];
    EXPECT_EQ(cellText(line, AppColumn::energy), known ? "0" : "\u2014");
    EXPECT_EQ(cellText(line.processes[0], AppColumn::energy), known ? "0" : "\u2014");
  }
}

TEST(AppLines, ColumnsRoundTripThroughTheirStoredNames) {
  for (int i = 0; i < kAppColumns; ++i) {
    auto c = static_cast<AppColumn>(i);
    EXPECT_EQ(appColumnFromRaw(rawValue(c)), c);
  }
  EXPECT_EQ(appColumnFromRaw("bogus"), std::nullopt);
}

TEST(AppDay, FindsTheAppByIdAndScalesToTheMachine) {
  AppHistory editor{"/Applications/Editor.app", "Editor", 80, {{0, 40, 50}, {300, 160, 170}}};
  AppHistory other{"x", "Editor", 999, {{0, 999, 999}}};  // same name, another app
  auto v = appDayView("/Applications/Editor.app", {other, editor}, 8);
  EXPECT_EQ(v.bars, (std::vector<double>{0.25, 1.0}));
  EXPECT_EQ(v.scale, "20%");  // 160% of one core on 8 cores
  EXPECT_EQ(v.average, "Used 10% of the machine's CPU on average over the last day");
  EXPECT_TRUE(v.empty.empty());
  EXPECT_FALSE(appDayView("nope", {editor}, 8).empty.empty());
}

TEST(AppsTreeModel, KeepsTheModelContractThroughResetsSortsAndFilters) {
  qtest::qtApp();
  AppsTreeModel model;
#ifdef VISTREL_HAVE_QT_TEST
  QAbstractItemModelTester tester(&model, QAbstractItemModelTester::FailureReportingMode::Fatal);
#endif
  QTreeView view;  // a real view asks the model the way the page does
  view.setModel(&model);
  // As the page does: the indicator shows the model's sort before sorting is turned on, which
  // would otherwise sort by the header's default column.
  view.header()->setSortIndicator(static_cast<int>(AppColumn::impact), Qt::DescendingOrder);
  view.setSortingEnabled(true);
  model.setSnapshot(machine());
  view.expandAll();
  ASSERT_EQ(model.rowCount(), 5);
  QModelIndex browser = model.index(0, 0);
  EXPECT_EQ(model.data(browser, Qt::DisplayRole).toString(), "Browser");
  EXPECT_EQ(model.rowCount(browser), 3);
  QModelIndex helper = model.index(0, 0, browser);
  EXPECT_EQ(model.parent(helper), browser);
  EXPECT_EQ(model.processAt(helper)->pid, 11);
  EXPECT_EQ(model.appAt(helper)->id, "/Applications/Browser.app");
  EXPECT_EQ(model.rowCount(helper), 0);  // processes are leaves
  EXPECT_EQ(model.indexOfProcess("agent:Claude Code", 41).parent(),
            model.indexOfApp("agent:Claude Code"));

  std::vector<AppsQuery> remembered;
  model.onSortChanged = [&](const AppsQuery& q) { remembered.push_back(q); };
  view.sortByColumn(static_cast<int>(AppColumn::memory), Qt::AscendingOrder);
  ASSERT_EQ(remembered.size(), 1u);
  EXPECT_EQ(remembered[0].sort, AppColumn::memory);
  EXPECT_FALSE(remembered[0].descending);
  EXPECT_EQ(model.appAt(model.index(0, 0))->id, "proc:gone");

  AppsQuery filtered = model.query();
  filtered.filter = "node";
  model.setQuery(filtered);
  view.expandAll();
  ASSERT_EQ(model.rowCount(), 1);
  EXPECT_EQ(model.rowCount(model.index(0, 0)), 1);
  EXPECT_EQ(model.query().sort, AppColumn::memory);  // the sort survives the search

  // Ticks replace the snapshot under the same query.
  for (int tick = 0; tick < 3; ++tick) {
    Snapshot s = machine();
    s.apps.pop_back();
    s.apps[1].cpu += tick;
    model.setSnapshot(s);
  }
  model.setSnapshot(Snapshot{});
  EXPECT_EQ(model.rowCount(), 0);
}

// The page opens on the remembered sort; whatever else is stored there (an old column's name, a
// wrong type, not an object) falls back to impact, highest first, and a new choice replaces it.
TEST(AppsPage, OpensOnTheRememberedSortAndSurvivesWhatElseIsStored) {
  qtest::qtApp();
  struct Case {
    const char* label;
    std::optional<nlohmann::json> stored;
    int column;
    Qt::SortOrder order;
  } cases[] = {
      {"nothing stored", std::nullopt, int(AppColumn::impact), Qt::DescendingOrder},
      {"memory, lowest first", nlohmann::json{{"column", "memory"}, {"descending", false}},
       int(AppColumn::memory), Qt::AscendingOrder},
      {"a column that is gone", nlohmann::json{{"column", "wakeups"}, {"descending", false}},
       int(AppColumn::impact), Qt::AscendingOrder},
      {"wrong types", nlohmann::json{{"column", 3}, {"descending", "yes"}}, int(AppColumn::impact),
       Qt::DescendingOrder},
      {"not an object", nlohmann::json("cpu"), int(AppColumn::impact), Qt::DescendingOrder},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.label);
    ManualClock clock{1000};
    ManualMainQueue main;
    MemoryUserDefaults defaults;
    if (c.stored) defaults.set("appsSort", *c.stored);
    auto sampler = vistrel::testing::fakeSampler(main, clock);
    Model model(Model::Parts{sampler, nullptr, &defaults, nullptr}, clock);
    model.receive(machine());
    PageContext context{model, nullptr, [](Page) {}, "/usr/bin/vistrel", nullptr, &defaults};
    std::unique_ptr<PageWidget> page(makePage(Page::apps, context, nullptr));
    page->resize(1100, 700);
    page->show();
    page->refresh();
    auto* tree = page->findChild<QTreeView*>();
    ASSERT_NE(tree, nullptr);
    EXPECT_EQ(tree->header()->sortIndicatorSection(), c.column);
    EXPECT_EQ(tree->header()->sortIndicatorOrder(), c.order);

    tree->sortByColumn(int(AppColumn::name), Qt::AscendingOrder);
    EXPECT_EQ(defaults.get("appsSort"),
              (nlohmann::json{{"column", "name"}, {"descending", false}}));
    EXPECT_EQ(tree->model()->index(0, 0).data().toString(), "Browser");
  }
}

}  // namespace
}  // namespace vistrel::ui
