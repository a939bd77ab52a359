#include "ui/toast.hpp"

#include <QEvent>
#include <QFontMetrics>
#include <QPainter>
#include <QPainterPath>

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
  int width = metrics.horizontalAdvance(text_) + 2 * kPadX;
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
  painter.setFont(textFont(kBody, QFont::Medium));
  painter.drawText(rect(), Qt::AlignCenter, text_);
}

}  // namespace vistrel::ui
