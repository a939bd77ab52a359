// One page per metric: the value now, a large chart (the live series, or the history of a span
// with its peak and the busiest apps of that span), and the details the metric has.

#include <QButtonGroup>
#include <QHBoxLayout>
#include <QPointer>
#include <QPushButton>
#include <QVBoxLayout>
#include <chrono>

#include "app/model.hpp"
#include "format/fmt.hpp"
#include "history/history_store.hpp"
#include "ui/charts.hpp"
#include "ui/page.hpp"
#include "ui/theme.hpp"
#include "ui/views.hpp"
#include "ui/widgets.hpp"

namespace vistrel::ui {

namespace {

// Seconds between two readings of the history while a span is on show: a minute row is written
// once a minute.
constexpr double kHistoryRefreshSeconds = 60;

QString q(const std::string& s) {
  return QString::fromStdString(s);
}

std::vector<Rows::Row> factRows(const std::vector<Fact>& facts) {
  std::vector<Rows::Row> rows;
  for (const Fact& f : facts) rows.push_back({{q(f.label), q(f.value)}});
  return rows;
}

class MetricPage final : public PageWidget {
 public:
  MetricPage(Metric metric, PageContext& context, QWidget* parent)
      : PageWidget(context, parent), metric_(metric) {
    // Header: title and subtitle on the left, the value now on the right.
    auto* header = new QHBoxLayout;
    auto* titles = new QVBoxLayout;
    titles->setSpacing(4);
    titles->addWidget(makeLabel(q(pageTitle(metricPage(metric))), kTitle, false, true));
    subtitle_ = makeLabel({}, kBody, true);
    titles->addWidget(subtitle_);
    header->addLayout(titles, 1);
    auto* valueBox = new QVBoxLayout;
    valueBox->setSpacing(2);
    value_ = new QLabel;
    value_->setFont(figureFont(kFigure, QFont::DemiBold));
    value_->setAlignment(Qt::AlignRight | Qt::AlignVCenter);
    valueNote_ = makeLabel({}, kCaption + 0.5, true);
    valueNote_->setAlignment(Qt::AlignRight);
    valueBox->addWidget(value_);
    valueBox->addWidget(valueNote_);
    header->addLayout(valueBox);
    content()->addLayout(header);

    // The range switch.
    rangeBar_ = new QWidget;
    auto* switchRow = new QHBoxLayout(rangeBar_);
    switchRow->setContentsMargins(0, 0, 0, 0);
    switchRow->setSpacing(6);
    auto* group = new QButtonGroup(this);
    rangeGroup_ = group;
    group->setExclusive(true);
    int index = 0;
    for (const Range& r : ranges()) {
      auto* b = new QPushButton(q(r.title));
      b->setCheckable(true);
      b->setChecked(index == 0);
      b->setFont(textFont(kBody));
      b->setCursor(Qt::PointingHandCursor);
      group->addButton(b, index++);
      switchRow->addWidget(b);
    }
    switchRow->addStretch();
    QObject::connect(group, &QButtonGroup::idClicked, [this](int id) { selectRange(id); });
    content()->addWidget(rangeBar_);

    // The chart.
    // Shown instead of the chart when the machine has no such source.
    emptyCard_ = new Card;
    emptyText_ = makeLabel({}, kBody, true);
    emptyText_->setWordWrap(true);
    emptyCard_->body()->addWidget(emptyText_);
    emptyCard_->hide();
    content()->addWidget(emptyCard_);

    chartCard_ = new Card;
    auto* chartCard = chartCard_;
    chart_ = new Chart;
    chart_->setMinimumHeight(190);
    chartCard->body()->addWidget(chart_, 1);
    caption_ = makeLabel({}, kCaption, true);
    chartCard->body()->addWidget(caption_);
    content()->addWidget(chartCard, 1);

    // Details and apps side by side.
    auto* lower = new QHBoxLayout;
    lower->setSpacing(14);
    details_ = new Card("Details");
    if (metric == Metric::cpu) {
      cores_ = new BarRow;
      details_->body()->addWidget(cores_);
      coresCaption_ = makeLabel("Each core, busy share now", kCaption, true);
      details_->body()->addWidget(coresCaption_);
    }
    if (metric == Metric::memory) {
      stack_ = new Meter;
      details_->body()->addWidget(stack_);
      breakdown_ = new Rows({110, 70});
      breakdown_->setTextColumns({true, false, false});
      details_->body()->addWidget(breakdown_);
    }
    facts_ = new Rows({170});
    details_->body()->addWidget(facts_);
    if (metric == Metric::disk) {
      volumesTitle_ = makeLabel("Volumes", kHeading, false, true);
      details_->body()->addWidget(volumesTitle_);
      volumes_ = new Rows({230, 96});
      volumes_->setEmptyText("No volumes read yet.");
      details_->body()->addWidget(volumes_);
    }
    details_->body()->addStretch();
    lower->addWidget(details_, 3);
    appsCard_ = new Card("Busiest apps now");
    apps_ = new Rows({110});
    apps_->setEmptyText("No app is using any right now.");
    appsCard_->body()->addWidget(apps_);
    appsCard_->body()->addStretch();
    lower->addWidget(appsCard_, 2);
    content()->addLayout(lower);
    content()->addStretch(0);
  }

  void setRange(std::optional<TimeSpan> span) override {
    const auto& all = ranges();
    for (size_t i = 0; i < all.size(); ++i) {
      if (all[i].span == span) {
        rangeGroup_->button(static_cast<int>(i))->setChecked(true);
        selectRange(static_cast<int>(i));
      }
    }
  }

  void refresh() override {
    Model& model = context_.model;
    if (!model.latest()) {
      value_->setText(QString::fromUtf8("—"));
      chart_->setEmptyText("Reading the machine…");
      return;
    }
    const Snapshot& s = *model.latest();
    MetricPageView v = metricPageView(metric_, s, model.live(metric_));
    subtitle_->setText(q(v.subtitle));
    subtitle_->setVisible(!v.subtitle.empty());
    // Without a source (no battery, no sensors) the page says so once, calmly, and offers no
    // ranges or apps of figures that do not exist.
    const bool none = !v.emptyState.empty();
    rangeBar_->setVisible(!none);
    appsCard_->setVisible(!none);
    chartCard_->setVisible(!none);
    emptyCard_->setVisible(none);
    emptyText_->setText(q(v.emptyState));
    value_->setVisible(!none);
    valueNote_->setVisible(!none);
    QString value = q(v.glance.value);
    value_->setFont(v.glance.available ? figureFont(kFigure, QFont::DemiBold) : textFont(kTitle));
    if (v.glance.attention != Attention::none) value = QString::fromUtf8("▲ ") + value;
    value_->setText(value);
    QPalette pal = value_->palette();
    pal.setColor(QPalette::WindowText,
                 v.glance.available ? attentionColor(v.glance.attention) : currentPalette().muted);
    value_->setPalette(pal);
    valueNote_->setText(q(v.glance.note));

    if (!span_) {
      chart_->setEmptyText(q(v.emptyState));
      chart_->setLive(v.live.levels, Model::kLivePoints);
      chart_->setAxis(q(v.live.top), q(v.live.middle),
                      q(liveStart(model.settings().intervalSeconds, Model::kLivePoints)), "now");
      caption_->setText("Live, one point per sample");
      apps_->setRows(factRows(busiestFor(metric_, s, 5)));
    } else {
      const double now = secondsNow();
      if (now - historyAt_ > kHistoryRefreshSeconds) askHistory();
    }
    if (cores_) cores_->setValues(v.cores);
    if (stack_) {
      std::vector<double> shares;
      std::vector<QColor> colors;
      const Palette& p = currentPalette();
      QColor tones[] = {p.accent, p.accent.darker(140), p.muted, p.grid.darker(120)};
      for (size_t i = 0; i + 1 < v.breakdown.size() && i < 4; ++i) {
        shares.push_back(v.breakdown[i].share);
        colors.push_back(tones[i]);
      }
      stack_->setStack(shares, colors);
      std::vector<Rows::Row> rows;
      for (const Segment& seg : v.breakdown) {
        rows.push_back({{q(seg.label), q(seg.value), q(Fmt::percent(seg.share))}});
      }
      breakdown_->setRows(std::move(rows));
    }
    facts_->setRows(factRows(v.facts));
    facts_->setVisible(!v.facts.empty());
    if (volumes_) {
      std::vector<Rows::Row> rows;
      for (const VolumeRow& vol : v.volumes) {
        rows.push_back(
            {{q(vol.name), q(vol.free), q(Fmt::percent(vol.used) + " used")}, vol.attention});
      }
      volumes_->setRows(std::move(rows));
    }
    details_->setVisible(!v.facts.empty() || cores_ || stack_ || volumes_);
  }

 private:
  static double secondsNow() {
    return std::chrono::duration<double>(std::chrono::steady_clock::now().time_since_epoch())
        .count();
  }

  void selectRange(int id) {
    const auto& all = ranges();
    if (id < 0 || static_cast<size_t>(id) >= all.size()) return;
    span_ = all[static_cast<size_t>(id)].span;
    appsCard_->setHeading(span_ ? "Busiest apps of the span" : "Busiest apps now");
    if (span_) {
      historyAt_ = -1e9;
      chart_->setBars({}, {});
      chart_->setEmptyText("Reading the history…");
    }
    refresh();
  }

  // Asks the history store for the span's series and busiest apps; both answers arrive on the main
  // queue, and the page may be gone or on another span by then.
  void askHistory() {
    historyAt_ = secondsNow();
    HistoryStore* history = context_.history;
    if (!history) {
      chart_->setBars({}, {});
      chart_->setEmptyText("The history could not be opened, so only live figures are shown.");
      return;
    }
    const TimeSpan span = *span_;
    const int ask = ++asked_;
    QPointer<MetricPage> self(this);
    history->series(metric_, span, [self, ask](std::vector<HistoryPoint> points) {
      if (!self || self->asked_ != ask) return;
      self->points_ = std::move(points);
      self->gotSeries_ = true;
      self->showHistory();
    });
    gotSeries_ = false;
    gotApps_ = false;
    history->topApps(metric_, span, 5, [self, ask](std::vector<AppHistory> apps) {
      if (!self || self->asked_ != ask) return;
      self->topApps_ = std::move(apps);
      self->gotApps_ = true;
      self->showHistory();
    });
  }

  void showHistory() {
    if (!gotSeries_ || !gotApps_ || !span_) return;
    const auto& latest = context_.model.latest();
    HistoryView h =
        historyView(metric_, *span_, points_, topApps_, latest ? latest->memory.total : 0,
                    std::chrono::system_clock::now());
    chart_->setEmptyText(q(h.empty));
    chart_->setBars(h.chart.levels, h.chart.peaks);
    if (!h.empty.empty()) chart_->setBars({}, {});
    chart_->setAxis(q(h.chart.top), q(h.chart.middle), q(h.start), q(h.end));
    std::string caption = h.caption;
    if (!h.peak.empty()) caption = h.peak + (caption.empty() ? "" : " · " + caption);
    caption_->setText(q(caption));
    std::vector<Rows::Row> rows = factRows(h.apps);
    apps_->setRows(std::move(rows));
    apps_->setEmptyText(metric_ == Metric::battery || metric_ == Metric::heat
                            ? "Apps are not recorded for this metric."
                            : "No app recorded in this span.");
  }

  Metric metric_;
  QButtonGroup* rangeGroup_ = nullptr;
  std::optional<TimeSpan> span_;
  double historyAt_ = -1e9;
  int asked_ = 0;
  bool gotSeries_ = false;
  bool gotApps_ = false;
  std::vector<HistoryPoint> points_;
  std::vector<AppHistory> topApps_;

  QLabel* subtitle_;
  QLabel* value_;
  QLabel* valueNote_;
  QLabel* caption_;
  Chart* chart_;
  Card* details_;
  Card* appsCard_;
  QWidget* rangeBar_;
  Card* chartCard_;
  Card* emptyCard_;
  QLabel* emptyText_;
  BarRow* cores_ = nullptr;
  QLabel* coresCaption_ = nullptr;
  Meter* stack_ = nullptr;
  Rows* breakdown_ = nullptr;
  Rows* facts_;
  QLabel* volumesTitle_ = nullptr;
  Rows* volumes_ = nullptr;
  Rows* apps_;
};

}  // namespace

PageWidget* makeMetricPage(Metric metric, PageContext& context, QWidget* parent) {
  return new MetricPage(metric, context, parent);
}

}  // namespace vistrel::ui
