#pragma once

// Parsers of the Linux kernel's text files. Pure functions over captured text, so they are tested
// (and fuzzed) on any machine. None throws; malformed lines are skipped.

#include <array>
#include <cstdint>
#include <functional>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "sampling/cpu_source.hpp"
#include "sampling/disk_source.hpp"
#include "sampling/memory_source.hpp"

namespace vistrel {

// /proc/stat: the "cpuN" lines (not the aggregate "cpu" line) in order of N. user = user,
// nice = nice, system = system + irq + softirq, idle = idle + iowait, each truncated to 32 bits.
// Fills `out` (reusing its capacity); false and empty when there is no cpuN line.
bool parseProcStat(std::string_view text, std::vector<CoreTicks>& out);

// /proc/meminfo, the fields the memory source needs, converted from kB to bytes.
struct MemInfo {
  std::optional<uint64_t> memTotal, anonPages, sUnreclaim, kernelStack, pageTables, unevictable,
      zswap, buffers, cached, sReclaimable, shmem, swapTotal, swapFree;
  bool operator==(const MemInfo&) const = default;
};
MemInfo parseMeminfo(std::string_view text);

// The classification of Linux memory into the record's buckets (pressure left normal):
// app = AnonPages; wired = SUnreclaim + KernelStack + PageTables + Unevictable;
// compressed = Zswap + zramUsed; cached = Buffers + Cached + SReclaimable - Shmem (never below 0);
// swap from SwapTotal and SwapFree. Missing fields count as 0.
MemoryFigures memoryFromMeminfo(const MemInfo& info, uint64_t zramUsed);

// /sys/block/zramN/mm_stat: its third field, mem_used_total, in bytes; 0 when unreadable.
uint64_t parseZramUsed(std::string_view text);

// /proc/pressure/memory: critical when full avg10 >= 20; warning when some avg10 >= 10 or full
// avg10 >= 5; normal otherwise and for empty or malformed text.
Pressure parseMemoryPressure(std::string_view text);

// /proc/diskstats: sectors read and written (x 512 bytes) summed over the devices `include`
// accepts.
DiskCounters sumDiskstats(std::string_view text,
                          const std::function<bool(std::string_view name)>& include);

// One line of /proc/self/mountinfo.
struct MountEntry {
  uint32_t major = 0;
  uint32_t minor = 0;
  std::string mountPoint;  // octal escapes (\040 for a space) decoded
  std::string fsType;
  std::string source;
  bool operator==(const MountEntry&) const = default;
};
std::vector<MountEntry> parseMountinfo(std::string_view text);

// A file system that holds the user's files (ext4, xfs, btrfs, vfat, nfs, ...), as opposed to the
// kernel's virtual ones (proc, sysfs, tmpfs, squashfs, ...). overlay counts only when mounted at
// "/".
bool isRealFilesystem(std::string_view fsType, std::string_view mountPoint);

// /proc/net/route: the interface of the default route (destination 00000000, flag UP), the lowest
// metric winning; nullopt when there is none.
std::optional<std::string> parseDefaultRoute(std::string_view text);

// Decodes the octal escapes the kernel writes in mount points and labels ("\040" -> " ").
std::string decodeOctalEscapes(std::string_view text);

// A name in /dev/disk/by-label/: udev writes unsafe bytes as "\xHH" ("My\x20Disk"); octal escapes
// are decoded too.
std::string decodeDeviceLabel(std::string_view text);

// /proc/loadavg: its first three fields; zeros when malformed.
std::array<double, 3> parseLoadavg(std::string_view text);

// The number of CPUs in a kernel CPU list ("0-7,16,18-19" -> 11); 0 when empty or malformed.
int countCPUList(std::string_view text);

// A sysfs attribute holding one unsigned decimal number, surrounding blanks allowed; nullopt when
// it holds anything else.
std::optional<uint64_t> parseSysfsNumber(std::string_view text);

}  // namespace vistrel
