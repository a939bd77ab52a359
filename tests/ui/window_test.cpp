// The window drawn offscreen: every page in both appearances shows something, and the sampling
// interval follows the window's visibility.

#include "ui/window.hpp"

#include <gtest/gtest.h>
#include <stdlib.h>

#include <QApplication>
#include <QElapsedTimer>
#include <QImage>
#include <QPixmap>
#include <filesystem>
#include <set>

#include "app/model.hpp"
#include "history/history_store.hpp"
#include "sampling/fakes.hpp"
#include "ui/qt_app.hpp"
#include "ui/qt_main_loop.hpp"
#include "ui/sidebar.hpp"
#include "ui/theme.hpp"
#include "ui/views.hpp"

namespace vistrel::ui {
namespace {

namespace fs = std::filesystem;

QApplication& qt() {
  return qtest::qtApp();
}

// Runs the event loop until `done` holds or `ms` have passed.
template <class F>
bool pumpUntil(F done, int ms = 3000) {
  QElapsedTimer timer;
  timer.start();
  while (!done() && timer.elapsed() < ms) {
    QCoreApplication::processEvents(QEventLoop::AllEvents, 20);
  }
  return done();
}

void pump(int ms) {
  pumpUntil([] { return false; }, ms);
}

Snapshot sample(Date time, double cpu) {
  Snapshot s;
  s.time = time;
  s.cpu.total = cpu;
  s.cpu.user = cpu * 0.7;
  s.cpu.system = cpu * 0.3;
  s.cpu.cores = {cpu, cpu / 2, cpu, 0.1};
  s.memory.total = 16ull << 30;
  s.memory.app = 5ull << 30;
  s.memory.wired = 2ull << 30;
  s.memory.free = 9ull << 30;
  s.disk.readRate = 2e6;
  s.disk.volumes = {{"Data", "/", 500'000'000'000, 120'000'000'000, true}};
  s.network.inRate = 3e5;
  s.network.interface = "Wi-Fi";
  AppUsage app;
  app.id = "editor";
  app.name = "Editor";
  app.cpu = cpu * 100;
  app.memory = 700ull << 20;
  s.apps = {app};
  return s;
}

class WindowTest : public ::testing::Test {
 protected:
  void SetUp() override {
    qt();
    char tmpl[] = "/tmp/vistrel-ui-XXXXXX";
    folder_ = ::mkdtemp(tmpl);
    history_ = std::make_unique<HistoryStore>(folder_, loop_);
    sampler_ = vistrel::testing::fakeSampler(loop_, Clock::system());
  }
  void TearDown() override {
    window_.reset();
    model_.reset();
    sampler_.reset();
    history_.reset();
    pump(50);  // completions still queued find their targets gone
    fs::remove_all(folder_);
  }

  void makeWindow() {
    model_ = std::make_unique<Model>(Model::Parts{sampler_, history_.get(), &defaults_, nullptr});
    model_->setDebugSink([this](std::string_view line) { debug_.emplace_back(line); });
    context_ = std::make_unique<PageContext>(PageContext{
        *model_, history_.get(), [this](Page p) { window_->showPage(p); }, "/usr/bin/vistrel"});
    window_ = std::make_unique<MainWindow>(*context_);
  }

  QtMainLoop loop_;
  std::string folder_;
  MemoryUserDefaults defaults_;
  std::unique_ptr<HistoryStore> history_;
  std::shared_ptr<Sampler> sampler_;
  std::unique_ptr<Model> model_;
  std::unique_ptr<PageContext> context_;
  std::unique_ptr<MainWindow> window_;
  std::vector<std::string> debug_;
};

// How much of the page area (right of the sidebar) differs from the page's background, and how
// many colours it holds: a blank or unpainted page has one colour.
struct Ink {
  double share = 0;
  size_t colours = 0;
};
Ink inkOf(const QImage& image, QColor background) {
  Ink ink;
  std::set<QRgb> colours;
  size_t differing = 0, total = 0;
  for (int y = 0; y < image.height(); y += 2) {
    for (int x = Sidebar::kWidth + 2; x < image.width(); x += 2) {
      QRgb px = image.pixel(x, y);
      ++total;
      if (colours.size() < 64) colours.insert(px);
      if (qAbs(qRed(px) - background.red()) + qAbs(qGreen(px) - background.green()) +
              qAbs(qBlue(px) - background.blue()) >
          24) {
        ++differing;
      }
    }
  }
  ink.share = total ? static_cast<double>(differing) / static_cast<double>(total) : 0;
  ink.colours = colours.size();
  return ink;
}

TEST_F(WindowTest, EveryPageDrawsInBothAppearances) {
  // Some history to answer the ranges, then live samples.
  const Date now = Clock::system().now();
  for (int minute = 5; minute >= 1; --minute) {
    history_->record(sample(now - std::chrono::minutes(minute), 0.2 + 0.1 * minute));
  }
  history_->flushNow();
  makeWindow();
  window_->resize(1180, 780);
  window_->show();
  for (int i = 0; i < 5; ++i) model_->receive(sample(now, 0.3 + 0.1 * i));
  ASSERT_TRUE(pumpUntil([&] { return window_->isVisible(); }));

  for (Appearance appearance : {Appearance::night, Appearance::paper}) {
    applyAppearance(qt(), appearance);
    window_->restyle();
    const Palette& p = palette(appearance == Appearance::night ? Shade::night : Shade::paper);
    for (Page page : sidebarPages()) {
      SCOPED_TRACE(pageTitle(page) + (appearance == Appearance::night ? " night" : " paper"));
      window_->showPage(page);
      window_->refresh();
      pump(30);
      QImage image = window_->centralWidget()->grab().toImage();
      ASSERT_FALSE(image.isNull());
      // The sidebar is in this appearance's colour, not the other's.
      EXPECT_EQ(image.pixelColor(4, image.height() / 2).rgb(), p.sidebar.rgb());
      Ink ink = inkOf(image, p.window);
      EXPECT_GT(ink.share, 0.01);
      EXPECT_GE(ink.colours, 4u);
    }
    // A metric page on a span of its history draws its bars once the answer is in.
    window_->showPage(Page::cpu);
    QImage live = window_->centralWidget()->grab().toImage();
    window_->showRange(Page::cpu, TimeSpan::hour);
    pump(300);
    QImage hour = window_->centralWidget()->grab().toImage();
    EXPECT_NE(live, hour);
    EXPECT_GT(inkOf(hour, p.window).share, 0.01);
    window_->showRange(Page::cpu, std::nullopt);
  }
}

TEST_F(WindowTest, IntervalFollowsTheWindow) {
  struct Case {
    double setting, shown, hidden;
  } cases[] = {{1, 1, 5}, {10, 10, 10}};
  for (const Case& c : cases) {
    SCOPED_TRACE(c.setting);
    debug_.clear();
    defaults_.set(keys::interval, c.setting);
    window_.reset();
    model_.reset();
    sampler_ = vistrel::testing::fakeSampler(loop_, Clock::system());
    makeWindow();
    followVisibility(*window_, *model_);
    model_->start();
    EXPECT_DOUBLE_EQ(sampler_->interval(), std::max(c.setting, 5.0));

    window_->show();
    ASSERT_TRUE(pumpUntil([&] { return model_->windowVisible(); }));
    EXPECT_DOUBLE_EQ(sampler_->interval(), c.shown);

    window_->close();  // closing hides; the process and the model go on
    ASSERT_TRUE(pumpUntil([&] { return !model_->windowVisible(); }));
    EXPECT_DOUBLE_EQ(sampler_->interval(), c.hidden);

    window_->show();
    ASSERT_TRUE(pumpUntil([&] { return model_->windowVisible(); }));
    window_->showMinimized();
    ASSERT_TRUE(pumpUntil([&] { return !model_->windowVisible(); }));
    EXPECT_DOUBLE_EQ(sampler_->interval(), c.hidden);
    window_->showNormal();
    ASSERT_TRUE(pumpUntil([&] { return model_->windowVisible(); }));
    EXPECT_DOUBLE_EQ(sampler_->interval(), c.shown);
    // Each change was announced once on the debug line.
    size_t trues = 0, falses = 0;
    for (const std::string& line : debug_) {
      trues += line == "windowVisible true\n";
      falses += line == "windowVisible false\n";
    }
    EXPECT_EQ(trues, 3u);
    EXPECT_EQ(falses, 2u);
  }
}

}  // namespace
}  // namespace vistrel::ui
