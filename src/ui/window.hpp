#pragma once

#include <QMainWindow>
#include <functional>
#include <map>

#include "app/settings.hpp"
#include "ui/page.hpp"

class QStackedWidget;

namespace vistrel {
class Model;
}

namespace vistrel::ui {

class Sidebar;

// The main window: the sidebar and the page on show. Pages are made the first time they are
// shown and refreshed only while on screen. Closing the window hides it; the process goes on.
class MainWindow final : public QMainWindow {
 public:
  explicit MainWindow(PageContext& context);

  void showPage(Page page);
  // Sizes the window so that its content (below a menu bar inside it) is `width` × `height`.
  void resizeContent(int width, int height);
  // Shows a metric page on a span of its history.
  void showRange(Page page, std::optional<TimeSpan> span);
  Page page() const { return page_; }
  // Fresh data: the sidebar and the page on show repaint from the model.
  void refresh();
  // The appearance changed.
  void restyle();
  // Visible to the person: shown, not minimised, and exposed (not fully covered, where the platform
  // reports that).
  bool onScreen() const;

  // Called (soon after, on the main thread) whenever visibility may have changed.
  std::function<void()> onVisibilityEvent;
  // Called after the window moved or was resized.
  std::function<void()> onFrameChanged;
  // Called when the person asks to close the window (it hides).
  std::function<void()> onClose;
  // Called once, after the window has been painted for the first time.
  std::function<void()> onFirstPaint;

 protected:
  bool event(QEvent* e) override;
  bool eventFilter(QObject* watched, QEvent* e) override;
  void closeEvent(QCloseEvent* e) override;
  void moveEvent(QMoveEvent* e) override;
  void resizeEvent(QResizeEvent* e) override;

 private:
  void visibilityEvent();
  PageWidget* pageWidget(Page page);

  PageContext& context_;
  Sidebar* sidebar_ = nullptr;
  QStackedWidget* stack_ = nullptr;
  std::map<Page, PageWidget*> pages_;
  Page page_ = Page::overview;
  bool filterInstalled_ = false;
  bool painted_ = false;
};

// Keeps the model's `windowVisible` (and so the sampling interval) in step with what the window
// reports: shown, hidden, minimised, exposed or covered.
void followVisibility(MainWindow& window, Model& model);

}  // namespace vistrel::ui
