#include "sampling/disk_reader.hpp"

#include <algorithm>

#include "base/files.hpp"

namespace vistrel {

namespace {
constexpr uint64_t kSmallestVolume = 1'000'000'000;  // bytes
}

std::vector<Volume> buildVolumes(const std::vector<VolumeInfo>& infos) {
  std::vector<Volume> volumes;
  for (const auto& info : infos) {
    if (info.browsable == false) continue;
    if (!info.total || *info.total <= kSmallestVolume) continue;
    Volume v;
    v.name = info.name && !info.name->empty() ? *info.name : std::string(lastComponent(info.path));
    v.path = info.path;
    v.total = *info.total;
    if (info.importantFree) {
      v.free = *info.importantFree < 0 ? 0 : static_cast<uint64_t>(*info.importantFree);
    } else {
      v.free = info.available.value_or(0);
    }
    v.isMain = info.isRoot || info.path == "/";
    volumes.push_back(std::move(v));
  }
  std::stable_sort(volumes.begin(), volumes.end(),
                   [](const Volume& a, const Volume& b) { return a.isMain && !b.isMain; });
  return volumes;
}

DiskReader::DiskReader(std::unique_ptr<DiskSource> source, const Clock& clock)
    : source_(std::move(source)), clock_(clock) {}

DiskStat DiskReader::read() {
  DiskStat stat;
  DiskCounters counters = source_->counters();
  double now = clock_.uptime();
  std::tie(stat.readRate, stat.writeRate) = rates_.update(counters.read, counters.write, now);
  if (cachedVolumes_.empty() || !volumesAt_ || now - *volumesAt_ >= volumeEvery) {
    volumesAt_ = now;
    cachedVolumes_ = buildVolumes(source_->volumes());
  }
  stat.volumes = cachedVolumes_;
  return stat;
}

}  // namespace vistrel
