#pragma once

#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <vector>

namespace vistrel {

// One accelerator's performance figures as the platform reports them; each may be missing.
struct AcceleratorStats {
  std::optional<double> deviceUtilization;  // "Device Utilization %" (percent)
  std::optional<double> gpuActivity;  // "GPU Activity(%)" (percent), used when the first is missing
  std::optional<uint64_t> inUseSystemMemory;  // "In use system memory" (bytes)
  std::optional<uint64_t> vramUsedBytes;      // "vramUsedBytes", used when the first is missing
  bool operator==(const AcceleratorStats&) const = default;
};

class GPUSource {
 public:
  virtual ~GPUSource() = default;
  // The GPU's display name; the reader asks once per process.
  virtual std::string name() = 0;
  // Every accelerator that reported figures, in the system's order. Empty when there is none.
  virtual std::vector<AcceleratorStats> accelerators() = 0;
};

std::unique_ptr<GPUSource> makeGPUSource();

}  // namespace vistrel
