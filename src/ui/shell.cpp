#include "ui/shell.hpp"

#include <QAction>
#include <QApplication>
#include <QGuiApplication>
#include <QMenuBar>
#include <QMessageBox>
#include <QPainter>
#include <QPixmap>
#include <QScreen>
#include <QStyleHints>
#include <QTimer>
#include <cstdio>
#include <cstdlib>

#include "agents/executable_path.hpp"
#include "app/model.hpp"
#include "app/single_instance.hpp"
#include "ui/desktop.hpp"
#include "ui/desktop_notifier.hpp"
#include "ui/login_item.hpp"
#include "ui/quit_dialog.hpp"
#include "ui/share_card.hpp"
#include "ui/shell_state.hpp"
#include "ui/status_bar.hpp"
#include "ui/theme.hpp"
#include "ui/toast.hpp"
#include "ui/views.hpp"
#include "ui/welcome.hpp"
#include "ui/window.hpp"

namespace vistrel::ui {

namespace {

// Seconds without a move or resize before the frame is stored.
constexpr int kFrameSaveDelayMs = 600;

class WindowShell final : public ApplicationShell {
 public:
  explicit WindowShell(Application& app)
      : app_(app),
        model_(app.model()),
        hooks_(readDevHooks([](const char* name) { return std::getenv(name); })),
        context_{app.model(), &app.history(), [this](Page p) { go(p); },
                 runningExecutablePath().value_or("vistrel")} {
    loginItem_ = makeLoginItem(context_.executable);
    context_.loginItem = loginItem_.get();
    context_.defaults = &app_.defaults();
    // The setting mirrors the system's registration, which may have changed while we were away.
    if (model_.settings().openAtLogin != loginItem_->enabled()) {
      model_.setOpenAtLogin(loginItem_->enabled());
    }
    window_ = std::make_unique<MainWindow>(context_);

    model_.hooks.openWindow = [this] { showWindow(); };
    model_.hooks.windowOnScreen = [this] { return window_->onScreen(); };
    model_.hooks.applyAppearance = [this] { applyTheme(); };
    model_.hooks.applyDock = [this] {
      desktop::setShowInDock(model_.settings().showInDock, window_->isVisible());
    };
    // A login launch stays in the menu bar; on macOS that is known only once launching is done.
    desktop::onLoginLaunch([this] {
      atLogin_ = true;
      if (!hooks_.show) window_->hide();
    });
    notifier_ = makeDesktopNotifier([this] { go(Page::alerts), showWindow(); });
    model_.alertEngine().setNotifier(notifier_.get());
    // The setting is on by default, so a first launch never sees it turned on: ask now (the
    // system asks the person only once; later calls just report the answer).
    if (model_.alertEngine().notify) model_.alertEngine().requestPermission();
    statusBar_ = std::make_unique<StatusBar>(
        model_,
        StatusBar::Actions{[this] { showWindow(); }, [this](Page p) { go(p), showWindow(); },
                           [this] { app_.requestQuit(); }});
    model_.hooks.menuItemsChanged = [this] { statusBar_->sync(); };
    previousOnSample_ = model_.hooks.onSample;
    model_.hooks.onSample = [this] {
      if (previousOnSample_) previousOnSample_();
      statusBar_->update();
    };
    model_.addObserver([this](const Snapshot&) { window_->refresh(); });
    toast_ = new Toast(*window_->centralWidget());
    context_.toast = [this](const std::string& text) {
      toast_->show(QString::fromStdString(text));
    };
    // An agent's request, or the apps page's: the window comes forward with the question.
    quitDialog_ = attachQuitDialog(
        model_, *window_, [this] { showWindow(); }, context_.toast);

    followVisibility(*window_, model_);
    window_->onFrameChanged = [this] { frameTimer_.start(); };
    if (std::getenv("VISTREL_DEBUG")) {
      window_->onFirstPaint = [] { std::fprintf(stderr, "window painted\n"); };
    }
    frameTimer_.setSingleShot(true);
    frameTimer_.setInterval(kFrameSaveDelayMs);
    QObject::connect(&frameTimer_, &QTimer::timeout, [this] { saveFrame(); });

    applyTheme();
    model_.hooks.applyDock();
    buildMenus();
    // After the menus: a menu bar inside the window adds to the content's size.
    restoreFrame();
    if (hooks_.size) window_->resizeContent(hooks_.size->first, hooks_.size->second);
#if QT_VERSION >= QT_VERSION_CHECK(6, 5, 0)
    // "Follow the system" follows it while running too.
    QObject::connect(QGuiApplication::styleHints(), &QStyleHints::colorSchemeChanged, window_.get(),
                     [this] {
                       if (model_.settings().appearance == Appearance::system) applyTheme();
                     });
#endif
    // After the model has started (the loop runs posted tasks once the application runs).
    app_.mainLoop().post([this] { launched(); });
  }

  ~WindowShell() override {
    saveFrame();
    model_.hooks.openWindow = nullptr;
    model_.hooks.windowOnScreen = nullptr;
    model_.hooks.applyAppearance = nullptr;
    model_.hooks.applyDock = nullptr;
    model_.hooks.quitRequested = nullptr;
    model_.hooks.menuItemsChanged = nullptr;
    model_.hooks.onSample = previousOnSample_;
    model_.alertEngine().setNotifier(nullptr);
  }

 private:
  void launched() {
    // The menu-bar items (tray) from the settings, then redrawn on every sample.
    statusBar_->sync();
    if (const char* prefix = std::getenv("VISTREL_MENUBAR_SHOT"); prefix && *prefix) {
      QTimer::singleShot(static_cast<int>(hooks_.shotDelay * 1000), window_.get(),
                         [this, path = std::string(prefix)] {
                           statusBar_->dumpItems(path);
                           if (hooks_.shotQuit && !hooks_.shot) app_.requestQuit();
                         });
    }
    if (model_.takeFirstLaunch()) model_.setShowWelcome(true);
    // "panel": the menu-bar panel open and the window closed (benchmarks of the panel's cost).
    if (hooks_.show == "panel") {
      QScreen* screen = QGuiApplication::primaryScreen();
      statusBar_->togglePanel(screen ? screen->availableGeometry().center() : QPoint(400, 300));
      return;
    }
    std::optional<ShowTarget> target;
    if (hooks_.show) {
      target = showTarget(*hooks_.show);
      if (!target) {
        std::fprintf(stderr, "vistrel: VISTREL_SHOW names no page: %s\n", hooks_.show->c_str());
        target = ShowTarget{};
      }
      go(target->page);
      if (target->span) window_->showRange(target->page, target->span);
    }
    // A start with the window closed, as a login launch does: the menu bar (or tray) only.
    if (target && target->hidden) return;
    // Opened at login or for an AI agent: the menu bar (or tray) only, unless a page is asked for.
    const char* launch = std::getenv(kLaunchVariable);
    if (!hooks_.show &&
        (atLogin_ || (launch && launchKindFromWord(launch) != LaunchKind::interactive))) {
      return;
    }
    showWindow();
    if (target && target->tour) {
      // Every page once, a tick apart, then back to the overview (memory after a full visit).
      for (Page p : sidebarPages()) go(p), QCoreApplication::processEvents();
      go(Page::overview);
    }
    if (model_.showWelcome() || (target && target->welcome)) {
      model_.setShowWelcome(false);
      showWelcome(*window_, context_);
    }
    if (target && target->quit) askToQuitOnce();
    if (target && target->share) showShareSheet(*window_, context_);
    if (hooks_.shot) {
      QTimer::singleShot(static_cast<int>(hooks_.shotDelay * 1000), window_.get(),
                         [this] { takeShot(); });
    }
  }

  // For screenshots: once the first snapshot is in, asks about the busiest app that may be quit.
  void askToQuitOnce() {
    auto* poll = new QTimer(window_.get());
    poll->setInterval(100);
    QObject::connect(poll, &QTimer::timeout, [this, poll] {
      if (!model_.latest()) return;
      poll->deleteLater();
      poll->stop();
      for (const AppUsage& app : model_.latest()->apps) {
        if (model_.canQuit(app)) return model_.confirmQuit(app);
      }
      std::fprintf(stderr, "vistrel: no app of this user to ask about\n");
    });
    poll->start();
  }

  void takeShot() {
    QWidget* content = window_->centralWidget();
    QWidget* sheet = activeSheet(*window_);
    if (!sheet && quitDialog_->isVisible()) sheet = quitDialog_;
    if (!sheet) sheet = activeShareSheet();
    QPixmap pixmap = content->grab();
    if (sheet) {
      // The sheet is its own window: draw it over the content where it sits.
      QPainter painter(&pixmap);
      QPoint at = content->mapFromGlobal(sheet->mapToGlobal(QPoint(0, 0)));
      if (!content->rect().contains(at)) {
        at = QPoint((content->width() - sheet->width()) / 2, 40);
      }
      painter.fillRect(content->rect(), QColor(0, 0, 0, currentShade() == Shade::night ? 90 : 50));
      painter.drawPixmap(at, sheet->grab());
    }
    if (!pixmap.save(QString::fromStdString(*hooks_.shot), "PNG")) {
      std::fprintf(stderr, "vistrel: cannot write the shot to %s\n", hooks_.shot->c_str());
    }
    if (hooks_.shotQuit) app_.requestQuit();
  }

  void go(Page page) {
    model_.setPage(page);
    window_->showPage(page);
  }

  void showWindow() {
    statusBar_->closePopover();
    window_->show();
    window_->raise();
    window_->activateWindow();
    model_.setWindowVisible(true);
  }

  void applyTheme() {
    Appearance appearance = hooks_.theme.value_or(model_.settings().appearance);
    applyAppearance(*qApp, appearance);
    window_->restyle();
  }

  void restoreFrame() {
    QScreen* screen = QGuiApplication::primaryScreen();
    QRect area = screen ? screen->availableGeometry() : QRect(0, 0, 1440, 900);
    std::optional<Frame> saved;
    if (auto json = app_.defaults().get(kFrameKey)) saved = frameFromJson(*json);
    Frame f = restoredFrame(saved, {area.x(), area.y(), area.width(), area.height()});
    if (saved && f == *saved) {
      window_->resize(f.width, f.height);  // the frame as it was left
    } else {
      window_->resizeContent(f.width, f.height);  // the default content size, centred
    }
    window_->move(f.x, f.y);
  }

  void saveFrame() {
    if (window_->isMinimized() || window_->isMaximized() || window_->isFullScreen()) return;
    QRect g = window_->geometry();
    Frame f{g.x(), g.y(), g.width(), g.height()};
    auto stored = app_.defaults().get(kFrameKey);
    if (stored && frameFromJson(*stored) == f) return;
    app_.defaults().set(kFrameKey, frameToJson(f));
  }

  QAction* add(QMenu* menu, const QString& title, std::function<void()> action,
               const QKeySequence& key = {}) {
    QAction* a = menu->addAction(title);
    if (!key.isEmpty()) a->setShortcut(key);
    QObject::connect(a, &QAction::triggered, [action = std::move(action)] { action(); });
    return a;
  }

  void buildMenus() {
    QMenuBar* bar = window_->menuBar();
    QMenu* appMenu = bar->addMenu("Vistrel");
    add(appMenu, "About Vistrel", [this] {
      QMessageBox::about(window_.get(), "About Vistrel",
                         "Vistrel watches this machine, its apps and your coding agents, and "
                         "keeps what it sees on this machine.");
    })->setMenuRole(QAction::AboutRole);
    add(appMenu, "Check for Updates…", [this] {
      QMessageBox::information(window_.get(), "Vistrel",
                               "Vistrel is updated by the package manager that installed it.");
    });
    appMenu->addSeparator();
    add(
        appMenu, "Settings…", [this] { go(Page::settings), showWindow(); },
        QKeySequence::Preferences)
        ->setMenuRole(QAction::PreferencesRole);
    appMenu->addSeparator();
    add(
        appMenu, "Hide Vistrel", [this] { window_->hide(); }, QKeySequence("Ctrl+H"));
    if (desktop::canHideOthers()) {
      add(
          appMenu, "Hide Others", [] { desktop::hideOthers(); }, QKeySequence("Ctrl+Alt+H"));
    }
    appMenu->addSeparator();
    add(
        appMenu, "Quit Vistrel", [this] { app_.requestQuit(); }, QKeySequence::Quit)
        ->setMenuRole(QAction::QuitRole);

    QMenu* file = bar->addMenu("File");
    add(file, "Share Today…", [this] {
      showWindow();
      showShareSheet(*window_, context_);
    });
    file->addSeparator();
    add(
        file, "Close Window", [this] { window_->close(); }, QKeySequence::Close);

    QMenu* edit = bar->addMenu("Edit");
    for (auto [title, slot, key] :
         {std::tuple{"Cut", "cut", QKeySequence(QKeySequence::Cut)},
          std::tuple{"Copy", "copy", QKeySequence(QKeySequence::Copy)},
          std::tuple{"Paste", "paste", QKeySequence(QKeySequence::Paste)},
          std::tuple{"Select All", "selectAll", QKeySequence(QKeySequence::SelectAll)}}) {
      const char* method = slot;
      add(
          edit, title,
          [method] {
            if (QWidget* focus = QApplication::focusWidget()) {
              QMetaObject::invokeMethod(focus, method);
            }
          },
          key);
    }

    QMenu* view = bar->addMenu("View");
    const Page viewPages[] = {Page::overview, Page::apps,   Page::agents, Page::alerts,
                              Page::cpu,      Page::memory, Page::gpu,    Page::disk,
                              Page::network,  Page::sensors};
    int index = 0;
    for (Page p : viewPages) {
      ++index;
      QString key = QString("Ctrl+%1").arg(index % 10);
      add(
          view, QString::fromStdString(pageTitle(p)), [this, p] { go(p), showWindow(); },
          QKeySequence(key));
    }

    QMenu* windowMenu = bar->addMenu("Window");
    add(
        windowMenu, "Minimize", [this] { window_->showMinimized(); }, QKeySequence("Ctrl+M"));
    add(windowMenu, "Zoom",
        [this] { window_->isMaximized() ? window_->showNormal() : window_->showMaximized(); });
    add(
        windowMenu, "Vistrel", [this] { showWindow(); }, QKeySequence("Ctrl+Alt+0"));
  }

  Application& app_;
  Model& model_;
  DevHooks hooks_;
  PageContext context_;
  std::unique_ptr<LoginItem> loginItem_;
  std::unique_ptr<MainWindow> window_;
  QuitDialog* quitDialog_ = nullptr;  // owned by the window
  Toast* toast_ = nullptr;            // owned by the window's content
  std::unique_ptr<AlertNotifier> notifier_;
  std::unique_ptr<StatusBar> statusBar_;
  std::function<void()> previousOnSample_;  // the application's own per-sample work
  bool atLogin_ = false;                    // macOS said this was a login item's launch
  QTimer frameTimer_;
};

}  // namespace

std::unique_ptr<ApplicationShell> makeWindowShell(Application& app) {
  return std::make_unique<WindowShell>(app);
}

}  // namespace vistrel::ui
