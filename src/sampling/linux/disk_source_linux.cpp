#include <sys/statvfs.h>

#include <algorithm>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "base/files.hpp"
#include "sampling/linux/linux_sources.hpp"
#include "sampling/proc_parsers.hpp"

namespace vistrel {

namespace {

// Block devices that are not whole physical disks: their traffic is already counted on the disks
// underneath (partitions, device-mapper, software RAID) or never reaches a disk (loop, RAM disks,
// zram). Partitions have no `device` link; these prefixes guard against drivers that add one.
bool isVirtualBlockName(std::string_view name) {
  static constexpr std::string_view prefixes[] = {"loop", "ram", "zram", "dm-", "md", "nbd"};
  for (std::string_view prefix : prefixes) {
    if (name.substr(0, prefix.size()) == prefix) return true;
  }
  return false;
}

uint64_t mulSat(uint64_t a, uint64_t b) {
  return b != 0 && a > UINT64_MAX / b ? UINT64_MAX : a * b;
}

class LinuxDiskSource final : public DiskSource {
 public:
  LinuxDiskSource(std::string root, const Clock& clock, FilesystemSizer sizer)
      : root_(std::move(root)),
        clock_(clock),
        sizer_(std::move(sizer)),
        diskstatsPath_(joinPath(root_, "proc/diskstats")),
        mountinfoPath_(joinPath(root_, "proc/self/mountinfo")) {}

  DiskCounters counters() override {
    const std::vector<std::string>& disks = wholeDisks();
    if (disks.empty() || !readFile(diskstatsPath_, buffer_, 1 << 20)) return {};
    return sumDiskstats(buffer_, [&disks](std::string_view name) {
      return std::find(disks.begin(), disks.end(), name) != disks.end();
    });
  }

  std::vector<VolumeInfo> volumes() override {
    std::vector<VolumeInfo> result;
    if (!sizer_ || !readFile(mountinfoPath_, buffer_, 4 << 20)) return result;
    std::vector<MountEntry> mounts = parseMountinfo(buffer_);

    // One volume per file system (device id): bind mounts and btrfs subvolumes repeat a device
    // that is already listed. The root keeps its place as the main volume even when a bind mount
    // of the same device comes before it.
    std::vector<std::pair<uint32_t, uint32_t>> seen;
    for (const MountEntry& mount : mounts) {
      if (mount.mountPoint == "/" && isRealFilesystem(mount.fsType, mount.mountPoint)) {
        seen.emplace_back(mount.major, mount.minor);
      }
    }
    std::vector<std::pair<std::string, std::string>> labels = deviceLabels();
    bool rootListed = false;
    for (const MountEntry& mount : mounts) {
      if (!isRealFilesystem(mount.fsType, mount.mountPoint)) continue;
      bool isRoot = mount.mountPoint == "/";
      if (isRoot) {
        if (rootListed) continue;
        rootListed = true;
      } else {
        std::pair<uint32_t, uint32_t> id(mount.major, mount.minor);
        if (std::find(seen.begin(), seen.end(), id) != seen.end()) continue;
        seen.push_back(id);
      }
      std::optional<FilesystemSize> size = sizer_(mount.mountPoint);
      if (!size) continue;
      VolumeInfo info;
      info.path = mount.mountPoint;
      info.name = volumeName(mount, labels);
      info.total = size->total;
      info.available = size->available;
      info.browsable = true;
      info.isRoot = isRoot;
      result.push_back(std::move(info));
    }
    return result;
  }

 private:
  // Whole disks change only when one is plugged in or removed, so the list is cached and re-made
  // every kDeviceRecheckSeconds; between listings a new disk's traffic is simply not yet counted.
  const std::vector<std::string>& wholeDisks() {
    double now = clock_.uptime();
    if (disksAt_ && now - *disksAt_ < kDeviceRecheckSeconds && now >= *disksAt_) return disks_;
    disksAt_ = now;
    disks_.clear();
    std::string block = joinPath(root_, "sys/block");
    for (const std::string& name : listFolder(block)) {
      if (isVirtualBlockName(name)) continue;
      if (!pathExists(joinPath(joinPath(block, name), "device"))) continue;
      disks_.push_back(name);
    }
    return disks_;
  }

  // The last component of the device node a path names, following one symbolic link so that
  // "/dev/mapper/root" and a label's "../../dm-0" meet at "dm-0".
  std::string deviceNode(const std::string& path) {
    if (auto target = readLink(path)) return std::string(lastComponent(*target));
    return std::string(lastComponent(path));
  }

  // (device node, label) for every labelled file system udev knows about.
  std::vector<std::pair<std::string, std::string>> deviceLabels() {
    std::vector<std::pair<std::string, std::string>> labels;
    std::string folder = joinPath(root_, "dev/disk/by-label");
    for (const std::string& name : listFolder(folder)) {
      std::string label = decodeDeviceLabel(name);
      if (label.empty()) continue;
      labels.emplace_back(deviceNode(joinPath(folder, name)), std::move(label));
    }
    return labels;
  }

  std::string volumeName(const MountEntry& mount,
                         const std::vector<std::pair<std::string, std::string>>& labels) {
    if (mount.source.rfind("/dev/", 0) == 0 && !labels.empty()) {
      std::string node = deviceNode(joinPath(root_, mount.source));
      for (const auto& [labelNode, label] : labels) {
        if (!node.empty() && labelNode == node) return label;
      }
    }
    if (mount.mountPoint == "/") return "System";
    return std::string(lastComponent(mount.mountPoint));
  }

  std::string root_;
  const Clock& clock_;
  FilesystemSizer sizer_;
  std::string diskstatsPath_;
  std::string mountinfoPath_;
  std::string buffer_;
  std::vector<std::string> disks_;
  std::optional<double> disksAt_;
};

}  // namespace

std::optional<FilesystemSize> statFilesystem(const std::string& mountPoint) {
  struct statvfs st {};
  if (::statvfs(mountPoint.c_str(), &st) != 0) return std::nullopt;
  uint64_t fragment = st.f_frsize != 0 ? st.f_frsize : st.f_bsize;
  return FilesystemSize{mulSat(st.f_blocks, fragment), mulSat(st.f_bavail, fragment)};
}

std::unique_ptr<DiskSource> makeLinuxDiskSource(std::string root, const Clock& clock,
                                                FilesystemSizer sizer) {
  return std::make_unique<LinuxDiskSource>(std::move(root), clock, std::move(sizer));
}

std::unique_ptr<DiskSource> makeDiskSource() {
  return makeLinuxDiskSource("/");
}

}  // namespace vistrel
