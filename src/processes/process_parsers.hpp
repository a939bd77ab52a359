#pragma once

// Parsers of what processes and process tools tell us. Pure functions over captured text or bytes,
// tested and fuzzed on any machine. None throws; malformed lines are skipped.

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <unordered_map>
#include <vector>

#include "processes/process_source.hpp"

namespace vistrel {

// --- macOS tools and buffers (portable) ---

// `ps -A -o pid=,ppid=,uid=,%cpu=,rss=,comm=`: six fields split at spaces (empty pieces dropped),
// the sixth the rest of the line, trimmed; rss in kilobytes becomes bytes. Lines with fewer fields
// or an unparsable number are skipped; a later line for a pid replaces an earlier one.
std::vector<PsRow> parsePS(std::string_view text);

// `nettop -P -L 1 -x -n -J bytes_in,bytes_out`: comma-separated lines under a header that names
// the columns, "time,,bytes_in,bytes_out," through a pipe (",bytes_in,bytes_out," on some
// systems): the columns are found by name, the process in the one without a title as "name.pid"
// (the pid after its last "."). Lines before a header are skipped; the last line for a pid wins.
std::unordered_map<int32_t, ProcessNetBytes> parseNettop(std::string_view text);

// A KERN_PROCARGS2 buffer: argc (32-bit, native order), the executable path and its zero padding,
// then up to argc zero-terminated strings. Empty when the buffer is shorter than 5 bytes. Invalid
// UTF-8 is repaired (each bad byte becomes U+FFFD).
std::vector<std::string> parseProcArgs2(const uint8_t* data, size_t size);

// The IOUserClientCreator text of a GPU client, "pid 123, Safari": the pid, or nullopt.
std::optional<int32_t> parseUserClientCreator(std::string_view text);

// Replaces each byte that is not part of valid UTF-8 with U+FFFD.
std::string repairUtf8(std::string_view text);

// --- Linux /proc files ---

// /proc/<pid>/stat. The command name sits in parentheses and may itself hold spaces, parentheses
// and newlines: the fields after it start after the LAST ')'.
struct ProcStat {
  std::string comm;
  char state = '?';
  int32_t ppid = 0;
  uint64_t utime = 0;      // clock ticks
  uint64_t stime = 0;      // clock ticks
  uint64_t starttime = 0;  // clock ticks after boot
  uint32_t flags = 0;      // PF_KTHREAD (0x00200000) marks a kernel thread
  bool operator==(const ProcStat&) const = default;
};
std::optional<ProcStat> parseProcPidStat(std::string_view text);

// /proc/<pid>/statm: (resident - shared) pages, the anonymous resident memory; nullopt when
// malformed.
std::optional<uint64_t> parseStatmAnonPages(std::string_view text);

// /proc/<pid>/status: the real uid (first number of the "Uid:" line).
std::optional<uint32_t> parseStatusUid(std::string_view text);

// /proc/<pid>/io: read_bytes and write_bytes (storage, not the page cache).
struct ProcIo {
  uint64_t readBytes = 0;
  uint64_t writeBytes = 0;
  bool operator==(const ProcIo&) const = default;
};
std::optional<ProcIo> parseProcIo(std::string_view text);

// /proc/<pid>/cgroup: the desktop application id of the process's systemd unit, if any:
// "app-<launcher>-<app id>-<n>.scope", "app-<app id>@<n>.service", "app-flatpak-<id>-<n>.scope",
// "snap.<name>.<app>-<uuid>.scope". nullopt for services, sessions and plain terminals' children.
std::optional<std::string> parseCgroupAppId(std::string_view text);

// /proc/<pid>/fdinfo/<fd> of a DRM device: its client id and the sum of its drm-engine-*
// nanoseconds; nullopt when the text is not a DRM client's.
struct DrmClient {
  uint64_t clientId = 0;
  uint64_t engineNs = 0;
  bool operator==(const DrmClient&) const = default;
};
std::optional<DrmClient> parseDrmFdinfo(std::string_view text);

// /proc/<pid>/cmdline: arguments separated (and usually ended) by zero bytes.
std::vector<std::string> parseCmdline(std::string_view text);

// --- Linux socket diagnostics (netlink bytes; portable) ---

// One TCP socket of a NETLINK_SOCK_DIAG dump, with the byte counters of its tcp_info.
struct TcpSocketBytes {
  uint64_t inode = 0;     // the socket's inode: "socket:[<inode>]" among its owner's descriptors
  uint32_t uid = 0;       // the user that created it
  uint64_t received = 0;  // tcpi_bytes_received: payload bytes received over the socket's life
  uint64_t acked = 0;     // tcpi_bytes_acked: payload bytes sent and acknowledged by the peer
  bool operator==(const TcpSocketBytes&) const = default;
};

enum class DumpStatus {
  more,    // every message parsed; the dump goes on in the next datagram
  done,    // the dump's end (NLMSG_DONE) was reached
  failed,  // an error message, or a message whose length does not fit the datagram
};

// One datagram of an inet_diag dump (SOCK_DIAG_BY_FAMILY or the older TCPDIAG_GETSOCK) requested
// with the INET_DIAG_INFO extension, in the host's
// byte order (netlink is never byte-swapped). Appends every socket that has an inode (time-wait
// entries have none) and a tcp_info long enough to hold both byte counters (kernels from 4.2);
// other messages and attributes are skipped.
DumpStatus parseSockDiag(const uint8_t* data, size_t size, std::vector<TcpSocketBytes>& out);

}  // namespace vistrel
