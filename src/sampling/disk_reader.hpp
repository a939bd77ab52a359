#pragma once

#include <memory>
#include <optional>
#include <vector>

#include "base/clock.hpp"
#include "sampling/disk_source.hpp"
#include "sampling/rate_meter.hpp"
#include "sampling/records.hpp"

namespace vistrel {

// Volumes worth showing, main volumes first: browsable (or unknown), with a known capacity above
// 1 GB (small system and recovery volumes are dropped on purpose).
std::vector<Volume> buildVolumes(const std::vector<VolumeInfo>& infos);

class DiskReader {
 public:
  DiskReader(std::unique_ptr<DiskSource> source, const Clock& clock);
  DiskStat read();

  // How long the volume list is kept, in seconds: re-listing mounts costs far more than the
  // counters, and volumes rarely change.
  double volumeEvery = 30;

 private:
  std::unique_ptr<DiskSource> source_;
  const Clock& clock_;
  RateMeter rates_;
  std::vector<Volume> cachedVolumes_;
  std::optional<double> volumesAt_;
};

}  // namespace vistrel
