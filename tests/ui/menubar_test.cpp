// The menu-bar items, the tray and the panel: their view models, the fixed widths of the items,
// the panel's visibility driving the sampling interval, and the autostart entry's launch marker.

#include <gtest/gtest.h>
#include <QApplication>
#include <QElapsedTimer>
#include <QThread>

#include <chrono>
#include <cmath>
#include <deque>
#include <string>
#include <vector>

#include "alerts/alert_log.hpp"
#include "app/model.hpp"
#include "format/fmt.hpp"
#include "sampling/fakes.hpp"
#include "ui/login_item.hpp"
#include "ui/menubar_images.hpp"
#include "ui/menubar_view.hpp"
#include "ui/panel.hpp"
#include "ui/qt_app.hpp"
#include "ui/status_bar.hpp"
#include "ui/theme.hpp"

namespace vistrel::ui {
namespace {

QApplication& app() {
  return qtest::qtApp();
}

Snapshot busySnapshot(double cpu, int apps) {
  Snapshot s;
  s.time = Date{std::chrono::seconds(1'700'000'000)};
  s.cpu.total = cpu;
  s.memory.total = 16ull << 30;
  s.memory.app = 6ull << 30;
  s.network.inRate = 1'234'567;
  s.network.outRate = 89'000;
  s.disk.readRate = 5'000;
  s.disk.writeRate = 120'000'000;
  for (int i = 0; i < apps; ++i) {
    AppUsage a;
    a.id = "app" + std::to_string(i);
    a.name = "App " + std::to_string(i);
    a.cpu = 10.0 * (apps - i);
    a.impact = 100.0 - i;
    s.apps.push_back(a);
  }
  return s;
}

TEST(MenuItemViews, EachMetricInItsStyleWithFiguresFromFmt) {
  Fmt::setBits(false);
  Snapshot s = busySnapshot(0.95, 3);
  std::deque<double> live(40, 0.5);
  struct Case {
    Metric metric;
    ItemStyle style;
    std::string value, second;
    Attention attention;
    size_t seriesPoints;
  } cases[] = {
      {Metric::cpu, ItemStyle::chart, "95%", "", Attention::trouble, kItemChartPoints},
      {Metric::memory, ItemStyle::bar, Fmt::mem(s.memory.used()), "", Attention::none, 0},
      {Metric::network, ItemStyle::rates, "↓ " + Fmt::shortRate(1'234'567),
       "↑ " + Fmt::shortRate(89'000), Attention::none, 0},
      {Metric::disk, ItemStyle::rates, "R " + Fmt::shortRate(5'000),
       "W " + Fmt::shortRate(120'000'000), Attention::none, 0},
      {Metric::battery, ItemStyle::value, "–", "", Attention::none, 0},  // no battery
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(std::string(rawValue(c.metric)));
    MenuItemView v = menuItemView(c.metric, s, live);
    EXPECT_EQ(v.style, c.style);
    EXPECT_EQ(v.value, c.value);
    EXPECT_EQ(v.second, c.second);
    EXPECT_EQ(v.attention, c.attention);
    EXPECT_EQ(v.series.size(), c.seriesPoints);
    EXPECT_FALSE(v.label.empty());
  }
  EXPECT_EQ(trayTooltip({menuItemView(Metric::cpu, s, live)}), "Vistrel\nCPU 95% (Very high)");
}

TEST(MenuItemImages, WidthNeverFollowsTheFigure) {
  app();
  // The same item at its narrowest and widest figures, with and without the attention mark,
  // before the first sample and after: one width each, at both scales.
  for (Metric m : kAllMetrics) {
    SCOPED_TRACE(std::string(rawValue(m)));
    std::vector<MenuItemView> states;
    states.push_back(placeholderItem(m));
    for (double cpu : {0.0, 0.07, 1.0}) {
      Snapshot s = busySnapshot(cpu, 1);
      s.network.inRate = cpu * 900e6;
      s.disk.writeRate = cpu * 999e6;
      s.memory.app = static_cast<uint64_t>(cpu * 60e9);
      states.push_back(menuItemView(m, s, std::deque<double>(10, cpu)));
    }
    const double width = itemWidth(states.front());
    for (const MenuItemView& v : states) {
      EXPECT_EQ(itemWidth(v), width) << v.value;
      for (double scale : {1.0, 2.0}) {
        QImage image = drawMenuItem(v, Shade::night, scale, true);
        EXPECT_EQ(image.width(), static_cast<int>(std::ceil(width * scale)));
        EXPECT_EQ(image.height(), static_cast<int>(std::ceil(kItemHeight * scale)));
      }
    }
  }
}

TEST(MenuItemImages, TemplateOnlyWhenCalmAndThenBlackWithAlpha) {
  app();
  Snapshot calm = busySnapshot(0.2, 1), hot = busySnapshot(0.99, 1);
  std::deque<double> live(10, 0.3);
  MenuItemView a = menuItemView(Metric::cpu, calm, live), b = menuItemView(Metric::cpu, hot, live);
  EXPECT_TRUE(itemIsTemplate(a, true));
  EXPECT_FALSE(itemIsTemplate(b, true));  // amber or red must show, with its mark
  EXPECT_FALSE(itemIsTemplate(a, false));
  QImage image = drawMenuItem(a, Shade::paper, 2, true).convertToFormat(QImage::Format_ARGB32);
  int inked = 0;
  for (int y = 0; y < image.height(); ++y) {
    for (int x = 0; x < image.width(); ++x) {
      QColor c = image.pixelColor(x, y);
      if (c.alpha() == 0) continue;
      ++inked;
      EXPECT_EQ(c.red() + c.green() + c.blue(), 0) << x << "," << y;
    }
  }
  EXPECT_GT(inked, 100);  // the figure and the chart are there
}

TEST(PanelViews, ChosenMetricsAppsAndUnreadAlerts) {
  Snapshot s = busySnapshot(0.3, 8);
  std::deque<double> live(150, 0.4);
  std::vector<AlertEvent> alerts(6);
  for (size_t i = 0; i < alerts.size(); ++i) {
    alerts[i].title = "alert " + std::to_string(i);
    alerts[i].date = Date{std::chrono::seconds(1'700'000'000 - 60 * static_cast<int64_t>(i))};
  }
  struct Case {
    int unread;
    double interval;
    size_t alertsListed;
    std::string note;
    size_t capacity;
  } cases[] = {
      {0, 2, 0, "", 300},  // ten minutes at 2 s: more than the live series holds
      {2, 5, 2, "", 120},  // the background's 5 s
      {5, 10, 3, "2 more unread in Vistrel", 60},
      {9, 1, 3, "6 more unread in Vistrel", 600},  // more unread than are kept
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.unread);
    PanelView v = panelView(
        s, AgentsSnapshot{}, alerts, c.unread, {Metric::cpu, Metric::memory},
        [&](Metric) -> const std::deque<double>& { return live; }, c.interval, s.time);
    ASSERT_EQ(v.metrics.size(), 2u);
    EXPECT_EQ(v.metrics[0].glance.metric, Metric::cpu);
    EXPECT_EQ(v.metrics[1].glance.metric, Metric::memory);
    EXPECT_EQ(v.metrics[0].capacity, c.capacity);
    EXPECT_EQ(v.metrics[0].sparkline.size(), std::min<size_t>(150, c.capacity));
    EXPECT_EQ(v.apps.size(), kPanelApps);
    EXPECT_EQ(v.apps.front().name, "App 0");
    ASSERT_EQ(v.alerts.size(), c.alertsListed);
    if (!v.alerts.empty()) {
      EXPECT_EQ(v.alerts.front().title, "alert 0");  // newest first
    }
    EXPECT_EQ(v.unreadNote, c.note);
  }
  // Before the first sample: the chosen metrics are there, calmly empty.
  PanelView empty = panelView(
      std::nullopt, AgentsSnapshot{}, {}, 0, {Metric::network},
      [&](Metric) -> const std::deque<double>& { return live; }, 2, s.time);
  ASSERT_EQ(empty.metrics.size(), 1u);
  EXPECT_EQ(empty.metrics[0].glance.value, "–");
  EXPECT_TRUE(empty.apps.empty());
  EXPECT_FALSE(empty.mood.title.empty());
}

// Items that record what the status bar asks of them.
struct FakeItems : StatusItems {
  bool isAvailable = true;
  int syncs = 0, updates = 0;
  std::vector<MenuItemView> last;
  bool available() const override { return isAvailable; }
  void sync(const std::vector<MenuItemView>& items) override { ++syncs, last = items; }
  void update(const std::vector<MenuItemView>& items) override { ++updates, last = items; }
};

std::shared_ptr<Sampler> fakeSampler(MainQueue& main, const Clock& clock) {
  SamplerParts parts;
  parts.cpu = std::make_unique<testing::FakeCPU>();
  parts.memory = std::make_unique<testing::FakeMemory>();
  parts.gpu = std::make_unique<testing::FakeGPU>();
  parts.disk = std::make_unique<testing::FakeDisk>();
  parts.network = std::make_unique<testing::FakeNetwork>();
  return Sampler::create(std::move(parts), main, clock);
}

class StatusBarTest : public ::testing::Test {
 protected:
  void SetUp() override {
    app();
    defaults.set(keys::interval, 1.0);
    sampler = fakeSampler(main, clock);
    model = std::make_unique<Model>(Model::Parts{sampler, nullptr, &defaults, nullptr}, clock);
    model->start();
    auto fake = std::make_unique<FakeItems>();
    items = fake.get();
    bar = std::make_unique<StatusBar>(*model, StatusBar::Actions{[this] { ++opened; }, {}, {}},
                                      std::move(fake));
  }
  void TearDown() override {
    bar.reset();
    model.reset();
  }

  ManualClock clock{1000};
  ManualMainQueue main;
  MemoryUserDefaults defaults;
  std::shared_ptr<Sampler> sampler;
  std::unique_ptr<Model> model;
  FakeItems* items = nullptr;
  std::unique_ptr<StatusBar> bar;
  int opened = 0;
};

TEST_F(StatusBarTest, PanelOpenSamplesAtTheSettingClosedAtTheFloor) {
  bar->sync();
  EXPECT_EQ(items->syncs, 1);
  ASSERT_EQ(items->last.size(), 2u);  // cpu and memory by default
  EXPECT_DOUBLE_EQ(sampler->interval(), 5);
  bar->togglePanel(QPoint(100, 20));
  EXPECT_TRUE(bar->panelOpen());
  EXPECT_TRUE(model->panelVisible());
  EXPECT_DOUBLE_EQ(sampler->interval(), 1);
  bar->togglePanel(QPoint(100, 20));  // a second click closes it
  EXPECT_FALSE(bar->panelOpen());
  EXPECT_FALSE(model->panelVisible());
  EXPECT_DOUBLE_EQ(sampler->interval(), 5);
  // The click that a popup's own closing swallowed does not reopen it; a later click does.
  bar->togglePanel(QPoint(100, 20));
  EXPECT_FALSE(bar->panelOpen());
  QThread::msleep(300);
  bar->togglePanel(QPoint(100, 20));
  EXPECT_TRUE(bar->panelOpen());
  bar->closePopover();  // what opening the window does first
  EXPECT_FALSE(model->panelVisible());
}

TEST_F(StatusBarTest, SamplesRedrawTheItemsAndOnlyAnOpenPanel) {
  bar->sync();
  model->hooks.onSample = [this] { bar->update(); };
  model->receive(busySnapshot(0.5, 3));
  EXPECT_EQ(items->updates, 1);
  EXPECT_EQ(items->last.front().value, "50%");
  // Closed: the panel is not even made.
  EXPECT_EQ(bar->panel(), nullptr);
  bar->togglePanel(QPoint(0, 0));
  ASSERT_NE(bar->panel(), nullptr);
  model->receive(busySnapshot(0.7, 3));
  EXPECT_EQ(bar->panel()->view().metrics.front().glance.value, "70%");
  bar->closePopover();
  QThread::msleep(300);
  model->receive(busySnapshot(0.9, 3));
  EXPECT_EQ(bar->panel()->view().metrics.front().glance.value, "70%");  // not redrawn closed
  EXPECT_EQ(items->last.front().value, "90%");                          // the items are
  // A changed choice rebuilds the items.
  model->hooks.menuItemsChanged = [this] { bar->sync(); };
  model->setMenuItems({Metric::network});
  EXPECT_EQ(items->syncs, 2);
  ASSERT_EQ(items->last.size(), 1u);
  EXPECT_EQ(items->last.front().metric, Metric::network);
  // An item the person dragged away unticks its metric, and the rest are rebuilt without it.
  model->setMenuItems({Metric::cpu, Metric::memory});
  items->onRemoved(Metric::cpu);
  ASSERT_EQ(items->last.size(), 1u);
  EXPECT_EQ(items->last.front().metric, Metric::memory);
  EXPECT_EQ(model->settings().menuItems, std::vector<Metric>{Metric::memory});
}

TEST_F(StatusBarTest, NoTrayMeansNoItemsAndTheWindowStaysTheWayIn) {
  items->isAvailable = false;
  bar->sync();
  bar->update();
  EXPECT_EQ(items->syncs, 0);
  EXPECT_EQ(items->updates, 0);
  EXPECT_FALSE(bar->available());
}

}  // namespace
}  // namespace vistrel::ui
