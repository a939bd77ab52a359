#include "ui/window.hpp"

#include <QCloseEvent>
#include <QHBoxLayout>
#include <QMenuBar>
#include <QStackedWidget>
#include <QTimer>
#include <QWindow>

#include "alerts/alert_log.hpp"
#include "app/model.hpp"
#include "ui/shell_state.hpp"
#include "ui/sidebar.hpp"
#include "ui/theme.hpp"
#include "ui/views.hpp"

namespace vistrel::ui {

MainWindow::MainWindow(PageContext& context) : context_(context) {
  setWindowTitle("Vistrel");
  auto* central = new QWidget(this);
  // The sizes are the content's: a menu bar inside the window (Linux) comes on top of them.
  central->setMinimumSize(kMinimumWidth, kMinimumHeight);
  auto* layout = new QHBoxLayout(central);
  layout->setContentsMargins(0, 0, 0, 0);
  layout->setSpacing(0);
  sidebar_ = new Sidebar(central);
  sidebar_->onSelect = [this](Page p) { context_.go(p); };
  stack_ = new QStackedWidget(central);
  layout->addWidget(sidebar_);
  layout->addWidget(stack_, 1);
  setCentralWidget(central);
  resizeContent(kWindowWidth, kWindowHeight);
  showPage(Page::overview);
}

PageWidget* MainWindow::pageWidget(Page page) {
  auto found = pages_.find(page);
  if (found != pages_.end()) return found->second;
  PageWidget* widget = makePage(page, context_, stack_);
  stack_->addWidget(widget);
  pages_[page] = widget;
  return widget;
}

void MainWindow::resizeContent(int width, int height) {
  const int menu = menuBar()->isNativeMenuBar() ? 0 : menuBar()->sizeHint().height();
  resize(width, height + menu);
}

void MainWindow::showPage(Page page) {
  page_ = page;
  sidebar_->setCurrent(page);
  PageWidget* widget = pageWidget(page);
  stack_->setCurrentWidget(widget);
  widget->refresh();
}

void followVisibility(MainWindow& window, Model& model) {
  window.onVisibilityEvent = [&window, &model] { model.setWindowVisible(window.onScreen()); };
}

void MainWindow::showRange(Page page, std::optional<TimeSpan> span) {
  pageWidget(page)->setRange(span);
}

void MainWindow::refresh() {
  if (!isVisible()) return;
  Model& model = context_.model;
  if (const auto& latest = model.latest()) {
    std::vector<Sidebar::MetricRow> rows;
    for (Metric m : kAllMetrics) {
      const auto& live = model.live(m);
      rows.push_back({glance(m, *latest), std::vector<double>(live.begin(), live.end())});
    }
    sidebar_->setMetrics(std::move(rows), Model::kLivePoints);
  }
  sidebar_->setUnreadAlerts(model.alerts().unreadAlerts());
  pageWidget(page_)->refresh();
}

void MainWindow::restyle() {
  for (auto& [page, widget] : pages_) widget->restyle();
  sidebar_->update();
  update();
}

bool MainWindow::onScreen() const {
  const QWindow* handle = windowHandle();
  return isVisible() && !isMinimized() && handle && handle->isExposed();
}

void MainWindow::visibilityEvent() {
  // The state that an event announces is settled only after the event: look once it is.
  QTimer::singleShot(0, this, [this] {
    if (onVisibilityEvent) onVisibilityEvent();
  });
}

bool MainWindow::event(QEvent* e) {
  if (e->type() == QEvent::UpdateRequest && !painted_) {
    // The update request paints the whole window synchronously: once it returns, it is drawn.
    bool handled = QMainWindow::event(e);
    painted_ = true;
    if (onFirstPaint) onFirstPaint();
    return handled;
  }
  switch (e->type()) {
    case QEvent::Show:
      if (!filterInstalled_ && windowHandle()) {
        windowHandle()->installEventFilter(this);
        filterInstalled_ = true;
      }
      visibilityEvent();
      break;
    case QEvent::Hide:
    case QEvent::WindowStateChange:
      visibilityEvent();
      break;
    default:
      break;
  }
  return QMainWindow::event(e);
}

bool MainWindow::eventFilter(QObject* watched, QEvent* e) {
  // Exposure: where the platform reports it, a window fully covered or on another space stops
  // being exposed, and the sampler may slow down.
  if (watched == windowHandle() && e->type() == QEvent::Expose) visibilityEvent();
  return QMainWindow::eventFilter(watched, e);
}

void MainWindow::closeEvent(QCloseEvent* e) {
  // Closing hides the window; the application goes on in the menu bar or tray.
  e->ignore();
  hide();
  if (onClose) onClose();
}

void MainWindow::moveEvent(QMoveEvent* e) {
  QMainWindow::moveEvent(e);
  if (onFrameChanged) onFrameChanged();
}

void MainWindow::resizeEvent(QResizeEvent* e) {
  QMainWindow::resizeEvent(e);
  if (onFrameChanged) onFrameChanged();
}

}  // namespace vistrel::ui
