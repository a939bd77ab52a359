// The one exported symbol of the window module: the application with its Qt window. The contract
// with the executable is that of the application module (app/application_module.hpp).

#include <QApplication>
#include <cstdio>
#include <exception>

#include "app/application.hpp"
#include "app/application_module.hpp"
#include "ui/qt_main_loop.hpp"
#include "ui/shell.hpp"
#include "ui/theme.hpp"

extern "C" __attribute__((visibility("default"))) int vistrel_ui_main(int interfaceVersion) {
  if (interfaceVersion != vistrel::kApplicationModuleInterface) {
    return vistrel::kApplicationModuleMismatch;
  }
  try {
    // Before Qt starts its threads, so that they inherit the mask and only the application's
    // waiter takes SIGINT and SIGTERM.
    vistrel::blockTerminationSignals();
    static int argc = 1;
    static char name[] = "vistrel";
    static char* argv[] = {name, nullptr};
    QApplication qt(argc, argv);
    QApplication::setApplicationName("Vistrel");
    QApplication::setOrganizationDomain("brackwood.org");
    // Closing the window leaves the application running.
    QApplication::setQuitOnLastWindowClosed(false);
    vistrel::ui::loadFonts();
    // Kept for the life of the process and closed once the application has ended: a worker
    // thread still finishing then posts into nothing instead of into a destroyed loop.
    static auto* loop = new vistrel::ui::QtMainLoop;
    auto options = vistrel::ApplicationOptions::fromEnvironment();
    options.printStatus = false;  // the window shows what the terminal lines would
    options.alertLines = false;   // the window and the desktop's notifications show the alerts
    const int status =
        vistrel::runApplicationMode(*loop, vistrel::ui::makeWindowShell, std::move(options));
    loop->close();
    return status;
  } catch (const std::exception& error) {
    std::fprintf(stderr, "vistrel: the application stopped on an unexpected error: %s\n",
                 error.what());
  } catch (...) {
    std::fprintf(stderr, "vistrel: the application stopped on an unexpected error\n");
  }
  return 1;
}
