// Physical memory from sysctl, page counts from the Mach host's 64-bit VM statistics, swap from
// vm.swapusage and the kernel's memory-pressure level. The arithmetic is memoryFromVMPages'.

#include <mach/mach.h>
#include <mach/vm_page_size.h>
#include <sys/sysctl.h>

#include "sampling/mac_decoders.hpp"
#include "sampling/macos/cf_util.hpp"
#include "sampling/memory_source.hpp"

namespace vistrel {
namespace {

class MacMemorySource final : public MemorySource {
 public:
  uint64_t totalMemory() override {
    const std::optional<int64_t> bytes = mac::sysctlInteger("hw.memsize");
    return bytes && *bytes > 0 ? static_cast<uint64_t>(*bytes) : 0;
  }

  std::optional<MemoryFigures> figures() override {
    vm_statistics64_data_t vm{};
    mach_msg_type_number_t count = HOST_VM_INFO64_COUNT;
    if (host_statistics64(host_.get(), HOST_VM_INFO64, reinterpret_cast<host_info64_t>(&vm),
                          &count) != KERN_SUCCESS) {
      return std::nullopt;
    }
    VMPages pages;
    pages.pageSize = vm_kernel_page_size;
    pages.wired = vm.wire_count;
    pages.internal = vm.internal_page_count;
    pages.purgeable = vm.purgeable_count;
    pages.external = vm.external_page_count;
    pages.compressor = vm.compressor_page_count;
    MemoryFigures figures = memoryFromVMPages(pages);

    xsw_usage swap{};
    size_t length = sizeof swap;
    if (sysctlbyname("vm.swapusage", &swap, &length, nullptr, 0) == 0 && length == sizeof swap) {
      figures.swapTotal = swap.xsu_total;
      figures.swapUsed = swap.xsu_used;
    }

    figures.pressure = pressureFromLevel(mac::sysctlInteger("kern.memorystatus_vm_pressure_level"));
    return figures;
  }

 private:
  mac::HostPort host_;
};

}  // namespace

std::unique_ptr<MemorySource> makeMemorySource() {
  return std::make_unique<MacMemorySource>();
}

}  // namespace vistrel
