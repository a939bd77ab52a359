#pragma once

// A short message at the bottom of the window that goes away by itself ("Muted until tomorrow",
// "Asked Xcode to quit."). A newer message replaces the one on show.

#include <QString>
#include <QTimer>
#include <QWidget>

namespace vistrel::ui {

class Toast final : public QWidget {
 public:
  // Sits over `host`, centred near its bottom edge.
  explicit Toast(QWidget& host);
  void show(const QString& text);
  QString text() const { return text_; }
  // Milliseconds a message stays.
  static constexpr int kShownMs = 3500;

 protected:
  void paintEvent(QPaintEvent*) override;
  bool eventFilter(QObject* watched, QEvent* e) override;

 private:
  void place();
  QString text_;
  QTimer timer_;
};

}  // namespace vistrel::ui
