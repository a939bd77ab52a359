#include <errno.h>
#include <linux/inet_diag.h>
#include <linux/netlink.h>
#include <linux/sock_diag.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <sys/socket.h>
#include <sys/time.h>
#include <unistd.h>

#include <cstring>

#include "processes/linux/tcp_diag.hpp"

namespace vistrel {

namespace {

// Big enough for the kernel's largest dump datagram (it fills up to a page or 32 KiB).
constexpr size_t kBufferSize = 64 * 1024;

// Connection states in which a socket may carry data.
constexpr uint32_t kDataStates =
    (1u << TCP_ESTABLISHED) | (1u << TCP_SYN_SENT) | (1u << TCP_FIN_WAIT1) | (1u << TCP_FIN_WAIT2) |
    (1u << TCP_CLOSE_WAIT) | (1u << TCP_LAST_ACK) | (1u << TCP_CLOSING);

struct Request {
  nlmsghdr header;
  inet_diag_req_v2 body;
};

}  // namespace

TcpDiag::~TcpDiag() {
  close();
}

void TcpDiag::close() {
  if (fd_ >= 0) ::close(fd_);
  fd_ = -1;
}

bool TcpDiag::dump(std::vector<TcpSocketBytes>& out) {
  out.clear();
  if (fd_ < 0) {
    fd_ = ::socket(AF_NETLINK, SOCK_DGRAM | SOCK_CLOEXEC, NETLINK_SOCK_DIAG);
    if (fd_ < 0) return false;
    // The kernel answers at once; a second is only a bound against a reply that never comes.
    timeval timeout{1, 0};
    ::setsockopt(fd_, SOL_SOCKET, SO_RCVTIMEO, &timeout, sizeof timeout);
    buffer_.resize(kBufferSize);
  }
  if (bothAtOnce_) {
    if (dumpBoth(out)) return true;
    bothAtOnce_ = false;
    out.clear();
    close();
    return dump(out);
  }
  if (dumpFamily(AF_INET, out) && dumpFamily(AF_INET6, out)) return true;
  out.clear();
  close();
  return false;
}

bool TcpDiag::dumpBoth(std::vector<TcpSocketBytes>& out) {
  struct {
    nlmsghdr header;
    inet_diag_req body;
  } request{};
  request.header.nlmsg_len = sizeof request;
  request.header.nlmsg_type = TCPDIAG_GETSOCK;
  request.header.nlmsg_flags = NLM_F_REQUEST | NLM_F_DUMP;
  request.header.nlmsg_seq = ++sequence_;
  request.body.idiag_family = AF_INET;  // the older dump reports both families whatever this says
  request.body.idiag_ext = 1u << (INET_DIAG_INFO - 1);
  request.body.idiag_states = kDataStates;
  return send(&request, sizeof request) && receive(out);
}

bool TcpDiag::dumpFamily(uint8_t family, std::vector<TcpSocketBytes>& out) {
  Request request{};
  request.header.nlmsg_len = sizeof request;
  request.header.nlmsg_type = SOCK_DIAG_BY_FAMILY;
  request.header.nlmsg_flags = NLM_F_REQUEST | NLM_F_DUMP;
  request.header.nlmsg_seq = ++sequence_;
  request.body.sdiag_family = family;
  request.body.sdiag_protocol = IPPROTO_TCP;
  request.body.idiag_ext = 1u << (INET_DIAG_INFO - 1);
  request.body.idiag_states = kDataStates;
  return send(&request, sizeof request) && receive(out);
}

bool TcpDiag::send(const void* request, size_t size) {
  sockaddr_nl kernel{};
  kernel.nl_family = AF_NETLINK;
  ssize_t sent;
  do {
    sent = ::sendto(fd_, request, size, 0, reinterpret_cast<sockaddr*>(&kernel), sizeof kernel);
  } while (sent < 0 && errno == EINTR);
  return sent == static_cast<ssize_t>(size);
}

bool TcpDiag::receive(std::vector<TcpSocketBytes>& out) {
  while (true) {
    ssize_t n = ::recv(fd_, buffer_.data(), buffer_.size(), 0);
    if (n < 0 && errno == EINTR) continue;
    if (n <= 0) return false;
    switch (parseSockDiag(buffer_.data(), static_cast<size_t>(n), out)) {
      case DumpStatus::done:
        return true;
      case DumpStatus::failed:
        return false;
      case DumpStatus::more:
        break;
    }
  }
}

}  // namespace vistrel
