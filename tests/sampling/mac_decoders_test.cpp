#include "sampling/mac_decoders.hpp"

#include <gtest/gtest.h>

#include <cstring>
#include <limits>
#include <map>
#include <vector>

namespace vistrel {
namespace {

// ---- VM statistics
// -------------------------------------------------------------------------------

constexpr uint64_t kPage = 16384;  // Apple silicon's kernel page size

struct VMCase {
  const char* label;
  VMPages pages;
  uint64_t app, wired, compressed, cached;
};

TEST(MacDecoders, MemoryFromVMPages) {
  const VMCase cases[] = {
      {"typical machine",
       {kPage, 100, 1000, 200, 300, 50},
       800 * kPage,
       100 * kPage,
       50 * kPage,
       500 * kPage},
      {"purgeable above internal", {kPage, 10, 100, 150, 40, 0}, 0, 10 * kPage, 0, 190 * kPage},
      {"purgeable equal to internal", {kPage, 0, 70, 70, 0, 0}, 0, 0, 0, 70 * kPage},
      {"4 KiB pages", {4096, 1, 3, 1, 2, 5}, 2 * 4096, 4096, 5 * 4096, 3 * 4096},
      {"page size unknown", {0, 100, 1000, 200, 300, 50}, 0, 0, 0, 0},
      {"largest product that fits",
       {1, std::numeric_limits<uint64_t>::max(), 0, 0, 0, 0},
       0,
       std::numeric_limits<uint64_t>::max(),
       0,
       0},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.label);
    const MemoryFigures f = memoryFromVMPages(c.pages);
    EXPECT_EQ(f.app, c.app);
    EXPECT_EQ(f.wired, c.wired);
    EXPECT_EQ(f.compressed, c.compressed);
    EXPECT_EQ(f.cached, c.cached);
    // Swap and pressure come from other calls and must stay at their defaults.
    EXPECT_EQ(f.swapUsed, 0u);
    EXPECT_EQ(f.swapTotal, 0u);
    EXPECT_EQ(f.pressure, Pressure::normal);
  }
}

TEST(MacDecodersDeathTest, PageProductOverflowStopsTheProcess) {
  const uint64_t huge = std::numeric_limits<uint64_t>::max() / 2;
  const VMPages cases[] = {
      {kPage, huge, 0, 0, 0, 0},                              // wired
      {kPage, 0, huge, 0, 0, 0},                              // app
      {kPage, 0, 0, 0, 0, huge},                              // compressed
      {kPage, 0, 0, 0, huge, 0},                              // cached
      {1, 0, 0, huge + 2, huge + 2, 0},                       // external + purgeable
      {std::numeric_limits<uint64_t>::max(), 0, 0, 0, 0, 2},  // page size itself
  };
  for (size_t i = 0; i < std::size(cases); ++i) {
    SCOPED_TRACE(i);
    EXPECT_DEATH(memoryFromVMPages(cases[i]), "overflow");
  }
}

// ---- Memory pressure
// -----------------------------------------------------------------------------

TEST(MacDecoders, PressureFromLevel) {
  const struct {
    std::optional<int64_t> level;
    Pressure expected;
  } cases[] = {
      {0, Pressure::normal},
      {1, Pressure::normal},
      {2, Pressure::warning},
      {3, Pressure::normal},
      {4, Pressure::critical},
      {5, Pressure::normal},
      {-4, Pressure::normal},
      {std::nullopt, Pressure::normal},
      {int64_t{1} << 32 | 4, Pressure::normal},  // must not be truncated to 4
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.level ? std::to_string(*c.level) : "unreadable");
    EXPECT_EQ(pressureFromLevel(c.level), c.expected);
  }
}

// ---- Integer sysctl values
// -----------------------------------------------------------------------

TEST(MacDecoders, DecodeSysctlInteger) {
  const int32_t minusOne32 = -1;
  const int32_t eight32 = 8;
  const int64_t big64 = int64_t{68719476736};  // 64 GiB of hw.memsize
  const int64_t negative64 = -5;
  const struct {
    const char* label;
    const void* value;
    size_t valueSize;  // bytes copied into the buffer
    size_t length;     // what the system reported
    std::optional<int64_t> expected;
  } cases[] = {
      {"4-byte negative is signed", &minusOne32, 4, 4, -1},
      {"4-byte positive", &eight32, 4, 4, 8},
      {"8-byte value", &big64, 8, 8, big64},
      {"8-byte negative", &negative64, 8, 8, -5},
      {"zero length", &big64, 8, 0, std::nullopt},
      {"one byte", &big64, 8, 1, std::nullopt},
      {"two bytes", &big64, 8, 2, std::nullopt},
      {"three bytes", &big64, 8, 3, std::nullopt},
      {"five bytes", &big64, 8, 5, std::nullopt},
      {"seven bytes", &big64, 8, 7, std::nullopt},
      {"sixteen bytes", &big64, 8, 16, std::nullopt},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.label);
    // Read from an odd address: the decoder may not assume the buffer is aligned.
    uint8_t storage[1 + 16] = {};
    std::memcpy(storage + 1, c.value, c.valueSize);
    EXPECT_EQ(decodeSysctlInteger(storage + 1, c.length), c.expected);
  }
  EXPECT_EQ(decodeSysctlInteger(nullptr, 8), std::nullopt);
  EXPECT_EQ(decodeSysctlInteger(nullptr, 4), std::nullopt);
}

// ---- GPU name
// ------------------------------------------------------------------------------------

TEST(MacDecoders, GPUNameFromBrand) {
  const struct {
    std::optional<std::string> brand;
    std::string expected;
  } cases[] = {
      {"Apple M2", "Apple M2 GPU"},
      {"Apple M3 Max", "Apple M3 Max GPU"},
      {"Apple", "Apple GPU"},
      {"Intel(R) Core(TM) i9-9980HK CPU @ 2.40GHz", "GPU"},
      {"apple M1", "GPU"},  // the prefix is matched exactly
      {"Appl", "GPU"},
      {" Apple M1", "GPU"},
      {"", "GPU"},
      {std::nullopt, "GPU"},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.brand.value_or("<unreadable>"));
    EXPECT_EQ(gpuNameFromBrand(c.brand), c.expected);
  }
}

// ---- Routing messages
// ----------------------------------------------------------------------------

constexpr uint8_t kRTM_NEWADDR = 0x0c;
constexpr uint8_t kRTM_IFINFO = 0x0e;

struct Message {
  uint8_t type = kRTM_IFINFO2;
  uint16_t index = 0;
  uint64_t in = 0;
  uint64_t out = 0;
  uint16_t length = kIfMsgHdr2Size;  // the length field written into the message
  size_t bytes = kIfMsgHdr2Size;     // the bytes actually appended (a real message: == length)
};

Message ifinfo(uint16_t index, uint64_t in, uint64_t out) {
  return {kRTM_IFINFO2, index, in, out};
}

// Lays the messages out as the kernel does, host-endian, in struct if_msghdr2's layout: length at
// 0, version at 2, type at 3, index at 12, input bytes at 96 and output bytes at 104. Filler bytes
// are non-zero so that a decoder reading the wrong place sees garbage rather than zeros.
std::vector<uint8_t> build(const std::vector<Message>& messages, size_t lead = 0) {
  std::vector<uint8_t> out(lead, 0xEE);
  for (const auto& m : messages) {
    std::vector<uint8_t> bytes(std::max<size_t>(m.bytes, 112), 0xA5);
    std::memcpy(bytes.data() + 0, &m.length, 2);
    bytes[2] = 5;  // RTM_VERSION
    bytes[3] = m.type;
    std::memcpy(bytes.data() + 12, &m.index, 2);
    std::memcpy(bytes.data() + 96, &m.in, 8);
    std::memcpy(bytes.data() + 104, &m.out, 8);
    bytes.resize(m.bytes);
    out.insert(out.end(), bytes.begin(), bytes.end());
  }
  return out;
}

std::string_view nameFor(uint16_t index) {
  static const std::map<uint16_t, std::string> names = {
      {1, "lo0"}, {4, "en0"}, {5, "en1"}, {9, "utun3"}, {11, "bridge0"}, {12, "en10"}, {13, "e"}};
  const auto it = names.find(index);
  return it == names.end() ? std::string_view() : std::string_view(it->second);
}

TEST(MacDecoders, SumInterfaceMessages) {
  const uint64_t big = uint64_t{1} << 40;
  const struct {
    const char* label;
    std::vector<Message> messages;
    uint64_t in, out;
  } cases[] = {
      {"two en interfaces summed", {ifinfo(4, 1000, 2000), ifinfo(5, 30, 40)}, 1030, 2040},
      {"64-bit counters", {ifinfo(4, big, big + 1), ifinfo(12, 1, 2)}, big + 1, big + 3},
      {"loopback, tunnels and bridges ignored",
       {ifinfo(1, 7, 7), ifinfo(4, 10, 20), ifinfo(9, 500, 600), ifinfo(11, 3, 3)},
       10,
       20},
      {"a name that is only \"e\" is not en", {ifinfo(13, 8, 8), ifinfo(4, 1, 1)}, 1, 1},
      {"unknown index has no name", {ifinfo(77, 900, 900), ifinfo(5, 1, 2)}, 1, 2},
      {"zero length stops the walk",
       {ifinfo(4, 10, 20), {kRTM_IFINFO2, 5, 1, 1, 0, 160}, ifinfo(5, 300, 400)},
       10,
       20},
      {"address messages between interfaces are skipped by their length",
       {ifinfo(4, 10, 20),
        {kRTM_NEWADDR, 4, 0, 0, 20, 20},
        {kRTM_NEWADDR, 4, 0, 0, 52, 52},
        ifinfo(5, 300, 400)},
       310,
       420},
      {"an old-style interface message is not read as a 64-bit one",
       {{kRTM_IFINFO, 4, 999, 999, 160, 160}, ifinfo(5, 1, 2)},
       1,
       2},
      {"a longer message is stepped over by its own length",
       {{kRTM_IFINFO2, 4, 10, 20, 240, 240}, ifinfo(5, 1, 2)},
       11,
       22},
      {"an interface message too short for its counters is not read",
       {{kRTM_IFINFO2, 4, 999, 999, 100, 100}, ifinfo(5, 1, 2)},
       1,
       2},
      {"cut short in the middle of the last message",
       {ifinfo(4, 10, 20), {kRTM_IFINFO2, 5, 300, 400, 160, 130}},
       10,
       20},
      {"cut short with fewer bytes left than one message",
       {ifinfo(4, 10, 20), {kRTM_IFINFO2, 5, 300, 400, 160, 111}},
       10,
       20},
      {"a length that runs past the end stops the walk",
       {ifinfo(4, 10, 20), {kRTM_IFINFO2, 5, 300, 400, 0xFFFF, 160}},
       10,
       20},
      {"nothing at all", {}, 0, 0},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.label);
    // Both an aligned and a misaligned start: the walk copies fields out and never casts.
    for (size_t lead : {size_t{0}, size_t{1}, size_t{3}}) {
      SCOPED_TRACE(lead);
      const std::vector<uint8_t> buffer = build(c.messages, lead);
      const NetworkCounters got =
          sumInterfaceMessages(buffer.data() + lead, buffer.size() - lead, nameFor);
      EXPECT_EQ(got.in, c.in);
      EXPECT_EQ(got.out, c.out);
    }
  }
}

TEST(MacDecoders, SumInterfaceMessagesAsksForEachInterfaceIndex) {
  const std::vector<uint8_t> buffer =
      build({ifinfo(4, 1, 1), {kRTM_NEWADDR, 4, 0, 0, 20, 20}, ifinfo(1, 1, 1), ifinfo(5, 1, 1)});
  std::vector<uint16_t> asked;
  sumInterfaceMessages(buffer.data(), buffer.size(), [&](uint16_t index) {
    asked.push_back(index);
    return nameFor(index);
  });
  EXPECT_EQ(asked, (std::vector<uint16_t>{4, 1, 5}));
}

TEST(MacDecoders, SumInterfaceMessagesEmptyInputs) {
  const std::vector<uint8_t> buffer = build({ifinfo(4, 10, 20)});
  EXPECT_EQ(sumInterfaceMessages(nullptr, 0, nameFor), NetworkCounters{});
  EXPECT_EQ(sumInterfaceMessages(nullptr, 160, nameFor), NetworkCounters{});
  EXPECT_EQ(sumInterfaceMessages(buffer.data(), 0, nameFor), NetworkCounters{});
  EXPECT_EQ(sumInterfaceMessages(buffer.data(), kMinInterfaceMessage - 1, nameFor),
            NetworkCounters{});
}

}  // namespace
}  // namespace vistrel
