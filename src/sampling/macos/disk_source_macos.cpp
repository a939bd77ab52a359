// Cumulative disk traffic from the "Statistics" dictionary of every IOBlockStorageDriver service,
// and the mounted volumes with the file system's resource values for each.

#include <sys/mount.h>
#include <sys/param.h>

#include <cstdlib>
#include <cstring>
#include <iterator>
#include <memory>

#include "sampling/disk_source.hpp"
#include "sampling/macos/cf_util.hpp"

namespace vistrel {
namespace {

// getmntinfo_r_np hands over a malloc'ed array that the caller frees; unlike getmntinfo it keeps
// no shared static buffer, so another thread listing mounts cannot overwrite ours.
struct FreeDeleter {
  void operator()(struct statfs* p) const { std::free(p); }
};

std::optional<uint64_t> nonNegative(std::optional<int64_t> value) {
  if (!value || *value < 0) return std::nullopt;
  return static_cast<uint64_t>(*value);
}

class MacDiskSource final : public DiskSource {
 public:
  DiskCounters counters() override {
    DiskCounters sum;
    const bool listed = mac::forEachService("IOBlockStorageDriver", [&](io_service_t service) {
      const mac::CFRef<CFTypeRef> property = mac::registryProperty(service, CFSTR("Statistics"));
      const auto stats = mac::cfAs<CFDictionaryRef>(property.get(), CFDictionaryGetTypeID());
      if (stats == nullptr) return;
      // Cumulative counters of separate disks; a wrapped sum reads as a reset to the rate rule.
      sum.read += mac::cfUInt64(mac::cfValue(stats, CFSTR("Bytes (Read)"))).value_or(0);
      sum.write += mac::cfUInt64(mac::cfValue(stats, CFSTR("Bytes (Write)"))).value_or(0);
    });
    return listed ? sum : DiskCounters{};
  }

  std::vector<VolumeInfo> volumes() override {
    std::vector<VolumeInfo> found;
    struct statfs* raw = nullptr;
    const int count = getmntinfo_r_np(&raw, MNT_NOWAIT);
    const std::unique_ptr<struct statfs, FreeDeleter> mounts(raw);
    if (count <= 0 || mounts == nullptr) return found;

    const void* keyList[] = {
        kCFURLVolumeNameKey,
        kCFURLVolumeTotalCapacityKey,
        kCFURLVolumeAvailableCapacityForImportantUsageKey,
        kCFURLVolumeAvailableCapacityKey,
        kCFURLVolumeIsBrowsableKey,
        kCFURLVolumeIsRootFileSystemKey,
    };
    const mac::CFRef<CFArrayRef> keys(CFArrayCreate(kCFAllocatorDefault, keyList,
                                                    static_cast<CFIndex>(std::size(keyList)),
                                                    &kCFTypeArrayCallBacks));
    if (!keys) return found;

    for (int i = 0; i < count; ++i) {
      const struct statfs& mount = mounts.get()[i];
      const size_t pathLength = strnlen(mount.f_mntonname, sizeof mount.f_mntonname);
      const mac::CFRef<CFURLRef> url(CFURLCreateFromFileSystemRepresentation(
          kCFAllocatorDefault, reinterpret_cast<const UInt8*>(mount.f_mntonname),
          static_cast<CFIndex>(pathLength), true));
      if (!url) continue;
      CFErrorRef rawError = nullptr;
      const mac::CFRef<CFDictionaryRef> values(
          CFURLCopyResourcePropertiesForKeys(url.get(), keys.get(), &rawError));
      const mac::CFRef<CFErrorRef> error(rawError);
      if (!values) continue;  // unreadable volumes are left out

      // A key missing from the answer means the value is unknown for this volume.
      VolumeInfo v;
      v.path.assign(mount.f_mntonname, pathLength);
      v.name = mac::cfString(mac::cfValue(values.get(), kCFURLVolumeNameKey));
      v.total = nonNegative(mac::cfInt64(mac::cfValue(values.get(), kCFURLVolumeTotalCapacityKey)));
      v.importantFree = mac::cfInt64(
          mac::cfValue(values.get(), kCFURLVolumeAvailableCapacityForImportantUsageKey));
      v.available =
          nonNegative(mac::cfInt64(mac::cfValue(values.get(), kCFURLVolumeAvailableCapacityKey)));
      v.browsable = mac::cfBool(mac::cfValue(values.get(), kCFURLVolumeIsBrowsableKey));
      v.isRoot =
          mac::cfBool(mac::cfValue(values.get(), kCFURLVolumeIsRootFileSystemKey)).value_or(false);
      found.push_back(std::move(v));
    }
    return found;
  }
};

}  // namespace

std::unique_ptr<DiskSource> makeDiskSource() {
  return std::make_unique<MacDiskSource>();
}

}  // namespace vistrel
