// The control server against real sockets in a temporary folder, with a fake handler and a main
// queue drained by a thread of the test.

#include "control/control_server.hpp"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <chrono>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <map>
#include <optional>
#include <stdexcept>
#include <thread>
#include <vector>

namespace vistrel {
namespace {

constexpr double kClientWait = 20;  // seconds; only keeps a broken server from hanging the test
const std::string kBad = R"({"ok":false,"error":"Bad request"})";

// "history" is answered on the connection's thread, everything else on the main thread. "throw"
// throws, "big" answers 4 MB, "sleep" holds its thread for a millisecond (to overlap requests).
class FakeHandler final : public ControlHandler {
 public:
  std::optional<std::string> answerOffMain(const std::string& tool,
                                           const nlohmann::json& args) override {
    int now = ++inside;
    for (int seen = maxInside.load(); now > seen && !maxInside.compare_exchange_weak(seen, now);) {
    }
    std::optional<std::string> answer;
    if (tool == "sleep") std::this_thread::sleep_for(std::chrono::milliseconds(1));
    if (tool == "history" || tool == "sleep") answer = "off:" + args.dump();
    if (tool == "big") answer = std::string(4u << 20, 'x');
    --inside;
    if (tool == "throw") throw std::runtime_error("type must be number");
    return answer;
  }
  std::string answerOnMain(const std::string& tool, const nlohmann::json& args) override {
    ++mainCalls;
    return "main:" + tool + args.dump();
  }
  std::atomic<int> inside{0}, maxInside{0}, mainCalls{0};
};

class ControlServerTest : public ::testing::Test {
 protected:
  void SetUp() override {
    char pattern[] = "/tmp/vistrel-ctl-XXXXXX";
    ASSERT_NE(::mkdtemp(pattern), nullptr);
    folder = pattern;
    path = folder + "/Vistrel/control.sock";
  }
  void TearDown() override {
    server.reset();
    stopDraining();
    std::filesystem::remove_all(folder);
  }
  ControlServer& make(ControlServerLimits limits = {}) {
    server = std::make_unique<ControlServer>(queue, handler, path, limits);
    return *server;
  }
  void startDraining() {
    drainer = std::thread([this] { queue.run(); });
  }
  void stopDraining() {
    queue.quit();
    if (drainer.joinable()) drainer.join();
  }
  std::optional<std::string> ask(const std::string& line) {
    return ControlSocket::request(path, line, kClientWait);
  }
  // A connection that has sent `bytes` and nothing more.
  OwnedFd stalled(const std::string& bytes = "{\"tool\":") {
    OwnedFd fd(ControlSocket::connect(path, kClientWait));
    EXPECT_TRUE(fd);
    if (fd) {
      EXPECT_TRUE(ControlSocket::sendAll(fd.get(), bytes));
    }
    return fd;
  }
  // Everything the server sends until it closes (or the client's wait ends).
  static std::string readToEnd(int fd) {
    std::string all;
    char buffer[4096];
    for (ssize_t got; (got = ::recv(fd, buffer, sizeof buffer, 0)) > 0;) all.append(buffer, got);
    return all;
  }

  std::string folder, path;
  ManualMainQueue queue;
  FakeHandler handler;
  std::thread drainer;
  std::unique_ptr<ControlServer> server;
};

TEST(ControlRequestTest, ParsesOnlyObjectsWithAStringToolAndObjectArgs) {
  // Inside {"args":{"a": ...}} two levels are taken already: 62 more make 64 in all.
  const std::string deep64 = std::string(62, '[') + std::string(62, ']');
  const std::string deep65 = std::string(63, '[') + std::string(63, ']');
  struct Case {
    std::string line;
    bool valid;
    std::string tool, args;
  } cases[] = {
      {R"({"tool":"status"})", true, "status", "{}"},
      {R"({"tool":"apps","args":{"limit":5}})", true, "apps", R"({"limit":5})"},
      {R"( {"args":{},"tool":""} )", true, "", "{}"},
      {R"({"tool":"x","args":{"n":123456789012345678901234567890}})", true, "x",
       R"({"n":1.2345678901234568e+29})"},
      {"{\"tool\":\"x\",\"args\":" + deep64 + "}", false, "", ""},  // args must be an object
      {"{\"tool\":\"x\",\"args\":{\"a\":" + deep64 + "}}", true, "x", "{\"a\":" + deep64 + "}"},
      {"{\"tool\":\"x\",\"args\":{\"a\":" + deep65 + "}}", false, "", ""},
      {"{\"tool\":\"x\",\"args\":{\"a\":\"" + std::string(5000, '[') + "\"}}", true, "x", ""},
      {std::string(100000, '['), false, "", ""},
      {"", false, "", ""},
      {"not json", false, "", ""},
      {"[1,2]", false, "", ""},
      {"\"status\"", false, "", ""},
      {"{}", false, "", ""},
      {R"({"tool":5})", false, "", ""},
      {R"({"tool":null})", false, "", ""},
      {R"({"tool":"x","args":[]})", false, "", ""},
      {R"({"tool":"x","args":null})", false, "", ""},
      {R"({"tool":"x","args":"limit=5"})", false, "", ""},
      {"{\"tool\":\"\xff\xfe\"}", false, "", ""},
      {"{\"tool\":\"x\",\"args\":{\"s\":\"\xc3\x28\"}}", false, "", ""},
      {R"({"tool":"x","args":{"n":1e999}})", false, "", ""},
      {R"({"tool":"x","args":{"n":-1e400}})", false, "", ""},
      {R"({"tool":"x"} trailing)", false, "", ""},
      {R"({"tool":"x")", false, "", ""},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.line.substr(0, 80));
    std::optional<ControlRequest> request = parseControlRequest(c.line);
    ASSERT_EQ(request.has_value(), c.valid);
    if (!request) continue;
    EXPECT_EQ(request->tool, c.tool);
    if (!c.args.empty()) {
      EXPECT_EQ(request->args.dump(), c.args);
    }
  }
}

TEST(ControlSocketTest, AddressCarriesAtMost103BytesAndEndsInZero) {
  for (size_t length : {1, 50, 102, 103, 104, 300}) {
    SCOPED_TRACE(length);
    std::string path(length, 'p');
    sockaddr_un address;
    std::memset(&address, 0x55, sizeof address);
    socklen_t size = ControlSocket::address(path, address);
    EXPECT_EQ(size, 106u);
    EXPECT_EQ(address.sun_family, AF_UNIX);
    size_t kept = std::min<size_t>(length, 103);
    EXPECT_EQ(std::string(address.sun_path, ::strnlen(address.sun_path, 104)),
              path.substr(0, kept));
    for (size_t i = kept; i < sizeof address.sun_path; ++i) ASSERT_EQ(address.sun_path[i], 0);
    EXPECT_EQ(ControlSocket::boundPath(path), path.substr(0, kept));
  }
}

TEST_F(ControlServerTest, AnswersOnTheRightThreadOrBadRequest) {
  make().start();
  startDraining();
  struct Case {
    std::string line, answer;
  } cases[] = {
      {R"({"tool":"status"})", "main:status{}"},
      {R"({"tool":"list_apps","args":{"limit":3}})", R"(main:list_apps{"limit":3})"},
      {R"({"tool":"history","args":{"span":"1h"}})", R"(off:{"span":"1h"})"},
      {"not json", kBad},
      {"[]", kBad},
      {R"({"args":{}})", kBad},
      {R"({"tool":"status","args":[1]})", kBad},
      {"{\"tool\":\"st\xc0\xafus\"}", kBad},
      {"{\"tool\":\"x\",\"args\":{\"a\":" + std::string(10000, '[') + "}}", kBad},
      {R"({"tool":"x","args":{"n":1e99999}})", kBad},
      {R"({"tool":"throw"})", kBad},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.line.substr(0, 80));
    EXPECT_EQ(ask(c.line), c.answer);
  }
}

TEST_F(ControlServerTest, GathersARequestSplitOverSeveralWrites) {
  make().start();
  OwnedFd fd(ControlSocket::connect(path, kClientWait));
  ASSERT_TRUE(fd);
  for (std::string piece : {"{\"to", "ol\":\"hist", "ory\",\"args\":{\"a\"", ":1}}\n"}) {
    ASSERT_TRUE(ControlSocket::sendAll(fd.get(), piece));
    std::this_thread::sleep_for(std::chrono::milliseconds(20));  // separate reads, not a check
  }
  EXPECT_EQ(readToEnd(fd.get()), "off:{\"a\":1}\n");
}

TEST_F(ControlServerTest, PathOver103BytesBindsTheCutPathAndClientsReachIt) {
  std::string deep = folder + "/" + std::string(90 - folder.size(), 'd');
  path = deep + "/control-socket-with-a-long-name.sock";
  ASSERT_GT(path.size(), 103u);
  ASSERT_TRUE(make().start());
  EXPECT_TRUE(std::filesystem::is_socket(path.substr(0, 103)));
  EXPECT_FALSE(std::filesystem::exists(path));
  EXPECT_EQ(ask(R"({"tool":"history"})"), "off:{}");
  server->stop();
  EXPECT_FALSE(std::filesystem::exists(path.substr(0, 103)));
}

// MCP clients start `--mcp` with HOME and PATH and little else: the socket's place must not move
// with the XDG variables the application may have been started with.
TEST(ControlSocketPath, DependsOnTheHomeFolderAloneAndAlwaysFitsTheAddress) {
  struct Saved {
    const char* name;
    std::optional<std::string> value;
  };
  std::vector<Saved> saved;
  for (const char* name : {"HOME", "XDG_DATA_HOME", "XDG_RUNTIME_DIR", "XDG_CONFIG_HOME"}) {
    const char* v = std::getenv(name);
    saved.push_back({name, v ? std::optional<std::string>(v) : std::nullopt});
  }
  const std::string longHome = "/home/" + std::string(120, 'h');
  struct Case {
    const char* name;
    std::string home;
    std::vector<std::pair<const char*, const char*>> xdg;
  } cases[] = {
      {"no XDG variables", "/home/ada", {}},
      {"XDG folders moved",
       "/home/ada",
       {{"XDG_DATA_HOME", "/srv/data"},
        {"XDG_RUNTIME_DIR", "/run/user/1000"},
        {"XDG_CONFIG_HOME", "/srv/config"}}},
      {"a home too deep for the address", longHome, {}},
      {"a home too deep, XDG moved", longHome, {{"XDG_DATA_HOME", "/d"}}},
  };
  std::map<std::string, std::string> pathOfHome;
  for (const auto& c : cases) {
    SCOPED_TRACE(c.name);
    ::setenv("HOME", c.home.c_str(), 1);
    for (const char* name : {"XDG_DATA_HOME", "XDG_RUNTIME_DIR", "XDG_CONFIG_HOME"}) {
      ::unsetenv(name);
    }
    for (const auto& [name, value] : c.xdg) ::setenv(name, value, 1);
    const std::string path = ControlSocket::path();
    EXPECT_LE(path.size(), ControlSocket::kMaxPathBytes);
    EXPECT_TRUE(path.ends_with("/control.sock")) << path;
    if (c.home == longHome) {
      EXPECT_EQ(path, ControlSocket::fallbackPath(::getuid()));
    } else {
      EXPECT_TRUE(path.starts_with(c.home + "/")) << path;
    }
    auto [at, inserted] = pathOfHome.emplace(c.home, path);
    EXPECT_EQ(at->second, path) << "the same home gives the same socket";
  }
  for (const auto& s : saved) {
    if (s.value) {
      ::setenv(s.name, s.value->c_str(), 1);
    } else {
      ::unsetenv(s.name);
    }
  }
}

TEST_F(ControlServerTest, StartingTwiceKeepsOneListenerAndASecondServerRefuses) {
  ASSERT_TRUE(make().start());
  struct stat first {
  }, second{};
  ASSERT_EQ(::stat(path.c_str(), &first), 0);
  EXPECT_TRUE(server->start());
  ASSERT_EQ(::stat(path.c_str(), &second), 0);
  EXPECT_EQ(first.st_ino, second.st_ino);  // not unlinked and bound again

  ControlServer other(queue, handler, path);
  EXPECT_FALSE(other.start());  // would otherwise take the socket from the running one
  EXPECT_EQ(ask(R"({"tool":"history"})"), "off:{}");
}

TEST_F(ControlServerTest, SocketIsOwnerOnlyWhateverTheUmask) {
  mode_t old = ::umask(0);
  bool started = make().start();
  ::umask(old);
  ASSERT_TRUE(started);
  struct stat info {};
  ASSERT_EQ(::stat(path.c_str(), &info), 0);
  EXPECT_EQ(info.st_mode & 07777, 0600u);
  ASSERT_EQ(::stat((folder + "/Vistrel").c_str(), &info), 0);
  EXPECT_EQ(info.st_mode & 07777, 0700u);
}

TEST_F(ControlServerTest, RefusesAFolderOthersMayWriteOrAFileThatIsNoSocket) {
  std::string sub = folder + "/Vistrel";
  ASSERT_TRUE(std::filesystem::create_directory(sub));
  for (mode_t mode : {0777, 0770, 0730, 0703}) {
    SCOPED_TRACE(mode);
    ASSERT_EQ(::chmod(sub.c_str(), mode), 0);
    EXPECT_FALSE(make().start());
    EXPECT_FALSE(server->isListening());
    EXPECT_FALSE(std::filesystem::exists(path));
  }
  ASSERT_EQ(::chmod(sub.c_str(), 0755), 0);
  { std::ofstream(path) << "keep me"; }
  EXPECT_FALSE(make().start());
  EXPECT_TRUE(std::filesystem::is_regular_file(path));  // never removed
  std::filesystem::remove(path);
  EXPECT_TRUE(make().start());
}

TEST_F(ControlServerTest, StopRemovesTheFileAndStartWorksAgainAndAfterAStaleFile) {
  make().start();
  server->stop();
  EXPECT_FALSE(server->isListening());
  EXPECT_FALSE(std::filesystem::exists(path));
  EXPECT_EQ(ask(R"({"tool":"history"})"), std::nullopt);
  ASSERT_TRUE(server->start());
  EXPECT_EQ(ask(R"({"tool":"history"})"), "off:{}");
  server->stop();

  {  // a socket file left by an instance that ended without stopping
    OwnedFd fd(::socket(AF_UNIX, SOCK_STREAM, 0));
    sockaddr_un address;
    socklen_t size = ControlSocket::address(path, address);
    ASSERT_EQ(::bind(fd.get(), reinterpret_cast<sockaddr*>(&address), size), 0);
  }
  ASSERT_TRUE(std::filesystem::is_socket(path));
  ASSERT_TRUE(server->start());
  EXPECT_EQ(ask(R"({"tool":"history"})"), "off:{}");
}

TEST_F(ControlServerTest, ClientsThatCloseEarlyOrVanishLeaveTheServerAnswering) {
  ControlServerLimits limits;
  limits.maxWorkers = 1;  // requests answered in order: the failed write happens before the last
  make(limits).start();
  { OwnedFd silent(ControlSocket::connect(path, kClientWait)); }
  {  // sends, then goes before its 4 MB answer is written: the write fails without SIGPIPE
    OwnedFd fd(ControlSocket::connect(path, kClientWait));
    ASSERT_TRUE(ControlSocket::sendAll(fd.get(), "{\"tool\":\"big\"}\n"));
  }
  { OwnedFd half = stalled("{\"tool\":\"history\""); }
  EXPECT_EQ(ask(R"({"tool":"history"})"), "off:{}");
}

// A connection accepted but impossible to set up (macOS: SO_NOSIGPIPE fails with EINVAL once the
// client has closed) is that client's loss; the server goes on answering others.
TEST_F(ControlServerTest, AConnectionThatCannotBeSetUpIsDroppedAndTheServerListens) {
  std::atomic<int> accepted{0};
  ControlServerLimits limits;
  limits.accept = [&accepted](int listener) {
    const int fd = acceptUnixConnection(listener);
    if (fd >= 0 && accepted++ == 0) {
      errno = EINVAL;  // what the set-up call reported
      return dropAcceptedConnection(fd);
    }
    return fd;
  };
  make(limits).start();
  {
    OwnedFd gone(ControlSocket::connect(path, kClientWait));
    ASSERT_TRUE(gone);
    ControlSocket::sendAll(gone.get(), "{\"tool\":\"history\"}\n");
    EXPECT_EQ(readToEnd(gone.get()), "");  // closed unanswered
  }
  EXPECT_TRUE(server->isListening());
  EXPECT_EQ(ask(R"({"tool":"history"})"), "off:{}");
  EXPECT_EQ(accepted.load(), 2);
}

// Failures of accept itself that say nothing about the listener: the pending client is still
// served once the failure has passed.
TEST_F(ControlServerTest, PassingAcceptFailuresLeaveTheServerAnswering) {
  for (int error : {ECONNABORTED, EINTR, EAGAIN, EPROTO, EMFILE, ENOBUFS}) {
    SCOPED_TRACE(std::strerror(error));
    std::atomic<int> calls{0};
    ControlServerLimits limits;
    limits.accept = [&calls, error](int listener) {
      if (calls++ == 0) {
        errno = error;
        return -1;
      }
      return acceptUnixConnection(listener);
    };
    make(limits).start();
    EXPECT_EQ(ask(R"({"tool":"history"})"), "off:{}");
    EXPECT_GE(calls.load(), 2);
    server.reset();
  }
}

TEST(ControlSocketTest, DroppingAnAcceptedConnectionClosesItAndReportsAnAbort) {
  int fds[2];
  ASSERT_EQ(::socketpair(AF_UNIX, SOCK_STREAM, 0, fds), 0);
  errno = EINVAL;
  EXPECT_EQ(dropAcceptedConnection(fds[0]), -1);
  EXPECT_EQ(errno, ECONNABORTED);
  EXPECT_EQ(::fcntl(fds[0], F_GETFD), -1);  // closed
  char byte;
  EXPECT_EQ(::recv(fds[1], &byte, 1, 0), 0);  // the peer sees the end
  ::close(fds[1]);
}

TEST_F(ControlServerTest, LineOverOneMebibyteIsRefusedAndClosedButOneMebibyteIsServed) {
  make().start();
  OwnedFd fd(ControlSocket::connect(path, kClientWait));
  ASSERT_TRUE(fd);
  ControlSocket::sendAll(fd.get(), std::string((1u << 20) + 1000, 'a'));  // may fail once closed
  EXPECT_EQ(readToEnd(fd.get()), kBad + "\n");  // and then the end: closed

  std::string prefix = R"({"tool":"history","args":{"p":")", suffix = "\"}}";
  std::string line = prefix + std::string((1u << 20) - prefix.size() - suffix.size(), 'z') + suffix;
  ASSERT_EQ(line.size(), 1u << 20);
  std::optional<std::string> answer = ask(line);
  ASSERT_TRUE(answer);
  EXPECT_EQ(answer->substr(0, 10), "off:{\"p\":\"");
}

TEST_F(ControlServerTest, TwoHundredClientsAtOnceAreAllAnsweredByBoundedThreads) {
  ControlServerLimits limits;
  limits.maxWorkers = 4;
  make(limits).start();
  startDraining();
  constexpr int kClients = 200;
  std::vector<std::optional<std::string>> answers(kClients);
  std::vector<std::thread> clients;
  for (int i = 0; i < kClients; ++i) {
    clients.emplace_back([&, i] {
      std::string tool = i % 2 ? "sleep" : "status";
      // macOS refuses connections beyond the listen backlog instead of queueing them: such a
      // client tries again, as the MCP client does. The request itself is sent once.
      OwnedFd fd;
      for (int attempt = 0; attempt < 500 && !fd; ++attempt) {
        fd.reset(ControlSocket::connect(path, kClientWait));
        if (!fd) std::this_thread::sleep_for(std::chrono::milliseconds(10));
      }
      std::string line = R"({"tool":")" + tool + R"(","args":{"i":)" + std::to_string(i) + "}}\n";
      if (fd && ControlSocket::sendAll(fd.get(), line)) answers[i] = readToEnd(fd.get());
    });
  }
  for (std::thread& t : clients) t.join();
  for (int i = 0; i < kClients; ++i) {
    std::string args = R"({"i":)" + std::to_string(i) + "}";
    EXPECT_EQ(answers[i], (i % 2 ? "off:" + args : "main:status" + args) + "\n") << i;
  }
  EXPECT_LE(handler.maxInside.load(), 4);
}

TEST_F(ControlServerTest, StalledClientsNeitherBlockOthersNorStayForever) {
  ControlServerLimits limits;
  limits.maxWorkers = 2;
  limits.requestSeconds = 600;
  make(limits).start();
  std::vector<OwnedFd> stalls;
  for (int i = 0; i < 40; ++i) stalls.push_back(stalled());
  EXPECT_EQ(ask(R"({"tool":"history"})"), "off:{}");

  limits.requestSeconds = 0.2;
  make(limits).start();
  OwnedFd quiet = stalled();
  EXPECT_EQ(readToEnd(quiet.get()), "");  // closed without an answer when its time is up
}

TEST_F(ControlServerTest, ConnectionsBeyondTheLimitAreToldBusy) {
  ControlServerLimits limits;
  limits.maxConnections = 2;
  make(limits).start();
  OwnedFd a = stalled(), b = stalled();
  EXPECT_EQ(ask(R"({"tool":"history"})"), R"({"ok":false,"error":"Busy"})");
  a.reset();
  b.reset();
  std::optional<std::string> answer;
  for (int i = 0; i < 1000 && answer != "off:{}"; ++i) answer = ask(R"({"tool":"history"})");
  EXPECT_EQ(answer, "off:{}");  // served again once the stalled ones are gone
}

TEST_F(ControlServerTest, MainThreadThatDoesNotAnswerInTimeClosesWithoutAnswer) {
  ControlServerLimits limits;
  limits.mainWaitSeconds = 0.2;
  make(limits).start();
  EXPECT_EQ(ask(R"({"tool":"status"})"), std::nullopt);
  EXPECT_EQ(queue.drain(), 1u);
  EXPECT_EQ(handler.mainCalls.load(), 0);  // abandoned: the late task does not ask the handler
}

TEST_F(ControlServerTest, StopWhileARequestWaitsForTheMainThread) {
  make().start();
  std::optional<std::string> answer = "unset";
  std::thread client([&] { answer = ask(R"({"tool":"status"})"); });
  ASSERT_TRUE(queue.waitForTask(kClientWait));
  server->stop();
  client.join();
  EXPECT_EQ(answer, std::nullopt);
  server.reset();  // the queued task outlives the server
  queue.drain();
  EXPECT_EQ(handler.mainCalls.load(), 0);
}

}  // namespace
}  // namespace vistrel
