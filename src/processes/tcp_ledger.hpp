#pragma once

// Per-process network bytes from per-socket counters. A process's sockets come and go: summing
// what its live sockets have moved would drop whenever one closes, so the ledger instead adds up,
// socket by socket, what each moved between two dumps, under the process that holds it. A
// process's totals therefore never go down, and a closed socket keeps what it moved.

#include <cstdint>
#include <functional>
#include <unordered_map>
#include <vector>

#include "processes/process_parsers.hpp"
#include "processes/process_source.hpp"

namespace vistrel {

class TcpLedger {
 public:
  // The pid that holds a socket inode, or 0 when unknown.
  using Owner = std::function<int32_t(uint64_t inode)>;

  // The sockets of `dump` that moved bytes since the last dump (new ones: any bytes at all) and
  // have no owner. Nothing is unowned at the first dump, which only sets the base.
  std::vector<uint64_t> unowned(const std::vector<TcpSocketBytes>& dump, const Owner& owner) const;

  // Adds what each socket moved since the last dump to its owner's totals (a socket without an
  // owner moves bytes for nobody), then makes `dump` the base of the next one. A socket whose
  // counters went down is a new socket under a reused inode: all of its bytes are new.
  void apply(const std::vector<TcpSocketBytes>& dump, const Owner& owner);

  // Cumulative bytes of a pid since the ledger first saw one of its sockets move; 0 when none.
  ProcessNetBytes total(int32_t pid) const;

  // Forgets the totals of every pid not in `livePids` (sorted).
  void retainOnly(const std::vector<int32_t>& livePids);

  size_t socketCount() const { return last_.size(); }
  // The socket was in the last dump.
  bool knows(uint64_t inode) const { return last_.count(inode) > 0; }

 private:
  struct Counts {
    uint64_t received = 0, acked = 0;
  };
  Counts moved(const TcpSocketBytes& socket) const;

  bool primed_ = false;
  struct Seen {
    Counts counts;
    uint32_t dump = 0;  // the dump that last had the socket
  };
  std::unordered_map<uint64_t, Seen> last_;  // inode to its counters at the last dump
  uint32_t dumps_ = 0;
  std::unordered_map<int32_t, ProcessNetBytes> totals_;  // pid to what its sockets moved
};

}  // namespace vistrel
