// The sampler's own CPU time per tick with every reader of the machine-wide figures, as the debug
// timing line reports it. Ticks are spaced so that the readers see moving counters, as in use.

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <thread>
#include <vector>

#include "base/main_queue.hpp"
#include "machine.hpp"
#include "sampling/sampler.hpp"

int main(int argc, char** argv) {
  using namespace vistrel;
  int ticks = argc > 1 ? std::max(30, std::atoi(argv[1])) : 60;
  ManualMainQueue main;
  auto sampler = Sampler::create(SamplerParts{}, main);
  sampler->tickNow();  // primes the CPU counters and lists the volumes, as the first tick does
  main.drain();
  std::vector<double> costs;
  for (int i = 0; i < ticks; ++i) {
    std::this_thread::sleep_for(std::chrono::milliseconds(50));
    sampler->tickNow();
    costs.push_back(sampler->lastTickCost().selfMs);
    main.drain();
  }
  std::sort(costs.begin(), costs.end());
  std::printf("machine: %s\n", bench::describeMachine().c_str());
  std::printf("ticks: %d\n", ticks);
  std::printf("tick min: %.3f ms\n", costs.front());
  std::printf("tick median: %.3f ms\n", costs[costs.size() / 2]);
  std::printf("tick max: %.3f ms\n", costs.back());
  return 0;
}
