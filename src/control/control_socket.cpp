#include "control/control_socket.hpp"

#include <sys/time.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cmath>
#include <cstring>

#include "base/files.hpp"
#include "base/paths.hpp"
#include "control/socket_platform.hpp"

namespace vistrel {

OwnedFd& OwnedFd::operator=(OwnedFd&& other) noexcept {
  if (this != &other) reset(other.release());
  return *this;
}

int OwnedFd::release() {
  int fd = fd_;
  fd_ = -1;
  return fd;
}

void OwnedFd::reset(int fd) {
  // close is not retried after EINTR: the descriptor is released either way on both systems.
  if (fd_ >= 0) ::close(fd_);
  fd_ = fd;
}

std::string ControlSocket::path() {
  std::string path = joinPath(defaultSupportFolder(), "control.sock");
  if (path.size() <= kMaxPathBytes) return path;
  return fallbackPath(::getuid());
}

std::string ControlSocket::fallbackPath(uid_t uid) {
  return "/tmp/vistrel-" + std::to_string(uid) + "/control.sock";
}

std::string ControlSocket::boundPath(std::string_view path) {
  return std::string(path.substr(0, kMaxPathBytes));
}

socklen_t ControlSocket::address(std::string_view path, sockaddr_un& address) {
  static_assert(sizeof(sockaddr_un::sun_path) >= kMaxPathBytes + 1,
                "the cut path and its zero byte must fit in sun_path");
  static_assert(offsetof(sockaddr_un, sun_path) == 2, "a two-byte family header");
  std::memset(&address, 0, sizeof address);
  address.sun_family = AF_UNIX;
  std::string_view cut = path.substr(0, kMaxPathBytes);
  std::memcpy(address.sun_path, cut.data(), cut.size());
  return std::min<socklen_t>(kAddressLength, sizeof(sockaddr_un));
}

bool setSocketTimeout(int fd, int option, double seconds) {
  // Zero would mean "wait forever"; the shortest wait is one millisecond, the longest a day.
  long long micros =
      std::llround(std::clamp(std::isnan(seconds) ? 0.0 : seconds, 0.001, 86400.0) * 1e6);
  timeval tv{};
  tv.tv_sec = static_cast<time_t>(micros / 1000000);
  tv.tv_usec = static_cast<suseconds_t>(micros % 1000000);
  return ::setsockopt(fd, SOL_SOCKET, option, &tv, sizeof tv) == 0;
}

int ControlSocket::connect(std::string_view path, double timeoutSeconds) {
  OwnedFd fd(openUnixStreamSocket());
  if (!fd) return -1;
  if (!setSocketTimeout(fd.get(), SO_RCVTIMEO, timeoutSeconds) ||
      !setSocketTimeout(fd.get(), SO_SNDTIMEO, timeoutSeconds)) {
    return -1;
  }
  sockaddr_un addr;
  socklen_t length = address(path, addr);
  int result;
  do {
    result = ::connect(fd.get(), reinterpret_cast<const sockaddr*>(&addr), length);
  } while (result != 0 && errno == EINTR);
  // After an interrupted attempt the connection may have been made meanwhile.
  if (result != 0 && errno != EISCONN) return -1;
  return fd.release();
}

bool ControlSocket::sendAll(int fd, std::string_view data) {
  while (!data.empty()) {
    ssize_t sent = sendWithoutSignal(fd, data.data(), data.size(), false);
    if (sent < 0) {
      if (errno == EINTR) continue;
      return false;  // EPIPE, ECONNRESET, or EAGAIN after the send time-out
    }
    data.remove_prefix(static_cast<size_t>(sent));
  }
  return true;
}

std::optional<std::string> ControlSocket::request(std::string_view path, std::string_view line,
                                                  double timeoutSeconds) {
  OwnedFd fd(connect(path, timeoutSeconds));
  if (!fd) return std::nullopt;
  std::string out;
  out.reserve(line.size() + 1);
  out.append(line);
  out.push_back('\n');
  // A failed write still reads: the server answers "Busy" or "Bad request" before it has read
  // everything, then closes, and that answer is waiting here.
  sendAll(fd.get(), out);

  std::string answer;
  char buffer[65536];
  for (;;) {
    ssize_t got = ::recv(fd.get(), buffer, sizeof buffer, 0);
    if (got < 0 && errno == EINTR) continue;
    if (got <= 0) return std::nullopt;  // closed before the newline, failed or timed out
    std::string_view chunk(buffer, static_cast<size_t>(got));
    size_t newline = chunk.find('\n');
    size_t take = newline == std::string_view::npos ? chunk.size() : newline;
    if (answer.size() + take > kMaxAnswerBytes) return std::nullopt;
    answer.append(chunk.substr(0, take));
    if (newline != std::string_view::npos) return answer;
  }
}

}  // namespace vistrel
