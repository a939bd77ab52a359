// The process layer's memory over a long run: 10,000 ticks with a process starting and another
// ending between ticks. The per-pid memories must hold no more than the live pids plus the pruning
// slack, and the resident size must stay flat. Then the same number of ticks over a synthetic /proc
// tree with kernel workers and unreadable processes coming and going: the open descriptors must
// stay flat too.
//
//   bench_process_soak [ticks, default 10000]

#include <algorithm>
#include <cstdio>
#include <cstdlib>

#include "base/clock.hpp"
#include "children.hpp"
#include "kernel_churn.hpp"
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

  auto churn2 = bench::soakKernelChurn(ticks);
  if (churn2.ran) {
    std::printf("kernel churn ticks: %d\n", ticks);
    std::printf("kernel churn fds after warm-up: %zu\n", churn2.descriptorsAfterWarmup);
    std::printf("kernel churn fds max: %zu\n", churn2.descriptorsMax);
    std::printf("kernel churn fds at end: %zu\n", churn2.descriptorsAtEnd);
    std::printf("kernel churn rss after warm-up: %.1f MB\n", churn2.rssAfterWarmup / 1e6);
    std::printf("kernel churn rss at end: %.1f MB\n", churn2.rssAtEnd / 1e6);
    std::printf("kernel churn hidden at end: %d\n", churn2.hiddenAtEnd);
  }
  return 0;
}
