// Feeds arbitrary bytes to the socket-diagnostics dump walk. Whatever the bytes, it must stay
// inside them, and a socket it reports has an inode.
#include <cstddef>
#include <cstdint>
#include <vector>

#include "processes/process_parsers.hpp"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  std::vector<vistrel::TcpSocketBytes> sockets;
  vistrel::parseSockDiag(data, size, sockets);
  // Each socket needs at least a header and a diag message of 72 bytes.
  if (sockets.size() > size / 88) __builtin_trap();
  for (const auto& socket : sockets) {
    if (socket.inode == 0) __builtin_trap();
  }
  return 0;
}
