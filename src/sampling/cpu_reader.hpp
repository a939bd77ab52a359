#pragma once

#include <memory>
#include <vector>

#include "sampling/cpu_source.hpp"
#include "sampling/records.hpp"

namespace vistrel {

// Busy fractions from the per-core tick counters of two consecutive reads. The first read (and the
// first after the number of cores changes) only primes the counters and reports no load.
class CPUReader {
 public:
  explicit CPUReader(std::unique_ptr<CPUSource> source);
  CPUStat read();

 private:
  std::unique_ptr<CPUSource> source_;
  std::vector<CoreTicks> previous_;
  std::vector<CoreTicks> current_;  // reused buffer
  int performanceCores_;
  int efficiencyCores_;
};

}  // namespace vistrel
