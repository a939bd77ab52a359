#include "processes/tcp_ledger.hpp"

#include <algorithm>
#include <limits>

namespace vistrel {

namespace {

uint64_t addSat(uint64_t a, uint64_t b) {
  return a > std::numeric_limits<uint64_t>::max() - b ? std::numeric_limits<uint64_t>::max()
                                                      : a + b;
}

}  // namespace

TcpLedger::Counts TcpLedger::moved(const TcpSocketBytes& socket) const {
  auto it = last_.find(socket.inode);
  if (it == last_.end() || socket.received < it->second.counts.received ||
      socket.acked < it->second.counts.acked) {
    return {socket.received, socket.acked};  // opened since the last dump
  }
  return {socket.received - it->second.counts.received, socket.acked - it->second.counts.acked};
}

std::vector<uint64_t> TcpLedger::unowned(const std::vector<TcpSocketBytes>& dump,
                                         const Owner& owner) const {
  std::vector<uint64_t> out;
  if (!primed_) return out;
  for (const auto& socket : dump) {
    Counts m = moved(socket);
    if ((m.received != 0 || m.acked != 0) && owner(socket.inode) == 0) out.push_back(socket.inode);
  }
  return out;
}

void TcpLedger::apply(const std::vector<TcpSocketBytes>& dump, const Owner& owner) {
  // Entries are updated in place and the sockets that were not in this dump dropped after it: no
  // map is rebuilt per dump.
  ++dumps_;
  for (const auto& socket : dump) {
    if (primed_) {
      Counts m = moved(socket);
      if (m.received != 0 || m.acked != 0) {
        if (int32_t pid = owner(socket.inode); pid > 0) {
          ProcessNetBytes& total = totals_[pid];
          total.in = addSat(total.in, m.received);
          total.out = addSat(total.out, m.acked);
        }
      }
    }
    last_[socket.inode] = {{socket.received, socket.acked}, dumps_};
  }
  std::erase_if(last_, [this](const auto& entry) { return entry.second.dump != dumps_; });
  primed_ = true;
}

ProcessNetBytes TcpLedger::total(int32_t pid) const {
  auto it = totals_.find(pid);
  return it == totals_.end() ? ProcessNetBytes{} : it->second;
}

void TcpLedger::retainOnly(const std::vector<int32_t>& livePids) {
  std::erase_if(totals_, [&](const auto& entry) {
    return !std::binary_search(livePids.begin(), livePids.end(), entry.first);
  });
}

}  // namespace vistrel
