// The coding agents page: Claude Code and Codex side by side, each with its plan windows (a bar,
// the mark where even use would stand, the pace and reset lines), spend limit, today's tokens and
// sessions; below, the card that connects or disconnects Claude Code's status line.

#include <QDir>
#include <QFileInfo>
#include <QHBoxLayout>
#include <QLabel>
#include <QPainter>
#include <QPushButton>
#include <QVBoxLayout>
#include <array>
#include <chrono>

#include "agents/status_line_bridge.hpp"
#include "app/model.hpp"
#include "base/paths.hpp"
#include "format/fmt.hpp"
#include "ui/agents_view.hpp"
#include "ui/charts.hpp"
#include "ui/page.hpp"
#include "ui/theme.hpp"
#include "ui/widgets.hpp"

namespace vistrel::ui {

namespace {

QString q(const std::string& s) {
  return QString::fromStdString(s);
}

// One plan window: its title and figure, the bar with the pace mark, and its two lines.
class PlanBarWidget final : public QWidget {
 public:
  void set(PlanBar bar) {
    bar_ = std::move(bar);
    update();
  }
  QSize sizeHint() const override { return {320, 78}; }
  QSize minimumSizeHint() const override { return {220, 78}; }

 protected:
  void paintEvent(QPaintEvent*) override {
    const Palette& p = currentPalette();
    QPainter painter(this);
    painter.setRenderHint(QPainter::Antialiasing);
    const int w = width();
    painter.setPen(p.text);
    painter.setFont(textFont(kBody, QFont::Medium));
    painter.drawText(QRect(0, 0, w, 20), Qt::AlignLeft | Qt::AlignVCenter, q(bar_.title));
    QColor fill = bar_.attention == Attention::none ? p.accent : attentionColor(bar_.attention);
    QString figure = q(bar_.percent);
    painter.setFont(figureFont(kBody, QFont::DemiBold));
    QFontMetrics fm(painter.font());
    int right = w;
    painter.setPen(bar_.attention == Attention::none ? p.text : fill);
    painter.drawText(QRect(0, 0, right, 20), Qt::AlignRight | Qt::AlignVCenter, figure);
    if (bar_.attention != Attention::none) {
      paintAttentionMark(painter, QPointF(right - fm.horizontalAdvance(figure) - 9, 10), 8, fill);
    }
    QRectF track(0, 26, w, 8);
    paintMeter(painter, track, bar_.used, p.border, fill);
    if (bar_.pace) {
      // Where use would stand if it went evenly through the window.
      double x = track.left() + *bar_.pace * track.width();
      painter.setPen(QPen(p.text, 2));
      painter.drawLine(QPointF(x, track.top() - 3), QPointF(x, track.bottom() + 3));
    }
    painter.setFont(textFont(kCaption));
    painter.setPen(bar_.attention == Attention::none ? p.muted : fill);
    painter.drawText(QRect(0, 40, w, 18), Qt::AlignLeft | Qt::AlignVCenter, q(bar_.paceLine));
    painter.setPen(p.muted);
    painter.drawText(QRect(0, 58, w, 18), Qt::AlignLeft | Qt::AlignVCenter, q(bar_.resetLine));
  }

 private:
  PlanBar bar_;
};

// Clears a layout's widgets (the sessions list is rebuilt when it changes).
void clear(QVBoxLayout* layout) {
  while (QLayoutItem* item = layout->takeAt(0)) {
    if (item->layout()) clear(static_cast<QVBoxLayout*>(item->layout()));
    delete item->widget();
    delete item;
  }
}

// The newest backup of Claude Code's settings in the support folder, for the person to find.
std::optional<std::string> newestBackup(const std::string& supportFolder) {
  QDir dir(q(supportFolder));
  auto files = dir.entryInfoList({"claude-settings-backup-*.json"}, QDir::Files, QDir::Time);
  if (files.isEmpty()) return std::nullopt;
  return files.front().absoluteFilePath().toStdString();
}

class AgentColumn final : public Card {
 public:
  AgentColumn(PageContext& context, const QString& tool) : Card(tool), context_(context) {
    status_ = makeLabel({}, kBody, true);
    body()->addWidget(status_);
    windows_ = new QVBoxLayout;
    windows_->setSpacing(14);
    body()->addLayout(windows_);
    for (auto*& bar : bars_) {
      bar = new PlanBarWidget;
      windows_->addWidget(bar);
    }
    spend_ = makeLabel({}, kBody);
    planNote_ = makeLabel({}, kBody, true);
    planNote_->setWordWrap(true);
    body()->addWidget(spend_);
    body()->addWidget(planNote_);
    today_ = makeLabel({}, kBody, false, true);
    body()->addSpacing(6);
    body()->addWidget(today_);
    byModelTitle_ = makeLabel("Today by model", kCaption, true, true);
    byModel_ = new Rows({100});
    byProjectTitle_ = makeLabel("Today by project", kCaption, true, true);
    byProject_ = new Rows({100});
    body()->addWidget(byModelTitle_);
    body()->addWidget(byModel_);
    body()->addWidget(byProjectTitle_);
    body()->addWidget(byProject_);
    sessionsTitle_ = makeLabel("Sessions today", kCaption, true, true);
    body()->addSpacing(6);
    body()->addWidget(sessionsTitle_);
    sessions_ = new QVBoxLayout;
    sessions_->setSpacing(10);
    body()->addLayout(sessions_);
    body()->addStretch();
  }

  void set(const AgentColumnView& v) {
    status_->setText(q(v.status));
    for (size_t i = 0; i < bars_.size(); ++i) {
      bars_[i]->setVisible(i < v.windows.size());
      if (i < v.windows.size()) bars_[i]->set(v.windows[i]);
    }
    spend_->setText(q(v.spend));
    spend_->setVisible(!v.spend.empty());
    planNote_->setText(q(v.planNote));
    planNote_->setVisible(!v.planNote.empty());
    today_->setText(q(v.today));
    today_->setVisible(!v.today.empty());
    auto rows = [](const std::vector<Fact>& facts) {
      std::vector<Rows::Row> out;
      for (const Fact& f : facts) out.push_back({{q(f.label), q(f.value)}});
      return out;
    };
    byModel_->setRows(rows(v.byModel));
    byProject_->setRows(rows(v.byProject));
    byModelTitle_->setVisible(!v.byModel.empty());
    byModel_->setVisible(!v.byModel.empty());
    byProjectTitle_->setVisible(!v.byProject.empty());
    byProject_->setVisible(!v.byProject.empty());
    sessionsTitle_->setVisible(!v.sessions.empty());

    // Rebuilt only when a session's texts changed.
    std::string key;
    for (const SessionView& s : v.sessions) {
      key += s.title + s.subtitle + s.state;
      for (const Fact& f : s.facts) key += f.label + f.value;
      key += "\n";
    }
    if (key == sessionsKey_) return;
    sessionsKey_ = key;
    clear(sessions_);
    for (const SessionView& s : v.sessions) sessions_->addWidget(session(s));
  }

 private:
  QWidget* session(const SessionView& s) {
    auto* box = new QWidget;
    auto* layout = new QVBoxLayout(box);
    layout->setContentsMargins(0, 6, 0, 2);
    layout->setSpacing(3);
    auto* top = new QHBoxLayout;
    top->addWidget(makeLabel(q(s.title), kBody + 0.5, false, true), 1);
    top->addWidget(makeLabel(q(s.state), kCaption, !s.live || s.state == "Idle"));
    layout->addLayout(top);
    if (!s.subtitle.empty()) layout->addWidget(makeLabel(q(s.subtitle), kCaption, true));
    auto* facts = new Rows({210});
    std::vector<Rows::Row> rows;
    for (const Fact& f : s.facts) rows.push_back({{q(f.label), q(f.value)}});
    facts->setRows(std::move(rows));
    layout->addWidget(facts);
    if (s.live) {
      auto* end = new QPushButton("End Session…");
      const std::string agent = s.agent, folder = s.folder;
      QObject::connect(end, &QPushButton::clicked,
                       [this, agent, folder] { context_.model.confirmEndSession(agent, folder); });
      auto* row = new QHBoxLayout;
      row->addStretch();
      row->addWidget(end);
      layout->addLayout(row);
    }
    return box;
  }

  PageContext& context_;
  QLabel* status_;
  QVBoxLayout* windows_;
  std::array<PlanBarWidget*, 2> bars_{};
  QLabel* spend_;
  QLabel* planNote_;
  QLabel* today_;
  QLabel* byModelTitle_;
  Rows* byModel_;
  QLabel* byProjectTitle_;
  Rows* byProject_;
  QLabel* sessionsTitle_;
  QVBoxLayout* sessions_;
  std::string sessionsKey_;
};

class AgentsPage final : public PageWidget {
 public:
  AgentsPage(PageContext& context, QWidget* parent) : PageWidget(context, parent) {
    content()->addWidget(makeLabel("Coding agents", kTitle, false, true));
    updated_ = makeLabel({}, kBody, true);
    content()->addWidget(updated_);
    auto* columns = new QHBoxLayout;
    columns->setSpacing(14);
    claude_ = new AgentColumn(context, "Claude Code");
    codex_ = new AgentColumn(context, "Codex");
    columns->addWidget(claude_, 1);
    columns->addWidget(codex_, 1);
    content()->addLayout(columns);

    auto* bridge = new Card("Claude Code's status line");
    bridgeState_ = makeLabel({}, kBody, false, true);
    bridgeState_->setWordWrap(true);
    bridgeText_ = makeLabel({}, kBody, true);
    bridgeText_->setWordWrap(true);
    bridgeKeeps_ = makeLabel({}, kBody, true);
    bridgeKeeps_->setWordWrap(true);
    bridgeResult_ = makeLabel({}, kBody);
    bridgeResult_->setWordWrap(true);
    bridgeResult_->hide();
    bridge->body()->addWidget(bridgeState_);
    bridge->body()->addWidget(bridgeText_);
    bridge->body()->addWidget(bridgeKeeps_);
    auto* row = new QHBoxLayout;
    row->addStretch();
    bridgeButton_ = new QPushButton;
    bridgeButton_->setObjectName("statusLine");
    row->addWidget(bridgeButton_);
    bridge->body()->addLayout(row);
    bridge->body()->addWidget(bridgeResult_);
    content()->addWidget(bridge);
    content()->addStretch();
    QObject::connect(bridgeButton_, &QPushButton::clicked, [this] { toggleBridge(); });
  }

  void refresh() override {
    const AgentsSnapshot& a = context_.model.agents();
    const Date now = std::chrono::system_clock::now();
    AgentsPageView v = agentsPageView(a, now, homeFolder());
    if (a.updated.time_since_epoch().count() <= 0 ||
        a.updated < now - std::chrono::hours(24 * 365)) {
      updated_->setText("Reading Claude Code's and Codex's files…");
    } else {
      updated_->setText(QString("Read %1").arg(q(Fmt::ago(a.updated, now))));
    }
    claude_->set(v.claude);
    codex_->set(v.codex);
    StatusLineView s = v.statusLine;
    if (override_)
      s.connected = *override_, s.action = *override_ ? "Disconnect" : "Connect",
      s.state = *override_ ? "Connected" : "Not connected";
    bridgeState_->setText(q(s.state));
    bridgeText_->setText(q(s.explanation));
    bridgeKeeps_->setText(q(s.keepsYours));
    bridgeKeeps_->setVisible(!s.keepsYours.empty());
    bridgeButton_->setText(q(s.action));
    connected_ = s.connected;
    // The monitor has read the settings again: its word holds from now on.
    if (override_ && a.statusLine.kind == (*override_ ? StatusLineState::Kind::connected
                                                      : StatusLineState::Kind::notConnected)) {
      override_.reset();
    }
  }

 private:
  void toggleBridge() {
    BridgePaths paths = BridgePaths::defaults();
    std::optional<std::string> failure;
    std::string done;
    if (connected_) {
      failure = StatusLineBridge::disconnect(paths);
      done = kDisconnectedText;
    } else {
      failure = StatusLineBridge::connect(paths);
      done = connectedText(newestBackup(paths.supportFolder));
    }
    bridgeResult_->setText(q(failure ? *failure : done));
    bridgeResult_->show();
    if (!failure) override_ = !connected_;
    refresh();
  }

  QLabel* updated_;
  AgentColumn* claude_;
  AgentColumn* codex_;
  QLabel* bridgeState_;
  QLabel* bridgeText_;
  QLabel* bridgeKeeps_;
  QLabel* bridgeResult_;
  QPushButton* bridgeButton_;
  bool connected_ = false;
  std::optional<bool> override_;  // what the person just did, until the monitor reads it too
};

}  // namespace

PageWidget* makeAgentsPage(PageContext& context, QWidget* parent) {
  return new AgentsPage(context, parent);
}

}  // namespace vistrel::ui
