// Settings: every setting of the model, each stored in the user defaults the moment it changes.

#include <QApplication>
#include <QButtonGroup>
#include <QCheckBox>
#include <QClipboard>
#include <QComboBox>
#include <QGridLayout>
#include <QHBoxLayout>
#include <QLineEdit>
#include <QMessageBox>
#include <QPainter>
#include <QPointer>
#include <QPushButton>
#include <QSignalBlocker>
#include <QVBoxLayout>
#include <set>

#include "alerts/alert_log.hpp"
#include "app/model.hpp"
#include "format/platform_text.hpp"
#include "history/history_store.hpp"
#include "ui/login_item.hpp"
#include "ui/page.hpp"
#include "ui/theme.hpp"
#include "ui/views.hpp"
#include "ui/widgets.hpp"

namespace vistrel::ui {

namespace {

QString q(const std::string& s) {
  return QString::fromStdString(s);
}

// A row of a settings card: the control on the left, its note under it.
QWidget* withNote(QWidget* control, const QString& note) {
  auto* box = new QWidget;
  auto* layout = new QVBoxLayout(box);
  layout->setContentsMargins(0, 0, 0, 0);
  layout->setSpacing(4);
  layout->addWidget(control);
  if (!note.isEmpty()) {
    auto* label = makeLabel(note, kCaption, true);
    label->setWordWrap(true);
    label->setContentsMargins(control->inherits("QCheckBox") ? 28 : 0, 0, 0, 0);
    layout->addWidget(label);
  }
  return box;
}

QCheckBox* checkBox(const QString& text, bool on, std::function<void(bool)> changed) {
  auto* box = new CheckBox(text);
  box->setChecked(on);
  box->setFont(textFont(kBody));
  QObject::connect(box, &QCheckBox::toggled,
                   [changed = std::move(changed)](bool v) { changed(v); });
  return box;
}

// A choice list whose arrow is a chevron in the text's colour: the style sheet gives the list the
// card's look, and the toolkit's own arrow box would not match either appearance.
class ChoiceBox final : public QComboBox {
 public:
  void paintEvent(QPaintEvent* event) override {
    QComboBox::paintEvent(event);
    QPainter painter(this);
    painter.setRenderHint(QPainter::Antialiasing);
    QPen pen(currentPalette().muted, 1.6);
    pen.setCapStyle(Qt::RoundCap);
    pen.setJoinStyle(Qt::RoundJoin);
    painter.setPen(pen);
    const QPointF centre(width() - 14.0, height() / 2.0 + 1);
    painter.drawPolyline(QPolygonF(
        {centre + QPointF(-4, -2.5), centre + QPointF(0, 1.5), centre + QPointF(4, -2.5)}));
  }
};

class SettingsPage final : public PageWidget {
 public:
  SettingsPage(PageContext& context, QWidget* parent) : PageWidget(context, parent) {
    Model& model = context_.model;
    const Settings& s = model.settings();
    content()->addWidget(makeLabel("Settings", kTitle, false, true));

    // Sampling.
    {
      auto* card = new Card("Updates");
      auto* row = new QHBoxLayout;
      row->addWidget(makeLabel("Read the machine every", kBody));
      auto* interval = new ChoiceBox;
      interval->setFont(textFont(kBody));
      for (double choice : intervalChoices()) interval->addItem(q(intervalTitle(choice)), choice);
      int at = interval->findData(s.intervalSeconds);
      if (at < 0) {
        interval->addItem(q(intervalTitle(s.intervalSeconds)), s.intervalSeconds);
        at = interval->count() - 1;
      }
      interval->setCurrentIndex(at);
      QObject::connect(interval, &QComboBox::currentIndexChanged, [this, interval](int i) {
        context_.model.setIntervalSeconds(interval->itemData(i).toDouble());
      });
      row->addWidget(interval);
      row->addStretch();
      card->body()->addLayout(row);
      auto* note = makeLabel(kIntervalNote, kCaption, true);
      note->setWordWrap(true);
      card->body()->addWidget(note);
      content()->addWidget(card);
    }

    // History.
    {
      auto* card = new Card("History");
      auto* promise = makeLabel(QString(kHistoryPromise) + " " + kHistoryPrecision, kBody, true);
      promise->setWordWrap(true);
      card->body()->addWidget(promise);
      auto* row = new QHBoxLayout;
      row->addWidget(makeLabel("Keep the history for", kBody));
      auto* retention = new ChoiceBox;
      retention->setFont(textFont(kBody));
      for (int days : retentionChoices()) retention->addItem(q(retentionTitle(days)), days);
      int at = retention->findData(s.retentionDays);
      if (at < 0) {
        retention->addItem(q(retentionTitle(s.retentionDays)), s.retentionDays);
        at = retention->count() - 1;
      }
      retention->setCurrentIndex(at);
      QObject::connect(retention, &QComboBox::currentIndexChanged, [this, retention](int i) {
        context_.model.setRetentionDays(retention->itemData(i).toInt());
      });
      row->addWidget(retention);
      row->addStretch();
      auto* erase = new QPushButton("Erase History…");
      QObject::connect(erase, &QPushButton::clicked, [this] { askErase(); });
      row->addWidget(erase);
      card->body()->addLayout(row);
      size_ = makeLabel({}, kCaption, true);
      card->body()->addWidget(size_);
      content()->addWidget(card);
    }

    // Appearance and units.
    {
      auto* card = new Card("Appearance");
      auto* row = new QHBoxLayout;
      row->setSpacing(6);
      auto* group = new QButtonGroup(this);
      const std::pair<Appearance, const char*> choices[] = {
          {Appearance::system, "Follow the system"},
          {Appearance::night, "Night"},
          {Appearance::paper, "Paper"}};
      for (auto [appearance, title] : choices) {
        auto* b = new QPushButton(title);
        b->setCheckable(true);
        b->setChecked(s.appearance == appearance);
        group->addButton(b, static_cast<int>(appearance));
        row->addWidget(b);
      }
      row->addStretch();
      QObject::connect(group, &QButtonGroup::idClicked, [this](int id) {
        context_.model.setAppearance(static_cast<Appearance>(id));
      });
      card->body()->addLayout(row);
      card->body()->addWidget(checkBox("Temperatures in Fahrenheit", s.fahrenheit,
                                       [this](bool on) { context_.model.setFahrenheit(on); }));
      card->body()->addWidget(withNote(checkBox("Rates in bits per second", s.bits,
                                                [this](bool on) { context_.model.setBits(on); }),
                                       q(bitsNote())));
      content()->addWidget(card);
    }

    // Menu bar and start-up.
    {
      auto* card = new Card(runningOnLinux() ? "Tray and start-up" : "Menu bar and start-up");
      card->body()->addWidget(
          makeLabel(runningOnLinux() ? "Show in the tray:" : "Show in the menu bar:", kBody));
      auto* grid = new QGridLayout;
      grid->setHorizontalSpacing(24);
      int i = 0;
      for (Metric m : kAllMetrics) {
        const auto& items = s.menuItems;
        bool on = std::find(items.begin(), items.end(), m) != items.end();
        grid->addWidget(
            checkBox(q(pageTitle(metricPage(m))), on, [this, m](bool v) { toggleMenuItem(m, v); }),
            i / 4, i % 4);
        ++i;
      }
      card->body()->addLayout(grid);
      if (!runningOnLinux()) {
        card->body()->addWidget(checkBox("Show Vistrel in the Dock", s.showInDock,
                                         [this](bool on) { context_.model.setShowInDock(on); }));
      }
      if (context_.loginItem) {
        loginBox_ = checkBox("Open Vistrel when you log in", s.openAtLogin,
                             [this](bool on) { setOpenAtLogin(on); });
        loginNote_ = makeLabel({}, kCaption, true);
        loginNote_->setWordWrap(true);
        loginNote_->hide();
        card->body()->addWidget(loginBox_);
        card->body()->addWidget(loginNote_);
      }
      content()->addWidget(card);
    }

    // Alerts.
    {
      auto* card = new Card("Alerts");
      AlertLog& log = model.alerts();
      card->body()->addWidget(
          withNote(checkBox(q(std::string(kNotifySwitchText)), log.notify(),
                            [this](bool on) { context_.model.alerts().setNotify(on); }),
                   q(std::string(kNotifySwitchNote))));
      for (AlertEvent::Kind kind : kAllAlertKinds) {
        bool on = log.alertKinds().count(kind) > 0;
        card->body()->addWidget(checkBox(q(settingText(kind)), on, [this, kind](bool v) {
          auto kinds = context_.model.alerts().alertKinds();
          if (v) {
            kinds.insert(kind);
          } else {
            kinds.erase(kind);
          }
          context_.model.alerts().setAlertKinds(kinds);
        }));
      }
      content()->addWidget(card);
    }

    // AI agent access.
    {
      auto* card = new Card("AI agent access");
      card->body()->addWidget(withNote(
          checkBox("Let AI agents ask Vistrel what is slowing the machine", s.mcpEnabled,
                   [this](bool on) { context_.model.setMcpEnabled(on); }),
          "Agents connect through Vistrel's local socket. Nothing leaves this machine, and an "
          "agent's request to quit an app always waits for you to confirm it here."));
      auto* grid = new QGridLayout;
      grid->setHorizontalSpacing(12);
      grid->setVerticalSpacing(6);
      int row = 0;
      for (const AgentCommand& c : agentCommands(context_.executable)) {
        grid->addWidget(makeLabel(q(c.agent), kBody, false, true), row, 0);
        grid->addWidget(makeLabel(q(c.how), kCaption, true), row, 1, 1, 2);
        ++row;
        auto* text = new QLineEdit(q(c.text));
        text->setReadOnly(true);
        text->setFont(figureFont(kCaption));
        text->setCursorPosition(0);
        grid->addWidget(text, row, 0, 1, 2);
        auto* copy = new QPushButton("Copy");
        QString value = q(c.text);
        QObject::connect(copy, &QPushButton::clicked, [copy, value] {
          QApplication::clipboard()->setText(value);
          copy->setText("Copied");
        });
        grid->addWidget(copy, row, 2);
        ++row;
      }
      grid->setColumnStretch(1, 1);
      card->body()->addLayout(grid);
      content()->addWidget(card);
    }
    content()->addStretch();
  }

  void refresh() override {
    // The history's size is read when the page comes on screen, not on every sample.
    if (sizeAsked_ || !context_.history) {
      if (!context_.history) size_->setText("The history could not be opened.");
      return;
    }
    sizeAsked_ = true;
    askSize();
  }

 private:
  void askSize() {
    QPointer<SettingsPage> self(this);
    context_.history->size([self](HistorySize size) {
      if (self) self->size_->setText(q(historySizeText(size.bytes, size.oldest)));
    });
  }

  // The switch never shows a state the system does not have: after asking, it follows the
  // system's answer, and a refusal is said under it and in a toast.
  void setOpenAtLogin(bool on) {
    auto refused = context_.loginItem->setEnabled(on);
    const bool now = context_.loginItem->enabled();
    context_.model.setOpenAtLogin(now);
    if (loginBox_->isChecked() != now) {
      QSignalBlocker quiet(loginBox_);
      loginBox_->setChecked(now);
    }
    loginNote_->setText(refused ? q(*refused) : QString());
    loginNote_->setVisible(refused.has_value());
    // Said at the bottom of the window too, where the eye is after clicking.
    if (refused && context_.toast) context_.toast(*refused);
  }

  void toggleMenuItem(Metric m, bool on) {
    std::vector<Metric> items;
    for (Metric each : kAllMetrics) {
      const auto& now = context_.model.settings().menuItems;
      bool was = std::find(now.begin(), now.end(), each) != now.end();
      if (each == m ? on : was) items.push_back(each);
    }
    context_.model.setMenuItems(std::move(items));
  }

  void askErase() {
    if (!context_.history) return;
    QMessageBox box(QMessageBox::Warning, "Erase the history?",
                    "Every recorded minute and hour of this machine and its apps is deleted. "
                    "This cannot be undone.",
                    QMessageBox::Cancel, this);
    QPushButton* erase = box.addButton("Erase", QMessageBox::DestructiveRole);
    box.setDefaultButton(QMessageBox::Cancel);
    box.exec();
    if (box.clickedButton() != erase) return;
    QPointer<SettingsPage> self(this);
    context_.history->erase([self] {
      if (self) self->askSize();
    });
  }

  QLabel* size_ = nullptr;
  QCheckBox* loginBox_ = nullptr;
  QLabel* loginNote_ = nullptr;
  bool sizeAsked_ = false;
};

}  // namespace

PageWidget* makeSettingsPage(PageContext& context, QWidget* parent) {
  return new SettingsPage(context, parent);
}

}  // namespace vistrel::ui
