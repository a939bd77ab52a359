// The sensors page: one card per source, in two columns, each saying plainly when this machine
// has no such source.

#include <QGridLayout>
#include <QLabel>
#include <QPainter>
#include <QVBoxLayout>
#include <array>

#include "app/model.hpp"
#include "ui/charts.hpp"
#include "ui/page.hpp"
#include "ui/sensors_view.hpp"
#include "ui/theme.hpp"
#include "ui/widgets.hpp"

namespace vistrel::ui {

namespace {

QString q(const std::string& s) {
  return QString::fromStdString(s);
}

// The rows of one section, painted: label and note on the left, the value on the right, and a
// thin meter under the row where the value has a scale.
class SensorRows final : public QWidget {
 public:
  void set(std::vector<SensorRow> rows) {
    if (rows.size() != rows_.size()) updateGeometry();
    rows_ = std::move(rows);
    update();
  }
  QSize sizeHint() const override { return {300, static_cast<int>(rows_.size()) * kRow}; }
  QSize minimumSizeHint() const override { return {220, sizeHint().height()}; }

 protected:
  void paintEvent(QPaintEvent*) override {
    const Palette& p = currentPalette();
    QPainter painter(this);
    painter.setRenderHint(QPainter::Antialiasing);
    int y = 0;
    for (const SensorRow& r : rows_) {
      QColor attention = attentionColor(r.attention);
      painter.setFont(textFont(kBody));
      painter.setPen(p.text);
      QRect line(0, y, width(), 22);
      painter.drawText(line, Qt::AlignLeft | Qt::AlignVCenter, q(r.label));
      QFontMetrics fm(painter.font());
      if (!r.note.empty()) {
        painter.setFont(textFont(kCaption));
        painter.setPen(p.muted);
        painter.drawText(line.adjusted(fm.horizontalAdvance(q(r.label)) + 10, 0, -120, 0),
                         Qt::AlignLeft | Qt::AlignVCenter, q(r.note));
      }
      painter.setFont(figureFont(kBody, QFont::DemiBold));
      painter.setPen(r.attention == Attention::none ? p.text : attention);
      painter.drawText(line, Qt::AlignRight | Qt::AlignVCenter, q(r.value));
      if (r.attention != Attention::none) {
        QFontMetrics vf(painter.font());
        paintAttentionMark(painter,
                           QPointF(width() - vf.horizontalAdvance(q(r.value)) - 10, y + 11), 8,
                           attention);
      }
      if (r.level >= 0) {
        paintMeter(painter, QRectF(0, y + 26, width(), 5), r.level, p.border,
                   r.attention == Attention::none ? p.accent : attention);
      }
      y += kRow;
    }
  }

 private:
  static constexpr int kRow = 42;
  std::vector<SensorRow> rows_;
};

class SensorsPage final : public PageWidget {
 public:
  SensorsPage(PageContext& context, QWidget* parent) : PageWidget(context, parent) {
    content()->addWidget(makeLabel("Sensors", kTitle, false, true));
    auto* grid = new QGridLayout;
    grid->setHorizontalSpacing(14);
    grid->setVerticalSpacing(14);
    for (int i = 0; i < kSections; ++i) {
      auto& s = sections_[static_cast<size_t>(i)];
      s.card = new Card;
      s.rows = new SensorRows;
      s.empty = makeLabel({}, kBody, true);
      s.empty->setWordWrap(true);
      s.card->body()->addWidget(s.rows);
      s.card->body()->addWidget(s.empty);
      s.card->body()->addStretch();
      grid->addWidget(s.card, i / 2, i % 2);
    }
    grid->setColumnStretch(0, 1);
    grid->setColumnStretch(1, 1);
    content()->addLayout(grid);
    content()->addStretch();
  }

  void refresh() override {
    const auto& latest = context_.model.latest();
    std::vector<SensorSection> sections =
        latest ? sensorSections(*latest) : sensorSections(Snapshot{});
    for (size_t i = 0; i < sections_.size() && i < sections.size(); ++i) {
      auto& s = sections_[i];
      s.card->setHeading(q(sections[i].title));
      s.rows->set(sections[i].rows);
      s.rows->setVisible(!sections[i].rows.empty());
      s.empty->setText(latest ? q(sections[i].empty) : QString("Reading the sensors…"));
      s.empty->setVisible(sections[i].rows.empty());
    }
  }

 private:
  static constexpr int kSections = 6;
  struct Section {
    Card* card = nullptr;
    SensorRows* rows = nullptr;
    QLabel* empty = nullptr;
  };
  std::array<Section, kSections> sections_;
};

}  // namespace

PageWidget* makeSensorsPage(PageContext& context, QWidget* parent) {
  return new SensorsPage(context, parent);
}

}  // namespace vistrel::ui
