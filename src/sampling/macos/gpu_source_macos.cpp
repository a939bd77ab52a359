// The GPU's figures from the "PerformanceStatistics" dictionary of every IOAccelerator service,
// and its name from the processor's brand string.

#include "sampling/gpu_source.hpp"
#include "sampling/mac_decoders.hpp"
#include "sampling/macos/cf_util.hpp"

namespace vistrel {
namespace {

class MacGPUSource final : public GPUSource {
 public:
  std::string name() override {
    return gpuNameFromBrand(mac::sysctlString("machdep.cpu.brand_string"));
  }

  std::vector<AcceleratorStats> accelerators() override {
    std::vector<AcceleratorStats> found;
    mac::forEachService("IOAccelerator", [&](io_service_t service) {
      const mac::CFRef<CFTypeRef> property =
          mac::registryProperty(service, CFSTR("PerformanceStatistics"));
      const auto stats = mac::cfAs<CFDictionaryRef>(property.get(), CFDictionaryGetTypeID());
      if (stats == nullptr) return;
      AcceleratorStats s;
      s.deviceUtilization = mac::cfDouble(mac::cfValue(stats, CFSTR("Device Utilization %")));
      s.gpuActivity = mac::cfDouble(mac::cfValue(stats, CFSTR("GPU Activity(%)")));
      s.inUseSystemMemory = mac::cfUInt64(mac::cfValue(stats, CFSTR("In use system memory")));
      s.vramUsedBytes = mac::cfUInt64(mac::cfValue(stats, CFSTR("vramUsedBytes")));
      found.push_back(s);
    });
    return found;
  }
};

}  // namespace

std::unique_ptr<GPUSource> makeGPUSource() {
  return std::make_unique<MacGPUSource>();
}

}  // namespace vistrel
