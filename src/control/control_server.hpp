#pragma once

#include <sys/types.h>

#include <cstddef>
#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <thread>

#include "base/main_queue.hpp"
#include "control/control_handler.hpp"
#include "control/control_request.hpp"
#include "control/control_socket.hpp"
#include "control/socket_platform.hpp"

namespace vistrel {

// The bounds a server keeps; tests shorten the waits.
struct ControlServerLimits {
  // How long a connection's thread waits for the main thread's answer before closing the
  // connection without one.
  double mainWaitSeconds = 10;
  // The whole request line must arrive within this long of the connection's acceptance, and each
  // write of the answer may take this long; a stalled client is closed without an answer.
  double requestSeconds = 5;
  // Threads answering requests at once. Complete requests beyond this wait their turn.
  size_t maxWorkers = 32;
  // Connections open at once (still sending, waiting for a thread, or being answered). One more
  // is answered {"ok":false,"error":"Busy"} and closed at once.
  size_t maxConnections = 256;
  // A request line longer than this is answered "Bad request" and its connection closed.
  size_t maxRequestBytes = 1u << 20;
  // How a connection is taken from the listener (`acceptUnixConnection`); tests inject failures.
  std::function<int(int listener)> accept = acceptUnixConnection;
};

// Serves the control socket: one request line and one answer line per connection.
//
// One thread accepts connections and gathers their request lines with poll (so clients that
// stall cost a descriptor, never a thread); each complete request goes to a small pool of
// threads (at most maxWorkers) that asks the handler's `answerOffMain` and, when that declines,
// posts `answerOnMain` to the main queue and waits for it. Answers are written in full and the
// connection closed. Construct and stop on the main thread (stop waits for handler calls that are
// running on other threads, never for the main queue).
class ControlServer {
 public:
  ControlServer(MainQueue& mainQueue, ControlHandler& handler,
                std::string path = ControlSocket::path(), ControlServerLimits limits = {});
  ~ControlServer();
  ControlServer(const ControlServer&) = delete;
  ControlServer& operator=(const ControlServer&) = delete;

  // Listens on the socket; does nothing when already listening. Creates the socket's folder
  // (0700, with parents) and refuses, with one line on stderr, when that folder is writable by
  // its group or others or belongs to someone else. Removes a stale socket file, but refuses when
  // another process answers on it. The socket file has mode 0600 before anyone can connect.
  // True when listening afterwards.
  bool start();

  // Stops listening and removes the socket file (when it is still ours). Requests still arriving
  // or waiting for the main thread end without an answer; after stop returns the handler and the
  // main queue are not called again (a task already queued finds the server stopped).
  void stop();

  bool isListening() const;

  // What the accept loop, the answering threads and queued main-thread tasks hold on to (defined
  // in the implementation; named here only so that its helpers can name it).
  struct Shared;

 private:
  MainQueue& mainQueue_;
  ControlHandler& handler_;
  const std::string path_;
  const ControlServerLimits limits_;

  mutable std::mutex mutex_;  // start, stop and the fields below
  OwnedFd listener_;
  OwnedFd wakeRead_, wakeWrite_;  // a byte on this pipe ends the accept loop
  std::thread acceptThread_;
  std::shared_ptr<Shared> shared_;
  dev_t boundDevice_ = 0;
  ino_t boundInode_ = 0;
};

}  // namespace vistrel
