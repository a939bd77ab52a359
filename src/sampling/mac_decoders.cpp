#include "sampling/mac_decoders.hpp"

#include <cstdio>
#include <cstdlib>
#include <cstring>

namespace vistrel {

namespace {

// Byte offsets inside one RTM_IFINFO2 message (struct if_msghdr2 on 64-bit macOS). The header is
// naturally aligned; the embedded struct if_data64 starts at 32 and is packed to 4 bytes, which
// changes nothing before the counters below.
constexpr size_t kMsgLenOffset = 0;      // u_short ifm_msglen
constexpr size_t kTypeOffset = 3;        // u_char ifm_type
constexpr size_t kIndexOffset = 12;      // u_short ifm_index
constexpr size_t kInBytesOffset = 96;    // ifm_data.ifi_ibytes (32 + 64), u_int64_t
constexpr size_t kOutBytesOffset = 104;  // ifm_data.ifi_obytes (32 + 72), u_int64_t
constexpr size_t kCountersEnd = kOutBytesOffset + sizeof(uint64_t);

static_assert(kCountersEnd <= kMinInterfaceMessage,
              "the counters must lie inside the smallest interface message the walk accepts");
static_assert(kMinInterfaceMessage <= kIfMsgHdr2Size);

[[noreturn]] void fatal(const char* what) {
  std::fprintf(stderr, "vistrel: fatal: %s\n", what);
  std::abort();
}

uint64_t pagesToBytes(uint64_t pages, uint64_t pageSize) {
  uint64_t bytes = 0;
  if (__builtin_mul_overflow(pages, pageSize, &bytes))
    fatal("page count times page size overflows");
  return bytes;
}

// The routing messages are host-endian and the buffer carries no alignment promise for us, so
// every field is copied out rather than read through a cast pointer.
template <typename T>
T readAt(const uint8_t* data, size_t offset) {
  T value;
  std::memcpy(&value, data + offset, sizeof(T));
  return value;
}

}  // namespace

MemoryFigures memoryFromVMPages(const VMPages& pages) {
  MemoryFigures figures;
  // Purgeable pages are counted inside internal ones but the system may drop them at any time, so
  // they belong with the cache rather than with what applications hold.
  const uint64_t appPages = pages.internal > pages.purgeable ? pages.internal - pages.purgeable : 0;
  uint64_t cachedPages = 0;
  if (__builtin_add_overflow(pages.external, pages.purgeable, &cachedPages)) {
    fatal("external plus purgeable page count overflows");
  }
  figures.app = pagesToBytes(appPages, pages.pageSize);
  figures.wired = pagesToBytes(pages.wired, pages.pageSize);
  figures.compressed = pagesToBytes(pages.compressor, pages.pageSize);
  figures.cached = pagesToBytes(cachedPages, pages.pageSize);
  return figures;
}

Pressure pressureFromLevel(std::optional<int64_t> level) {
  if (!level) return Pressure::normal;
  switch (*level) {
    case 2:
      return Pressure::warning;
    case 4:
      return Pressure::critical;
    default:
      return Pressure::normal;
  }
}

std::optional<int64_t> decodeSysctlInteger(const void* buffer, size_t length) {
  if (buffer == nullptr) return std::nullopt;
  if (length == sizeof(int32_t)) {
    int32_t value = 0;
    std::memcpy(&value, buffer, sizeof value);
    return value;
  }
  if (length == sizeof(int64_t)) {
    int64_t value = 0;
    std::memcpy(&value, buffer, sizeof value);
    return value;
  }
  return std::nullopt;
}

std::string gpuNameFromBrand(const std::optional<std::string>& brand) {
  constexpr std::string_view kApple = "Apple";
  if (brand && std::string_view(*brand).substr(0, kApple.size()) == kApple) {
    return *brand + " GPU";
  }
  return "GPU";
}

NetworkCounters sumInterfaceMessages(
    const uint8_t* data, size_t size,
    const std::function<std::string_view(uint16_t index)>& nameOf) {
  NetworkCounters totals;
  if (data == nullptr) return totals;
  size_t offset = 0;
  // offset <= size holds throughout: the loop only advances past a message that fits.
  while (size - offset >= kMinInterfaceMessage) {
    const uint8_t* message = data + offset;
    const uint16_t length = readAt<uint16_t>(message, kMsgLenOffset);
    if (length == 0) break;
    // A message running past the end means the buffer was cut short; nothing after it (nor the
    // message itself) can be trusted.
    if (length > size - offset) break;
    if (message[kTypeOffset] == kRTM_IFINFO2 && length >= kCountersEnd) {
      const std::string_view name = nameOf(readAt<uint16_t>(message, kIndexOffset));
      if (name.substr(0, 2) == "en") {
        // Cumulative counters of independent interfaces: a sum that wraps is left to the rate
        // rule, which treats a counter that went down as a reset.
        totals.in += readAt<uint64_t>(message, kInBytesOffset);
        totals.out += readAt<uint64_t>(message, kOutBytesOffset);
      }
    }
    if (__builtin_add_overflow(offset, size_t{length}, &offset)) {
      fatal("routing message offset overflows");
    }
  }
  return totals;
}

}  // namespace vistrel
