#pragma once

// Scriptable sources for reader and sampler tests: each returns what the test put in it and
// counts how often it was asked.

#include <deque>
#include <memory>
#include <utility>

#include "sampling/cpu_source.hpp"
#include "sampling/disk_source.hpp"
#include "sampling/gpu_source.hpp"
#include "sampling/memory_source.hpp"
#include "sampling/network_source.hpp"
#include "sampling/sampler.hpp"
#include "sampling/stages.hpp"

namespace vistrel::testing {

struct FakeCPU : CPUSource {
  std::deque<std::optional<std::vector<CoreTicks>>> script;  // one entry per read; nullopt fails
  std::array<double, 3> load{1.5, 1.0, 0.5};
  int reads = 0;
  bool coreTicks(std::vector<CoreTicks>& out) override {
    ++reads;
    out.clear();
    if (script.empty()) return false;
    auto next = std::move(script.front());
    script.pop_front();
    if (!next) return false;
    out = *next;
    return true;
  }
  std::array<double, 3> loadAverages() override { return load; }
  int performanceCores() override { return 4; }
  int efficiencyCores() override { return 2; }
};

struct FakeMemory : MemorySource {
  uint64_t total = 0;
  std::optional<MemoryFigures> next;
  int totalAsked = 0;
  uint64_t totalMemory() override {
    ++totalAsked;
    return total;
  }
  std::optional<MemoryFigures> figures() override { return next; }
};

struct FakeGPU : GPUSource {
  std::string gpuName = "Test GPU";
  std::vector<AcceleratorStats> stats;
  int nameAsked = 0;
  std::string name() override {
    ++nameAsked;
    return gpuName;
  }
  std::vector<AcceleratorStats> accelerators() override { return stats; }
};

struct FakeDisk : DiskSource {
  DiskCounters next;
  std::vector<VolumeInfo> mounted;
  int volumeListings = 0;
  DiskCounters counters() override { return next; }
  std::vector<VolumeInfo> volumes() override {
    ++volumeListings;
    return mounted;
  }
};

struct FakeNetwork : NetworkSource {
  NetworkCounters next;
  std::optional<std::string> primary;
  std::map<std::string, std::string> displayNames;
  int lookups = 0;
  int changes = 0;
  NetworkCounters counters() override { return next; }
  std::optional<std::string> primaryInterface() override {
    ++lookups;
    return primary;
  }
  std::string displayName(const std::string& name) override {
    auto it = displayNames.find(name);
    return it == displayNames.end() ? "" : it->second;
  }
  void interfacesChanged() override { ++changes; }
};

// A sampler whose machine readers are the fakes above, answering nothing: for tests of what
// consumes snapshots (the model, the window), which hand snapshots over themselves.
inline std::shared_ptr<Sampler> fakeSampler(MainQueue& main, const Clock& clock) {
  SamplerParts parts;
  parts.cpu = std::make_unique<FakeCPU>();
  parts.memory = std::make_unique<FakeMemory>();
  parts.gpu = std::make_unique<FakeGPU>();
  parts.disk = std::make_unique<FakeDisk>();
  parts.network = std::make_unique<FakeNetwork>();
  return Sampler::create(std::move(parts), main, clock);
}

}  // namespace vistrel::testing
