#include "sampling/memory_reader.hpp"

namespace vistrel {

MemoryReader::MemoryReader(std::unique_ptr<MemorySource> source) : source_(std::move(source)) {}

MemoryStat MemoryReader::read() {
  if (!total_) total_ = source_->totalMemory();
  MemoryStat stat;
  stat.total = *total_;
  auto figures = source_->figures();
  if (!figures) return stat;
  stat.app = figures->app;
  stat.wired = figures->wired;
  stat.compressed = figures->compressed;
  stat.cached = figures->cached;
  stat.swapUsed = figures->swapUsed;
  stat.swapTotal = figures->swapTotal;
  stat.pressure = figures->pressure;
  // Saturating: the buckets are read at slightly different moments and may add up past the total.
  uint64_t used = stat.app;
  for (uint64_t part : {stat.wired, stat.compressed}) {
    used = used > UINT64_MAX - part ? UINT64_MAX : used + part;
  }
  stat.free = used < stat.total ? stat.total - used : 0;
  return stat;
}

}  // namespace vistrel
