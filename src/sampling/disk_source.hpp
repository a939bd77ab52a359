#pragma once

#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <vector>

namespace vistrel {

// Cumulative bytes read and written by all physical disks together.
struct DiskCounters {
  uint64_t read = 0;
  uint64_t write = 0;
  bool operator==(const DiskCounters&) const = default;
};

// One mounted volume as the platform describes it, before the reader's filtering. Unknown values
// are absent.
struct VolumeInfo {
  std::string path;                      // mount point
  std::optional<std::string> name;       // the volume's own name
  std::optional<uint64_t> total;         // capacity in bytes
  std::optional<int64_t> importantFree;  // available for important usage (may be negative)
  std::optional<uint64_t> available;     // plain available capacity
  std::optional<bool> browsable;         // shown to the user
  bool isRoot = false;                   // the root file system
  bool operator==(const VolumeInfo&) const = default;
};

class DiskSource {
 public:
  virtual ~DiskSource() = default;
  // Zeros when the disks cannot be listed.
  virtual DiskCounters counters() = 0;
  // The mounted volumes in the system's order; volumes whose values cannot be read are left out.
  virtual std::vector<VolumeInfo> volumes() = 0;
};

std::unique_ptr<DiskSource> makeDiskSource();

}  // namespace vistrel
