#pragma once

#include <array>
#include <cstdint>
#include <memory>
#include <vector>

namespace vistrel {

// Cumulative per-core tick counters, truncated to 32 bits so that the wrap-safe delta rule holds on
// every platform.
struct CoreTicks {
  uint32_t user = 0;
  uint32_t system = 0;
  uint32_t idle = 0;
  uint32_t nice = 0;
  bool operator==(const CoreTicks&) const = default;
};

// What the platform must provide to the CPU reader. Called only on the sampler's queue.
class CPUSource {
 public:
  virtual ~CPUSource() = default;
  // Fills `out` with one entry per logical core, in core order, reusing its capacity. False (and
  // `out` empty) when the counters cannot be read.
  virtual bool coreTicks(std::vector<CoreTicks>& out) = 0;
  // 1-, 5- and 15-minute load averages; zeros when unavailable.
  virtual std::array<double, 3> loadAverages() = 0;
  // Read once, when the reader is created; 0 when unavailable.
  virtual int performanceCores() = 0;
  virtual int efficiencyCores() = 0;
};

std::unique_ptr<CPUSource> makeCPUSource();

}  // namespace vistrel
