#pragma once

// Per-process energy where the platform measures none of its own (Linux): the processor package's
// power shared out by CPU time.

#include <optional>
#include <vector>

#include "sampling/records.hpp"

namespace vistrel {

// Sets each process's `energy` to `packageWatts` x its share of the CPU time of this tick and
// returns their sum. The share's denominator is the machine's busy time (cpu.total x cores, in the
// processes' unit of percent of one core) or the processes' own sum when that is larger, so that
// time the kernel spent for nobody in particular is not pinned on the processes, and the shares
// never add up to more than the package drew. With no package power every `energy` is 0 and the
// result is absent: energy is unknown, not zero.
std::optional<double> apportionEnergy(std::vector<ProcessSample>& processes,
                                      std::optional<double> packageWatts, const CPUStat& cpu);

}  // namespace vistrel
