#include "ui/share_card.hpp"

#include <QApplication>
#include <QClipboard>
#include <QDialog>
#include <QDir>
#include <QFile>
#include <QFileDialog>
#include <QHBoxLayout>
#include <QLabel>
#include <QPainter>
#include <QPainterPath>
#include <QPointer>
#include <QPushButton>
#include <QSaveFile>
#include <QStandardPaths>
#include <QTimer>
#include <QVBoxLayout>
#include <chrono>
#include <memory>
#include <optional>

#include "alerts/alert_log.hpp"
#include "app/model.hpp"
#include "format/fmt.hpp"
#include "history/history_store.hpp"
#include "ui/page.hpp"
#include "ui/share_sheet.hpp"
#include "ui/theme.hpp"
#include "ui/widgets.hpp"

namespace vistrel::ui {

namespace {

constexpr int kWidth = 1200;
constexpr int kHeight = 630;
// The preview in the sheet, pixels wide.
constexpr int kPreviewWidth = 600;

QString q(const std::string& s) {
  return QString::fromStdString(s);
}

QPointer<QDialog> gSheet;

// One figure of the card: a big number and its caption, in a column `width` wide.
void figure(QPainter& p, const Palette& pal, QRectF at, const std::string& value,
            const std::string& caption) {
  p.setPen(pal.text);
  p.setFont(figureFont(44, QFont::DemiBold));
  p.drawText(at.adjusted(0, 0, 0, -at.height() + 64), Qt::AlignLeft | Qt::AlignBottom, q(value));
  p.setPen(pal.muted);
  p.setFont(textFont(17));
  p.drawText(QRectF(at.left(), at.top() + 72, at.width(), 60), Qt::AlignLeft | Qt::TextWordWrap,
             q(caption));
}

class ShareSheet final : public QDialog {
 public:
  ShareSheet(QWidget& window, PageContext& context) : QDialog(&window), context_(context) {
    setWindowTitle("Share Today");
    setWindowModality(Qt::WindowModal);
    setAttribute(Qt::WA_DeleteOnClose);
    auto* layout = new QVBoxLayout(this);
    layout->setSizeConstraint(QLayout::SetFixedSize);
    layout->setContentsMargins(28, 24, 28, 20);
    layout->setSpacing(12);
    layout->addWidget(makeLabel("Share Today", kHeading + 2, false, true));
    preview_ = new QLabel;
    preview_->setFixedSize(kPreviewWidth, kPreviewWidth * kHeight / kWidth);
    preview_->setAlignment(Qt::AlignCenter);
    preview_->setText("Reading today's history…");
    layout->addWidget(preview_);
    status_ = makeLabel({}, kCaption, true);
    status_->setWordWrap(true);
    status_->setFixedWidth(kPreviewWidth);
    status_->hide();
    layout->addWidget(status_);
    auto* buttons = new QHBoxLayout;
    buttons->addStretch();
    auto* close = new QPushButton("Done");
    QObject::connect(close, &QPushButton::clicked, [this] { accept(); });
    buttons->addWidget(close);
    if (hasSystemShareSheet()) {
      share_ = new QPushButton("Share…");
      QObject::connect(share_, &QPushButton::clicked, [this] { share(); });
      buttons->addWidget(share_);
      share_->setDefault(true);
    } else {
      copy_ = new QPushButton("Copy");
      save_ = new QPushButton("Save…");
      QObject::connect(copy_, &QPushButton::clicked, [this] { copy(); });
      QObject::connect(save_, &QPushButton::clicked, [this] { save(); });
      buttons->addWidget(copy_);
      buttons->addWidget(save_);
      save_->setDefault(true);
    }
    layout->addLayout(buttons);
    setActionsEnabled(false);
    read();
    // The coding agents' figures may still be on their way when the sheet opens (a first read
    // right after launch): the card is drawn again when what it says changes, while it is open.
    auto* follow = new QTimer(this);
    QObject::connect(follow, &QTimer::timeout, [this] {
      if (shown_) showCard(cpu_, top_);
    });
    follow->start(2000);
  }

 private:
  void setActionsEnabled(bool on) {
    for (QPushButton* b : {share_, copy_, save_}) {
      if (b) b->setEnabled(on);
    }
  }

  // Today's figures: the CPU series and the busiest apps of the last day from the history, then
  // the card. Without a history store the card still shows tokens and alerts.
  void read() {
    HistoryStore* history = context_.history;
    if (!history) return showCard({}, {});
    QPointer<ShareSheet> self(this);
    auto points = std::make_shared<std::vector<HistoryPoint>>();
    history->series(Metric::cpu, TimeSpan::day, [self, points](std::vector<HistoryPoint> p) {
      if (self) *points = std::move(p);
    });
    // Answers arrive in order on the main queue: the series is in when the apps come.
    history->topApps(Metric::cpu, TimeSpan::day, 3, [self, points](std::vector<AppHistory> top) {
      if (!self) return;
      self->cpu_ = std::move(*points);
      self->top_ = std::move(top);
      self->showCard(self->cpu_, self->top_);
    });
  }

  void showCard(const std::vector<HistoryPoint>& cpu, const std::vector<AppHistory>& top) {
    const Date now = std::chrono::system_clock::now();
    ShareCardView v = shareCardView(cpu, bucket(TimeSpan::day), top, context_.model.agents(),
                                    context_.model.alerts().alerts(), localStartOfDay(now), now);
    if (shown_ && v == *shown_) return;
    shown_ = v;
    card_ = renderShareCard(v, 2);
    // Scaled to the preview's pixels on this screen, and marked as such so it fills the preview.
    QImage preview = card_.scaled(preview_->size() * devicePixelRatioF(), Qt::KeepAspectRatio,
                                  Qt::SmoothTransformation);
    preview.setDevicePixelRatio(devicePixelRatioF());
    preview_->setPixmap(QPixmap::fromImage(preview));
    setActionsEnabled(true);
  }

  void say(const QString& text) {
    status_->setText(text);
    status_->show();
  }

  void copy() {
    QApplication::clipboard()->setImage(card_);
    say("Copied. Paste it wherever you like.");
  }

  void save() {
    QString folder = QStandardPaths::writableLocation(QStandardPaths::PicturesLocation);
    if (folder.isEmpty()) folder = QDir::homePath();
    QString suggested =
        folder + "/Vistrel " + q(Fmt::monthDay(std::chrono::system_clock::now())) + ".png";
    QString path =
        QFileDialog::getSaveFileName(this, "Save Today's Card", suggested, "PNG (*.png)");
    if (path.isEmpty()) return;
    // A picture already there is kept beside it as name.bak before being replaced, and the new
    // one is written whole or not at all.
    if (QFile::exists(path)) {
      const QString backup = path + ".bak";
      QFile::remove(backup);
      if (!QFile::copy(path, backup)) {
        say("Couldn't keep a copy of the picture already at " + path + ". Nothing was written.");
        return;
      }
    }
    QSaveFile file(path);
    if (!file.open(QIODevice::WriteOnly) || !card_.save(&file, "PNG") || !file.commit()) {
      say("Couldn't save the card to " + path + ". Nothing was written.");
      return;
    }
    QApplication::clipboard()->setImage(card_);
    say("Saved to " + path + " and copied.");
  }

  void share() {
    QString path = QDir::temp().filePath("Vistrel Today.png");
    if (!card_.save(path, "PNG") || !presentShareSheet(path.toStdString(), *share_)) {
      say("Couldn't open the share sheet.");
    }
  }

  PageContext& context_;
  QLabel* preview_ = nullptr;
  std::vector<HistoryPoint> cpu_;       // today's CPU series, once read
  std::vector<AppHistory> top_;         // the busiest apps of the day, once read
  std::optional<ShareCardView> shown_;  // what the card on show says
  QLabel* status_ = nullptr;
  QPushButton* share_ = nullptr;
  QPushButton* copy_ = nullptr;
  QPushButton* save_ = nullptr;
  QImage card_;
};

}  // namespace

QImage renderShareCard(const ShareCardView& v, double scale) {
  QImage image(QSize(kWidth, kHeight) * scale, QImage::Format_ARGB32_Premultiplied);
  image.setDevicePixelRatio(scale);
  const Palette& pal = currentPalette();
  image.fill(pal.window);
  QPainter p(&image);
  p.setRenderHint(QPainter::Antialiasing);
  p.setRenderHint(QPainter::TextAntialiasing);
  QRectF card(40, 40, kWidth - 80, kHeight - 80);
  QPainterPath path;
  path.addRoundedRect(card, 22, 22);
  p.fillPath(path, pal.card);
  p.setPen(QPen(pal.border, 1));
  p.drawPath(path);

  const double left = card.left() + 56;
  p.setPen(pal.accent);
  p.setFont(textFont(17, QFont::DemiBold));
  p.drawText(QPointF(left, card.top() + 64), "Vistrel");
  p.setPen(pal.text);
  p.setFont(textFont(34, QFont::Bold));
  p.drawText(QPointF(left, card.top() + 116), "Today on this machine");
  p.setPen(pal.muted);
  p.setFont(textFont(17));
  p.drawText(QPointF(left, card.top() + 150), q(v.date));

  const double top = card.top() + 200;
  const double column = (card.width() - 112) / 3;
  figure(p, pal, QRectF(left, top, column - 24, 140), v.busy, v.busyNote);
  figure(p, pal, QRectF(left + column, top, column - 24, 140), v.tokens, v.tokensNote);
  figure(p, pal, QRectF(left + 2 * column, top, column - 24, 140), v.alerts,
         v.alertsNote + " today");

  // The busiest apps along the bottom.
  double y = card.bottom() - 118;
  p.setPen(QPen(pal.border, 1));
  p.drawLine(QPointF(left, y - 22), QPointF(card.right() - 56, y - 22));
  p.setPen(pal.muted);
  p.setFont(textFont(15, QFont::DemiBold));
  p.drawText(QPointF(left, y + 4), "Busiest apps");
  double x = left;
  y += 44;
  if (v.apps.empty()) {
    p.setFont(textFont(18));
    p.drawText(QPointF(x, y), "Nothing recorded yet today.");
  }
  for (const Fact& app : v.apps) {
    p.setPen(pal.text);
    p.setFont(textFont(19, QFont::Medium));
    QFontMetrics fm(p.font());
    QString name = fm.elidedText(q(app.label), Qt::ElideRight, static_cast<int>(column - 140));
    p.drawText(QPointF(x, y), name);
    p.setPen(pal.muted);
    p.setFont(figureFont(17));
    p.drawText(QPointF(x + fm.horizontalAdvance(name) + 12, y), q(app.value));
    x += column;
  }
  return image;
}

void showShareSheet(QWidget& window, PageContext& context) {
  if (gSheet) return gSheet->raise();
  auto* sheet = new ShareSheet(window, context);
  gSheet = sheet;
  sheet->open();
}

QWidget* activeShareSheet() {
  return gSheet && gSheet->isVisible() ? gSheet.data() : nullptr;
}

}  // namespace vistrel::ui
