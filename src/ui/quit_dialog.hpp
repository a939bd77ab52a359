#pragma once

// The confirmation every quit waits for. It shows the model's pending request (from the apps page,
// the coding agents page or an agent's quit_app) with what will end, and carries it out only when
// the person chooses Quit or Force Quit; Cancel, Escape or closing it clears the request and does
// nothing else. A newer request replaces the one on show.

#include <QDialog>
#include <functional>
#include <string>

class QLabel;
class QPushButton;
class QVBoxLayout;

namespace vistrel {
class Model;
}

namespace vistrel::ui {

class Rows;

class QuitDialog final : public QDialog {
 public:
  QuitDialog(Model& model, QWidget& window);

  // Shows the model's pending request, replacing whatever was on show; hides when there is none.
  void present();
  // After a request was carried out: the toast's text.
  std::function<void(const std::string&)> onPerformed;

  // Object names of the buttons, so tests (and accessibility tools) can find them.
  static constexpr const char* kQuitName = "quit";
  static constexpr const char* kForceName = "forceQuit";
  static constexpr const char* kCancelName = "cancel";

  // Cancel, Escape and the close box: clears the request on show; nothing else happens.
  void reject() override;

 private:
  void choose(bool force);

  Model& model_;
  std::string shownId_;  // the request on show; a stale click never carries out a newer one
  QLabel* title_;
  QLabel* message_;
  QLabel* forceNote_;
  QLabel* listHeading_;
  Rows* list_;
  QPushButton* quit_;
  QPushButton* force_;
  QPushButton* cancel_;
};

// Makes the window's confirmation and connects it to the model: every request filed from now on
// calls `bringForward` (the window comes forward) and is shown; what was carried out is told
// through `toast`. Until this is called the model has nobody to ask (see Model::canAskPerson).
QuitDialog* attachQuitDialog(Model& model, QWidget& window, std::function<void()> bringForward,
                             std::function<void(const std::string&)> toast);

}  // namespace vistrel::ui
