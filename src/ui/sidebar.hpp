#pragma once

#include <QWidget>
#include <functional>
#include <vector>

#include "app/settings.hpp"
#include "ui/views.hpp"

namespace vistrel::ui {

// The window's sidebar: one row per page, in groups. Metric rows carry the metric's value and a
// live mini graph, so the whole machine can be read without leaving the page at hand. One widget
// paints every row; keys Up and Down move between pages.
class Sidebar : public QWidget {
 public:
  struct MetricRow {
    MetricGlance glance;
    std::vector<double> live;  // levels 0...1, oldest first
  };

  explicit Sidebar(QWidget* parent = nullptr);
  void setCurrent(Page page);
  Page current() const { return current_; }
  // The live part: each metric's glance and series, and the unread alerts count.
  void setMetrics(std::vector<MetricRow> rows, size_t capacity);
  void setUnreadAlerts(int64_t unread);
  std::function<void(Page)> onSelect;

  QSize sizeHint() const override { return {kWidth, 600}; }
  static constexpr int kWidth = 240;

 protected:
  void paintEvent(QPaintEvent*) override;
  void mousePressEvent(QMouseEvent*) override;
  void keyPressEvent(QKeyEvent*) override;

 private:
  struct Slot {
    enum class Kind { heading, page } kind = Kind::page;
    Page page = Page::overview;
    QString text;
    QRect rect;
  };
  void layoutSlots();
  void resizeEvent(QResizeEvent*) override;

  std::vector<Slot> slots_;
  std::vector<MetricRow> metrics_;
  size_t capacity_ = 0;
  int64_t unread_ = 0;
  Page current_ = Page::overview;
};

}  // namespace vistrel::ui
