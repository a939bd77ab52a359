#pragma once

// The Linux sources, built over a root folder that stands for "/" so that tests can point them at
// a captured tree. The plain factories (makeCPUSource() and the others) use the root "/" and the
// system clock.
//
// Some sources cache what changes only when hardware comes or goes (the list of whole disks, of
// physical network interfaces, of GPU devices, of zram devices) and re-check it on a slow clock:
// listing /sys costs several directory reads and link look-ups, far more than the counters
// themselves, and a tick runs every two seconds.

#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <string>

#include "base/clock.hpp"
#include "sampling/cpu_source.hpp"
#include "sampling/disk_source.hpp"
#include "sampling/gpu_source.hpp"
#include "sampling/linux/hwmon.hpp"
#include "sampling/memory_source.hpp"
#include "sampling/network_source.hpp"
#include "sampling/stages.hpp"

namespace vistrel {

// How long a cached device list is trusted before /sys is listed again, in seconds.
inline constexpr double kDeviceRecheckSeconds = 30;

std::unique_ptr<CPUSource> makeLinuxCPUSource(std::string root);

std::unique_ptr<MemorySource> makeLinuxMemorySource(std::string root,
                                                    const Clock& clock = Clock::system());

// NVML is consulted only for the real root "/": a captured tree has no NVIDIA driver to ask.
std::unique_ptr<GPUSource> makeLinuxGPUSource(std::string root,
                                              const Clock& clock = Clock::system());

// The size of a mounted file system in bytes, as statvfs gives it.
struct FilesystemSize {
  uint64_t total = 0;      // f_blocks x f_frsize
  uint64_t available = 0;  // f_bavail x f_frsize: what an unprivileged user can still write
};
// Sizes a mount point (the path as mountinfo gives it, not joined to the root); nullopt when it
// cannot be read. Injected because a captured tree cannot fake statvfs.
using FilesystemSizer = std::function<std::optional<FilesystemSize>(const std::string& mountPoint)>;
// The real statvfs.
std::optional<FilesystemSize> statFilesystem(const std::string& mountPoint);

std::unique_ptr<DiskSource> makeLinuxDiskSource(std::string root,
                                                const Clock& clock = Clock::system(),
                                                FilesystemSizer sizer = statFilesystem);

std::unique_ptr<NetworkSource> makeLinuxNetworkSource(std::string root,
                                                      const Clock& clock = Clock::system());

// Temperatures from hwmon (CPU, GPU, SSD, battery chips), the thermal zones as the CPU's fallback,
// and NVML for the real root. Files whose first read was slow are read at most once a minute.
std::unique_ptr<ThermalSource> makeLinuxThermalSource(std::string root,
                                                      const Clock& clock = Clock::system(),
                                                      Stopwatch stopwatch = {});

// Fans from hwmon (slow ones read on the temperature clock); whole-machine power from RAPL's psys
// zone, else its package zones, else the battery while it discharges; package power from the
// package zones. RAPL is usually readable by root only: then both are absent.
std::unique_ptr<SMCSource> makeLinuxPowerSource(std::string root,
                                                const Clock& clock = Clock::system(),
                                                Stopwatch stopwatch = {});

// GPU power from amdgpu's hwmon power figure and NVML (real root only).
std::unique_ptr<EnergySource> makeLinuxGPUPowerSource(std::string root,
                                                      const Clock& clock = Clock::system());

// The system batteries of power_supply taken together, and whether a mains or USB supply is online.
std::unique_ptr<BatterySource> makeLinuxBatterySource(std::string root);

}  // namespace vistrel
