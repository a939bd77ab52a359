#include "ui/toast.hpp"

#include <QEvent>
#include <QFontMetrics>
#include <QPainter>
#include <QPainterPath>
#include <algorithm>

#include "ui/theme.hpp"

namespace vistrel::ui {

namespace {
constexpr int kPadX = 18;
constexpr int kHeight = 38;
constexpr int kBottomGap = 24;
}  // namespace

Toast::Toast(QWidget& host) : QWidget(&host) {
  setAttribute(Qt::WA_TransparentForMouseEvents);
  hide();
  host.installEventFilter(this);
  timer_.setSingleShot(true);
  timer_.setInterval(kShownMs);
  QObject::connect(&timer_, &QTimer::timeout, [this] { hide(); });
}

void Toast::show(const QString& text) {
  text_ = text;
  place();
  QWidget::show();
  raise();
  update();
  timer_.start();
}

void Toast::place() {
  QWidget* host = parentWidget();
  QFontMetrics metrics(textFont(kBody, QFont::Medium));
  // A long message (a refusal from the system, say) never runs off the window: it is cut short
  // with an ellipsis, and where it matters the page says it in full too.
  int width =
      std::min(metrics.horizontalAdvance(text_) + 2 * kPadX, host->width() - 2 * kBottomGap);
  setGeometry((host->width() - width) / 2, host->height() - kHeight - kBottomGap, width, kHeight);
}

bool Toast::eventFilter(QObject*, QEvent* e) {
  if (e->type() == QEvent::Resize && isVisible()) place();
  return false;
}

void Toast::paintEvent(QPaintEvent*) {
  const Palette& p = currentPalette();
  QPainter painter(this);
  painter.setRenderHint(QPainter::Antialiasing);
  QPainterPath path;
  path.addRoundedRect(QRectF(rect()).adjusted(0.5, 0.5, -0.5, -0.5), kHeight / 2.0, kHeight / 2.0);
  // The text colour as the fill, the window's as the text: it stands out in either appearance
  // without a new colour.
  painter.fillPath(path, p.text);
  painter.setPen(p.window);
  const QFont font = textFont(kBody, QFont::Medium);
  painter.setFont(font);
  const QString shown = QFontMetrics(font).elidedText(text_, Qt::ElideRight, width() - 2 * kPadX);
  painter.drawText(rect(), Qt::AlignCenter, shown);
}

}  // namespace vistrel::ui
