#include "sampling/gpu_reader.hpp"

#include <algorithm>

namespace vistrel {

GPUStat chooseAccelerator(const std::vector<AcceleratorStats>& accelerators) {
  GPUStat stat;
  double best = -1;
  const AcceleratorStats* chosen = nullptr;
  for (const auto& a : accelerators) {
    double raw = a.deviceUtilization.value_or(a.gpuActivity.value_or(0.0));
    if (raw > best) {  // strictly greater: on a tie the earlier accelerator stays
      best = raw;
      chosen = &a;
    }
  }
  if (!chosen) return stat;
  stat.utilization = std::clamp(best / 100.0, 0.0, 1.0);
  stat.memoryInUse = chosen->inUseSystemMemory.value_or(chosen->vramUsedBytes.value_or(0));
  return stat;
}

GPUReader::GPUReader(std::unique_ptr<GPUSource> source) : source_(std::move(source)) {}

GPUStat GPUReader::read() {
  if (!name_) name_ = source_->name();
  GPUStat stat = chooseAccelerator(source_->accelerators());
  stat.name = *name_;
  return stat;
}

}  // namespace vistrel
