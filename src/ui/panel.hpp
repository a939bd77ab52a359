#pragma once

// The menu-bar panel: what a click on a menu-bar item (the tray icon) opens. The mood, each chosen
// metric with its last ten minutes, the five busiest apps, the coding agents' plan usage, the
// unread alerts, and the ways into the window. Painted from a PanelView; nothing is drawn or
// computed while it is closed.

#include <QElapsedTimer>
#include <QWidget>
#include <functional>

#include "ui/menubar_view.hpp"
#include "ui/theme.hpp"

class QPushButton;

namespace vistrel::ui {

// Paints a PanelView into a rectangle of `width` points; returns the height it used. Shared by
// the panel and the shots, which draw it in either appearance without a window.
double paintPanel(QPainter& p, const PanelView& view, Shade shade, double width);
// The height `paintPanel` needs for a view, without painting.
double panelHeight(const PanelView& view, double width);
inline constexpr double kPanelWidth = 340;

class Panel : public QWidget {
 public:
  // `floating`: a small normal window (Wayland, where a popup cannot be placed at the pointer);
  // otherwise a popup that closes when the pointer clicks elsewhere.
  explicit Panel(bool floating, QWidget* parent = nullptr);
  void setView(PanelView view);
  const PanelView& view() const { return view_; }
  // Places the panel so that its top edge (or its bottom, near the bottom of the screen) is at
  // `anchor`, kept on the screen.
  void showAt(QPoint anchor);

  // Milliseconds since the panel was last hidden; a large number when it never was.
  qint64 msSinceHidden() const;

  std::function<void()> onOpenWindow;
  std::function<void()> onQuitApp;
  std::function<void(bool visible)> onVisibility;

 protected:
  void paintEvent(QPaintEvent*) override;
  void showEvent(QShowEvent*) override;
  void hideEvent(QHideEvent*) override;

 private:
  void relayout();
  PanelView view_;
  QPushButton* open_ = nullptr;
  QPushButton* quit_ = nullptr;
  QElapsedTimer hiddenAt_;
};

}  // namespace vistrel::ui
