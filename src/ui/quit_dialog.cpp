#include "ui/quit_dialog.hpp"

#include <QHBoxLayout>
#include <QLabel>
#include <QPushButton>
#include <QVBoxLayout>

#include "app/model.hpp"
#include "ui/quit_view.hpp"
#include "ui/theme.hpp"
#include "ui/widgets.hpp"

namespace vistrel::ui {

namespace {

// The width of the dialog's text, pixels.
constexpr int kTextWidth = 480;
// At most this many processes are listed; the rest are counted in one line.
constexpr size_t kListed = 8;

QString q(const std::string& s) {
  return QString::fromStdString(s);
}

}  // namespace

QuitDialog::QuitDialog(Model& model, QWidget& window) : QDialog(&window), model_(model) {
  setWindowModality(Qt::WindowModal);
  auto* layout = new QVBoxLayout(this);
  layout->setSizeConstraint(QLayout::SetFixedSize);
  layout->setContentsMargins(28, 24, 28, 20);
  layout->setSpacing(12);
  title_ = makeLabel({}, kHeading + 2, false, true);
  message_ = makeLabel({}, kBody);
  message_->setWordWrap(true);
  message_->setFixedWidth(kTextWidth);
  listHeading_ = makeLabel("What will end", kCaption, true, true);
  list_ = new Rows({200});
  list_->setFixedWidth(kTextWidth);
  forceNote_ = makeLabel({}, kCaption, true);
  forceNote_->setWordWrap(true);
  forceNote_->setFixedWidth(kTextWidth);
  layout->addWidget(title_);
  layout->addWidget(message_);
  layout->addSpacing(4);
  layout->addWidget(listHeading_);
  layout->addWidget(list_);
  layout->addWidget(forceNote_);

  auto* buttons = new QHBoxLayout;
  buttons->setSpacing(10);
  force_ = new QPushButton;
  force_->setObjectName(kForceName);
  cancel_ = new QPushButton("Cancel");
  cancel_->setObjectName(kCancelName);
  quit_ = new QPushButton;
  quit_->setObjectName(kQuitName);
  // Return does not end anything by accident: Cancel is the default, Escape cancels too.
  cancel_->setDefault(true);
  cancel_->setAutoDefault(true);
  quit_->setAutoDefault(false);
  force_->setAutoDefault(false);
  buttons->addWidget(force_);
  buttons->addStretch();
  buttons->addWidget(cancel_);
  buttons->addWidget(quit_);
  layout->addSpacing(6);
  layout->addLayout(buttons);

  QObject::connect(quit_, &QPushButton::clicked, [this] { choose(false); });
  QObject::connect(force_, &QPushButton::clicked, [this] { choose(true); });
  QObject::connect(cancel_, &QPushButton::clicked, [this] { reject(); });
}

void QuitDialog::present() {
  const auto& request = model_.quitRequest();
  if (!request) {
    shownId_.clear();
    hide();
    return;
  }
  shownId_ = request->id;
  QuitDialogView v = quitDialogView(*request, model_.latest());
  setWindowTitle(q(v.title));
  title_->setText(q(v.title));
  message_->setText(q(v.message));
  forceNote_->setText(q(v.forceNote));
  forceNote_->setVisible(!v.forceNote.empty());
  const bool app = request->app() != nullptr;
  quit_->setText(app ? "Quit" : "End Session");
  force_->setText(app ? "Force Quit" : "Force End");
  std::vector<Rows::Row> rows;
  for (size_t i = 0; i < v.affected.size() && i < kListed; ++i) {
    rows.push_back({{q(v.affected[i].name), q(v.affected[i].detail)}});
  }
  if (v.affected.size() > kListed) {
    rows.push_back({{QString("and %1 more").arg(v.affected.size() - kListed), {}}});
  }
  list_->setEmptyText(q(v.nothingLeft));
  list_->setRows(std::move(rows));
  restyleLabels(this);
  // The dialog may be made before the application's face is chosen; its buttons follow it here.
  for (QPushButton* b : {quit_, force_, cancel_}) b->setFont(textFont(kBody));
  cancel_->setFocus();
  if (!isVisible()) open();
  raise();
}

void QuitDialog::choose(bool force) {
  const auto& request = model_.quitRequest();
  // Only what the person saw is carried out: a request that replaced it is shown first.
  if (!request || request->id != shownId_) {
    present();
    return;
  }
  std::string toast = model_.perform(*request, force);
  shownId_.clear();
  hide();
  setResult(QDialog::Accepted);
  if (onPerformed && !toast.empty()) onPerformed(toast);
}

void QuitDialog::reject() {
  // Only the request on show is cancelled; nothing else happens.
  if (model_.quitRequest() && model_.quitRequest()->id == shownId_) model_.cancelQuit();
  shownId_.clear();
  QDialog::reject();
}

QuitDialog* attachQuitDialog(Model& model, QWidget& window, std::function<void()> bringForward,
                             std::function<void(const std::string&)> toast) {
  auto* dialog = new QuitDialog(model, window);
  dialog->onPerformed = std::move(toast);
  model.hooks.quitRequested = [dialog, bringForward = std::move(bringForward)] {
    if (bringForward) bringForward();
    dialog->present();
  };
  // A request filed before the window existed (an agent asked during start-up) is shown now.
  if (model.quitRequest()) model.hooks.quitRequested();
  return dialog;
}

}  // namespace vistrel::ui
