#include "ui/charts.hpp"

#include <QPainter>
#include <QPainterPath>
#include <algorithm>
#include <cmath>

#include "ui/theme.hpp"

namespace vistrel::ui {

namespace {

double clamp01(double v) {
  return std::isfinite(v) ? std::clamp(v, 0.0, 1.0) : 0.0;
}

// The points of a series laid out right-aligned in `r`, `capacity` of them across the width.
QPolygonF layoutPoints(const QRectF& r, const std::vector<double>& levels, size_t capacity) {
  QPolygonF points;
  if (levels.empty()) return points;
  const size_t slots = std::max(capacity, levels.size());
  const double step = slots > 1 ? r.width() / static_cast<double>(slots - 1) : 0.0;
  const double x0 = r.right() - step * static_cast<double>(levels.size() - 1);
  points.reserve(static_cast<qsizetype>(levels.size()));
  for (size_t i = 0; i < levels.size(); ++i) {
    points << QPointF(x0 + step * static_cast<double>(i),
                      r.bottom() - clamp01(levels[i]) * r.height());
  }
  return points;
}

}  // namespace

void paintArea(QPainter& p, const QRectF& r, const std::vector<double>& levels, size_t capacity,
               const QColor& line, const QColor& fill, double lineWidth) {
  QPolygonF points = layoutPoints(r, levels, capacity);
  if (points.isEmpty()) return;
  if (points.size() == 1) points.prepend(QPointF(points.front().x() - 1, points.front().y()));
  p.save();
  p.setRenderHint(QPainter::Antialiasing, true);
  QPainterPath area;
  area.moveTo(points.front().x(), r.bottom());
  for (const QPointF& pt : points) area.lineTo(pt);
  area.lineTo(points.back().x(), r.bottom());
  area.closeSubpath();
  p.fillPath(area, fill);
  p.setPen(QPen(line, lineWidth, Qt::SolidLine, Qt::RoundCap, Qt::RoundJoin));
  p.drawPolyline(points);
  p.restore();
}

void paintBars(QPainter& p, const QRectF& r, const std::vector<double>& values,
               const std::vector<double>& peaks, const QColor& bar, const QColor& peak) {
  if (values.empty()) return;
  const double slot = r.width() / static_cast<double>(values.size());
  const double gap = slot > 4 ? std::min(2.0, slot * 0.25) : 0.0;
  p.save();
  p.setRenderHint(QPainter::Antialiasing, false);
  for (size_t i = 0; i < values.size(); ++i) {
    const double x = r.left() + slot * static_cast<double>(i);
    const double h = clamp01(values[i]) * r.height();
    if (h > 0) p.fillRect(QRectF(x, r.bottom() - h, slot - gap, h), bar);
    if (i < peaks.size() && peaks[i] > values[i]) {
      const double y = r.bottom() - clamp01(peaks[i]) * r.height();
      p.fillRect(QRectF(x, y, slot - gap, 1.5), peak);
    }
  }
  p.restore();
}

void paintMeter(QPainter& p, const QRectF& r, double level, const QColor& track,
                const QColor& fill) {
  paintStack(p, r, {level}, {fill}, track);
}

void paintStack(QPainter& p, const QRectF& r, const std::vector<double>& shares,
                const std::vector<QColor>& colors, const QColor& track) {
  p.save();
  p.setRenderHint(QPainter::Antialiasing, true);
  QPainterPath clip;
  clip.addRoundedRect(r, r.height() / 2, r.height() / 2);
  p.setClipPath(clip);
  p.fillRect(r, track);
  double x = r.left();
  for (size_t i = 0; i < shares.size() && i < colors.size(); ++i) {
    const double w = clamp01(shares[i]) * r.width();
    p.fillRect(QRectF(x, r.top(), w, r.height()), colors[i]);
    x += w;
  }
  p.restore();
}

void paintAttentionMark(QPainter& p, const QPointF& c, double size, const QColor& color) {
  p.save();
  p.setRenderHint(QPainter::Antialiasing, true);
  QPolygonF triangle;
  triangle << QPointF(c.x(), c.y() - size / 2) << QPointF(c.x() + size / 2, c.y() + size / 2)
           << QPointF(c.x() - size / 2, c.y() + size / 2);
  p.setPen(Qt::NoPen);
  p.setBrush(color);
  p.drawPolygon(triangle);
  p.restore();
}

// --- Sparkline ---

Sparkline::Sparkline(QWidget* parent) : QWidget(parent) {
  setAttribute(Qt::WA_OpaquePaintEvent, false);
}

void Sparkline::setSeries(std::vector<double> levels, size_t capacity) {
  levels_ = std::move(levels);
  capacity_ = capacity;
  update();
}

void Sparkline::paintEvent(QPaintEvent*) {
  QPainter p(this);
  const Palette& pal = currentPalette();
  QColor line = color_.isValid() ? color_ : pal.accent;
  QColor fill = line;
  fill.setAlpha(currentShade() == Shade::night ? 60 : 40);
  paintArea(p, QRectF(rect()).adjusted(1, 2, -1, -1), levels_, capacity_, line, fill, 1.25);
}

// --- Chart ---

Chart::Chart(QWidget* parent) : QWidget(parent) {
  setSizePolicy(QSizePolicy::Expanding, QSizePolicy::Expanding);
}

void Chart::setLive(std::vector<double> levels, size_t capacity) {
  bars_ = false;
  values_ = std::move(levels);
  peaks_.clear();
  capacity_ = capacity;
  update();
}

void Chart::setBars(std::vector<double> values, std::vector<double> peaks) {
  bars_ = true;
  values_ = std::move(values);
  peaks_ = std::move(peaks);
  second_.clear();
  update();
}

void Chart::setSecond(std::vector<double> levels) {
  second_ = std::move(levels);
  update();
}

void Chart::setAxis(QString top, QString middle, QString leftEnd, QString rightEnd) {
  top_ = std::move(top);
  middle_ = std::move(middle);
  leftEnd_ = std::move(leftEnd);
  rightEnd_ = std::move(rightEnd);
  update();
}

void Chart::setEmptyText(QString text) {
  empty_ = std::move(text);
  update();
}

void Chart::paintEvent(QPaintEvent*) {
  QPainter p(this);
  const Palette& pal = currentPalette();
  if (values_.empty() && !empty_.isEmpty()) {
    // Nothing to draw: the reason alone, without an empty grid that would pass for zeros.
    p.setPen(pal.muted);
    p.setFont(textFont(kBody));
    p.drawText(rect(), Qt::AlignCenter | Qt::TextWordWrap, empty_);
    return;
  }
  p.setFont(figureFont(kCaption));
  const QFontMetricsF fm(p.font());
  const double labelH = fm.height();
  // Plot area: labels above the grid on the left, time ends below.
  QRectF plot = QRectF(rect()).adjusted(0, labelH + 4, 0, -(labelH + 6));
  p.setPen(QPen(pal.grid, 1));
  for (double f : {0.0, 0.5, 1.0}) {
    const double y = std::round(plot.top() + plot.height() * f) + 0.5;
    p.drawLine(QPointF(plot.left(), y), QPointF(plot.right(), y));
  }
  p.setPen(pal.muted);
  p.drawText(QPointF(plot.left(), plot.top() - 4), top_);
  p.drawText(QPointF(plot.left(), plot.top() + plot.height() / 2 - 4), middle_);
  p.drawText(QRectF(plot.left(), plot.bottom() + 4, plot.width() / 2, labelH),
             Qt::AlignLeft | Qt::AlignTop, leftEnd_);
  p.drawText(QRectF(plot.center().x(), plot.bottom() + 4, plot.width() / 2, labelH),
             Qt::AlignRight | Qt::AlignTop, rightEnd_);

  if (values_.empty()) return;
  QRectF inner = plot.adjusted(0, 1, 0, -1);
  if (bars_) {
    QColor peak = pal.muted;
    paintBars(p, inner, values_, peaks_, pal.accent, peak);
  } else {
    paintArea(p, inner, values_, capacity_, pal.accent, pal.accentSoft, 2.0);
    if (!second_.empty()) {
      QColor second = pal.muted;
      QColor none(0, 0, 0, 0);
      paintArea(p, inner, second_, capacity_, second, none, 1.25);
    }
  }
}

// --- BarRow ---

BarRow::BarRow(QWidget* parent) : QWidget(parent) {
  setSizePolicy(QSizePolicy::Expanding, QSizePolicy::Fixed);
  setFixedHeight(44);
}

void BarRow::setValues(std::vector<double> values) {
  values_ = std::move(values);
  update();
}

void BarRow::paintEvent(QPaintEvent*) {
  QPainter p(this);
  const Palette& pal = currentPalette();
  if (values_.empty()) return;
  const double n = static_cast<double>(values_.size());
  const double slot = width() / n;
  const double gap = std::min(6.0, slot * 0.3);
  // Thin bars however few the cores, so that two cores do not read as two slabs.
  const double barWidth = std::min(slot - gap, 28.0);
  p.setRenderHint(QPainter::Antialiasing, true);
  for (size_t i = 0; i < values_.size(); ++i) {
    QRectF track(slot * static_cast<double>(i), 0, barWidth, height());
    p.setPen(Qt::NoPen);
    p.setBrush(pal.grid);
    p.drawRoundedRect(track, 3, 3);
    const double h = clamp01(values_[i]) * height();
    if (h > 0.5) {
      p.setBrush(pal.accent);
      p.drawRoundedRect(QRectF(track.left(), height() - h, track.width(), h), 3, 3);
    }
  }
}

// --- Meter ---

Meter::Meter(QWidget* parent) : QWidget(parent) {
  setFixedHeight(12);
  setSizePolicy(QSizePolicy::Expanding, QSizePolicy::Fixed);
}

void Meter::setLevel(double level, bool attention) {
  shares_ = {level};
  colors_.clear();
  attention_ = attention;
  update();
}

void Meter::setStack(std::vector<double> shares, std::vector<QColor> colors) {
  shares_ = std::move(shares);
  colors_ = std::move(colors);
  attention_ = false;
  update();
}

void Meter::paintEvent(QPaintEvent*) {
  QPainter p(this);
  const Palette& pal = currentPalette();
  QRectF r = QRectF(rect()).adjusted(0, 2, 0, -2);
  if (colors_.empty()) {
    paintMeter(p, r, shares_.empty() ? 0 : shares_[0], pal.grid,
               attention_ ? pal.amber : pal.accent);
  } else {
    paintStack(p, r, shares_, colors_, pal.grid);
  }
}

}  // namespace vistrel::ui
