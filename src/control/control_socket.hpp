#pragma once

#include <sys/socket.h>
#include <sys/types.h>
#include <sys/un.h>

#include <cstddef>
#include <optional>
#include <string>
#include <string_view>

namespace vistrel {

// Owns one file descriptor and closes it when dropped. Move-only.
class OwnedFd {
 public:
  OwnedFd() = default;
  explicit OwnedFd(int fd) : fd_(fd) {}
  OwnedFd(OwnedFd&& other) noexcept : fd_(other.release()) {}
  OwnedFd& operator=(OwnedFd&& other) noexcept;
  OwnedFd(const OwnedFd&) = delete;
  OwnedFd& operator=(const OwnedFd&) = delete;
  ~OwnedFd() { reset(); }

  int get() const { return fd_; }
  explicit operator bool() const { return fd_ >= 0; }
  int release();
  void reset(int fd = -1);

 private:
  int fd_ = -1;
};

// Sets SO_RCVTIMEO or SO_SNDTIMEO (`option`) to `seconds`, kept within one millisecond and one
// day (zero would mean no time-out at all). False when the system refuses.
bool setSocketTimeout(int fd, int option, double seconds);

// The control socket as both ends see it: where it lives, how its address is built, and the
// client's side of one request.
class ControlSocket {
 public:
  // At most this many bytes of the path go into the address, so that it always ends in a zero
  // byte within the 104 bytes macOS gives `sun_path` (Linux gives 108).
  static constexpr size_t kMaxPathBytes = 103;
  // The address length handed to bind and connect: the family header (2 bytes on both systems)
  // plus 104 path bytes, which is sizeof(sockaddr_un) on macOS (106) and within it on Linux (110).
  static constexpr socklen_t kAddressLength = 106;

  // Where the application listens and `--mcp` connects: "control.sock" in the support folder as
  // it is without XDG variables (`defaultSupportFolder`: ~/.local/share/Vistrel on Linux,
  // ~/Library/Application Support/Vistrel on macOS), so that an application started with
  // XDG_DATA_HOME set and an `--mcp` started by a client that passes only HOME and PATH meet.
  // The home folder is $HOME, else the account's entry. A path longer than kMaxPathBytes (a very
  // deep home folder) would not fit the address: `fallbackPath` is used instead.
  static std::string path();

  // "/tmp/vistrel-<uid>/control.sock": the user's own folder in the system's temporary folder.
  // The server creates it 0700 and refuses it when it is anyone else's or writable by others.
  static std::string fallbackPath(uid_t uid);

  // The file the address names: the first kMaxPathBytes bytes of `path`. The server binds,
  // changes the mode of and removes this file; a client cutting the same way reaches it.
  static std::string boundPath(std::string_view path);

  // Fills `address` (zeroed, AF_UNIX, the cut path) and returns the length to pass with it:
  // min(kAddressLength, sizeof(sockaddr_un)).
  static socklen_t address(std::string_view path, sockaddr_un& address);

  // A connected stream socket whose reads and writes give up after `timeoutSeconds` each, or -1.
  // The caller owns the descriptor. Writes on it never raise SIGPIPE when sent with
  // `sendAll` below (and on macOS never at all).
  static int connect(std::string_view path, double timeoutSeconds);

  // Sends `line` and a newline, then reads one answer line: the answer without its newline, or
  // nullopt when the server cannot be reached, closes before a whole line, a read or write takes
  // longer than `timeoutSeconds`, or the answer exceeds kMaxAnswerBytes.
  static std::optional<std::string> request(std::string_view path, std::string_view line,
                                            double timeoutSeconds);
  static constexpr size_t kMaxAnswerBytes = 64u << 20;

  // Writes all of `data`, retrying after interruptions and short writes; false when a write
  // fails or times out. Never raises SIGPIPE.
  static bool sendAll(int fd, std::string_view data);
};

}  // namespace vistrel
