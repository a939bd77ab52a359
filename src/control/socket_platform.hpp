#pragma once

#include <sys/types.h>
#include <unistd.h>

#include <cerrno>
#include <cstddef>

namespace vistrel {

// The few socket calls whose spelling differs between Linux and macOS, one definition per platform
// chosen by the build. Every descriptor they return is close-on-exec (so that helpers the
// application starts never inherit the control socket) and never raises SIGPIPE when the peer has
// gone: Linux asks for that on each write (MSG_NOSIGNAL), macOS once per socket (SO_NOSIGPIPE).

// A new Unix-domain stream socket; -1 (errno set) on failure.
int openUnixStreamSocket();

// `accept` on a listening socket, without the peer's address: the connection (blocking, whatever
// the listener is), or -1 with errno as `accept` set it. A connection accepted but then impossible
// to set up is reported as ECONNABORTED (see `dropAcceptedConnection`).
int acceptUnixConnection(int listener);

// For a connection that was accepted but could not be set up: closes it and reports what an
// aborted connection reports (-1, errno ECONNABORTED), so that the accept loop drops this one
// client and goes on listening. On macOS setting SO_NOSIGPIPE fails with EINVAL when the client
// has already closed its end; that EINVAL must never read as a failure of the listener.
inline int dropAcceptedConnection(int fd) {
  if (fd >= 0) ::close(fd);
  errno = ECONNABORTED;
  return -1;
}

// `send` that never raises SIGPIPE. `dontWait` makes this one call non-blocking. Returns what
// `send` returns.
ssize_t sendWithoutSignal(int fd, const void* data, size_t size, bool dontWait);

}  // namespace vistrel
