#pragma once

// The one chart family of the window: everything is drawn with QPainter from plain numbers that
// the view models have already scaled to 0...1, so a chart never knows units. The painting
// functions are free so that the menu-bar images and the panel can draw the same shapes into
// their own pixmaps; the widgets only hold their numbers and call them from paintEvent.

#include <QColor>
#include <QRectF>
#include <QString>
#include <QWidget>
#include <vector>

class QPainter;

namespace vistrel::ui {

// A line with a soft fill under it, newest value at the right edge. `capacity` points fill the
// width, so a series still filling up grows from the right instead of stretching.
void paintArea(QPainter& p, const QRectF& r, const std::vector<double>& levels, size_t capacity,
               const QColor& line, const QColor& fill, double lineWidth = 1.5);
// One bar per value, bottom-aligned; where a peak above the bar is given, a short tick marks it.
void paintBars(QPainter& p, const QRectF& r, const std::vector<double>& values,
               const std::vector<double>& peaks, const QColor& bar, const QColor& peak);
// A horizontal track with a filled share (0...1), rounded.
void paintMeter(QPainter& p, const QRectF& r, double level, const QColor& track,
                const QColor& fill);
// Side-by-side segments of one bar (each a share 0...1 of the whole), rounded at the ends.
void paintStack(QPainter& p, const QRectF& r, const std::vector<double>& shares,
                const std::vector<QColor>& colors, const QColor& track);
// The small attention mark drawn beside a value in amber or red: a triangle, so that the state
// never rests on colour alone.
void paintAttentionMark(QPainter& p, const QPointF& centre, double size, const QColor& color);

// A mini graph: the series only, no axes.
class Sparkline : public QWidget {
 public:
  explicit Sparkline(QWidget* parent = nullptr);
  void setSeries(std::vector<double> levels, size_t capacity);
  void setColor(QColor color) { color_ = color; }
  QSize sizeHint() const override { return {120, 28}; }

 protected:
  void paintEvent(QPaintEvent*) override;

 private:
  std::vector<double> levels_;
  size_t capacity_ = 0;
  QColor color_;
};

// The large chart of a metric page: a live area series or history bars, with three grid lines
// labelled by the caller (the top label is the full scale, e.g. "100%" or "1.2 GB/s").
class Chart : public QWidget {
 public:
  explicit Chart(QWidget* parent = nullptr);
  // Live: a filling area series.
  void setLive(std::vector<double> levels, size_t capacity);
  // History: one bar per bucket, with peaks; an empty list shows `emptyText`.
  void setBars(std::vector<double> values, std::vector<double> peaks);
  // A second, quieter series drawn over the first (writes under reads, out under in).
  void setSecond(std::vector<double> levels);
  void setAxis(QString top, QString middle, QString leftEnd, QString rightEnd);
  void setEmptyText(QString text);
  QSize sizeHint() const override { return {640, 260}; }
  QSize minimumSizeHint() const override { return {300, 160}; }

 protected:
  void paintEvent(QPaintEvent*) override;

 private:
  bool bars_ = false;
  std::vector<double> values_;
  std::vector<double> peaks_;
  std::vector<double> second_;
  size_t capacity_ = 0;
  QString top_, middle_, leftEnd_, rightEnd_, empty_;
};

// Vertical bars of equal width, one per item (a CPU's cores), each 0...1.
class BarRow : public QWidget {
 public:
  explicit BarRow(QWidget* parent = nullptr);
  void setValues(std::vector<double> values);
  QSize sizeHint() const override { return {400, 90}; }

 protected:
  void paintEvent(QPaintEvent*) override;

 private:
  std::vector<double> values_;
};

// A horizontal meter or a stacked breakdown, 12 px high.
class Meter : public QWidget {
 public:
  explicit Meter(QWidget* parent = nullptr);
  void setLevel(double level, bool attention = false);
  void setStack(std::vector<double> shares, std::vector<QColor> colors);
  QSize sizeHint() const override { return {200, 12}; }

 protected:
  void paintEvent(QPaintEvent*) override;

 private:
  std::vector<double> shares_;
  std::vector<QColor> colors_;
  bool attention_ = false;
};

}  // namespace vistrel::ui
