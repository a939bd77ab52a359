// Desktop notifications on Linux, against a notification server of the test's own on a private
// session bus (a dbus-daemon the test starts): what is sent, a click that opens the alerts page,
// and a server that is missing or refuses.

#include <gtest/gtest.h>
#include <signal.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>
#include <QApplication>
#include <QDBusConnection>
#include <QDBusConnectionInterface>
#include <QDBusMessage>
#include <QDBusVirtualObject>
#include <QElapsedTimer>

#include <string>
#include <vector>

#include "alerts/alert_event.hpp"
#include "ui/linux/dbus_notifier.hpp"
#include "ui/qt_app.hpp"
#include "ui/theme.hpp"

extern char** environ;

namespace vistrel::ui {
namespace {

QApplication& app() {
  return qtest::qtApp();
}

template <class F>
bool pumpUntil(F done, int ms = 5000) {
  QElapsedTimer timer;
  timer.start();
  while (!done() && timer.elapsed() < ms) {
    QCoreApplication::processEvents(QEventLoop::AllEvents, 20);
  }
  return done();
}

// A private bus: its own dbus-daemon, ended with the test.
class PrivateBus {
 public:
  PrivateBus() {
    int out[2];
    if (::pipe(out) != 0) return;
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_adddup2(&actions, out[1], 1);
    posix_spawn_file_actions_addclose(&actions, out[0]);
    char program[] = "dbus-daemon";
    char session[] = "--session";
    char nofork[] = "--nofork";
    char print[] = "--print-address=1";
    char* argv[] = {program, session, nofork, print, nullptr};
    if (::posix_spawnp(&pid_, program, &actions, nullptr, argv, environ) != 0) pid_ = -1;
    posix_spawn_file_actions_destroy(&actions);
    ::close(out[1]);
    char c;
    while (pid_ > 0 && ::read(out[0], &c, 1) == 1 && c != '\n') address_ += c;
    ::close(out[0]);
  }
  ~PrivateBus() {
    if (pid_ > 0) {
      ::kill(pid_, SIGTERM);
      ::waitpid(pid_, nullptr, 0);
    }
  }
  const std::string& address() const { return address_; }

 private:
  pid_t pid_ = -1;
  std::string address_;
};

// The notification server: records each Notify and answers with a new id, or refuses.
class FakeServer : public QDBusVirtualObject {
 public:
  struct Call {
    QString app, summary, body;
    QStringList actions;
    QString alertId;
  };
  std::vector<Call> calls;
  bool refuse = false;
  uint nextId = 41;

  QString introspect(const QString&) const override { return {}; }
  bool handleMessage(const QDBusMessage& message, const QDBusConnection& connection) override {
    if (message.member() != "Notify") return false;
    if (refuse) {
      connection.send(message.createErrorReply("org.freedesktop.DBus.Error.AccessDenied",
                                               "notifications are switched off"));
      return true;
    }
    const QList<QVariant> args = message.arguments();
    if (args.size() != 8) return false;
    Call c{args[0].toString(), args[3].toString(), args[4].toString(), args[5].toStringList(), {}};
    const QVariantMap hints = qdbus_cast<QVariantMap>(args[6]);
    c.alertId = hints.value("x-vistrel-alert").toString();
    calls.push_back(c);
    connection.send(message.createReply(QVariant::fromValue(++nextId)));
    return true;
  }
};

AlertEvent event(const std::string& id) {
  AlertEvent e;
  e.id = id;
  e.kind = AlertEvent::Kind::cpu;
  e.title = "spin has kept a CPU core busy for 5 min";
  e.detail = "It's using 100% of a core right now.";
  return e;
}

class Notifications : public ::testing::Test {
 protected:
  void SetUp() override {
    app();
    if (bus_.address().empty()) GTEST_SKIP() << "dbus-daemon cannot be started here";
    server_ = QDBusConnection::connectToBus(QString::fromStdString(bus_.address()), "server");
    client_ = QDBusConnection::connectToBus(QString::fromStdString(bus_.address()), "client");
    ASSERT_TRUE(server_.isConnected());
    ASSERT_TRUE(client_.isConnected());
  }
  void TearDown() override {
    QDBusConnection::disconnectFromBus("server");
    QDBusConnection::disconnectFromBus("client");
  }
  void serve() {
    ASSERT_TRUE(server_.registerVirtualObject(kNotificationsPath, &fake_));
    ASSERT_TRUE(server_.registerService(kNotificationsService));
  }
  void emitAction(uint id, const char* action) {
    QDBusMessage signal = QDBusMessage::createSignal(
        kNotificationsPath, "org.freedesktop.Notifications", "ActionInvoked");
    signal << id << QString(action);
    server_.send(signal);
  }

  PrivateBus bus_;
  QDBusConnection server_{QString()};
  QDBusConnection client_{QString()};
  FakeServer fake_;
};

TEST_F(Notifications, PostedWithTheAlertsTextsAndAClickOpensTheAlerts) {
  serve();
  int opened = 0;
  std::vector<std::string> problems;
  auto notifier = makeDBusNotifier(
      client_, [&] { ++opened; }, [&](const std::string& p) { problems.push_back(p); });
  notifier->requestPermission();  // nothing to ask on Linux
  notifier->post(event("A1"));
  ASSERT_TRUE(pumpUntil([&] { return fake_.calls.size() == 1; }));
  const FakeServer::Call& c = fake_.calls[0];
  EXPECT_EQ(c.app, "Vistrel");
  EXPECT_EQ(c.summary, "spin has kept a CPU core busy for 5 min");
  EXPECT_EQ(c.body, "It's using 100% of a core right now.");
  EXPECT_TRUE(c.actions.contains("default"));
  EXPECT_EQ(c.alertId, "A1");
  // Let the reply (the id) arrive, then click: another application's id does nothing, ours opens.
  pumpUntil([] { return false; }, 200);
  emitAction(7, "default");
  emitAction(42, "other");
  pumpUntil([] { return false; }, 300);
  EXPECT_EQ(opened, 0);
  emitAction(42, "default");
  EXPECT_TRUE(pumpUntil([&] { return opened == 1; }));
  EXPECT_TRUE(problems.empty());
}

TEST_F(Notifications, MissingOrRefusingServerIsSaidOnceAndNothingBreaks) {
  struct Case {
    bool serve, refuse;
    const char* why;
  } cases[] = {{false, false, "not provided by any .service files"},
               {true, true, "notifications are switched off"}};
  for (const auto& c : cases) {
    SCOPED_TRACE(c.why);
    if (c.serve) serve();
    fake_.refuse = c.refuse;
    std::vector<std::string> problems;
    auto notifier =
        makeDBusNotifier(client_, {}, [&](const std::string& p) { problems.push_back(p); });
    notifier->post(event("B1"));
    notifier->post(event("B2"));
    ASSERT_TRUE(pumpUntil([&] { return !problems.empty(); }));
    pumpUntil([] { return false; }, 300);
    ASSERT_EQ(problems.size(), 1u);  // once, however many alerts follow
    EXPECT_NE(problems[0].find("alerts still appear in Vistrel"), std::string::npos);
    EXPECT_NE(problems[0].find(c.why), std::string::npos) << problems[0];
  }
}

}  // namespace
}  // namespace vistrel::ui
