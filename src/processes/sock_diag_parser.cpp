// The netlink messages of a socket-diagnostics dump, walked from raw bytes. The layouts are the
// kernel's ABI (linux/netlink.h, linux/inet_diag.h, linux/tcp.h); they are spelled out here so that
// the walk builds and is tested on any platform.

#include <cstring>

#include "processes/process_parsers.hpp"

namespace vistrel {

namespace {

// struct nlmsghdr: u32 length, u16 type, u16 flags, u32 sequence, u32 port id.
constexpr size_t kHeaderSize = 16;
constexpr uint16_t kNlmsgError = 2;
constexpr uint16_t kNlmsgDone = 3;
constexpr uint16_t kSockDiagByFamily = 20;
constexpr uint16_t kTcpDiagGetSock = 18;  // the older request type answers with its own type

// struct inet_diag_msg: 4 bytes of family and state, a 48-byte socket id, then u32 expires,
// rqueue, wqueue, uid and inode.
constexpr size_t kDiagMsgSize = 72;
constexpr size_t kUidOffset = 64;
constexpr size_t kInodeOffset = 68;

// struct rtattr: u16 length (header included), u16 type; the payload follows.
constexpr size_t kAttrHeaderSize = 4;
constexpr uint16_t kAttrTypeMask = 0x3fff;  // the two top bits are netlink flags
constexpr uint16_t kInetDiagInfo = 2;       // the payload is a struct tcp_info

// struct tcp_info: the two 64-bit byte counters, and how far a tcp_info must reach to hold both.
constexpr size_t kBytesAckedOffset = 120;
constexpr size_t kBytesReceivedOffset = 128;
constexpr size_t kTcpInfoWithBytes = 136;

constexpr size_t align4(size_t n) {
  return (n + 3) & ~size_t{3};
}

template <typename T>
T load(const uint8_t* at) {
  T value;
  std::memcpy(&value, at, sizeof value);
  return value;
}

void parseSocket(const uint8_t* msg, size_t size, std::vector<TcpSocketBytes>& out) {
  if (size < kDiagMsgSize) return;
  TcpSocketBytes socket;
  socket.uid = load<uint32_t>(msg + kUidOffset);
  socket.inode = load<uint32_t>(msg + kInodeOffset);
  if (socket.inode == 0) return;
  bool counted = false;
  size_t at = align4(kDiagMsgSize);
  while (at + kAttrHeaderSize <= size) {
    size_t length = load<uint16_t>(msg + at);
    uint16_t type = load<uint16_t>(msg + at + 2) & kAttrTypeMask;
    if (length < kAttrHeaderSize || length > size - at) break;  // cut short: the rest is lost
    if (type == kInetDiagInfo && length - kAttrHeaderSize >= kTcpInfoWithBytes) {
      const uint8_t* info = msg + at + kAttrHeaderSize;
      socket.acked = load<uint64_t>(info + kBytesAckedOffset);
      socket.received = load<uint64_t>(info + kBytesReceivedOffset);
      counted = true;
    }
    at += align4(length);
  }
  if (counted) out.push_back(socket);
}

}  // namespace

DumpStatus parseSockDiag(const uint8_t* data, size_t size, std::vector<TcpSocketBytes>& out) {
  size_t at = 0;
  while (size - at >= kHeaderSize) {
    size_t length = load<uint32_t>(data + at);
    uint16_t type = load<uint16_t>(data + at + 4);
    if (length < kHeaderSize || length > size - at) return DumpStatus::failed;
    if (type == kNlmsgDone) return DumpStatus::done;
    if (type == kNlmsgError) return DumpStatus::failed;
    if (type == kSockDiagByFamily || type == kTcpDiagGetSock) {
      parseSocket(data + at + kHeaderSize, length - kHeaderSize, out);
    }
    at += align4(length);
    if (at > size) break;  // the last message's padding is not always there
  }
  return DumpStatus::more;
}

}  // namespace vistrel
