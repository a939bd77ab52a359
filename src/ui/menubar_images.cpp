#include "ui/menubar_images.hpp"

#include <QFontMetricsF>
#include <QPainter>
#include <algorithm>
#include <cmath>

#include "ui/charts.hpp"
#include "ui/widgets.hpp"

namespace vistrel::ui {

namespace {

constexpr double kPad = 4;  // points left and right of an item's content
constexpr double kGap = 4;  // between the label, the figure and the graphic
constexpr double kChartWidth = 26;
constexpr double kBarWidth = 6;  // the bar of memory stands upright beside the figure
constexpr double kMarkSize = 7;

// Fonts in points of the image (logical pixels), whatever the image's dots per inch.
QFont itemFont(double points, bool figure, QFont::Weight weight = QFont::Normal) {
  QFont f = figure ? figureFont(points, weight) : textFont(points, weight);
  f.setPixelSize(static_cast<int>(std::lround(points)));
  return f;
}

QColor attentionTint(Attention a, Shade shade) {
  const Palette& pal = palette(shade);
  return a == Attention::trouble ? pal.red : pal.amber;
}

double textWidth(const QFont& f, const std::string& text) {
  return QFontMetricsF(f).horizontalAdvance(QString::fromStdString(text));
}

struct Ink {
  QColor text, muted, accent, track;
};

Ink inkFor(const MenuItemView& item, Shade shade, bool asTemplate) {
  const Palette& pal = palette(shade);
  if (asTemplate) {
    // The system tints a template by its alpha alone.
    return {QColor(0, 0, 0), QColor(0, 0, 0, 150), QColor(0, 0, 0), QColor(0, 0, 0, 60)};
  }
  Ink ink{pal.text, pal.muted, pal.accent, pal.border};
  if (item.attention != Attention::none) ink.accent = attentionTint(item.attention, shade);
  return ink;
}

// Layout of an item, in points from its left edge.
struct Layout {
  double labelWidth = 0, figureWidth = 0, graphicWidth = 0, markWidth = 0, width = 0;
};

Layout layoutOf(const MenuItemView& item) {
  Layout l;
  const QFont small = itemFont(kItemSmall, false, QFont::DemiBold);
  const QFont figure = itemFont(item.style == ItemStyle::rates ? kItemSmall : kItemFigure, true);
  l.labelWidth = item.style == ItemStyle::rates ? 0 : textWidth(small, item.label);
  l.figureWidth = std::ceil(textWidth(figure, item.widest));
  if (item.style == ItemStyle::chart) l.graphicWidth = kChartWidth;
  if (item.style == ItemStyle::bar) l.graphicWidth = kBarWidth;
  // Room for the attention mark is always kept, so the width never changes when it appears.
  l.markWidth = kMarkSize + 2;
  l.width = kPad + l.markWidth + (l.labelWidth > 0 ? l.labelWidth + kGap : 0) + l.figureWidth +
            (l.graphicWidth > 0 ? kGap + l.graphicWidth : 0) + kPad;
  l.width = std::ceil(l.width);
  return l;
}

void paintItem(QPainter& p, const MenuItemView& item, const Layout& l, const Ink& ink,
               bool asTemplate) {
  const double h = kItemHeight;
  double x = kPad;
  if (item.attention != Attention::none) {
    paintAttentionMark(p, QPointF(x + kMarkSize / 2, h / 2), kMarkSize, ink.accent);
  }
  x += l.markWidth;
  const QFont small = itemFont(kItemSmall, false, QFont::DemiBold);
  if (item.style == ItemStyle::rates) {
    // Two lines of 10 pt: the first direction over the second, right-aligned in a fixed column.
    const QFont figure = itemFont(kItemSmall, true);
    p.setFont(figure);
    p.setPen(ink.text);
    p.drawText(QRectF(x, 1, l.figureWidth, h / 2), Qt::AlignRight | Qt::AlignVCenter,
               QString::fromStdString(item.value));
    p.drawText(QRectF(x, h / 2 - 1, l.figureWidth, h / 2), Qt::AlignRight | Qt::AlignVCenter,
               QString::fromStdString(item.second));
    return;
  }
  p.setFont(small);
  p.setPen(ink.muted);
  p.drawText(QRectF(x, 0, l.labelWidth, h), Qt::AlignLeft | Qt::AlignVCenter,
             QString::fromStdString(item.label));
  x += l.labelWidth + kGap;
  p.setFont(itemFont(kItemFigure, true));
  p.setPen(item.attention != Attention::none && !asTemplate ? ink.accent : ink.text);
  p.drawText(QRectF(x, 0, l.figureWidth, h), Qt::AlignRight | Qt::AlignVCenter,
             QString::fromStdString(item.value));
  x += l.figureWidth + kGap;
  if (item.style == ItemStyle::chart) {
    QRectF r(x, 5, l.graphicWidth, h - 10);
    QColor fill = ink.accent;
    fill.setAlpha(asTemplate ? 90 : 70);
    p.setPen(QPen(ink.track, 1));
    p.drawLine(QPointF(r.left(), r.bottom() + 0.5), QPointF(r.right(), r.bottom() + 0.5));
    paintArea(p, r, item.series, kItemChartPoints, ink.accent, fill, 1.2);
  } else if (item.style == ItemStyle::bar) {
    // Upright: a track the height of the figure, filled from the bottom.
    QRectF track(x, 5, l.graphicWidth, h - 10);
    p.save();
    p.setRenderHint(QPainter::Antialiasing, true);
    p.setPen(Qt::NoPen);
    p.setBrush(ink.track);
    p.drawRoundedRect(track, 2, 2);
    double level = std::clamp(item.level, 0.0, 1.0);
    QRectF filled(track.left(), track.bottom() - track.height() * level, track.width(),
                  track.height() * level);
    p.setBrush(ink.accent);
    p.drawRoundedRect(filled, 2, 2);
    p.restore();
  }
}

}  // namespace

double itemWidth(const MenuItemView& item) {
  return layoutOf(item).width;
}

bool itemIsTemplate(const MenuItemView& item, bool monochrome) {
  return monochrome && item.attention == Attention::none;
}

QImage drawMenuItem(const MenuItemView& item, Shade shade, double scale, bool monochrome) {
  const Layout l = layoutOf(item);
  const bool asTemplate = itemIsTemplate(item, monochrome);
  QImage image(static_cast<int>(std::ceil(l.width * scale)),
               static_cast<int>(std::ceil(kItemHeight * scale)),
               QImage::Format_ARGB32_Premultiplied);
  image.setDevicePixelRatio(scale);
  image.fill(Qt::transparent);
  QPainter p(&image);
  p.setRenderHint(QPainter::TextAntialiasing, true);
  paintItem(p, item, l, inkFor(item, shade, asTemplate), asTemplate);
  return image;
}

QImage drawTrayIcon(const MenuItemView& item, int pixels, Shade shade) {
  const Palette& pal = palette(shade);
  QImage image(pixels, pixels, QImage::Format_ARGB32_Premultiplied);
  image.fill(Qt::transparent);
  QPainter p(&image);
  p.setRenderHint(QPainter::Antialiasing, true);
  const double s = pixels;
  const QRectF tile(s * 0.04, s * 0.04, s * 0.92, s * 0.92);
  p.setPen(Qt::NoPen);
  p.setBrush(pal.card);
  p.drawRoundedRect(tile, s * 0.2, s * 0.2);
  const QColor fill =
      item.attention == Attention::none ? pal.accent : attentionTint(item.attention, shade);
  // The newest four levels as bars (a single level when the series is empty: the bar item).
  std::vector<double> levels = item.series;
  if (levels.empty()) levels.push_back(item.level);
  constexpr size_t kBars = 4;
  if (levels.size() > kBars) levels.erase(levels.begin(), levels.end() - kBars);
  const QRectF inner = tile.adjusted(s * 0.16, s * 0.16, -s * 0.16, -s * 0.16);
  const double slot = inner.width() / kBars;
  const double gap = std::max(1.0, slot * 0.22);
  QColor track = pal.border;
  for (size_t i = 0; i < kBars; ++i) {
    const size_t at = i + levels.size() >= kBars ? i + levels.size() - kBars : levels.size();
    const double level = at < levels.size() ? std::clamp(levels[at], 0.0, 1.0) : 0.0;
    const double x = inner.left() + slot * static_cast<double>(i);
    QRectF column(x, inner.top(), slot - gap, inner.height());
    p.setBrush(track);
    p.drawRoundedRect(column, 1, 1);
    // At least a sliver, so an idle machine still reads as a meter.
    double height = std::max(level * column.height(), s * 0.06);
    p.setBrush(fill);
    p.drawRoundedRect(QRectF(x, column.bottom() - height, column.width(), height), 1, 1);
  }
  if (item.attention != Attention::none) {
    paintAttentionMark(p, QPointF(s * 0.78, s * 0.24), s * 0.34, fill);
  }
  return image;
}

QImage drawMenuBarStrip(const std::vector<MenuItemView>& items, Shade shade, double scale) {
  std::vector<QImage> images;
  double width = 8;
  for (const MenuItemView& item : items) {
    images.push_back(drawMenuItem(item, shade, scale, false));
    width += itemWidth(item) + 6;
  }
  width += 2;
  QImage strip(static_cast<int>(std::ceil(width * scale)),
               static_cast<int>(std::ceil(kItemHeight * scale)),
               QImage::Format_ARGB32_Premultiplied);
  strip.setDevicePixelRatio(scale);
  const Palette& pal = palette(shade);
  strip.fill(shade == Shade::night ? pal.sidebar : pal.card);
  QPainter p(&strip);
  double x = 8;
  for (size_t i = 0; i < images.size(); ++i) {
    p.drawImage(QPointF(x, 0), images[i]);
    x += itemWidth(items[i]) + 6;
  }
  return strip;
}

}  // namespace vistrel::ui
