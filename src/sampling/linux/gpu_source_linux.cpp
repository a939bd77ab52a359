#include <optional>
#include <string>
#include <vector>

#include "base/files.hpp"
#include "sampling/linux/linux_sources.hpp"
#include "sampling/linux/nvml.hpp"
#include "sampling/proc_parsers.hpp"

namespace vistrel {

namespace {

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
      if (Nvml* nvml = Nvml::shared()) {
        for (size_t i = 0; i < nvml->deviceCount(); ++i) {
          if (auto name = nvml->name(i)) return *name;
        }
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
      // A sleeping NVIDIA GPU is idle and is not asked (asking would wake it).
      if (Nvml* nvml = Nvml::shared()) {
        for (size_t i = 0; i < nvml->deviceCount(); ++i) {
          if (nvml->asleep(i)) {
            AcceleratorStats idle;
            idle.deviceUtilization = 0;
            result.push_back(idle);
          } else if (auto stats = nvml->stats(i)) {
            result.push_back(*stats);
          }
        }
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
