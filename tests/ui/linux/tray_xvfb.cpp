// The tray under a real X server (Xvfb) with a StatusNotifierItem host of the test's own on a
// private session bus: the icon registers with the watcher, and activating it (what a left click
// in a panel applet sends) opens the panel, which makes the model sample at the user's interval.
// Its own executable: the toolkit must start on xcb with the bus and display set beforehand.

#include <fcntl.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>
#include <QApplication>
#include <QDBusConnection>
#include <QDBusMessage>
#include <QDBusPendingCall>
#include <QDBusVariant>
#include <QDBusVirtualObject>
#include <QElapsedTimer>
#include <QSystemTrayIcon>
#include <QThread>

#include <atomic>
#include <mutex>
#include <string>

#include "app/model.hpp"
#include "sampling/fakes.hpp"
#include "ui/status_bar.hpp"
#include "ui/theme.hpp"

extern char** environ;

namespace vistrel::ui {
namespace {

// Starts `argv` with standard output (or `fdArg`'s descriptor) on a pipe and reads its first
// line: the display number of Xvfb, the address of dbus-daemon.
pid_t startReadingLine(std::vector<std::string> args, std::string& line) {
  int out[2];
  if (::pipe(out) != 0) return -1;
  posix_spawn_file_actions_t actions;
  posix_spawn_file_actions_init(&actions);
  posix_spawn_file_actions_adddup2(&actions, out[1], 1);
  posix_spawn_file_actions_addclose(&actions, out[0]);
  posix_spawn_file_actions_addopen(&actions, 2, "/dev/null", O_WRONLY, 0);
  std::vector<char*> argv;
  for (auto& a : args) argv.push_back(a.data());
  argv.push_back(nullptr);
  pid_t pid = -1;
  if (::posix_spawnp(&pid, argv[0], &actions, nullptr, argv.data(), environ) != 0) pid = -1;
  posix_spawn_file_actions_destroy(&actions);
  ::close(out[1]);
  char c;
  while (pid > 0 && ::read(out[0], &c, 1) == 1 && c != '\n') line += c;
  ::close(out[0]);
  return pid;
}

constexpr char kWatcher[] = "org.kde.StatusNotifierWatcher";

// The host side: a StatusNotifierWatcher that says a host is there and records registrations.
class FakeWatcher : public QDBusVirtualObject {
 public:
  std::mutex mutex;
  std::string registered;  // the item's service, once registered

  QString introspect(const QString&) const override {
    return R"(<interface name="org.kde.StatusNotifierWatcher">
  <method name="RegisterStatusNotifierItem"><arg name="service" type="s" direction="in"/></method>
  <method name="RegisterStatusNotifierHost"><arg name="service" type="s" direction="in"/></method>
  <property name="RegisteredStatusNotifierItems" type="as" access="read"/>
  <property name="IsStatusNotifierHostRegistered" type="b" access="read"/>
  <property name="ProtocolVersion" type="i" access="read"/>
</interface>)";
  }

  bool handleMessage(const QDBusMessage& m, const QDBusConnection& bus) override {
    const QString member = m.member();
    if (member == "Introspect") {
      bus.send(m.createReply(
          QString("<node>") + introspect({}) +
          R"(<interface name="org.freedesktop.DBus.Properties"><method name="Get"><arg type="s" direction="in"/><arg type="s" direction="in"/><arg type="v" direction="out"/></method></interface></node>)"));
    } else if (member == "Get") {
      const QString name = m.arguments().value(1).toString();
      QVariant value = name == "IsStatusNotifierHostRegistered" ? QVariant(true)
                       : name == "ProtocolVersion"              ? QVariant(0)
                                                                : QVariant(QStringList{});
      bus.send(m.createReply(QVariant::fromValue(QDBusVariant(value))));
    } else if (member == "GetAll") {
      QVariantMap all{{"IsStatusNotifierHostRegistered", true}, {"ProtocolVersion", 0}};
      bus.send(m.createReply(QVariant::fromValue(all)));
    } else if (member == "RegisterStatusNotifierItem") {
      std::string service = m.arguments().value(0).toString().toStdString();
      if (service.empty() || service.front() == '/') service = m.service().toStdString();
      {
        std::lock_guard lock(mutex);
        registered = service;
      }
      bus.send(m.createReply());
    } else {
      return false;
    }
    return true;
  }
};

template <class F>
bool pumpUntil(F done, int ms = 8000) {
  QElapsedTimer timer;
  timer.start();
  while (!done() && timer.elapsed() < ms) {
    QCoreApplication::processEvents(QEventLoop::AllEvents, 20);
  }
  return done();
}

TEST(Tray, AppearsWithAHostAndItsActivationOpensThePanel) {
  std::string display, address;
  pid_t xvfb = startReadingLine({"Xvfb", "-displayfd", "1", "-nolisten", "tcp"}, display);
  pid_t bus =
      startReadingLine({"dbus-daemon", "--session", "--nofork", "--print-address=1"}, address);
  struct Reaper {
    pid_t a, b;
    ~Reaper() {
      for (pid_t p : {a, b}) {
        if (p > 0) ::kill(p, SIGTERM), ::waitpid(p, nullptr, 0);
      }
    }
  } reaper{xvfb, bus};
  if (xvfb <= 0 || display.empty() || bus <= 0 || address.empty()) {
    GTEST_SKIP() << "Xvfb or dbus-daemon cannot be started here";
  }
  ::setenv("DISPLAY", (":" + display).c_str(), 1);
  ::setenv("DBUS_SESSION_BUS_ADDRESS", address.c_str(), 1);
  ::setenv("QT_QPA_PLATFORM", "xcb", 1);
  ::unsetenv("WAYLAND_DISPLAY");
  ::unsetenv("XDG_CURRENT_DESKTOP");

  static int argc = 1;
  static char name[] = "tray_tests";
  static char* argv[] = {name, nullptr};
  QApplication qt(argc, argv);
  QApplication::setQuitOnLastWindowClosed(false);
  loadFonts();

  // The host answers on its own connection and thread, so the toolkit's blocking calls to it
  // are answered while the main thread waits.
  QThread hostThread;
  hostThread.start();
  // Stopped on every way out: a running QThread's destruction aborts the process, which would
  // leave Xvfb and the bus behind.
  struct Stop {
    QThread& thread;
    ~Stop() { thread.quit(), thread.wait(); }
  } stop{hostThread};
  FakeWatcher watcher;
  watcher.moveToThread(&hostThread);
  std::atomic<bool> hostReady{false};
  QMetaObject::invokeMethod(
      &watcher,
      [&] {
        QDBusConnection host =
            QDBusConnection::connectToBus(QString::fromStdString(address), "host");
        host.registerVirtualObject("/StatusNotifierWatcher", &watcher);
        host.registerService(kWatcher);
        hostReady = true;
      },
      Qt::QueuedConnection);
  while (!hostReady) QThread::msleep(10);

  EXPECT_TRUE(QSystemTrayIcon::isSystemTrayAvailable());

  ManualClock clock{1000};
  ManualMainQueue main;
  MemoryUserDefaults defaults;
  defaults.set(keys::interval, 2.0);
  auto sampler = vistrel::testing::fakeSampler(main, clock);
  Model model(Model::Parts{sampler, nullptr, &defaults, nullptr}, clock);
  model.start();
  {
    StatusBar bar(model, StatusBar::Actions{});
    ASSERT_TRUE(bar.available());
    bar.sync();
    std::string item;
    ASSERT_TRUE(pumpUntil([&] {
      std::lock_guard lock(watcher.mutex);
      item = watcher.registered;
      return !item.empty();
    })) << "the tray icon never registered with the host";
    EXPECT_DOUBLE_EQ(sampler->interval(), 5);

    // What a host sends on a left click.
    QDBusMessage activate =
        QDBusMessage::createMethodCall(QString::fromStdString(item), "/StatusNotifierItem",
                                       "org.kde.StatusNotifierItem", "Activate");
    activate << 200 << 10;
    QDBusConnection::connectToBus(QString::fromStdString(address), "clicker").asyncCall(activate);
    ASSERT_TRUE(pumpUntil([&] { return bar.panelOpen(); })) << "the panel did not open";
    EXPECT_TRUE(model.panelVisible());
    EXPECT_DOUBLE_EQ(sampler->interval(), 2);
    bar.closePopover();
    EXPECT_FALSE(model.panelVisible());
  }
  QDBusConnection::disconnectFromBus("clicker");
  QMetaObject::invokeMethod(
      &watcher, [] { QDBusConnection::disconnectFromBus("host"); }, Qt::BlockingQueuedConnection);
  hostThread.quit();
  hostThread.wait();
}

}  // namespace
}  // namespace vistrel::ui
