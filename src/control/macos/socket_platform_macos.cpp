#include <errno.h>
#include <fcntl.h>
#include <sys/socket.h>
#include <unistd.h>

#include "control/socket_platform.hpp"

namespace vistrel {

// macOS has neither SOCK_CLOEXEC nor accept4 nor MSG_NOSIGNAL: close-on-exec is set right after
// creation, and SIGPIPE is turned off once per socket with SO_NOSIGPIPE.

namespace {

// Close-on-exec and no SIGPIPE; false (errno set) when either cannot be set.
bool prepare(int fd) {
  int one = 1;
  return ::fcntl(fd, F_SETFD, FD_CLOEXEC) == 0 &&
         ::setsockopt(fd, SOL_SOCKET, SO_NOSIGPIPE, &one, sizeof one) == 0;
}

}  // namespace

int openUnixStreamSocket() {
  const int fd = ::socket(AF_UNIX, SOCK_STREAM, 0);
  if (fd < 0) return -1;
  if (!prepare(fd)) {
    const int error = errno;
    ::close(fd);
    errno = error;
    return -1;
  }
  return fd;
}

int acceptUnixConnection(int listener) {
  const int fd = ::accept(listener, nullptr, nullptr);
  if (fd < 0) return -1;
  // A client that connected and closed at once leaves a connection on which SO_NOSIGPIPE fails
  // with EINVAL: that client is gone, the listener is fine.
  if (!prepare(fd)) return dropAcceptedConnection(fd);
  // Accepted sockets inherit the listener's O_NONBLOCK on macOS; connections are read and written
  // with blocking calls bounded by their time-outs.
  int flags = ::fcntl(fd, F_GETFL);
  if (flags >= 0 && (flags & O_NONBLOCK)) ::fcntl(fd, F_SETFL, flags & ~O_NONBLOCK);
  return fd;
}

ssize_t sendWithoutSignal(int fd, const void* data, size_t size, bool dontWait) {
  return ::send(fd, data, size, dontWait ? MSG_DONTWAIT : 0);
}

}  // namespace vistrel
