#include "sampling/cpu_reader.hpp"

namespace vistrel {

CPUReader::CPUReader(std::unique_ptr<CPUSource> source)
    : source_(std::move(source)),
      performanceCores_(source_->performanceCores()),
      efficiencyCores_(source_->efficiencyCores()) {}

CPUStat CPUReader::read() {
  CPUStat stat;
  if (!source_->coreTicks(current_) || current_.empty()) return stat;
  stat.load = source_->loadAverages();
  stat.performanceCores = performanceCores_;
  stat.efficiencyCores = efficiencyCores_;
  if (current_.size() != previous_.size()) {
    // First read, or a core came or went: the deltas would pair the wrong cores.
    std::swap(previous_, current_);
    return stat;
  }
  uint64_t userSum = 0, systemSum = 0, allSum = 0;
  stat.cores.reserve(current_.size());
  for (size_t i = 0; i < current_.size(); ++i) {
    // Unsigned 32-bit differences: a counter that wrapped round still gives the right delta.
    uint32_t user = current_[i].user - previous_[i].user;
    uint32_t nice = current_[i].nice - previous_[i].nice;
    uint32_t system = current_[i].system - previous_[i].system;
    uint32_t idle = current_[i].idle - previous_[i].idle;
    uint64_t busy = uint64_t{user} + nice + system;
    uint64_t all = busy + idle;
    stat.cores.push_back(all == 0 ? 0.0 : static_cast<double>(busy) / static_cast<double>(all));
    userSum += uint64_t{user} + nice;  // nice time counts as user time
    systemSum += system;
    allSum += all;
  }
  if (allSum > 0) {
    double all = static_cast<double>(allSum);
    stat.user = static_cast<double>(userSum) / all;
    stat.system = static_cast<double>(systemSum) / all;
    stat.total = static_cast<double>(userSum + systemSum) / all;
  }
  std::swap(previous_, current_);
  return stat;
}

}  // namespace vistrel
