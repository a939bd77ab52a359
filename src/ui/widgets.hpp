#pragma once

// Small building blocks shared by the pages: a card, a painted list of rows, a metric tile and
// text helpers. Painted rather than composed of many labels, so that a page that updates every
// tick re-lays nothing out.

#include <QCheckBox>
#include <QLabel>
#include <QString>
#include <QWidget>
#include <functional>
#include <vector>

#include "ui/views.hpp"

class QVBoxLayout;

namespace vistrel::ui {

// A check box whose box follows the appearance (the style sheet draws it) and whose tick is drawn
// here: filled and ticked when on, so that the state is never told by colour alone.
class CheckBox : public QCheckBox {
 public:
  using QCheckBox::QCheckBox;

 protected:
  void paintEvent(QPaintEvent* event) override;
};

// A raised surface with an optional heading; children go into `body()`.
class Card : public QWidget {
 public:
  explicit Card(const QString& heading = {}, QWidget* parent = nullptr);
  QVBoxLayout* body() { return body_; }
  void setHeading(const QString& heading);

 protected:
  void paintEvent(QPaintEvent*) override;

 private:
  QLabel* heading_ = nullptr;
  QVBoxLayout* body_ = nullptr;
};

// Rows of text in columns: the first column takes the rest of the width, the others keep the
// widths given. Figures are set in the figure face and right-aligned.
class Rows : public QWidget {
 public:
  struct Row {
    std::vector<QString> cells;
    Attention attention = Attention::none;
  };
  // `widths`: the widths of the columns after the first, in pixels.
  explicit Rows(std::vector<int> widths, QWidget* parent = nullptr);
  void setRows(std::vector<Row> rows);
  void setEmptyText(QString text);
  // Columns set in the text face instead of figures (names in the second column, say).
  void setTextColumns(std::vector<bool> text) { textColumns_ = std::move(text); }
  QSize sizeHint() const override;
  QSize minimumSizeHint() const override { return sizeHint(); }

 protected:
  void paintEvent(QPaintEvent*) override;

 private:
  int rowHeight() const;
  std::vector<int> widths_;
  std::vector<bool> textColumns_;
  std::vector<Row> rows_;
  QString empty_;
};

// A metric at a glance: title, value, a note and its live mini graph; clicking opens its page.
class MetricTile : public QWidget {
 public:
  explicit MetricTile(QWidget* parent = nullptr);
  void set(const MetricGlance& glance, std::vector<double> live, size_t capacity);
  std::function<void()> onClick;
  QSize sizeHint() const override { return {200, 118}; }
  QSize minimumSizeHint() const override { return {150, 118}; }

 protected:
  void paintEvent(QPaintEvent*) override;
  void mouseReleaseEvent(QMouseEvent*) override;

 private:
  MetricGlance glance_;
  std::vector<double> live_;
  size_t capacity_ = 0;
};

// A label in the interface's face at a size, optionally muted and wrapping.
QLabel* makeLabel(const QString& text, double points, bool muted = false, bool bold = false,
                  QWidget* parent = nullptr);
// The colour that draws an attention state in the current appearance.
QColor attentionColor(Attention a);
// Re-applies the muted colour to labels made muted, after the appearance changed.
void restyleLabels(QWidget* root);

}  // namespace vistrel::ui
