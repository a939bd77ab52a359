// The Linux tray: one QSystemTrayIcon (a StatusNotifierItem where the desktop hosts them, else
// the X11 tray), drawn as a live meter of the first chosen metric, with the chosen figures in
// its tooltip, the panel on a left click and a short menu on a right click.

#include <QAction>
#include <QCursor>
#include <QIcon>
#include <QMenu>
#include <QPixmap>
#include <QSystemTrayIcon>
#include <memory>

#include "ui/menubar_images.hpp"
#include "ui/status_bar.hpp"

namespace vistrel::ui {

namespace {

class Tray final : public StatusItems {
 public:
  bool available() const override { return QSystemTrayIcon::isSystemTrayAvailable(); }

  void sync(const std::vector<MenuItemView>& items) override {
    if (!icon_) make();
    update(items);
    icon_->show();
  }

  void update(const std::vector<MenuItemView>& items) override {
    if (!icon_) return;
    const MenuItemView first = items.empty() ? placeholderItem(Metric::cpu) : items.front();
    // The desktop picks the size it shows; the common ones are given so none is scaled from far.
    QIcon icon;
    const Shade shade = currentShade();
    for (int px : {16, 22, 24, 32, 48, 64}) {
      icon.addPixmap(QPixmap::fromImage(drawTrayIcon(first, px, shade)));
    }
    icon_->setIcon(icon);
    icon_->setToolTip(QString::fromStdString(trayTooltip(items)));
  }

 private:
  void make() {
    icon_ = std::make_unique<QSystemTrayIcon>();
    menu_ = std::make_unique<QMenu>();
    QObject::connect(menu_->addAction("Open Vistrel"), &QAction::triggered, [this] {
      if (onOpenWindow) onOpenWindow();
    });
    QObject::connect(menu_->addAction("Settings…"), &QAction::triggered, [this] {
      if (onSettings) onSettings();
    });
    menu_->addSeparator();
    QObject::connect(menu_->addAction("Quit Vistrel"), &QAction::triggered, [this] {
      if (onQuit) onQuit();
    });
    icon_->setContextMenu(menu_.get());
    QObject::connect(
        icon_.get(), &QSystemTrayIcon::activated, [this](QSystemTrayIcon::ActivationReason reason) {
          if (reason != QSystemTrayIcon::Trigger || !onClick) return;
          // Trays report no item geometry over StatusNotifierItem: the pointer it is.
          QRect where = icon_->geometry();
          onClick(where.isValid() ? QPoint(where.center().x(), where.bottom()) : QCursor::pos());
        });
  }

  std::unique_ptr<QSystemTrayIcon> icon_;
  std::unique_ptr<QMenu> menu_;
};

}  // namespace

std::unique_ptr<StatusItems> makeStatusItems() {
  return std::make_unique<Tray>();
}

}  // namespace vistrel::ui
