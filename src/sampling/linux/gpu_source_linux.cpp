#include <dlfcn.h>

#include <optional>
#include <string>
#include <vector>

#include "base/files.hpp"
#include "sampling/linux/linux_sources.hpp"
#include "sampling/proc_parsers.hpp"

namespace vistrel {

namespace {

// The few NVML entry points used, declared here so that building needs no NVIDIA headers and
// running needs no NVIDIA driver: the library is opened at run time.
using NvmlReturn = int;  // nvmlReturn_t; 0 is NVML_SUCCESS
using NvmlDevice = struct NvmlDeviceOpaque*;
struct NvmlUtilization {
  unsigned int gpu;     // percent of the last sample period a kernel was running
  unsigned int memory;  // percent of it the memory was being read or written
};
struct NvmlMemory {
  unsigned long long total, free, used;  // bytes
};
using NvmlInit = NvmlReturn (*)();
using NvmlShutdown = NvmlReturn (*)();
using NvmlGetCount = NvmlReturn (*)(unsigned int*);
using NvmlGetHandle = NvmlReturn (*)(unsigned int, NvmlDevice*);
using NvmlGetUtilization = NvmlReturn (*)(NvmlDevice, NvmlUtilization*);
using NvmlGetMemory = NvmlReturn (*)(NvmlDevice, NvmlMemory*);
using NvmlGetName = NvmlReturn (*)(NvmlDevice, char*, unsigned int);
constexpr NvmlReturn kNvmlSuccess = 0;

// The NVIDIA management library, opened and initialised once per process (NVML's own
// initialisation is process-wide) and shut down at exit. Device handles stay valid until then.
class Nvml {
 public:
  static Nvml& shared() {
    static Nvml nvml;
    return nvml;
  }
  Nvml(const Nvml&) = delete;
  Nvml& operator=(const Nvml&) = delete;

  bool ready() const { return ready_; }
  const std::vector<NvmlDevice>& devices() const { return devices_; }

  std::optional<AcceleratorStats> stats(NvmlDevice device) const {
    AcceleratorStats stats;
    NvmlUtilization utilization{};
    if (getUtilization_(device, &utilization) == kNvmlSuccess) {
      stats.deviceUtilization = static_cast<double>(utilization.gpu);
    }
    NvmlMemory memory{};
    if (getMemory_(device, &memory) == kNvmlSuccess) stats.vramUsedBytes = memory.used;
    if (!stats.deviceUtilization && !stats.vramUsedBytes) return std::nullopt;
    return stats;
  }

  std::optional<std::string> name(NvmlDevice device) const {
    char buffer[96] = {};  // NVML_DEVICE_NAME_V2_BUFFER_SIZE
    if (getName_(device, buffer, sizeof buffer) != kNvmlSuccess) return std::nullopt;
    buffer[sizeof buffer - 1] = '\0';
    std::string name(buffer);
    if (name.empty()) return std::nullopt;
    return name;
  }

 private:
  Nvml() {
    library_ = ::dlopen("libnvidia-ml.so.1", RTLD_NOW | RTLD_LOCAL);
    if (!library_) return;  // no NVIDIA driver: the usual case
    auto init = reinterpret_cast<NvmlInit>(::dlsym(library_, "nvmlInit_v2"));
    shutdown_ = reinterpret_cast<NvmlShutdown>(::dlsym(library_, "nvmlShutdown"));
    auto getCount = reinterpret_cast<NvmlGetCount>(::dlsym(library_, "nvmlDeviceGetCount_v2"));
    auto getHandle =
        reinterpret_cast<NvmlGetHandle>(::dlsym(library_, "nvmlDeviceGetHandleByIndex_v2"));
    getUtilization_ =
        reinterpret_cast<NvmlGetUtilization>(::dlsym(library_, "nvmlDeviceGetUtilizationRates"));
    getMemory_ = reinterpret_cast<NvmlGetMemory>(::dlsym(library_, "nvmlDeviceGetMemoryInfo"));
    getName_ = reinterpret_cast<NvmlGetName>(::dlsym(library_, "nvmlDeviceGetName"));
    if (!init || !getCount || !getHandle || !getUtilization_ || !getMemory_ || !getName_) return;
    if (init() != kNvmlSuccess) return;
    initialised_ = true;
    unsigned int count = 0;
    if (getCount(&count) != kNvmlSuccess) return;
    for (unsigned int i = 0; i < count && i < 64; ++i) {
      NvmlDevice device = nullptr;
      if (getHandle(i, &device) == kNvmlSuccess && device) devices_.push_back(device);
    }
    ready_ = !devices_.empty();
  }
  ~Nvml() {
    if (initialised_ && shutdown_) shutdown_();
    if (library_) ::dlclose(library_);
  }

  void* library_ = nullptr;
  bool initialised_ = false;
  bool ready_ = false;
  NvmlShutdown shutdown_ = nullptr;
  NvmlGetUtilization getUtilization_ = nullptr;
  NvmlGetMemory getMemory_ = nullptr;
  NvmlGetName getName_ = nullptr;
  std::vector<NvmlDevice> devices_;
};

bool isCardName(const std::string& name) {
  // "card0" is a GPU; "card0-DP-1" is one of its connectors.
  if (name.size() < 5 || name.rfind("card", 0) != 0) return false;
  for (size_t i = 4; i < name.size(); ++i) {
    if (name[i] < '0' || name[i] > '9') return false;
  }
  return true;
}

class LinuxGPUSource final : public GPUSource {
 public:
  LinuxGPUSource(std::string root, const Clock& clock)
      : root_(std::move(root)), clock_(clock), useNvml_(root_ == "/") {}

  std::string name() override {
    if (useNvml_) {
      Nvml& nvml = Nvml::shared();
      if (nvml.ready()) {
        if (auto name = nvml.name(nvml.devices().front())) return *name;
      }
    }
    return "GPU";
  }

  std::vector<AcceleratorStats> accelerators() override {
    std::vector<AcceleratorStats> result;
    for (const AmdCard& card : amdCards()) {
      AcceleratorStats stats;
      // A discrete GPU that runtime power management has put to sleep is idle; reading its
      // counters would wake it and cost the battery what the monitor is meant to show.
      if (readFile(card.runtimeStatus, buffer_, 64) && buffer_.rfind("suspended", 0) == 0) {
        stats.deviceUtilization = 0;
        result.push_back(stats);
        continue;
      }
      if (readFile(card.busy, buffer_, 64)) {
        if (auto percent = parseSysfsNumber(buffer_)) {
          stats.deviceUtilization = static_cast<double>(*percent);
        }
      }
      if (readFile(card.vramUsed, buffer_, 64)) stats.vramUsedBytes = parseSysfsNumber(buffer_);
      if (stats.deviceUtilization || stats.vramUsedBytes) result.push_back(stats);
    }
    if (useNvml_) {
      Nvml& nvml = Nvml::shared();
      for (NvmlDevice device : nvml.devices()) {
        if (auto stats = nvml.stats(device)) result.push_back(*stats);
      }
    }
    return result;
  }

 private:
  struct AmdCard {
    std::string busy;           // device/gpu_busy_percent: percent
    std::string vramUsed;       // device/mem_info_vram_used: bytes
    std::string runtimeStatus;  // device/power/runtime_status: "active", "suspended", ...
  };

  // GPUs come and go only with an external enclosure or a driver reload, so the list of amdgpu
  // cards is cached and re-listed every kDeviceRecheckSeconds.
  const std::vector<AmdCard>& amdCards() {
    double now = clock_.uptime();
    if (cardsAt_ && now - *cardsAt_ < kDeviceRecheckSeconds && now >= *cardsAt_) return cards_;
    cardsAt_ = now;
    cards_.clear();
    std::string drm = joinPath(root_, "sys/class/drm");
    for (const std::string& name : listFolder(drm)) {
      if (!isCardName(name)) continue;
      std::string device = joinPath(joinPath(drm, name), "device");
      AmdCard card{joinPath(device, "gpu_busy_percent"), joinPath(device, "mem_info_vram_used"),
                   joinPath(device, "power/runtime_status")};
      if (pathExists(card.busy)) cards_.push_back(std::move(card));
    }
    return cards_;
  }

  std::string root_;
  const Clock& clock_;
  bool useNvml_;
  std::string buffer_;
  std::vector<AmdCard> cards_;
  std::optional<double> cardsAt_;
};

}  // namespace

std::unique_ptr<GPUSource> makeLinuxGPUSource(std::string root, const Clock& clock) {
  return std::make_unique<LinuxGPUSource>(std::move(root), clock);
}

std::unique_ptr<GPUSource> makeGPUSource() {
  return makeLinuxGPUSource("/");
}

}  // namespace vistrel
