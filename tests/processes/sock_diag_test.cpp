#include <gtest/gtest.h>

#include <algorithm>
#include <cstring>
#include <filesystem>
#include <map>

#include "base/files.hpp"
#include "processes/process_parsers.hpp"
#include "processes/tcp_ledger.hpp"

namespace vistrel {
namespace {

namespace fs = std::filesystem;

// A dump of the IPv4 TCP sockets of a machine, captured while two loopback connections were open:
// one that sent 1000 bytes and got 250 back, one that sent 70000 and got 3. Also holds the
// listening socket (no tcp_info bytes requested for it) and ends with NLMSG_DONE.
std::vector<uint8_t> capturedDump() {
  auto text = readFile((fs::path(VISTREL_FIXTURES) / "linux/sock-diag/tcp4-dump.bin").string());
  if (!text) return {};
  return std::vector<uint8_t>(text->begin(), text->end());
}

std::map<uint64_t, TcpSocketBytes> byInode(const std::vector<TcpSocketBytes>& sockets) {
  std::map<uint64_t, TcpSocketBytes> out;
  for (const auto& s : sockets) out[s.inode] = s;
  return out;
}

TEST(SockDiag, CapturedDump) {
  auto dump = capturedDump();
  ASSERT_FALSE(dump.empty());
  std::vector<TcpSocketBytes> sockets;
  EXPECT_EQ(parseSockDiag(dump.data(), dump.size(), sockets), DumpStatus::done);
  auto found = byInode(sockets);
  const TcpSocketBytes expected[] = {
      // The side that connected counts its SYN among the acknowledged bytes.
      {268548, 0, 250, 1001},  // client: sent 1000, received 250
      {268549, 0, 1000, 250},  // its server side
      {268550, 0, 3, 70001},
      {268551, 0, 70000, 3},
  };
  for (const auto& e : expected) {
    ASSERT_EQ(found.count(e.inode), 1u) << e.inode;
    EXPECT_EQ(found[e.inode], e) << e.inode;
  }
}

// Netlink messages built by hand: a header, then a payload.
std::vector<uint8_t> message(uint16_t type, const std::vector<uint8_t>& payload) {
  std::vector<uint8_t> out(16);
  uint32_t length = static_cast<uint32_t>(16 + payload.size());
  std::memcpy(out.data(), &length, 4);
  std::memcpy(out.data() + 4, &type, 2);
  out.insert(out.end(), payload.begin(), payload.end());
  while (out.size() % 4) out.push_back(0);
  return out;
}

// An inet_diag_msg for `inode`, with a tcp_info attribute of `infoSize` bytes.
std::vector<uint8_t> socketPayload(uint32_t inode, uint32_t uid, size_t infoSize, uint64_t received,
                                   uint64_t acked, uint16_t attrType = 2) {
  std::vector<uint8_t> p(72);
  std::memcpy(p.data() + 64, &uid, 4);
  std::memcpy(p.data() + 68, &inode, 4);
  // An attribute the walk must skip: INET_DIAG_CONG ("cubic").
  std::vector<uint8_t> cong = {10, 0, 4, 0, 'c', 'u', 'b', 'i', 'c', 0, 0, 0};
  p.insert(p.end(), cong.begin(), cong.end());
  std::vector<uint8_t> info(infoSize);
  if (infoSize >= 136) {
    std::memcpy(info.data() + 120, &acked, 8);
    std::memcpy(info.data() + 128, &received, 8);
  }
  uint16_t length = static_cast<uint16_t>(4 + infoSize);
  p.push_back(static_cast<uint8_t>(length & 0xff));
  p.push_back(static_cast<uint8_t>(length >> 8));
  p.push_back(static_cast<uint8_t>(attrType & 0xff));
  p.push_back(static_cast<uint8_t>(attrType >> 8));
  p.insert(p.end(), info.begin(), info.end());
  return p;
}

std::vector<uint8_t> join(std::initializer_list<std::vector<uint8_t>> parts) {
  std::vector<uint8_t> out;
  for (const auto& p : parts) out.insert(out.end(), p.begin(), p.end());
  return out;
}

TEST(SockDiag, BuiltMessagesAndFailures) {
  const auto a = message(20, socketPayload(11, 1000, 232, 5, 6));
  const auto done = message(3, {0, 0, 0, 0});
  struct Case {
    const char* what;
    std::vector<uint8_t> bytes;
    DumpStatus status;
    std::vector<uint64_t> inodes;
  } cases[] = {
      {"one socket, then the end", join({a, done}), DumpStatus::done, {11}},
      {"the dump goes on in the next datagram", a, DumpStatus::more, {11}},
      {"an old kernel's tcp_info without the byte counters",
       message(20, socketPayload(12, 1000, 104, 5, 6)),
       DumpStatus::more,
       {}},
      {"the attribute's flag bits are ignored",
       message(20, socketPayload(13, 0, 232, 1, 1, 0x8002)),
       DumpStatus::more,
       {13}},
      {"time-wait entries have no inode",
       message(20, socketPayload(0, 0, 232, 1, 1)),
       DumpStatus::more,
       {}},
      {"other message types are skipped",
       join({message(7, {1, 2, 3, 4}), a}),
       DumpStatus::more,
       {11}},
      {"an error message",
       join({a, message(2, {0xf3, 0xff, 0xff, 0xff})}),
       DumpStatus::failed,
       {11}},
      {"a diag message too short for its fields",
       message(20, std::vector<uint8_t>(40)),
       DumpStatus::more,
       {}},
      {"nothing at all", {}, DumpStatus::more, {}},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.what);
    std::vector<TcpSocketBytes> sockets;
    EXPECT_EQ(parseSockDiag(c.bytes.data(), c.bytes.size(), sockets), c.status);
    std::vector<uint64_t> inodes;
    for (const auto& s : sockets) inodes.push_back(s.inode);
    EXPECT_EQ(inodes, c.inodes);
  }
  std::vector<TcpSocketBytes> one;
  parseSockDiag(a.data(), a.size(), one);
  ASSERT_EQ(one.size(), 1u);
  EXPECT_EQ(one[0], (TcpSocketBytes{11, 1000, 5, 6}));
}

// A datagram cut anywhere never reads past its end and never invents a socket.
TEST(SockDiag, CutShortAnywhere) {
  auto dump = capturedDump();
  ASSERT_FALSE(dump.empty());
  std::vector<TcpSocketBytes> whole;
  parseSockDiag(dump.data(), dump.size(), whole);
  for (size_t size = 0; size < dump.size(); ++size) {
    std::vector<uint8_t> cut(dump.begin(), dump.begin() + static_cast<ptrdiff_t>(size));
    std::vector<TcpSocketBytes> sockets;
    DumpStatus status = parseSockDiag(cut.data(), cut.size(), sockets);
    EXPECT_NE(status, DumpStatus::done) << size;
    ASSERT_LE(sockets.size(), whole.size()) << size;
    for (size_t i = 0; i < sockets.size(); ++i) EXPECT_EQ(sockets[i], whole[i]) << size;
  }
}

TEST(TcpLedger, PerProcessTotalsFromPerSocketCounters) {
  TcpLedger ledger;
  std::map<uint64_t, int32_t> owners = {{1, 100}, {2, 100}, {3, 200}};
  auto owner = [&](uint64_t inode) {
    auto it = owners.find(inode);
    return it == owners.end() ? 0 : it->second;
  };
  struct Step {
    const char* what;
    std::vector<TcpSocketBytes> dump;
    std::vector<uint64_t> unowned;
    ProcessNetBytes p100, p200;
  } steps[] = {
      {"the first dump is the base", {{1, 0, 500, 50}, {2, 0, 10, 10}, {9, 0, 7, 7}}, {}, {}, {}},
      {"what each socket moved goes to its owner",
       {{1, 0, 600, 80}, {2, 0, 10, 20}, {9, 0, 7, 7}},
       {},
       {100, 40},
       {}},
      {"a new socket counts all of its bytes; one without an owner is reported once it moves",
       {{1, 0, 600, 80}, {2, 0, 10, 20}, {3, 0, 5, 1}, {9, 0, 8, 7}},
       {9},
       {100, 40},
       {5, 1}},
      {"a closed socket keeps what it moved: the total never goes down",
       {{2, 0, 15, 20}, {3, 0, 5, 1}},
       {},
       {105, 40},
       {5, 1}},
      {"counters that went down: a new socket under a reused inode",
       {{2, 0, 4, 2}, {3, 0, 5, 1}},
       {},
       {109, 42},
       {5, 1}},
      {"an idle socket without an owner is not reported",
       {{2, 0, 4, 2}, {8, 0, 0, 0}},
       {},
       {109, 42},
       {5, 1}},
  };
  for (const auto& step : steps) {
    SCOPED_TRACE(step.what);
    EXPECT_EQ(ledger.unowned(step.dump, owner), step.unowned);
    ledger.apply(step.dump, owner);
    EXPECT_EQ(ledger.total(100), step.p100);
    EXPECT_EQ(ledger.total(200), step.p200);
  }
  ledger.retainOnly({200});
  EXPECT_EQ(ledger.total(100), ProcessNetBytes{});
  EXPECT_EQ(ledger.total(200), (ProcessNetBytes{5, 1}));
  EXPECT_EQ(ledger.socketCount(), 2u);
}

}  // namespace
}  // namespace vistrel
