#include "ui/welcome.hpp"

#include <QDialog>
#include <QHBoxLayout>
#include <QPointer>
#include <QPushButton>
#include <QVBoxLayout>

#include "agents/status_line_bridge.hpp"
#include "format/platform_text.hpp"
#include "ui/page.hpp"
#include "ui/theme.hpp"
#include "ui/views.hpp"
#include "ui/widgets.hpp"

namespace vistrel::ui {

namespace {

QPointer<QDialog> gSheet;
// The width of the sheet's text, pixels: about 70 characters a line.
constexpr int kTextWidth = 500;

class WelcomeSheet final : public QDialog {
 public:
  WelcomeSheet(QWidget& window, PageContext& context) : QDialog(&window), context_(context) {
    setWindowTitle("Welcome to Vistrel");
    setWindowModality(Qt::WindowModal);
    setAttribute(Qt::WA_DeleteOnClose);
    auto* layout = new QVBoxLayout(this);
    layout->setSizeConstraint(QLayout::SetFixedSize);
    layout->setContentsMargins(32, 28, 32, 24);
    layout->setSpacing(14);
    layout->addWidget(makeLabel("Welcome to Vistrel", kTitle, false, true));
    auto paragraph = [&](const std::string& text, bool muted) {
      auto* label = makeLabel(QString::fromStdString(platformText(text)), kBody, muted);
      label->setWordWrap(true);
      label->setFixedWidth(kTextWidth);
      layout->addWidget(label);
    };
    paragraph(
        "Vistrel watches this Mac: its CPU, memory, disk, network and heat, and every app "
        "behind them. When an app runs away with the machine it tells you, calmly; it never "
        "quits anything on its own.",
        false);
    paragraph(std::string(kHistoryPromise) + " Nothing it records leaves this Mac.", true);
    paragraph(
        "It also shows what Claude Code and Codex are doing: live sessions, tokens, and how "
        "much of your plan is left.",
        true);

    status_ = makeLabel({}, kCaption, true);
    status_->setWordWrap(true);
    status_->setFixedWidth(kTextWidth);
    status_->hide();

    paragraph(
        "Claude Code's status line can show your plan's limits as Vistrel reads them, and "
        "AI agents can ask Vistrel what is slowing the machine.",
        false);
    auto* connectRow = new QHBoxLayout;
    auto* statusLine = new QPushButton("Connect the Status Line");
    QObject::connect(statusLine, &QPushButton::clicked, [this, statusLine] {
      auto failure = StatusLineBridge::connect(BridgePaths::defaults());
      status_->setText(QString::fromStdString(
          failure ? *failure
                  : "Connected. Claude Code's status line now comes from Vistrel; your own "
                    "command, if you had one, was saved and still runs."));
      status_->show();
      if (!failure) statusLine->setEnabled(false);
    });
    auto* agents = new QPushButton("Connect an AI Agent…");
    QObject::connect(agents, &QPushButton::clicked, [this] {
      context_.go(Page::settings);
      accept();
    });
    connectRow->addWidget(statusLine);
    connectRow->addWidget(agents);
    connectRow->addStretch();
    layout->addSpacing(4);
    layout->addLayout(connectRow);
    layout->addWidget(status_);

    auto* endRow = new QHBoxLayout;
    endRow->addStretch();
    auto* start = new QPushButton("Start");
    start->setDefault(true);
    QObject::connect(start, &QPushButton::clicked, [this] { accept(); });
    endRow->addWidget(start);
    layout->addSpacing(6);
    layout->addLayout(endRow);
  }

 private:
  PageContext& context_;
  QLabel* status_;
};

}  // namespace

void showWelcome(QWidget& window, PageContext& context) {
  if (gSheet) return;
  auto* sheet = new WelcomeSheet(window, context);
  gSheet = sheet;
  sheet->open();
}

QWidget* activeSheet(QWidget&) {
  return gSheet && gSheet->isVisible() ? gSheet.data() : nullptr;
}

}  // namespace vistrel::ui
