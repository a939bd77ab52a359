// The overview: the mood of the machine in a sentence, every metric at a glance with its live
// graph, the busiest apps, the coding agents' live sessions and plan usage, and recent alerts.

#include <QGridLayout>
#include <QHBoxLayout>
#include <QVBoxLayout>

#include "alerts/alert_log.hpp"
#include "app/model.hpp"
#include "ui/charts.hpp"
#include "ui/page.hpp"
#include "ui/theme.hpp"
#include "ui/views.hpp"
#include "ui/widgets.hpp"

namespace vistrel::ui {

namespace {

std::vector<double> levels(const std::deque<double>& live) {
  return {live.begin(), live.end()};
}

QString q(const std::string& s) {
  return QString::fromStdString(s);
}

class OverviewPage final : public PageWidget {
 public:
  OverviewPage(PageContext& context, QWidget* parent) : PageWidget(context, parent) {
    auto* header = new QVBoxLayout;
    header->setSpacing(4);
    moodTitle_ = makeLabel({}, kTitle, false, true);
    moodSentence_ = makeLabel({}, kBody + 0.5, true);
    moodSentence_->setWordWrap(true);
    header->addWidget(moodTitle_);
    header->addWidget(moodSentence_);
    content()->addLayout(header);

    auto* grid = new QGridLayout;
    grid->setHorizontalSpacing(14);
    grid->setVerticalSpacing(14);
    for (size_t i = 0; i < kAllMetrics.size(); ++i) {
      auto* tile = new MetricTile;
      Metric m = kAllMetrics[i];
      tile->onClick = [this, m] { context_.go(metricPage(m)); };
      grid->addWidget(tile, static_cast<int>(i / 4), static_cast<int>(i % 4));
      tiles_.push_back(tile);
    }
    content()->addLayout(grid);

    auto* lower = new QHBoxLayout;
    lower->setSpacing(14);
    auto* appsCard = new Card("Busiest apps");
    apps_ = new Rows({90, 96, 90});
    apps_->setTextColumns({true, false, false, true});
    apps_->setEmptyText("No apps read yet.");
    appsCard->body()->addWidget(apps_);
    appsCard->body()->addStretch();
    lower->addWidget(appsCard, 3);

    auto* right = new QVBoxLayout;
    right->setSpacing(14);
    auto* agentsCard = new Card("Coding agents");
    sessions_ = new Rows({80, 74});
    sessions_->setTextColumns({true, true, false});
    sessions_->setEmptyText("No coding agent is running.");
    plans_ = new Rows({200});
    plans_->setEmptyText("");
    agentsCard->body()->addWidget(sessions_);
    agentsCard->body()->addWidget(plans_);
    right->addWidget(agentsCard);
    auto* alertsCard = new Card("Recent alerts");
    alerts_ = new Rows({110});
    alerts_->setTextColumns({true, true});
    alerts_->setEmptyText(
        QString::fromUtf8(kNoAlertsText.data(), static_cast<qsizetype>(kNoAlertsText.size())));
    alertsCard->body()->addWidget(alerts_);
    right->addWidget(alertsCard);
    right->addStretch();
    lower->addLayout(right, 2);
    content()->addLayout(lower);
    content()->addStretch();
  }

  void refresh() override {
    Model& model = context_.model;
    OverviewView v = overviewView(model.latest(), model.agents(), model.alerts().alerts(),
                                  std::chrono::system_clock::now());
    QString title = q(v.mood.title);
    if (v.mood.attention != Attention::none) title = QString::fromUtf8("▲ ") + title;
    moodTitle_->setText(title);
    QPalette pal = moodTitle_->palette();
    pal.setColor(QPalette::WindowText, attentionColor(v.mood.attention));
    moodTitle_->setPalette(pal);
    moodSentence_->setText(q(v.mood.sentence));

    for (size_t i = 0; i < tiles_.size(); ++i) {
      Metric m = kAllMetrics[i];
      MetricGlance g =
          i < v.metrics.size()
              ? v.metrics[i]
              : MetricGlance{m, pageTitle(metricPage(m)), "—", "", 0, true, Attention::none};
      tiles_[i]->set(g, levels(model.live(m)), Model::kLivePoints);
    }
    std::vector<Rows::Row> apps;
    for (const AppRow& a : v.apps) {
      apps.push_back({{q(a.name), q(a.cpu), q(a.memory), q(a.lean)}});
    }
    apps_->setRows(std::move(apps));
    std::vector<Rows::Row> sessions;
    for (const SessionRow& s : v.sessions) {
      QString name = q(s.tool);
      if (!s.folder.empty()) name += QString::fromUtf8(" · ") + q(s.folder);
      sessions.push_back({{name, q(s.state), q(s.cpu)}});
    }
    sessions_->setRows(std::move(sessions));
    std::vector<Rows::Row> plans;
    for (const PlanRow& p : v.plans) plans.push_back({{q(p.tool), q(p.text)}, p.attention});
    plans_->setRows(std::move(plans));
    plans_->setVisible(!v.plans.empty());
    std::vector<Rows::Row> alerts;
    for (const AlertRow& a : v.alerts) alerts.push_back({{q(a.title), q(a.when)}});
    alerts_->setRows(std::move(alerts));
  }

 private:
  QLabel* moodTitle_;
  QLabel* moodSentence_;
  std::vector<MetricTile*> tiles_;
  Rows* apps_;
  Rows* sessions_;
  Rows* plans_;
  Rows* alerts_;
};

class ComingPage final : public PageWidget {
 public:
  ComingPage(Page page, PageContext& context, QWidget* parent) : PageWidget(context, parent) {
    content()->addWidget(makeLabel(q(pageTitle(page)), kTitle, false, true));
    auto* card = new Card;
    QString text;
    switch (page) {
      case Page::apps:
        text =
            "Every app with what it uses, and a way to quit one, comes to this page soon. "
            "Until then, the overview lists the busiest apps as they are now.";
        break;
      case Page::agents:
        text =
            "Claude Code and Codex sessions, their tokens and plan limits, come to this page "
            "soon. Until then, the overview shows live sessions and plan usage.";
        break;
      case Page::sensors:
        text =
            "Temperatures, fans and power come to this page soon. The heat page shows the "
            "hottest reading as it is now.";
        break;
      default:
        text =
            "Each alert Vistrel raises comes to this page soon. Until then, the overview "
            "shows the most recent ones.";
        break;
    }
    auto* label = makeLabel(text, kBody, true);
    label->setWordWrap(true);
    card->body()->addWidget(label);
    content()->addWidget(card);
    content()->addStretch();
  }
  void refresh() override {}
};

}  // namespace

PageWidget* makeOverviewPage(PageContext& context, QWidget* parent) {
  return new OverviewPage(context, parent);
}

PageWidget* makeComingPage(Page page, PageContext& context, QWidget* parent) {
  return new ComingPage(page, context, parent);
}

}  // namespace vistrel::ui
