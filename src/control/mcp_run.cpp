// The `--mcp` mode's real surroundings: standard input and output, the control socket, the
// launch of the application and the clock.

#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <string>
#include <thread>

#include "control/control_socket.hpp"
#include "control/mcp.hpp"
#include "control/mcp_launch.hpp"
#include "format/platform_text.hpp"

namespace vistrel {

namespace {

// One connection: connect, send the line, read one answer line. Unlike
// `ControlSocket::request`, says whether the application was reached at all, since only an
// application that is not listening is launched.
ControlExchange exchangeOverSocket(const std::string& path, const std::string& requestLine) {
  OwnedFd fd(ControlSocket::connect(path, MCP::kConnectTimeoutSeconds));
  if (!fd) return {ControlExchange::Outcome::notListening, {}};
  // A failed write still reads: the server may answer before reading everything.
  ControlSocket::sendAll(fd.get(), requestLine + '\n');
  std::string answer;
  char buffer[65536];
  for (;;) {
    ssize_t got = ::recv(fd.get(), buffer, sizeof buffer, 0);
    if (got < 0 && errno == EINTR) continue;
    if (got <= 0) return {ControlExchange::Outcome::noAnswer, {}};
    std::string_view chunk(buffer, static_cast<size_t>(got));
    const size_t newline = chunk.find('\n');
    const size_t take = newline == std::string_view::npos ? chunk.size() : newline;
    if (answer.size() + take > ControlSocket::kMaxAnswerBytes) {
      return {ControlExchange::Outcome::noAnswer, {}};
    }
    answer.append(chunk.substr(0, take));
    if (newline != std::string_view::npos) return {ControlExchange::Outcome::answered, answer};
  }
}

// Standard output carries MCP messages and nothing else. False when the client has gone.
bool writeMessage(const std::string& message) {
  std::string out = message;
  out.push_back('\n');
  std::string_view rest = out;
  while (!rest.empty()) {
    ssize_t n = ::write(STDOUT_FILENO, rest.data(), rest.size());
    if (n < 0 && errno == EINTR) continue;
    if (n <= 0) return false;
    rest.remove_prefix(static_cast<size_t>(n));
  }
  return true;
}

// Splits standard input into lines for `handle`. A line longer than MCP::kMaxLineBytes is not
// kept: its first bytes are handed on (too long to be a request, so it is skipped) and the rest
// up to its newline is read and dropped, so that memory stays bounded whatever the client sends.
template <typename Handle>
void forEachInputLine(Handle&& handle) {
  std::string line;
  bool overlong = false;
  char buffer[65536];
  for (;;) {
    ssize_t n = ::read(STDIN_FILENO, buffer, sizeof buffer);
    if (n < 0 && errno == EINTR) continue;
    if (n <= 0) break;
    std::string_view chunk(buffer, static_cast<size_t>(n));
    while (!chunk.empty()) {
      const size_t newline = chunk.find('\n');
      const std::string_view piece = chunk.substr(0, newline);
      if (!overlong) {
        if (line.size() + piece.size() > MCP::kMaxLineBytes) {
          overlong = true;
          line.append(piece.substr(0, MCP::kMaxLineBytes + 1 - line.size()));
        } else {
          line.append(piece);
        }
      }
      if (newline == std::string_view::npos) break;
      handle(line);
      line.clear();
      overlong = false;
      chunk.remove_prefix(newline + 1);
    }
  }
  if (!line.empty()) handle(line);  // a last line without its newline
}

}  // namespace

int runMcpMode() {
  // A client that goes away must not kill the server in the middle of a write: writes fail
  // with EPIPE instead and the loop ends with the input.
  std::signal(SIGPIPE, SIG_IGN);

  const std::string socketPath = ControlSocket::path();
  McpEnvironment env;
  env.request = [socketPath](const std::string& line) {
    return exchangeOverSocket(socketPath, line);
  };
  env.launchApplication = [] { return launchApplicationInBackground(); };
  env.sleep = [](std::chrono::milliseconds d) { std::this_thread::sleep_for(d); };
  env.forLinux = runningOnLinux();
  env.version = applicationVersion();
  MCP server(std::move(env));

  bool clientListening = true;
  forEachInputLine([&](const std::string& line) {
    auto answer = server.handleLine(line);
    if (answer && clientListening) clientListening = writeMessage(*answer);
  });
  return 0;
}

}  // namespace vistrel
