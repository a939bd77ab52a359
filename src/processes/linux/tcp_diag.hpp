#pragma once

#include <cstdint>
#include <vector>

#include "processes/process_parsers.hpp"

namespace vistrel {

// The kernel's socket-diagnostics interface (NETLINK_SOCK_DIAG), asked for every TCP socket of
// both families with its tcp_info. Needs no privilege. Most of a dump's cost is the kernel's walk
// of the whole connection hash table, which both families share: the older TCPDIAG_GETSOCK
// request walks it once for both, where SOCK_DIAG_BY_FAMILY walks it once per family (the
// fallback when the older request is refused). The socket is opened at the first dump and
// kept; after a failed dump it is closed, so that no stale answer is read by the next one.
class TcpDiag {
 public:
  TcpDiag() = default;
  ~TcpDiag();
  TcpDiag(const TcpDiag&) = delete;
  TcpDiag& operator=(const TcpDiag&) = delete;

  // Replaces `out` with the sockets that can carry data (listening and time-wait sockets are left
  // out). False, with `out` empty, when the interface is missing or the dump failed.
  bool dump(std::vector<TcpSocketBytes>& out);

 private:
  bool dumpBoth(std::vector<TcpSocketBytes>& out);
  bool dumpFamily(uint8_t family, std::vector<TcpSocketBytes>& out);
  bool send(const void* request, size_t size);
  bool receive(std::vector<TcpSocketBytes>& out);
  void close();

  int fd_ = -1;
  uint32_t sequence_ = 0;
  bool bothAtOnce_ = true;  // until the older request fails once
  std::vector<uint8_t> buffer_;
};

}  // namespace vistrel
