#pragma once

#include <cstdint>
#include <optional>
#include <utility>

namespace vistrel {

// Turns two cumulative byte counters into per-second rates between consecutive readings. The first
// reading, a counter that went down (a disk ejected, an interface restarted) or a clock that did
// not advance gives 0 for both: never a negative or huge rate. The next reading measures from the
// new counters.
class RateMeter {
 public:
  std::pair<double, double> update(uint64_t a, uint64_t b, double now);

 private:
  struct Last {
    uint64_t a, b;
    double time;
  };
  std::optional<Last> last_;
};

}  // namespace vistrel
