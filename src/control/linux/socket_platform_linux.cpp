#include <sys/socket.h>

#include "control/socket_platform.hpp"

namespace vistrel {

// Linux sets close-on-exec atomically with the descriptor's creation; SIGPIPE is suppressed per
// write with MSG_NOSIGNAL (there is no per-socket option).

int openUnixStreamSocket() {
  return ::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
}

int acceptUnixConnection(int listener) {
  // accept4 never copies the listener's O_NONBLOCK onto the connection.
  return ::accept4(listener, nullptr, nullptr, SOCK_CLOEXEC);
}

ssize_t sendWithoutSignal(int fd, const void* data, size_t size, bool dontWait) {
  return ::send(fd, data, size, MSG_NOSIGNAL | (dontWait ? MSG_DONTWAIT : 0));
}

}  // namespace vistrel
