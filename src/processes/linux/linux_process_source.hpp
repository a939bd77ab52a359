#pragma once

// The Linux process source, built over a root folder that stands for "/" so that tests can point
// it at a captured tree. makeProcessSource() uses the root "/", the desktop folders of the user's
// XDG data directories, the system clock and the real `ps`.
//
// Per tick it reads only what changes per tick: /proc/<pid>/stat (CPU time), statm (memory) and,
// for processes it may read, io (disk bytes). It keeps those files open for the life of each
// process and re-reads them from offset 0, which costs a third less than opening them again every
// tick; an open /proc file stays tied to its process, so a read that fails means the process is
// gone and a reused pid is never mistaken for the old one. Identity (status, exe, cgroup) is read
// once per process life by the caller.

#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <unordered_map>
#include <vector>

#include "base/clock.hpp"
#include "processes/process_parsers.hpp"
#include "processes/process_source.hpp"

namespace vistrel {

// How long a process's list of GPU (DRM) descriptors is trusted before its fd folder is listed
// again, in seconds. Listing every descriptor of every process costs about 10 ms for 500
// processes, far more than reading the few DRM descriptors' fdinfo, and programs rarely open a GPU
// after they start: a process found without any waits twice as long after each such scan, up to
// 2^kDrmBackoffSteps times this. Each process's deadline is spread over 0.75 to 1.25 times its
// period, so that the re-scans do not all land on one tick.
inline constexpr double kDrmRecheckSeconds = 30;
inline constexpr int kDrmBackoffSteps = 3;

// How long "no desktop entry for this app id" is believed, in seconds (an app may be installed
// meanwhile). Found entries are kept for the source's life.
inline constexpr double kDesktopMissSeconds = 600;
// How long the memory and storage figures of a process that has not run are reused (seconds).
inline constexpr double kIdleRefreshSeconds = 15;

// A socket that moved bytes but was found in no process's descriptors (a process we cannot read,
// or one that opened it without using a clock tick of CPU) is looked for again only after this
// many seconds: otherwise every network reading would list the descriptors of every busy process.
inline constexpr double kSocketSearchRetrySeconds = 30;

// Runs the process-status tool and returns its output; empty when it cannot run.
using PsRunner = std::function<std::string()>;

// `ps -A -o pid=,ppid=,uid=,%cpu=,rss=,comm=`.
std::string runPs();

// The applications folders of the XDG data directories, the user's own first: $XDG_DATA_HOME
// (default ~/.local/share), each of $XDG_DATA_DIRS (default /usr/local/share:/usr/share), the
// Flatpak exports (user and system), and the folder where snapd puts its apps' entries.
std::vector<std::string> defaultDesktopFolders();

// Finds the desktop entry of an app id: "<id>.desktop" in the first folder that has it (a snap's
// is "<name>_<name>.desktop"). Remembers every answer: found entries for its life, misses for
// kDesktopMissSeconds.
class DesktopEntryFinder {
 public:
  DesktopEntryFinder(std::vector<std::string> folders, const Clock& clock);
  std::optional<std::string> find(const std::string& appId);

 private:
  struct Lookup {
    std::optional<std::string> path;
    double checkedAt = 0;
  };
  std::vector<std::string> folders_;
  const Clock& clock_;
  std::unordered_map<std::string, Lookup> cache_;
};

// Replaces its argument with the TCP sockets of the machine and their byte counters (a socket
// diagnostics dump); false when none can be had.
using TcpDumper = std::function<bool(std::vector<TcpSocketBytes>&)>;

// The kernel's socket-diagnostics dump (TcpDiag), kept open between calls.
TcpDumper kernelTcpDumper();

// Per-process network: the TCP sockets of the user running us, mapped to pids through the
// "socket:[inode]" descriptors of that user's processes. Each process's socket set is remembered;
// its descriptors are listed again only when some socket moved bytes without a known owner, and
// then only for processes that have run since their last listing (a process that did not run
// opened nothing). UDP and other users' sockets are not counted.
//
// `desktopFolders`: folders holding "<app id>.desktop" files (snaps' as "<name>_<name>.desktop"),
// searched in order.
std::unique_ptr<ProcessSource> makeLinuxProcessSource(std::string root,
                                                      std::vector<std::string> desktopFolders,
                                                      const Clock& clock = Clock::system(),
                                                      PsRunner ps = runPs,
                                                      TcpDumper tcp = kernelTcpDumper());

}  // namespace vistrel
