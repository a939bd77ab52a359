#include "ui/widgets.hpp"

#include <QMouseEvent>
#include <QPainter>
#include <QPainterPath>
#include <QStyle>
#include <QStyleOptionButton>
#include <QVBoxLayout>

#include "ui/charts.hpp"
#include "ui/theme.hpp"

namespace vistrel::ui {

void CheckBox::paintEvent(QPaintEvent* event) {
  QCheckBox::paintEvent(event);
  if (!isChecked()) return;
  QStyleOptionButton option;
  initStyleOption(&option);
  const QRectF box = style()->subElementRect(QStyle::SE_CheckBoxIndicator, &option, this);
  QPainter painter(this);
  painter.setRenderHint(QPainter::Antialiasing);
  QPen pen(currentPalette().window, 2);
  pen.setCapStyle(Qt::RoundCap);
  pen.setJoinStyle(Qt::RoundJoin);
  painter.setPen(pen);
  const QPointF c = box.center();
  painter.drawPolyline(
      QPolygonF({c + QPointF(-4, 0), c + QPointF(-1.2, 3), c + QPointF(4.2, -3.2)}));
}

namespace {
constexpr int kCardPadding = 18;
constexpr char kMutedProperty[] = "vistrelMuted";

void styleLabel(QLabel* label) {
  const Palette& p = currentPalette();
  QPalette pal = label->palette();
  pal.setColor(QPalette::WindowText, label->property(kMutedProperty).toBool() ? p.muted : p.text);
  label->setPalette(pal);
}
}  // namespace

QColor attentionColor(Attention a) {
  const Palette& p = currentPalette();
  switch (a) {
    case Attention::none:
      return p.text;
    case Attention::notice:
      return p.amber;
    case Attention::trouble:
      return p.red;
  }
  return p.text;
}

QLabel* makeLabel(const QString& text, double points, bool muted, bool bold, QWidget* parent) {
  auto* label = new QLabel(text, parent);
  label->setFont(textFont(points, bold ? QFont::DemiBold : QFont::Normal));
  label->setProperty(kMutedProperty, muted);
  label->setTextInteractionFlags(Qt::NoTextInteraction);
  styleLabel(label);
  return label;
}

void restyleLabels(QWidget* root) {
  for (QLabel* label : root->findChildren<QLabel*>()) styleLabel(label);
}

// --- Card ---

Card::Card(const QString& heading, QWidget* parent) : QWidget(parent) {
  auto* layout = new QVBoxLayout(this);
  layout->setContentsMargins(kCardPadding, kCardPadding - 2, kCardPadding, kCardPadding);
  layout->setSpacing(10);
  heading_ = makeLabel(heading, kHeading, false, true, this);
  heading_->setVisible(!heading.isEmpty());
  layout->addWidget(heading_);
  body_ = new QVBoxLayout;
  body_->setSpacing(10);
  body_->setContentsMargins(0, 0, 0, 0);
  layout->addLayout(body_);
}

void Card::setHeading(const QString& heading) {
  heading_->setText(heading);
  heading_->setVisible(!heading.isEmpty());
}

void Card::paintEvent(QPaintEvent*) {
  QPainter p(this);
  p.setRenderHint(QPainter::Antialiasing, true);
  const Palette& pal = currentPalette();
  p.setPen(QPen(pal.border, 1));
  p.setBrush(pal.card);
  p.drawRoundedRect(QRectF(rect()).adjusted(0.5, 0.5, -0.5, -0.5), 12, 12);
}

// --- Rows ---

Rows::Rows(std::vector<int> widths, QWidget* parent) : QWidget(parent), widths_(std::move(widths)) {
  setSizePolicy(QSizePolicy::Expanding, QSizePolicy::Fixed);
}

int Rows::rowHeight() const {
  return QFontMetrics(textFont(kBody)).height() + 11;
}

void Rows::setRows(std::vector<Row> rows) {
  const bool resized = rows.size() != rows_.size() || (rows_.empty() != rows.empty());
  rows_ = std::move(rows);
  if (resized) updateGeometry();
  update();
}

void Rows::setEmptyText(QString text) {
  empty_ = std::move(text);
  updateGeometry();
  update();
}

QSize Rows::sizeHint() const {
  int n = static_cast<int>(rows_.size());
  return {300, std::max(1, n) * rowHeight()};
}

void Rows::paintEvent(QPaintEvent*) {
  QPainter p(this);
  const Palette& pal = currentPalette();
  const int h = rowHeight();
  if (rows_.empty()) {
    p.setPen(pal.muted);
    p.setFont(textFont(kBody));
    p.drawText(QRect(0, 0, width(), h), Qt::AlignLeft | Qt::AlignVCenter, empty_);
    return;
  }
  int fixed = 0;
  for (int w : widths_) fixed += w;
  const int markWidth = 18;
  for (size_t r = 0; r < rows_.size(); ++r) {
    const Row& row = rows_[r];
    const int y = static_cast<int>(r) * h;
    if (r > 0) {
      p.setPen(QPen(pal.border, 1));
      p.drawLine(0, y, width(), y);
    }
    int x = 0;
    int first = std::max(40, width() - fixed);
    int markSpace = row.attention != Attention::none ? markWidth : 0;
    for (size_t c = 0; c < row.cells.size(); ++c) {
      const bool isFirst = c == 0;
      const int w = isFirst ? first : (c - 1 < widths_.size() ? widths_[c - 1] : 80);
      const bool text = isFirst || (c < textColumns_.size() && textColumns_[c]);
      QRect cell(x, y, w, h);
      if (isFirst && markSpace) {
        paintAttentionMark(p, QPointF(x + 6, y + h / 2.0), 9, attentionColor(row.attention));
        cell.adjust(markSpace, 0, 0, 0);
      }
      p.setFont(text ? textFont(kBody) : figureFont(kBody));
      p.setPen(isFirst || row.attention == Attention::none ? pal.text
                                                           : attentionColor(row.attention));
      if (!isFirst && text) p.setPen(pal.muted);
      const int align = (text ? Qt::AlignLeft : Qt::AlignRight) | Qt::AlignVCenter;
      QString elided = p.fontMetrics().elidedText(row.cells[c], Qt::ElideRight, cell.width() - 8);
      // Text after a figure keeps its distance from it.
      const int lead = !isFirst && text ? 16 : 0;
      p.drawText(cell.adjusted(lead, 0, text ? -8 : 0, 0), align, elided);
      x += w;
    }
  }
}

// --- MetricTile ---

MetricTile::MetricTile(QWidget* parent) : QWidget(parent) {
  setCursor(Qt::PointingHandCursor);
  setSizePolicy(QSizePolicy::Expanding, QSizePolicy::Fixed);
  setFixedHeight(118);
}

void MetricTile::set(const MetricGlance& glance, std::vector<double> live, size_t capacity) {
  glance_ = glance;
  live_ = std::move(live);
  capacity_ = capacity;
  setToolTip(QString::fromStdString(glance.title + ": " + glance.value));
  update();
}

void MetricTile::paintEvent(QPaintEvent*) {
  QPainter p(this);
  p.setRenderHint(QPainter::Antialiasing, true);
  const Palette& pal = currentPalette();
  QRectF r = QRectF(rect()).adjusted(0.5, 0.5, -0.5, -0.5);
  p.setPen(QPen(pal.border, 1));
  p.setBrush(pal.card);
  p.drawRoundedRect(r, 12, 12);
  const int pad = 14;
  QRect inner = rect().adjusted(pad, 10, -pad, -10);
  p.setPen(pal.muted);
  p.setFont(textFont(kCaption, QFont::Medium));
  QFontMetrics captionMetrics(p.font());
  p.drawText(inner.left(), inner.top() + captionMetrics.ascent(),
             QString::fromStdString(glance_.title));
  // The value, with the attention mark before it when there is one.
  QFont valueFont = glance_.available ? figureFont(19, QFont::DemiBold) : textFont(kBody);
  p.setFont(valueFont);
  QFontMetrics vm(valueFont);
  int x = inner.left();
  const int valueBase = inner.top() + captionMetrics.height() + 4 + vm.ascent();
  if (glance_.attention != Attention::none) {
    paintAttentionMark(p, QPointF(x + 6, valueBase - vm.ascent() / 2.0 + 1), 10,
                       attentionColor(glance_.attention));
    x += 18;
  }
  p.setPen(glance_.available ? attentionColor(glance_.attention) : pal.muted);
  p.drawText(
      x, valueBase,
      vm.elidedText(QString::fromStdString(glance_.value), Qt::ElideRight, inner.right() - x));
  p.setFont(textFont(kCaption));
  p.setPen(glance_.attention != Attention::none ? attentionColor(glance_.attention) : pal.muted);
  QFontMetrics nm(p.font());
  const int noteBase = valueBase + vm.descent() + 2 + nm.ascent();
  p.drawText(inner.left(), noteBase,
             nm.elidedText(QString::fromStdString(glance_.note), Qt::ElideRight, inner.width()));
  if (glance_.available) {
    QRectF spark(inner.left(), noteBase + nm.descent() + 4, inner.width(),
                 inner.bottom() - (noteBase + nm.descent() + 4));
    QColor fill = pal.accent;
    fill.setAlpha(currentShade() == Shade::night ? 55 : 38);
    paintArea(p, spark, live_, capacity_, pal.accent, fill, 1.25);
  }
}

void MetricTile::mouseReleaseEvent(QMouseEvent* e) {
  if (e->button() == Qt::LeftButton && rect().contains(e->position().toPoint()) && onClick) {
    onClick();
  }
}

}  // namespace vistrel::ui
