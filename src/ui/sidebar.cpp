#include "ui/sidebar.hpp"

#include <QKeyEvent>
#include <QMouseEvent>
#include <QPainter>
#include <QPainterPath>
#include <algorithm>

#include "ui/charts.hpp"
#include "ui/theme.hpp"
#include "ui/widgets.hpp"

namespace vistrel::ui {

namespace {
constexpr int kPageRow = 36;
constexpr int kMetricRow = 40;
constexpr int kHeadingRow = 30;
constexpr int kMargin = 12;
constexpr int kSparkWidth = 54;
}  // namespace

Sidebar::Sidebar(QWidget* parent) : QWidget(parent) {
  setFixedWidth(kWidth);
  setFocusPolicy(Qt::StrongFocus);
  setAutoFillBackground(false);
  layoutSlots();
}

void Sidebar::layoutSlots() {
  slots_.clear();
  int y = 14;
  auto page = [&](Page p, int h) {
    slots_.push_back({Slot::Kind::page, p, QString::fromStdString(pageTitle(p)),
                      QRect(kMargin - 4, y, width() - 2 * (kMargin - 4), h)});
    y += h;
  };
  auto heading = [&](const char* text) {
    y += 6;
    slots_.push_back({Slot::Kind::heading, Page::overview, text,
                      QRect(kMargin + 8, y, width() - 2 * kMargin, kHeadingRow - 6)});
    y += kHeadingRow - 6;
  };
  page(Page::overview, kPageRow);
  heading("Machine");
  for (Page p :
       {Page::cpu, Page::memory, Page::gpu, Page::disk, Page::network, Page::battery, Page::heat}) {
    page(p, kMetricRow);
  }
  heading("Activity");
  for (Page p : {Page::apps, Page::agents, Page::sensors, Page::alerts}) page(p, kPageRow);
  // Settings sits at the foot of the sidebar when there is room, else right after the rest.
  y = std::max(y + 12, height() - kPageRow - 12);
  page(Page::settings, kPageRow);
}

void Sidebar::resizeEvent(QResizeEvent*) {
  layoutSlots();
}

void Sidebar::setCurrent(Page page) {
  if (page == current_) return;
  current_ = page;
  update();
}

void Sidebar::setMetrics(std::vector<MetricRow> rows, size_t capacity) {
  metrics_ = std::move(rows);
  capacity_ = capacity;
  update();
}

void Sidebar::setUnreadAlerts(int64_t unread) {
  if (unread == unread_) return;
  unread_ = unread;
  update();
}

void Sidebar::paintEvent(QPaintEvent* event) {
  QPainter p(this);
  const Palette& pal = currentPalette();
  p.fillRect(rect(), pal.sidebar);
  p.setPen(QPen(pal.border, 1));
  p.drawLine(width() - 1, 0, width() - 1, height());
  p.setRenderHint(QPainter::Antialiasing, true);
  const QFont title = textFont(kBody);
  const QFont titleBold = textFont(kBody, QFont::DemiBold);
  const QFont heading = textFont(kCaption, QFont::DemiBold);
  const QFont figure = figureFont(kCaption + 0.5);
  for (const Slot& s : slots_) {
    if (!s.rect.intersects(event->rect())) continue;
    if (s.kind == Slot::Kind::heading) {
      p.setFont(heading);
      p.setPen(pal.muted);
      p.drawText(s.rect, Qt::AlignLeft | Qt::AlignVCenter, s.text.toUpper());
      continue;
    }
    const bool selected = s.page == current_;
    QRect r = s.rect.adjusted(0, 2, 0, -2);
    if (selected) {
      p.setPen(Qt::NoPen);
      p.setBrush(pal.selection);
      p.drawRoundedRect(r, 8, 8);
      // A bar at the leading edge marks the selection without relying on the fill alone.
      p.setBrush(pal.accent);
      p.drawRoundedRect(QRectF(r.left() + 3, r.top() + 8, 3, r.height() - 16), 1.5, 1.5);
    }
    QRect content = r.adjusted(14, 0, -10, 0);
    p.setFont(selected ? titleBold : title);
    p.setPen(pal.text);
    auto metric = pageMetric(s.page);
    if (!metric) {
      p.drawText(content, Qt::AlignLeft | Qt::AlignVCenter, s.text);
      if (s.page == Page::alerts && unread_ > 0) {
        // The unread count as a pill with its number: readable without colour.
        QString n = QString::number(unread_);
        p.setFont(figureFont(kCaption, QFont::DemiBold));
        QFontMetrics fm(p.font());
        int w = std::max(fm.horizontalAdvance(n) + 14, 24);
        QRect pill(content.right() - w, content.center().y() - 10, w, 20);
        p.setPen(Qt::NoPen);
        p.setBrush(pal.accent);
        p.drawRoundedRect(pill, 10, 10);
        p.setPen(pal.card);
        p.drawText(pill, Qt::AlignCenter, n);
      }
      continue;
    }
    const MetricRow* row = nullptr;
    for (const MetricRow& m : metrics_) {
      if (m.glance.metric == *metric) row = &m;
    }
    QRect spark(content.right() - kSparkWidth, content.top() + 8, kSparkWidth,
                content.height() - 16);
    QRect text = content.adjusted(0, 0, -kSparkWidth - 8, 0);
    p.drawText(text, Qt::AlignLeft | Qt::AlignVCenter, s.text);
    if (!row) continue;
    const MetricGlance& g = row->glance;
    p.setFont(g.available ? figure : textFont(kCaption));
    QFontMetrics fm(p.font());
    QString value = QString::fromStdString(g.available ? g.value : "—");
    int vw = fm.horizontalAdvance(value);
    p.setPen(g.available ? attentionColor(g.attention) : pal.muted);
    p.drawText(text, Qt::AlignRight | Qt::AlignVCenter, value);
    if (g.attention != Attention::none) {
      paintAttentionMark(p, QPointF(text.right() - vw - 9, text.center().y() + 1), 8,
                         attentionColor(g.attention));
    }
    if (g.available) {
      QColor line = g.attention == Attention::none ? pal.accent : attentionColor(g.attention);
      QColor fill = line;
      fill.setAlpha(currentShade() == Shade::night ? 55 : 38);
      paintArea(p, QRectF(spark), row->live, capacity_, line, fill, 1.1);
    }
  }
}

void Sidebar::mousePressEvent(QMouseEvent* e) {
  for (const Slot& s : slots_) {
    if (s.kind == Slot::Kind::page && s.rect.contains(e->position().toPoint())) {
      if (onSelect) onSelect(s.page);
      return;
    }
  }
}

void Sidebar::keyPressEvent(QKeyEvent* e) {
  const auto& pages = sidebarPages();
  auto at = std::find(pages.begin(), pages.end(), current_);
  if (at == pages.end()) return QWidget::keyPressEvent(e);
  if (e->key() == Qt::Key_Down && at + 1 != pages.end()) {
    if (onSelect) onSelect(*(at + 1));
  } else if (e->key() == Qt::Key_Up && at != pages.begin()) {
    if (onSelect) onSelect(*(at - 1));
  } else {
    QWidget::keyPressEvent(e);
  }
}

}  // namespace vistrel::ui
