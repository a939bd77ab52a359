#pragma once

// The menu-bar items (macOS) or the tray icon (Linux) and their panel. `sync` rebuilds the items
// from the `menuItems` setting, `update` redraws them from the newest snapshot (the model calls it
// on every sample, and nothing else happens per sample), `closePopover` closes the panel, and
// `dumpItems` writes their images for screenshots. The panel sets the model's `panelVisible`
// while it is open, which the sampling interval rule reads.

#include <QPoint>
#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "app/model.hpp"
#include "ui/menubar_view.hpp"

namespace vistrel::ui {

class Panel;

// What the platform provides: one item per view (macOS) or a single tray icon drawn from the first
// view (Linux). Defined in linux/ or macos/.
class StatusItems {
 public:
  virtual ~StatusItems() = default;
  // Whether the desktop shows such items at all (a Linux desktop may have no tray).
  virtual bool available() const = 0;
  // Replaces the items with one per view, each visible: a metric chosen in settings is shown
  // even where the system remembers that its item was once dragged away.
  virtual void sync(const std::vector<MenuItemView>& items) = 0;
  // Redraws the items with new figures (same metrics as the last sync).
  virtual void update(const std::vector<MenuItemView>& items) = 0;
  std::function<void(QPoint anchor)> onClick;  // a click on an item: toggle the panel there
  // The person removed the item of this metric (macOS: dragged out of the bar with Command held).
  // Called on the main thread, later than the removal itself (never from inside `sync`).
  std::function<void(Metric)> onRemoved;
  std::function<void()> onOpenWindow;
  std::function<void()> onSettings;
  std::function<void()> onQuit;
};
std::unique_ptr<StatusItems> makeStatusItems();

class StatusBar {
 public:
  struct Actions {
    std::function<void()> openWindow;
    std::function<void(Page)> openPage;
    std::function<void()> quit;
  };
  // `items` null: the platform's.
  StatusBar(Model& model, Actions actions, std::unique_ptr<StatusItems> items = {});
  ~StatusBar();

  void sync();
  void update();
  void closePopover();
  // Writes each item at scale 2 in both appearances (prefix + "-<metric>-<appearance>.png", and
  // the whole bar as prefix + "-bar-<appearance>.png") and the panel (prefix +
  // "-panel-paper.png", "-panel-night.png"). False, with a line on standard error, when a file
  // cannot be written.
  bool dumpItems(const std::string& prefix);

  // Toggles the panel at `anchor` (a second click closes it).
  void togglePanel(QPoint anchor);
  bool panelOpen() const;
  bool available() const;
  // The items' views as last drawn (tests).
  const std::vector<MenuItemView>& views() const { return views_; }
  Panel* panel() { return panel_.get(); }

 private:
  std::vector<MenuItemView> currentViews() const;
  PanelView currentPanel() const;
  void refreshPanel();

  Model& model_;
  Actions actions_;
  std::unique_ptr<StatusItems> items_;
  std::unique_ptr<Panel> panel_;  // made on first open
  std::vector<MenuItemView> views_;
  bool saidUnavailable_ = false;
  bool drawUnseen_ = false;  // draw the items even without a tray (offscreen platform)
  std::shared_ptr<bool> alive_ = std::make_shared<bool>(true);  // held weakly by observers
};

}  // namespace vistrel::ui
