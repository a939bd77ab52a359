#include "ui/status_bar.hpp"

#include <QGuiApplication>
#include <QImage>
#include <QPainter>
#include <cmath>
#include <cstdio>

#include "alerts/alert_log.hpp"
#include "base/clock.hpp"
#include "ui/menubar_images.hpp"
#include "ui/panel.hpp"

namespace vistrel::ui {

namespace {

// Wayland gives a client no say over where a popup opens nor where the pointer is: the panel is a
// small normal window there.
constexpr qint64 kReopenGuardMs = 250;

bool floatingPanel() {
  return QGuiApplication::platformName().startsWith("wayland");
}

}  // namespace

StatusBar::StatusBar(Model& model, Actions actions, std::unique_ptr<StatusItems> items)
    : model_(model),
      actions_(std::move(actions)),
      items_(items ? std::move(items) : makeStatusItems()) {
  drawUnseen_ = QGuiApplication::platformName() == "offscreen";
  items_->onClick = [this](QPoint anchor) { togglePanel(anchor); };
  items_->onOpenWindow = [this] {
    closePopover();
    if (actions_.openWindow) actions_.openWindow();
  };
  items_->onSettings = [this] {
    closePopover();
    if (actions_.openPage) actions_.openPage(Page::settings);
  };
  // A removed item is the person un-choosing that metric: settings then show it unticked, and
  // ticking it again brings the item back.
  items_->onRemoved = [this](Metric metric) {
    std::vector<Metric> chosen = model_.settings().menuItems;
    std::erase(chosen, metric);
    model_.setMenuItems(std::move(chosen));
  };
  items_->onQuit = [this] {
    if (actions_.quit) actions_.quit();
  };
  // The model publishes only while the window or the panel is visible; the panel redraws only
  // while it is open.
  model_.addObserver([this, alive = std::weak_ptr<bool>(alive_)](const Snapshot&) {
    if (alive.lock() && panelOpen()) refreshPanel();
  });
}

StatusBar::~StatusBar() {
  *alive_ = false;
  if (panelOpen()) model_.setPanelVisible(false);
}

bool StatusBar::available() const {
  return items_->available();
}

std::vector<MenuItemView> StatusBar::currentViews() const {
  std::vector<MenuItemView> views;
  const auto& latest = model_.latest();
  for (Metric m : model_.settings().menuItems) {
    views.push_back(latest ? menuItemView(m, *latest, model_.live(m)) : placeholderItem(m));
  }
  return views;
}

void StatusBar::sync() {
  views_ = currentViews();
  if (!items_->available()) {
    if (!saidUnavailable_) {
      saidUnavailable_ = true;
      std::fprintf(stderr, "vistrel: this desktop shows no tray icons; the window is the way in\n");
    }
    return;
  }
  items_->sync(views_);
}

void StatusBar::update() {
  if (!items_->available()) {
    // Qt's offscreen platform (benchmarks, shots) has no tray: the items are drawn all the same,
    // into images nobody sees, so that what they cost per sample is measured.
    if (drawUnseen_) {
      for (const MenuItemView& v : currentViews()) drawMenuItem(v, currentShade(), 2, true);
      if (!model_.settings().menuItems.empty()) {
        const MenuItemView first = currentViews().front();
        for (int px : {16, 22, 24, 32, 48, 64}) drawTrayIcon(first, px, currentShade());
      }
    }
    return;
  }
  views_ = currentViews();
  items_->update(views_);
}

PanelView StatusBar::currentPanel() const {
  return panelView(
      model_.latest(), model_.agents(), model_.alerts().alerts(),
      static_cast<int>(model_.alerts().unreadAlerts()), model_.settings().menuItems,
      [this](Metric m) -> const std::deque<double>& { return model_.live(m); },
      model_.effectiveInterval(), Clock::system().now());
}

void StatusBar::refreshPanel() {
  panel_->setView(currentPanel());
}

bool StatusBar::panelOpen() const {
  return panel_ && panel_->isVisible();
}

void StatusBar::togglePanel(QPoint anchor) {
  if (panelOpen()) {
    closePopover();
    return;
  }
  // A popup closes itself on the press outside it, which may be the very click on the item that
  // follows: that click meant "close", not "open again".
  if (panel_ && panel_->msSinceHidden() < kReopenGuardMs) return;
  if (!panel_) {
    panel_ = std::make_unique<Panel>(floatingPanel());
    panel_->onOpenWindow = [this] {
      if (actions_.openWindow) actions_.openWindow();
    };
    panel_->onQuitApp = [this] {
      if (actions_.openPage) actions_.openPage(Page::apps);
    };
    panel_->onVisibility = [this](bool visible) { model_.setPanelVisible(visible); };
  }
  refreshPanel();
  panel_->showAt(anchor);
}

void StatusBar::closePopover() {
  if (panel_ && panel_->isVisible()) panel_->hide();
}

bool StatusBar::dumpItems(const std::string& prefix) {
  constexpr double kScale = 2;
  bool ok = true;
  auto save = [&](const QImage& image, const std::string& path) {
    if (!image.save(QString::fromStdString(path), "PNG")) {
      std::fprintf(stderr, "vistrel: cannot write %s\n", path.c_str());
      ok = false;
    }
  };
  const std::vector<MenuItemView> views = currentViews();
  const PanelView panel = currentPanel();
  for (Shade shade : {Shade::paper, Shade::night}) {
    const std::string look = shade == Shade::paper ? "paper" : "night";
    for (const MenuItemView& v : views) {
      save(drawMenuItem(v, shade, kScale, false),
           prefix + "-" + std::string(rawValue(v.metric)) + "-" + look + ".png");
    }
    save(drawMenuBarStrip(views, shade, kScale), prefix + "-bar-" + look + ".png");
    save(drawTrayIcon(views.empty() ? placeholderItem(Metric::cpu) : views.front(), 64, shade),
         prefix + "-tray-" + look + ".png");
    const double height = std::ceil(panelHeight(panel, kPanelWidth));
    QImage image(static_cast<int>(kPanelWidth * kScale), static_cast<int>(height * kScale),
                 QImage::Format_ARGB32_Premultiplied);
    image.setDevicePixelRatio(kScale);
    image.fill(palette(shade).card);
    {
      QPainter p(&image);
      paintPanel(p, panel, shade, kPanelWidth);
      // The buttons are widgets in the live panel; here they are drawn as their outlines.
      const Palette& pal = palette(shade);
      const double by = height - 44 + 8, bw = (kPanelWidth - 32 - 10) / 2;
      p.setRenderHint(QPainter::Antialiasing, true);
      p.setFont(textFont(kBody));
      for (int i = 0; i < 2; ++i) {
        QRectF r(16 + i * (bw + 10), by, bw, 28);
        p.setPen(QPen(pal.border, 1));
        p.setBrush(pal.window);
        p.drawRoundedRect(r, 7, 7);
        p.setPen(pal.text);
        p.drawText(r, Qt::AlignCenter, i == 0 ? "Open Vistrel" : "Quit app…");
      }
    }
    save(image, prefix + "-panel-" + look + ".png");
  }
  return ok;
}

}  // namespace vistrel::ui
