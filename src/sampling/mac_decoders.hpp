#pragma once

// Decoders of the raw values the macOS sources read. Portable, so that the arithmetic is tested on
// any machine from captured inputs; the macOS sources only make the system calls.

#include <cstddef>
#include <cstdint>
#include <functional>
#include <optional>
#include <string>
#include <string_view>

#include "sampling/memory_source.hpp"
#include "sampling/network_source.hpp"

namespace vistrel {

// Page counts of the 64-bit VM statistics and the kernel page size.
struct VMPages {
  uint64_t pageSize = 0;
  uint64_t wired = 0;       // wire_count
  uint64_t internal = 0;    // internal_page_count
  uint64_t purgeable = 0;   // purgeable_count
  uint64_t external = 0;    // external_page_count
  uint64_t compressor = 0;  // compressor_page_count
};

// app = (internal - purgeable) pages (0 when purgeable >= internal); wired; compressed;
// cached = (external + purgeable) pages. Swap and pressure are left at their defaults. A product
// that overflows 64 bits is a programming error and stops the process.
MemoryFigures memoryFromVMPages(const VMPages& pages);

// kern.memorystatus_vm_pressure_level: 2 warning, 4 critical, anything else (or unreadable) normal.
Pressure pressureFromLevel(std::optional<int64_t> level);

// An integer sysctl value read into a 64-bit buffer: a 4-byte result is a signed 32-bit value, an
// 8-byte one a signed 64-bit value; any other length is unavailable.
std::optional<int64_t> decodeSysctlInteger(const void* buffer, size_t length);

// The GPU's name from the processor's brand string: "Apple M2" gives "Apple M2 GPU"; anything not
// beginning with "Apple", or no string, gives "GPU".
std::string gpuNameFromBrand(const std::optional<std::string>& brand);

// Walks an NET_RT_IFLIST2 buffer: messages follow each other by their 16-bit length field; the walk
// stops at a zero length or when fewer bytes than one interface message remain. For each
// RTM_IFINFO2 message whose interface name (from `nameOf(index)`) begins with "en", adds its 64-bit
// input and output byte counters to the totals.
NetworkCounters sumInterfaceMessages(const uint8_t* data, size_t size,
                                     const std::function<std::string_view(uint16_t index)>& nameOf);

// Layout of the routing messages above (from <net/route.h> and <net/if.h> on macOS), fixed here so
// that the walk can be tested anywhere.
inline constexpr uint8_t kRTM_IFINFO2 = 0x12;
inline constexpr size_t kIfMsgHdr2Size = 160;  // sizeof(struct if_msghdr2) on 64-bit macOS
inline constexpr size_t kMinInterfaceMessage = 112;

}  // namespace vistrel
