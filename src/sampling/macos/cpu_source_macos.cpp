// Per-core tick counters from the Mach host, load averages from libc, and the performance and
// efficiency core counts from sysctl.

#include <mach/mach.h>
#include <mach/processor_info.h>
#include <stdlib.h>

#include <climits>

#include "sampling/cpu_source.hpp"
#include "sampling/macos/cf_util.hpp"

namespace vistrel {
namespace {

// The counter array host_processor_info hands out is memory mapped into our task: it must go back
// with vm_deallocate, its size being the entry count in integer_t units.
class ProcessorInfo {
 public:
  ProcessorInfo() = default;
  ~ProcessorInfo() {
    if (data != nullptr) {
      vm_deallocate(mach_task_self(), reinterpret_cast<vm_address_t>(data),
                    static_cast<vm_size_t>(count) * sizeof(integer_t));
    }
  }
  ProcessorInfo(const ProcessorInfo&) = delete;
  ProcessorInfo& operator=(const ProcessorInfo&) = delete;

  processor_info_array_t data = nullptr;
  mach_msg_type_number_t count = 0;  // integer_t entries in `data`
};

int coreCount(const char* name) {
  const std::optional<int64_t> value = mac::sysctlInteger(name);
  return value && *value > 0 && *value <= INT_MAX ? static_cast<int>(*value) : 0;
}

class MacCPUSource final : public CPUSource {
 public:
  bool coreTicks(std::vector<CoreTicks>& out) override {
    out.clear();
    natural_t cpus = 0;
    ProcessorInfo info;
    if (host_processor_info(host_.get(), PROCESSOR_CPU_LOAD_INFO, &cpus, &info.data, &info.count) !=
            KERN_SUCCESS ||
        info.data == nullptr) {
      return false;
    }
    // Each core contributes CPU_STATE_MAX counters; never read past what was handed over.
    if (cpus == 0 || info.count / CPU_STATE_MAX < cpus) return false;
    out.reserve(cpus);
    for (natural_t cpu = 0; cpu < cpus; ++cpu) {
      const integer_t* ticks = info.data + static_cast<size_t>(cpu) * CPU_STATE_MAX;
      // The kernel keeps these as unsigned 32-bit counters in an integer_t array.
      out.push_back({static_cast<uint32_t>(ticks[CPU_STATE_USER]),
                     static_cast<uint32_t>(ticks[CPU_STATE_SYSTEM]),
                     static_cast<uint32_t>(ticks[CPU_STATE_IDLE]),
                     static_cast<uint32_t>(ticks[CPU_STATE_NICE])});
    }
    return true;
  }

  std::array<double, 3> loadAverages() override {
    std::array<double, 3> load{};
    // Fills as many samples as it can (or none, returning -1); the others stay 0.
    getloadavg(load.data(), static_cast<int>(load.size()));
    return load;
  }

  int performanceCores() override { return coreCount("hw.perflevel0.logicalcpu"); }
  int efficiencyCores() override { return coreCount("hw.perflevel1.logicalcpu"); }

 private:
  mac::HostPort host_;
};

}  // namespace

std::unique_ptr<CPUSource> makeCPUSource() {
  return std::make_unique<MacCPUSource>();
}

}  // namespace vistrel
