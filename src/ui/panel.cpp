#include "ui/panel.hpp"

#include <QGuiApplication>
#include <QHBoxLayout>
#include <QPainter>
#include <QPushButton>
#include <QScreen>
#include <QVBoxLayout>
#include <algorithm>
#include <cmath>
#include <limits>

#include "ui/charts.hpp"
#include "ui/widgets.hpp"

namespace vistrel::ui {

namespace {

constexpr double kMargin = 16;
constexpr double kLine = 18;     // a row of 11–12.5 pt text
constexpr double kSection = 12;  // space before a section heading
constexpr double kSparkWidth = 110;
constexpr double kButtons = 44;  // the buttons' row at the bottom

QFont font(double points, bool figure = false, QFont::Weight weight = QFont::Normal) {
  QFont f = figure ? figureFont(points, weight) : textFont(points, weight);
  f.setPixelSize(static_cast<int>(points * 4 / 3 + 0.5));  // points at the screen's 96 dpi
  return f;
}

QString q(const std::string& s) {
  return QString::fromStdString(s);
}

QColor tint(Attention a, const Palette& pal) {
  return a == Attention::trouble ? pal.red : a == Attention::notice ? pal.amber : pal.text;
}

// Walks the panel's layout once; painting and measuring share it so they never disagree.
template <typename Draw>
double walk(const PanelView& v, double width, Draw&& draw) {
  double y = kMargin;
  const double inner = width - 2 * kMargin;
  // Mood: a heading and its sentence.
  draw.heading(QRectF(kMargin, y, inner, 22), q(v.mood.title), v.mood.attention);
  y += 24;
  // The sentence names the busiest app, so it often needs a second line; never a third.
  const QString sentence = q(v.mood.sentence);
  const double sentenceHeight =
      QFontMetricsF(font(kCaption + 0.5)).horizontalAdvance(sentence) > inner ? 2 * kLine : kLine;
  draw.wrapped(QRectF(kMargin, y, inner, sentenceHeight), sentence);
  y += sentenceHeight + kSection;
  for (const PanelMetric& m : v.metrics) {
    draw.metric(QRectF(kMargin, y, inner, 36), m);
    y += 40;
  }
  auto section = [&](const char* title) {
    y += kSection - 4;
    draw.caption(QRectF(kMargin, y, inner, kLine), title);
    y += kLine;
  };
  if (!v.apps.empty()) {
    section("BUSIEST APPS");
    for (const AppRow& a : v.apps) {
      draw.row(QRectF(kMargin, y, inner, kLine), q(a.name), q(a.cpu), q(a.memory), Attention::none);
      y += kLine;
    }
  }
  if (!v.plans.empty()) {
    section("CODING AGENTS");
    for (const PlanRow& p : v.plans) {
      draw.plan(QRectF(kMargin, y, inner, kLine + 8), p);
      y += kLine + 10;
    }
  }
  if (!v.alerts.empty()) {
    section(v.unread == 1 ? "UNREAD ALERT" : "UNREAD ALERTS");
    for (const AlertRow& a : v.alerts) {
      draw.alert(QRectF(kMargin, y, inner, kLine), q(a.title), q(a.when));
      y += kLine + 2;
    }
    if (!v.unreadNote.empty()) {
      draw.text(QRectF(kMargin, y, inner, kLine), q(v.unreadNote), true);
      y += kLine;
    }
  }
  return y + kSection + kButtons;
}

struct Measure {
  void heading(QRectF, QString, Attention) {}
  void text(QRectF, QString, bool) {}
  void wrapped(QRectF, QString) {}
  void caption(QRectF, const char*) {}
  void metric(QRectF, const PanelMetric&) {}
  void row(QRectF, QString, QString, QString, Attention) {}
  void plan(QRectF, const PlanRow&) {}
  void alert(QRectF, QString, QString) {}
};

struct Paint {
  QPainter& p;
  const Palette& pal;

  void heading(QRectF r, QString title, Attention a) {
    double x = r.left();
    if (a != Attention::none) {
      paintAttentionMark(p, QPointF(x + 6, r.center().y()), 11, tint(a, pal));
      x += 16;
    }
    p.setFont(font(kHeading, false, QFont::DemiBold));
    p.setPen(pal.text);
    p.drawText(QRectF(x, r.top(), r.right() - x, r.height()), Qt::AlignLeft | Qt::AlignVCenter,
               title);
  }
  void text(QRectF r, QString t, bool muted) {
    p.setFont(font(kCaption + 0.5));
    p.setPen(muted ? pal.muted : pal.text);
    QFontMetricsF fm(p.font());
    p.drawText(r, Qt::AlignLeft | Qt::AlignVCenter, fm.elidedText(t, Qt::ElideRight, r.width()));
  }
  // Muted, word-wrapped within `r` (what does not fit is cut at its bottom line).
  void wrapped(QRectF r, QString t) {
    p.setFont(font(kCaption + 0.5));
    p.setPen(pal.muted);
    p.save();
    p.setClipRect(r);
    p.drawText(r, Qt::AlignLeft | Qt::AlignTop | Qt::TextWordWrap, t);
    p.restore();
  }
  void caption(QRectF r, const char* t) {
    QFont f = font(kCaption, false, QFont::DemiBold);
    f.setLetterSpacing(QFont::AbsoluteSpacing, 0.6);
    p.setFont(f);
    p.setPen(pal.muted);
    p.drawText(r, Qt::AlignLeft | Qt::AlignVCenter, t);
  }
  void metric(QRectF r, const PanelMetric& m) {
    const MetricGlance& g = m.glance;
    double x = r.left();
    if (g.attention != Attention::none) {
      paintAttentionMark(p, QPointF(x + 5, r.top() + 9), 9, tint(g.attention, pal));
    }
    x += 14;
    p.setFont(font(kBody));
    p.setPen(pal.text);
    p.drawText(QRectF(x, r.top(), 80, 18), Qt::AlignLeft | Qt::AlignVCenter, q(g.title));
    p.setFont(font(kCaption));
    p.setPen(g.attention != Attention::none ? tint(g.attention, pal) : pal.muted);
    QString note = q(g.note);
    if (g.attention != Attention::none && g.note.empty()) note = q(attentionWord(g.attention));
    QFontMetricsF fm(p.font());
    p.drawText(QRectF(x, r.top() + 19, 120, 16), Qt::AlignLeft | Qt::AlignVCenter,
               fm.elidedText(note, Qt::ElideRight, 120));
    // The figure in a fixed column, then the sparkline at the right edge.
    const QRectF spark(r.right() - kSparkWidth, r.top() + 3, kSparkWidth, r.height() - 6);
    p.setFont(font(kBody, true, QFont::DemiBold));
    p.setPen(tint(g.attention, pal));
    p.drawText(QRectF(spark.left() - 96, r.top(), 88, 18), Qt::AlignRight | Qt::AlignVCenter,
               q(g.value));
    QColor fill = pal.accent;
    fill.setAlpha(60);
    p.setPen(QPen(pal.grid, 1));
    p.drawLine(spark.bottomLeft(), spark.bottomRight());
    paintArea(p, spark, m.sparkline, m.capacity, pal.accent, fill, 1.3);
  }
  void row(QRectF r, QString name, QString a, QString b, Attention) {
    p.setFont(font(kCaption + 0.5));
    p.setPen(pal.text);
    QFontMetricsF fm(p.font());
    const double columns = 150;
    p.drawText(QRectF(r.left(), r.top(), r.width() - columns, r.height()),
               Qt::AlignLeft | Qt::AlignVCenter,
               fm.elidedText(name, Qt::ElideRight, r.width() - columns - 8));
    p.setFont(font(kCaption + 0.5, true));
    p.setPen(pal.muted);
    p.drawText(QRectF(r.right() - columns, r.top(), 60, r.height()),
               Qt::AlignRight | Qt::AlignVCenter, a);
    p.drawText(QRectF(r.right() - 84, r.top(), 84, r.height()), Qt::AlignRight | Qt::AlignVCenter,
               b);
  }
  void plan(QRectF r, const PlanRow& plan) {
    p.setFont(font(kCaption + 0.5));
    p.setPen(pal.text);
    p.drawText(QRectF(r.left(), r.top(), 110, kLine), Qt::AlignLeft | Qt::AlignVCenter,
               q(plan.tool));
    p.setFont(font(kCaption + 0.5, true));
    p.setPen(plan.attention == Attention::none ? pal.muted : tint(plan.attention, pal));
    QString text = q(plan.text);
    if (plan.attention != Attention::none) text += "  " + q(attentionWord(plan.attention));
    p.drawText(QRectF(r.left() + 110, r.top(), r.width() - 110, kLine),
               Qt::AlignRight | Qt::AlignVCenter, text);
    paintMeter(p, QRectF(r.left(), r.top() + kLine + 1, r.width(), 4), plan.level, pal.border,
               plan.attention == Attention::none ? pal.accent : tint(plan.attention, pal));
  }
  void alert(QRectF r, QString title, QString when) {
    paintAttentionMark(p, QPointF(r.left() + 5, r.center().y()), 9, pal.amber);
    p.setFont(font(kCaption + 0.5));
    p.setPen(pal.text);
    QFontMetricsF fm(p.font());
    const double whenWidth = 76;
    p.drawText(QRectF(r.left() + 14, r.top(), r.width() - 14 - whenWidth, r.height()),
               Qt::AlignLeft | Qt::AlignVCenter,
               fm.elidedText(title, Qt::ElideRight, r.width() - 20 - whenWidth));
    p.setPen(pal.muted);
    p.drawText(QRectF(r.right() - whenWidth, r.top(), whenWidth, r.height()),
               Qt::AlignRight | Qt::AlignVCenter, when);
  }
};

}  // namespace

double panelHeight(const PanelView& view, double width) {
  return walk(view, width, Measure{});
}

double paintPanel(QPainter& p, const PanelView& view, Shade shade, double width) {
  const Palette& pal = palette(shade);
  p.save();
  p.setRenderHint(QPainter::Antialiasing, true);
  p.setRenderHint(QPainter::TextAntialiasing, true);
  Paint paint{p, pal};
  double h = walk(view, width, paint);
  // The hairline above the buttons.
  p.setPen(QPen(pal.border, 1));
  p.drawLine(QPointF(0, h - kButtons - 0.5), QPointF(width, h - kButtons - 0.5));
  p.restore();
  return h;
}

Panel::Panel(bool floating, QWidget* parent) : QWidget(parent, floating ? Qt::Window : Qt::Popup) {
  setWindowTitle("Vistrel");
  setAttribute(Qt::WA_OpaquePaintEvent, true);
  open_ = new QPushButton("Open Vistrel", this);
  quit_ = new QPushButton("Quit app…", this);
  QObject::connect(open_, &QPushButton::clicked, [this] {
    hide();
    if (onOpenWindow) onOpenWindow();
  });
  QObject::connect(quit_, &QPushButton::clicked, [this] {
    hide();
    if (onQuitApp) onQuitApp();
  });
  relayout();
}

void Panel::setView(PanelView view) {
  view_ = std::move(view);
  relayout();
  update();
}

void Panel::relayout() {
  const int h = static_cast<int>(std::ceil(panelHeight(view_, kPanelWidth)));
  setFixedSize(static_cast<int>(kPanelWidth), h);
  const int by = h - static_cast<int>(kButtons) + 8;
  const int bw = (static_cast<int>(kPanelWidth) - 2 * static_cast<int>(kMargin) - 10) / 2;
  open_->setGeometry(static_cast<int>(kMargin), by, bw, 28);
  quit_->setGeometry(static_cast<int>(kMargin) + bw + 10, by, bw, 28);
}

void Panel::showAt(QPoint anchor) {
  QScreen* screen = QGuiApplication::screenAt(anchor);
  if (!screen) screen = QGuiApplication::primaryScreen();
  QPoint at(anchor.x() - width() / 2, anchor.y() + 8);
  if (screen) {
    const QRect area = screen->availableGeometry();
    // A tray at the bottom of the screen: open upwards.
    if (at.y() + height() > area.bottom()) at.setY(anchor.y() - height() - 8);
    at.setX(
        std::clamp(at.x(), area.left() + 4, std::max(area.left() + 4, area.right() - width() - 4)));
    at.setY(
        std::clamp(at.y(), area.top() + 4, std::max(area.top() + 4, area.bottom() - height() - 4)));
  }
  move(at);
  show();
  raise();
  activateWindow();
}

void Panel::paintEvent(QPaintEvent*) {
  QPainter p(this);
  const Shade shade = currentShade();
  p.fillRect(rect(), vistrel::ui::palette(shade).card);
  paintPanel(p, view_, shade, width());
}

void Panel::showEvent(QShowEvent*) {
  if (onVisibility) onVisibility(true);
}

qint64 Panel::msSinceHidden() const {
  return hiddenAt_.isValid() ? hiddenAt_.elapsed() : std::numeric_limits<qint64>::max();
}

void Panel::hideEvent(QHideEvent*) {
  hiddenAt_.start();
  if (onVisibility) onVisibility(false);
}

}  // namespace vistrel::ui
