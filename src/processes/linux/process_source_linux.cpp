#include <dirent.h>
#include <errno.h>
#include <fcntl.h>
#include <stdlib.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <charconv>
#include <limits>
#include <unordered_map>

#include "base/files.hpp"
#include "processes/linux/linux_process_source.hpp"
#include "processes/linux/tcp_diag.hpp"
#include "processes/process_parsers.hpp"
#include "processes/tcp_ledger.hpp"

namespace vistrel {

namespace {

// PF_KTHREAD: the kernel's own threads carry it, and nothing else does. Their pids and parents
// prove nothing: in a container, pid 2 and its children are ordinary processes.
constexpr uint32_t kKernelThreadFlag = 0x00200000;
constexpr std::string_view kDriPrefix = "/dev/dri/";
constexpr std::string_view kSocketPrefix = "socket:[";

bool isNumber(std::string_view s) {
  return !s.empty() && std::all_of(s.begin(), s.end(), [](char c) { return c >= '0' && c <= '9'; });
}

uint64_t mulSat(uint64_t a, uint64_t b) {
  return b != 0 && a > std::numeric_limits<uint64_t>::max() / b
             ? std::numeric_limits<uint64_t>::max()
             : a * b;
}

// "btime <seconds since 1970>" of /proc/stat.
std::optional<double> parseBootTime(std::string_view text) {
  constexpr std::string_view kKey = "\nbtime ";
  auto at = text.find(kKey);
  if (at == std::string_view::npos) return std::nullopt;
  const char* first = text.data() + at + kKey.size();
  uint64_t seconds = 0;
  auto [ptr, ec] = std::from_chars(first, text.data() + text.size(), seconds);
  if (ec != std::errc() || ptr == first) return std::nullopt;
  return static_cast<double>(seconds);
}

// Whatever follows a readlink target of a file that was removed.
std::string withoutDeleted(std::string path) {
  constexpr std::string_view kDeleted = " (deleted)";
  if (path.size() > kDeleted.size() && path.ends_with(kDeleted)) {
    path.resize(path.size() - kDeleted.size());
  }
  return path;
}

class LinuxProcessSource final : public ProcessSource {
 public:
  LinuxProcessSource(std::string root, std::vector<std::string> desktopFolders, const Clock& clock,
                     PsRunner ps, TcpDumper tcp)
      : root_(std::move(root)),
        procDir_(joinPath(root_, "proc") + "/"),
        desktops_(std::move(desktopFolders), clock),
        clock_(clock),
        ps_(std::move(ps)),
        tcp_(std::move(tcp)),
        euid_(::geteuid()) {
    long ticks = ::sysconf(_SC_CLK_TCK);
    clockTicks_ = ticks > 0 ? static_cast<uint64_t>(ticks) : 100;
    long page = ::sysconf(_SC_PAGESIZE);
    pageSize_ = page > 0 ? static_cast<uint64_t>(page) : 4096;
    // Three files held per process: allow as many descriptors as the system lets us, and keep a
    // reserve for everything else the program opens.
    rlimit limit{};
    if (::getrlimit(RLIMIT_NOFILE, &limit) == 0) {
      rlim_t wanted = std::min<rlim_t>(limit.rlim_max, rlim_t{1} << 20);
      if (limit.rlim_cur < wanted) {
        rlimit raised = limit;
        raised.rlim_cur = wanted;
        if (::setrlimit(RLIMIT_NOFILE, &raised) == 0) limit = raised;
      }
      size_t soft = static_cast<size_t>(std::min<rlim_t>(limit.rlim_cur, rlim_t{1} << 20));
      size_t reserve = soft >= 1024 ? std::max<size_t>(256, soft / 8) : soft / 2;
      fdBudget_ = soft - reserve;
    }
  }

  ~LinuxProcessSource() override {
    for (auto& [pid, tracked] : tracked_) release(tracked);
  }

  LinuxProcessSource(const LinuxProcessSource&) = delete;
  LinuxProcessSource& operator=(const LinuxProcessSource&) = delete;

  void listPids(std::vector<int32_t>& out) override {
    tickNow_ = clock_.uptime();  // one instant for the whole tick's reuse decisions
    out.clear();
    DIR* dir = ::opendir(procDir_.c_str());
    if (!dir) return;
    while (dirent* entry = ::readdir(dir)) {
      std::string_view name = entry->d_name;
      int32_t pid = 0;
      auto [ptr, ec] = std::from_chars(name.data(), name.data() + name.size(), pid);
      if (ec == std::errc() && ptr == name.data() + name.size() && pid > 0) out.push_back(pid);
    }
    ::closedir(dir);
  }

  std::optional<ProcessCounters> counters(int32_t pid) override {
    // Two tries: a held file that fails belongs to a process that ended; the pid may already name
    // a new one.
    for (int attempt = 0; attempt < 2; ++attempt) {
      auto [it, fresh] = tracked_.try_emplace(pid);
      Tracked& t = it->second;
      ProcessCounters out;
      Outcome outcome = readCounters(pid, t, fresh, out);
      if (outcome == Outcome::ok) return out;
      untrack(pid, t);
      tracked_.erase(it);
      if (fresh || outcome == Outcome::garbage) return std::nullopt;
    }
    return std::nullopt;
  }

  std::optional<ProcessIdentity> identity(int32_t pid) override {
    std::string text;
    if (!readFile(pidPath(pid, "stat"), text, 4096)) return std::nullopt;
    auto stat = parseProcPidStat(text);
    if (!stat) return std::nullopt;
    if (!readFile(pidPath(pid, "status"), text, 16384)) return std::nullopt;
    auto uid = parseStatusUid(text);
    if (!uid) return std::nullopt;

    ProcessIdentity id;
    id.ppid = stat->ppid;
    id.uid = *uid;
    id.path = withoutDeleted(readLink(pidPath(pid, "exe")).value_or(""));
    id.baseName = std::move(stat->comm);
    if (auto boot = bootTime()) {
      id.started = dateFromSeconds(*boot + static_cast<double>(stat->starttime) /
                                               static_cast<double>(clockTicks_));
    }
    if (readFile(pidPath(pid, "cgroup"), text, 16384)) {
      if (auto appId = parseCgroupAppId(text)) id.appPath = desktops_.find(*appId);
    }
    return id;
  }

  // These two may run on any thread: they build their own paths instead of using path_.
  std::vector<std::string> arguments(int32_t pid) override {
    std::string text;
    if (!readFile(joinPath(procDir_, std::to_string(pid) + "/cmdline"), text)) return {};
    return parseCmdline(text);
  }

  std::optional<std::string> workingFolder(int32_t pid) override {
    auto folder = readLink(joinPath(procDir_, std::to_string(pid) + "/cwd"));
    if (!folder || folder->empty() || *folder == "/") return std::nullopt;
    return folder;
  }

  std::optional<int32_t> responsibleFor(int32_t) override { return std::nullopt; }

  std::unordered_map<int32_t, uint64_t> gpuTimes() override {
    std::unordered_map<int32_t, uint64_t> out;
    double now = clock_.uptime();
    for (auto& [pid, t] : tracked_) {
      if (t.kernel) continue;
      if (now >= t.drmNextScan) scanDrm(pid, t, now);
      if (t.drmFds.empty()) continue;
      // A process holds one descriptor per DRM client it opened, but may have duplicated it or
      // opened a render and a primary node for one client: count each client once.
      seenClients_.clear();
      uint64_t total = 0;
      bool any = false;
      for (int fd : t.drmFds) {
        auto client = readFdinfo(pid, fd);
        if (!client) {
          t.drmNextScan = now;  // the descriptor was closed: list the folder again next time
          continue;
        }
        if (std::find(seenClients_.begin(), seenClients_.end(), client->clientId) !=
            seenClients_.end()) {
          continue;
        }
        seenClients_.push_back(client->clientId);
        total = total > std::numeric_limits<uint64_t>::max() - client->engineNs
                    ? std::numeric_limits<uint64_t>::max()
                    : total + client->engineNs;
        any = true;
      }
      if (any) out[pid] = total;
    }
    return out;
  }

  std::unordered_map<int32_t, ProcessNetBytes> networkBytes() override {
    std::unordered_map<int32_t, ProcessNetBytes> out;
    if (!tcp_ || !tcp_(sockets_)) return out;
    std::erase_if(sockets_, [this](const TcpSocketBytes& s) { return s.uid != euid_; });
    auto owner = [this](uint64_t inode) -> int32_t {
      auto it = socketOwner_.find(inode);
      return it == socketOwner_.end() ? 0 : it->second;
    };
    const double now = clock_.uptime();
    auto unowned = ledger_.unowned(sockets_, owner);
    std::erase_if(unowned, [&](uint64_t inode) {
      auto it = searchedAt_.find(inode);
      return it != searchedAt_.end() && now - it->second < kSocketSearchRetrySeconds;
    });
    if (!unowned.empty()) {
      for (auto& [pid, t] : tracked_) {
        if (t.kernel || !t.own) continue;
        if (t.socketsScanned && t.lastTicks == t.socketScanTicks) continue;
        scanSockets(pid, t);
      }
      for (uint64_t inode : unowned) {
        if (owner(inode) == 0) searchedAt_[inode] = now;
      }
    }
    ledger_.apply(sockets_, owner);
    std::erase_if(searchedAt_, [this](const auto& entry) { return !ledger_.knows(entry.first); });
    for (const auto& [pid, t] : tracked_) {
      if (!t.kernel && t.own) out.emplace(pid, ledger_.total(pid));
    }
    return out;
  }

  std::vector<PsRow> psListing() override {
    if (!ps_) return {};
    return parsePS(ps_());
  }

  double cores() override {
    long online = ::sysconf(_SC_NPROCESSORS_ONLN);
    return online > 0 ? static_cast<double>(online) : 1.0;
  }

  void retainOnly(const std::vector<int32_t>& livePids) override {
    for (auto it = tracked_.begin(); it != tracked_.end();) {
      if (std::binary_search(livePids.begin(), livePids.end(), it->first)) {
        ++it;
      } else {
        untrack(it->first, it->second);
        it = tracked_.erase(it);
      }
    }
    ledger_.retainOnly(livePids);
  }

  void forget(int32_t pid) override {
    auto it = tracked_.find(pid);
    if (it == tracked_.end()) return;
    untrack(pid, it->second);
    tracked_.erase(it);
  }

 private:
  // What the source keeps per live process. Descriptors are -1 when not held.
  struct Tracked {
    uint64_t startKey = 0;
    int stat = -1, statm = -1, io = -1;
    bool kernel = false;
    bool own = false;         // decided once: the process is ours (or we are root)
    bool ioReadable = false;  // own, and its io file has not failed
    // The inodes of its sockets at the last listing of its descriptors, and its CPU ticks then.
    std::vector<uint64_t> sockets;
    bool socketsScanned = false;
    uint64_t socketScanTicks = 0;
    std::vector<int> drmFds;  // the process's descriptors open on /dev/dri
    double drmNextScan = 0;
    int drmEmptyScans = 0;  // scans in a row that found none
    // The last full reading, reused while the process does not run.
    uint64_t lastTicks = 0;
    double fullAt = 0;  // uptime seconds
    uint64_t memory = 0, diskRead = 0, diskWrite = 0;
  };

  enum class Outcome { ok, gone, garbage };
  // readPerTick's failures: the process ended; the file is not ours to read; it could not be
  // opened (the process ended before, or the kernel does not have the file at all).
  static constexpr ssize_t kGone = -1, kDenied = -2, kNoFile = -3;

  // `t` stays valid throughout: files may be released under it, but no entry is added or erased.
  Outcome readCounters(int32_t pid, Tracked& t, bool fresh, ProcessCounters& out) {
    ssize_t n = readPerTick(pid, "stat", t.stat);
    if (n < 0) return Outcome::gone;
    auto stat = parseProcPidStat(std::string_view(buffer_, static_cast<size_t>(n)));
    if (!stat) return n == 0 ? Outcome::gone : Outcome::garbage;
    if (!fresh && stat->starttime != t.startKey) {
      // Only possible when the files are not held: another process under the same pid.
      return Outcome::gone;
    }
    if (fresh) {
      t.startKey = stat->starttime;
      t.kernel = (stat->flags & kKernelThreadFlag) != 0;
      t.own = !t.kernel && ownedByUs(pid, t.stat);
      t.ioReadable = t.own;
    }
    out.startKey = stat->starttime;
    out.program = std::move(stat->comm);
    out.kernelThread = t.kernel;
    uint64_t ticks = stat->utime > std::numeric_limits<uint64_t>::max() - stat->stime
                         ? std::numeric_limits<uint64_t>::max()
                         : stat->utime + stat->stime;
    out.cpuNs = mulSat(ticks, 1'000'000'000) / clockTicks_;
    if (t.kernel) return Outcome::ok;  // no memory or storage of its own

    // A process that has not run since the last tick cannot have touched memory or storage: most
    // processes sleep, and skipping their statm and io halves a tick. Memory can still shrink
    // under reclaim, so the full reading is renewed on a slow clock.
    if (!fresh && ticks == t.lastTicks && tickNow_ - t.fullAt < kIdleRefreshSeconds) {
      out.memory = t.memory;
      out.diskRead = t.diskRead;
      out.diskWrite = t.diskWrite;
      return Outcome::ok;
    }
    t.lastTicks = ticks;
    t.fullAt = tickNow_;

    n = readPerTick(pid, "statm", t.statm);
    if (n == kGone || n == kNoFile) return Outcome::gone;
    if (n >= 0) {
      auto pages = parseStatmAnonPages(std::string_view(buffer_, static_cast<size_t>(n)));
      out.memory = pages ? mulSat(*pages, pageSize_) : 0;
    }
    if (t.ioReadable) {
      // io is optional in the kernel: only a read that fails says the process ended.
      n = readPerTick(pid, "io", t.io);
      if (n == kGone) return Outcome::gone;
      auto io =
          n >= 0 ? parseProcIo(std::string_view(buffer_, static_cast<size_t>(n))) : std::nullopt;
      if (io) {
        out.diskRead = io->readBytes;
        out.diskWrite = io->writeBytes;
      } else {
        // Missing, refused (a process that raised its privileges) or not the expected text:
        // never again for this process.
        t.ioReadable = false;
        closeHeld(t.io);
      }
    }
    t.memory = out.memory;
    t.diskRead = out.diskRead;
    t.diskWrite = out.diskWrite;
    return Outcome::ok;
  }

  // Reads one per-tick file of `pid` from its start into buffer_: the bytes read or one of the
  // failures above. Holds the descriptor in `held`
  // while the descriptor budget allows; otherwise opens, reads and closes.
  ssize_t readPerTick(int32_t pid, const char* name, int& held) {
    int fd = held;
    bool keep = false;
    if (fd < 0) {
      fd = ::open(pidPath(pid, name).c_str(), O_RDONLY | O_CLOEXEC);
      if (fd < 0 && (errno == EMFILE || errno == ENFILE)) {
        // Out of descriptors: give back every held file, so that the rest of the program can
        // open its own, and read open-read-close from now on (one descriptor for a moment).
        fdBudget_ = 0;
        for (auto& [other, tracked] : tracked_) release(tracked);
        fd = ::open(path_.c_str(), O_RDONLY | O_CLOEXEC);
      }
      if (fd < 0) {
        int error = errno;
        return error == EACCES || error == EPERM ? kDenied : kNoFile;
      }
      keep = heldFds_ < fdBudget_;
    }
    ssize_t n;
    do {
      n = ::pread(fd, buffer_, sizeof buffer_, 0);
    } while (n < 0 && errno == EINTR);
    int error = errno;
    if (held >= 0) {
      if (n < 0) closeHeld(held);
    } else if (keep && n >= 0) {
      held = fd;
      ++heldFds_;
    } else {
      ::close(fd);
    }
    if (n < 0) return error == EACCES || error == EPERM ? kDenied : kGone;
    return n;
  }

  // /proc/<pid> files belong to the process's effective user (root when it is not dumpable, and
  // then its io is closed to us anyway).
  bool ownedByUs(int32_t pid, int statFd) {
    if (euid_ == 0) return true;
    struct stat st {};
    int result = statFd >= 0 ? ::fstat(statFd, &st) : ::stat(pidPath(pid, "stat").c_str(), &st);
    return result == 0 && st.st_uid == euid_;
  }

  void closeHeld(int& fd) {
    if (fd < 0) return;
    ::close(fd);
    fd = -1;
    --heldFds_;
  }

  void release(Tracked& t) {
    closeHeld(t.stat);
    closeHeld(t.statm);
    closeHeld(t.io);
  }

  // Everything kept for a process that is gone: its files and its sockets' ownership.
  void untrack(int32_t pid, Tracked& t) {
    release(t);
    disown(pid, t);
  }

  void disown(int32_t pid, Tracked& t) {
    for (uint64_t inode : t.sockets) {
      if (auto it = socketOwner_.find(inode); it != socketOwner_.end() && it->second == pid) {
        socketOwner_.erase(it);
      }
    }
    t.sockets.clear();
  }

  // Lists the process's descriptors for "socket:[<inode>]" links. A socket shared with another
  // process (inherited across fork) stays with the process that was found holding it first.
  void scanSockets(int32_t pid, Tracked& t) {
    disown(pid, t);
    t.socketsScanned = true;
    t.socketScanTicks = t.lastTicks;
    std::string folder = pidPath(pid, "fd/");
    DIR* dir = ::opendir(folder.c_str());
    if (!dir) return;
    char target[64];
    while (dirent* entry = ::readdir(dir)) {
      std::string_view name = entry->d_name;
      if (!isNumber(name)) continue;
      path_.assign(folder).append(name);
      ssize_t n = ::readlink(path_.c_str(), target, sizeof target);
      if (n <= 0) continue;
      std::string_view link(target, static_cast<size_t>(n));
      if (!link.starts_with(kSocketPrefix) || !link.ends_with(']')) continue;
      link.remove_prefix(kSocketPrefix.size());
      link.remove_suffix(1);
      uint64_t inode = 0;
      auto [ptr, ec] = std::from_chars(link.data(), link.data() + link.size(), inode);
      if (ec != std::errc() || ptr != link.data() + link.size() || inode == 0) continue;
      t.sockets.push_back(inode);
      socketOwner_.try_emplace(inode, pid);
    }
    ::closedir(dir);
  }

  // "<root>/proc/<pid>/<name>" in a reused string: no allocation once it has grown.
  std::string& pidPath(int32_t pid, std::string_view name) {
    path_.assign(procDir_);
    char digits[16];
    auto [end, ec] = std::to_chars(digits, digits + sizeof digits, pid);
    (void)ec;
    path_.append(digits, end);
    path_.push_back('/');
    path_.append(name);
    return path_;
  }

  void scanDrm(int32_t pid, Tracked& t, double now) {
    t.drmFds.clear();
    // Spread each process's next scan over 0.75 to 1.25 times its period.
    double spread = static_cast<double>((static_cast<uint32_t>(pid) * 2654435761u) % 1000) / 1000;
    double period = kDrmRecheckSeconds * (1 << std::min(t.drmEmptyScans, kDrmBackoffSteps));
    t.drmNextScan = now + period * (0.75 + 0.5 * spread);
    std::string folder = pidPath(pid, "fd/");
    DIR* dir = ::opendir(folder.c_str());  // null when not ours to list: counts as none found
    char target[256];
    while (dirent* entry = dir ? ::readdir(dir) : nullptr) {
      std::string_view name = entry->d_name;
      if (!isNumber(name)) continue;
      path_.assign(folder).append(name);
      ssize_t n = ::readlink(path_.c_str(), target, sizeof target);
      if (n <= 0 || std::string_view(target, static_cast<size_t>(n)).substr(0, kDriPrefix.size()) !=
                        kDriPrefix) {
        continue;
      }
      int fd = 0;
      std::from_chars(name.data(), name.data() + name.size(), fd);
      t.drmFds.push_back(fd);
    }
    if (dir) ::closedir(dir);
    t.drmEmptyScans = t.drmFds.empty() ? t.drmEmptyScans + 1 : 0;
  }

  std::optional<DrmClient> readFdinfo(int32_t pid, int fd) {
    char digits[16];
    auto [end, ec] = std::to_chars(digits, digits + sizeof digits, fd);
    (void)ec;
    pidPath(pid, "fdinfo/").append(digits, end);
    int file = ::open(path_.c_str(), O_RDONLY | O_CLOEXEC);
    if (file < 0) return std::nullopt;
    ssize_t n;
    do {
      n = ::read(file, buffer_, sizeof buffer_);
    } while (n < 0 && errno == EINTR);
    ::close(file);
    if (n <= 0) return std::nullopt;
    return parseDrmFdinfo(std::string_view(buffer_, static_cast<size_t>(n)));
  }

  std::optional<double> bootTime() {
    if (!bootTimeRead_) {
      bootTimeRead_ = true;
      if (auto text = readFile(joinPath(root_, "proc/stat"))) bootTime_ = parseBootTime(*text);
    }
    return bootTime_;
  }

  std::string root_;
  std::string procDir_;
  DesktopEntryFinder desktops_;
  const Clock& clock_;
  double tickNow_ = 0;  // uptime at the start of the current tick
  PsRunner ps_;
  TcpDumper tcp_;
  TcpLedger ledger_;
  std::vector<TcpSocketBytes> sockets_;                // the last dump, reused
  std::unordered_map<uint64_t, int32_t> socketOwner_;  // socket inode to the pid found holding it
  std::unordered_map<uint64_t, double> searchedAt_;    // unowned sockets looked for, and when
  uid_t euid_;
  uint64_t clockTicks_ = 100;
  uint64_t pageSize_ = 4096;
  size_t fdBudget_ = 768;
  size_t heldFds_ = 0;
  std::unordered_map<int32_t, Tracked> tracked_;
  std::vector<uint64_t> seenClients_;
  std::string path_;
  // stat, statm, io and fdinfo texts are a few hundred bytes; a DRM fdinfo with many engines stays
  // well under this.
  char buffer_[8192];
  bool bootTimeRead_ = false;
  std::optional<double> bootTime_;
};

}  // namespace

std::unique_ptr<ProcessSource> makeLinuxProcessSource(std::string root,
                                                      std::vector<std::string> desktopFolders,
                                                      const Clock& clock, PsRunner ps,
                                                      TcpDumper tcp) {
  return std::make_unique<LinuxProcessSource>(std::move(root), std::move(desktopFolders), clock,
                                              std::move(ps), std::move(tcp));
}

TcpDumper kernelTcpDumper() {
  auto diag = std::make_shared<TcpDiag>();
  return [diag](std::vector<TcpSocketBytes>& out) { return diag->dump(out); };
}

std::unique_ptr<ProcessSource> makeProcessSource() {
  return makeLinuxProcessSource("/", defaultDesktopFolders());
}

}  // namespace vistrel
