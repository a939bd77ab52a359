#pragma once

#include <sys/types.h>

#include <cstddef>

namespace vistrel {

// The few socket calls whose spelling differs between Linux and macOS, one definition per platform
// chosen by the build. Every descriptor they return is close-on-exec (so that helpers the
// application starts never inherit the control socket) and never raises SIGPIPE when the peer has
// gone: Linux asks for that on each write (MSG_NOSIGNAL), macOS once per socket (SO_NOSIGPIPE).

// A new Unix-domain stream socket; -1 (errno set) on failure.
int openUnixStreamSocket();

// `accept` on a listening socket, without the peer's address: the connection (blocking, whatever
// the listener is), or -1 with errno as `accept` set it.
int acceptUnixConnection(int listener);

// `send` that never raises SIGPIPE. `dontWait` makes this one call non-blocking. Returns what
// `send` returns.
ssize_t sendWithoutSignal(int fd, const void* data, size_t size, bool dontWait);

}  // namespace vistrel
