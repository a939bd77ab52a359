#pragma once

// The NVIDIA management library, opened at run time so that building needs no NVIDIA headers and
// running needs no NVIDIA driver. It is opened only once an NVIDIA display device is awake: opening
// it, and every query, would wake a discrete GPU that runtime power management has put to sleep,
// and cost the battery what the monitor is meant to show. Every query checks the device's runtime
// power status first. Used only on the sampler's queue.

#include <optional>
#include <string>
#include <vector>

#include "sampling/gpu_source.hpp"

namespace vistrel {

// Whether a PCI device's runtime power status (`.../power/runtime_status`) says it sleeps.
// An unreadable status counts as awake: the device has no runtime power management.
bool deviceSuspended(const std::string& deviceFolder);

class Nvml {
 public:
  // The process-wide library under the root "/"; nullptr while there is no awake NVIDIA device,
  // no driver, or no device it can manage. Asking again after a sleep is cheap: one status read per
  // NVIDIA device.
  static Nvml* shared();

  Nvml(const Nvml&) = delete;
  Nvml& operator=(const Nvml&) = delete;

  size_t deviceCount() const;
  // Each returns nullopt for a sleeping device (never woken to answer) or a failed query.
  std::optional<AcceleratorStats> stats(size_t device) const;
  std::optional<std::string> name(size_t device) const;
  std::optional<double> watts(size_t device) const;    // board power draw
  std::optional<double> celsius(size_t device) const;  // GPU core temperature
  bool asleep(size_t device) const;

 private:
  struct Impl;
  explicit Nvml(Impl* impl);
  ~Nvml();
  Impl* impl_;
  friend struct NvmlLoader;
};

}  // namespace vistrel
