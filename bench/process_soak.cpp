// The process layer's memory over a long run: 10,000 ticks with a process starting and another
// ending between ticks. The per-pid memories must hold no more than the live pids plus the pruning
// slack, and the resident size must stay flat.
//
//   bench_process_soak [ticks, default 10000]

#include <algorithm>
#include <cstdio>
#include <cstdlib>

#include "base/clock.hpp"
#include "children.hpp"
#include "machine.hpp"
#include "processes/process_stages.hpp"

int main(int argc, char** argv) {
  using namespace vistrel;
  int ticks = argc > 1 ? std::max(1000, std::atoi(argv[1])) : 10000;
  bench::IdleChildren churn;
  for (int i = 0; i < 20; ++i) churn.startOne();

  auto layer = makeProcessLayer();
  CPUStat cpu;
  MemoryStat memory;
  memory.total = 1ull << 34;
  size_t warmup = 200, rssStart = 0, maxLast = 0, maxInfo = 0, live = 0, appCount = 0;
  for (int i = 0; i < ticks; ++i) {
    churn.endOldest();
    churn.startOne();
    auto samples = layer->sampler.sample(i % 3 == 0, 9.5, true);
    auto apps =
        layer->grouper.group(samples, layer->queries, {}, cpu, memory, layer->sampler.hidden());
    appCount = apps.size();
    live = samples.size() + static_cast<size_t>(layer->sampler.hidden());
    auto sizes = layer->sampler.memorySizes();
    if (static_cast<size_t>(i) >= warmup) {
      maxLast = std::max(maxLast, sizes.last);
      maxInfo = std::max(maxInfo, sizes.info);
    }
    if (static_cast<size_t>(i) == warmup) rssStart = bench::residentBytes();
  }
  auto sizes = layer->sampler.memorySizes();
  std::printf("machine: %s\n", bench::describeMachine().c_str());
  std::printf("ticks: %d\n", ticks);
  std::printf("processes started and ended: %d\n", ticks);
  std::printf("live pids at end: %zu\n", live);
  std::printf("apps at end: %zu\n", appCount);
  std::printf("rss after warm-up: %.1f MB\n", rssStart / 1e6);
  std::printf("rss at end: %.1f MB\n", bench::residentBytes() / 1e6);
  std::printf("map last at end: %zu\n", sizes.last);
  std::printf("map info at end: %zu\n", sizes.info);
  std::printf("map gpuShare at end: %zu\n", sizes.gpuShare);
  std::printf("map last max: %zu\n", maxLast);
  std::printf("map info max: %zu\n", maxInfo);
  return 0;
}
