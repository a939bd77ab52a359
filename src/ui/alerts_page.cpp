// The alerts page: the kept alerts newest first, those that arrived since the last visit marked
// "New", each with its app, time and text and a way to mute its app for the rest of the day; a
// button that clears them all, and the switches of the rules and of notifications.

#include <QCheckBox>
#include <QGridLayout>
#include <QHBoxLayout>
#include <QLabel>
#include <QPushButton>
#include <QShowEvent>
#include <QVBoxLayout>
#include <chrono>

#include "alerts/alert_log.hpp"
#include "app/model.hpp"
#include "base/user_defaults.hpp"
#include "ui/alerts_view.hpp"
#include "ui/page.hpp"
#include "ui/theme.hpp"
#include "ui/widgets.hpp"

namespace vistrel::ui {

namespace {

QString q(const std::string& s) {
  return QString::fromStdString(s);
}
QString q(std::string_view s) {
  return QString::fromUtf8(s.data(), static_cast<qsizetype>(s.size()));
}

class AlertsPage final : public PageWidget {
 public:
  AlertsPage(PageContext& context, QWidget* parent) : PageWidget(context, parent) {
    auto* header = new QHBoxLayout;
    auto* titles = new QVBoxLayout;
    titles->setSpacing(4);
    titles->addWidget(makeLabel("Alerts", kTitle, false, true));
    summary_ = makeLabel({}, kBody, true);
    titles->addWidget(summary_);
    header->addLayout(titles, 1);
    clear_ = new QPushButton("Clear All");
    clear_->setObjectName("clearAlerts");
    header->addWidget(clear_, 0, Qt::AlignBottom);
    content()->addLayout(header);

    // The list above, the rules under it in two columns: a rule's sentence is long, and beside
    // the list it would leave neither room enough.
    list_ = new Card;
    listBody_ = new QVBoxLayout;
    listBody_->setSpacing(0);
    list_->body()->addLayout(listBody_);
    empty_ = makeLabel(q(kNoAlertsText), kBody, true);
    list_->body()->addWidget(empty_);
    list_->body()->addStretch();
    content()->addWidget(list_, 1);

    auto* rules = new Card("Rules");
    AlertLog& log = context.model.alerts();
    auto* notify = new CheckBox(q(kNotifySwitchText));
    notify->setObjectName("notify");
    notify->setChecked(log.notify());
    QObject::connect(notify, &QCheckBox::toggled,
                     [this](bool on) { context_.model.alerts().setNotify(on); });
    rules->body()->addWidget(notify);
    auto* note = makeLabel(q(kNotifySwitchNote), kCaption, true);
    note->setContentsMargins(28, 0, 0, 6);
    rules->body()->addWidget(note);
    auto* grid = new QGridLayout;
    grid->setHorizontalSpacing(24);
    grid->setVerticalSpacing(8);
    rules->body()->addLayout(grid);
    int placed = 0;
    for (AlertEvent::Kind kind : kAllAlertKinds) {
      auto* box = new CheckBox(q(settingText(kind)));
      box->setObjectName(q(rawValue(kind)));
      box->setChecked(log.alertKinds().count(kind) > 0);
      QObject::connect(box, &QCheckBox::toggled, [this, kind](bool on) {
        auto kinds = context_.model.alerts().alertKinds();
        if (on) {
          kinds.insert(kind);
        } else {
          kinds.erase(kind);
        }
        context_.model.alerts().setAlertKinds(kinds);
      });
      grid->addWidget(box, placed / 2, placed % 2);
      ++placed;
    }
    content()->addWidget(rules);

    QObject::connect(clear_, &QPushButton::clicked, [this] {
      context_.model.alerts().clearAlerts();
      shownKey_.clear();
      refresh();
    });
  }

  void refresh() override {
    AlertLog& log = context_.model.alerts();
    const auto& alerts = log.alerts();
    AlertsView v = alertsView(alerts, log.mutedToday(), log.unreadWhenRead(),
                              std::chrono::system_clock::now());
    summary_->setText(q(v.summary.empty() ? std::string("Nothing needs you.") : v.summary));
    clear_->setEnabled(!alerts.empty());
    empty_->setVisible(v.lines.empty());
    // Rebuilt only when something on it changed: a new alert, a mute, a clear, a minute passing.
    std::string key;
    for (const AlertLine& l : v.lines) {
      key += l.id + (l.unread ? "*" : "") + (l.muted ? "m" : "") + l.when + "\n";
    }
    if (key == shownKey_) return;
    shownKey_ = key;
    while (QLayoutItem* item = listBody_->takeAt(0)) {
      delete item->widget();
      delete item;
    }
    bool first = true;
    for (const AlertLine& l : v.lines) {
      listBody_->addWidget(row(l, first));
      first = false;
    }
  }

 protected:
  // Coming on screen: the model has just marked everything read; the alerts that were unread
  // stay marked new while the page stays (AlertLog::unreadWhenRead).
  void showEvent(QShowEvent* e) override {
    PageWidget::showEvent(e);
    shownKey_.clear();
  }

 private:
  QWidget* row(const AlertLine& l, bool first) {
    auto* w = new QWidget;
    auto* layout = new QHBoxLayout(w);
    layout->setContentsMargins(0, first ? 2 : 12, 0, 10);
    layout->setSpacing(12);
    auto* text = new QVBoxLayout;
    text->setSpacing(3);
    QString title = q(l.title);
    auto* titleRow = new QHBoxLayout;
    titleRow->setSpacing(8);
    if (l.unread) {
      // A word beside the accent dot: "new" never rests on colour alone.
      auto* mark = makeLabel(QString::fromUtf8("● New"), kCaption, false, true);
      QPalette pal = mark->palette();
      pal.setColor(QPalette::WindowText, currentPalette().accent);
      mark->setPalette(pal);
      titleRow->addWidget(mark);
    }
    titleRow->addWidget(makeLabel(title, kBody + 0.5, false, true), 1);
    text->addLayout(titleRow);
    QString meta = q(l.when);
    if (!l.app.empty()) meta = q(l.app) + QString::fromUtf8(" · ") + meta;
    if (l.muted) meta += QString::fromUtf8(" · muted until tomorrow");
    text->addWidget(makeLabel(meta, kCaption, true));
    if (!l.detail.empty()) {
      auto* detail = makeLabel(q(l.detail), kBody);
      detail->setWordWrap(true);
      text->addWidget(detail);
    }
    layout->addLayout(text, 1);
    if (l.muteId) {
      auto* mute = new QPushButton("Mute Until Tomorrow");
      mute->setObjectName("mute:" + q(*l.muteId));
      const std::string id = *l.muteId;
      QObject::connect(mute, &QPushButton::clicked, [this, id] {
        std::string_view toast = context_.model.alerts().muteToday(id);
        if (context_.toast) context_.toast(std::string(toast));
        refresh();
      });
      layout->addWidget(mute, 0, Qt::AlignTop);
    }
    if (!first) {
      // A hairline above every row but the first.
      w->setObjectName("alertRow");
      w->setStyleSheet(
          QString("#alertRow { border-top: 1px solid %1; }").arg(currentPalette().border.name()));
    }
    return w;
  }

  QLabel* summary_ = nullptr;
  QPushButton* clear_ = nullptr;
  Card* list_ = nullptr;
  QVBoxLayout* listBody_ = nullptr;
  QLabel* empty_ = nullptr;
  std::string shownKey_;
};

}  // namespace

PageWidget* makeAlertsPage(PageContext& context, QWidget* parent) {
  return new AlertsPage(context, parent);
}

}  // namespace vistrel::ui
