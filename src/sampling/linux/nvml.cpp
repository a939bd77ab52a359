#include "sampling/linux/nvml.hpp"

#include <dlfcn.h>

#include <cstdio>

#include "base/files.hpp"

namespace vistrel {

namespace {

// The few NVML entry points used, declared here (nvml.h is not needed to build).
using NvmlReturn = int;  // nvmlReturn_t; 0 is NVML_SUCCESS
using NvmlDevice = struct NvmlDeviceOpaque*;
struct NvmlUtilization {
  unsigned int gpu;     // percent of the last sample period a kernel was running
  unsigned int memory;  // percent of it the memory was being read or written
};
struct NvmlMemory {
  unsigned long long total, free, used;  // bytes
};
struct NvmlPciInfo {  // nvmlPciInfo_t as of nvmlDeviceGetPciInfo_v3
  char busIdLegacy[16];
  unsigned int domain;
  unsigned int bus;
  unsigned int device;
  unsigned int pciDeviceId;
  unsigned int pciSubSystemId;
  char busId[32];
};
using NvmlInit = NvmlReturn (*)();
using NvmlShutdown = NvmlReturn (*)();
using NvmlGetCount = NvmlReturn (*)(unsigned int*);
using NvmlGetHandle = NvmlReturn (*)(unsigned int, NvmlDevice*);
using NvmlGetUtilization = NvmlReturn (*)(NvmlDevice, NvmlUtilization*);
using NvmlGetMemory = NvmlReturn (*)(NvmlDevice, NvmlMemory*);
using NvmlGetName = NvmlReturn (*)(NvmlDevice, char*, unsigned int);
using NvmlGetPci = NvmlReturn (*)(NvmlDevice, NvmlPciInfo*);
using NvmlGetPower = NvmlReturn (*)(NvmlDevice, unsigned int*);  // milliwatts
using NvmlGetTemperature = NvmlReturn (*)(NvmlDevice, int, unsigned int*);
constexpr NvmlReturn kNvmlSuccess = 0;
constexpr int kNvmlTemperatureGPU = 0;
constexpr unsigned int kNvidiaVendor = 0x10de;

const std::string kPciDevices = "/sys/bus/pci/devices";

// The NVIDIA display controllers (PCI class 0x03xxxx) of the machine, by sysfs folder.
std::vector<std::string> nvidiaDisplayDevices() {
  std::vector<std::string> found;
  for (const std::string& name : listFolder(kPciDevices)) {
    std::string folder = joinPath(kPciDevices, name);
    auto vendor = readLine(joinPath(folder, "vendor"));
    auto cls = readLine(joinPath(folder, "class"));
    if (!vendor || !cls) continue;
    if (std::strtoul(vendor->c_str(), nullptr, 16) != kNvidiaVendor) continue;
    if ((std::strtoul(cls->c_str(), nullptr, 16) >> 16) != 0x03) continue;
    found.push_back(std::move(folder));
  }
  return found;
}

}  // namespace

bool deviceSuspended(const std::string& deviceFolder) {
  auto status = readLine(joinPath(deviceFolder, "power/runtime_status"));
  return status && status->rfind("suspend", 0) == 0;  // "suspended", "suspending"
}

struct Nvml::Impl {
  void* library = nullptr;
  NvmlShutdown shutdown = nullptr;
  NvmlGetUtilization getUtilization = nullptr;
  NvmlGetMemory getMemory = nullptr;
  NvmlGetName getName = nullptr;
  NvmlGetPower getPower = nullptr;
  NvmlGetTemperature getTemperature = nullptr;
  struct Device {
    NvmlDevice handle;
    std::string pciFolder;  // empty when NVML could not say which PCI device it is
  };
  std::vector<Device> devices;
  std::vector<std::string> pciDevices;  // every NVIDIA display device, for unmapped handles

  bool asleep(const Device& d) const {
    if (!d.pciFolder.empty()) return deviceSuspended(d.pciFolder);
    // Unknown mapping: asleep as long as every NVIDIA device sleeps.
    for (const auto& folder : pciDevices) {
      if (!deviceSuspended(folder)) return false;
    }
    return !pciDevices.empty();
  }
};

struct NvmlLoader {
  // nullptr while the library cannot be opened yet (every NVIDIA device asleep); `gaveUp` when it
  // never will (no driver, no device).
  static Nvml* load(bool& gaveUp) {
    static std::vector<std::string> pci = nvidiaDisplayDevices();
    if (pci.empty()) {
      gaveUp = true;
      return nullptr;
    }
    bool anyAwake = false;
    for (const auto& folder : pci) anyAwake = anyAwake || !deviceSuspended(folder);
    if (!anyAwake) return nullptr;

    void* library = ::dlopen("libnvidia-ml.so.1", RTLD_NOW | RTLD_LOCAL);
    if (!library) {
      gaveUp = true;
      return nullptr;
    }
    auto sym = [&](const char* name) { return ::dlsym(library, name); };
    auto init = reinterpret_cast<NvmlInit>(sym("nvmlInit_v2"));
    auto getCount = reinterpret_cast<NvmlGetCount>(sym("nvmlDeviceGetCount_v2"));
    auto getHandle = reinterpret_cast<NvmlGetHandle>(sym("nvmlDeviceGetHandleByIndex_v2"));
    auto getPci = reinterpret_cast<NvmlGetPci>(sym("nvmlDeviceGetPciInfo_v3"));
    auto impl = new Nvml::Impl;
    impl->library = library;
    impl->pciDevices = pci;
    impl->shutdown = reinterpret_cast<NvmlShutdown>(sym("nvmlShutdown"));
    impl->getUtilization =
        reinterpret_cast<NvmlGetUtilization>(sym("nvmlDeviceGetUtilizationRates"));
    impl->getMemory = reinterpret_cast<NvmlGetMemory>(sym("nvmlDeviceGetMemoryInfo"));
    impl->getName = reinterpret_cast<NvmlGetName>(sym("nvmlDeviceGetName"));
    impl->getPower = reinterpret_cast<NvmlGetPower>(sym("nvmlDeviceGetPowerUsage"));
    impl->getTemperature = reinterpret_cast<NvmlGetTemperature>(sym("nvmlDeviceGetTemperature"));
    bool ok = init && getCount && getHandle && impl->getUtilization && impl->getMemory &&
              impl->getName && init() == kNvmlSuccess;
    unsigned int count = 0;
    if (ok && getCount(&count) == kNvmlSuccess) {
      for (unsigned int i = 0; i < count && i < 64; ++i) {
        NvmlDevice device = nullptr;
        if (getHandle(i, &device) != kNvmlSuccess || !device) continue;
        std::string folder;
        NvmlPciInfo info{};
        if (getPci && getPci(device, &info) == kNvmlSuccess) {
          char name[32];
          std::snprintf(name, sizeof name, "%04x:%02x:%02x.0", info.domain, info.bus, info.device);
          if (pathExists(joinPath(kPciDevices, name))) folder = joinPath(kPciDevices, name);
        }
        impl->devices.push_back({device, std::move(folder)});
      }
    }
    if (impl->devices.empty()) {
      if (ok && impl->shutdown) impl->shutdown();
      ::dlclose(library);
      delete impl;
      gaveUp = true;
      return nullptr;
    }
    return new Nvml(impl);
  }
};

Nvml::Nvml(Impl* impl) : impl_(impl) {}

Nvml::~Nvml() {
  if (impl_->shutdown) impl_->shutdown();
  ::dlclose(impl_->library);
  delete impl_;
}

Nvml* Nvml::shared() {
  // Lives for the process: NVML's initialisation is process-wide, and handles stay valid until
  // shutdown.
  static Nvml* nvml = nullptr;
  static bool gaveUp = false;
  if (!nvml && !gaveUp) nvml = NvmlLoader::load(gaveUp);
  return nvml;
}

size_t Nvml::deviceCount() const {
  return impl_->devices.size();
}

bool Nvml::asleep(size_t device) const {
  return device >= impl_->devices.size() || impl_->asleep(impl_->devices[device]);
}

std::optional<AcceleratorStats> Nvml::stats(size_t device) const {
  if (asleep(device)) return std::nullopt;
  NvmlDevice handle = impl_->devices[device].handle;
  AcceleratorStats stats;
  NvmlUtilization utilization{};
  if (impl_->getUtilization(handle, &utilization) == kNvmlSuccess) {
    stats.deviceUtilization = static_cast<double>(utilization.gpu);
  }
  NvmlMemory memory{};
  if (impl_->getMemory(handle, &memory) == kNvmlSuccess) stats.vramUsedBytes = memory.used;
  if (!stats.deviceUtilization && !stats.vramUsedBytes) return std::nullopt;
  return stats;
}

std::optional<std::string> Nvml::name(size_t device) const {
  if (asleep(device)) return std::nullopt;
  char buffer[96] = {};  // NVML_DEVICE_NAME_V2_BUFFER_SIZE
  if (impl_->getName(impl_->devices[device].handle, buffer, sizeof buffer) != kNvmlSuccess) {
    return std::nullopt;
  }
  buffer[sizeof buffer - 1] = '\0';
  std::string name(buffer);
  if (name.empty()) return std::nullopt;
  return name;
}

std::optional<double> Nvml::watts(size_t device) const {
  if (!impl_->getPower || asleep(device)) return std::nullopt;
  unsigned int milliwatts = 0;
  if (impl_->getPower(impl_->devices[device].handle, &milliwatts) != kNvmlSuccess) {
    return std::nullopt;
  }
  return milliwatts / 1000.0;
}

std::optional<double> Nvml::celsius(size_t device) const {
  if (!impl_->getTemperature || asleep(device)) return std::nullopt;
  unsigned int degrees = 0;
  if (impl_->getTemperature(impl_->devices[device].handle, kNvmlTemperatureGPU, &degrees) !=
      kNvmlSuccess) {
    return std::nullopt;
  }
  return static_cast<double>(degrees);
}

}  // namespace vistrel
