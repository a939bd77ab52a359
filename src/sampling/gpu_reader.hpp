#pragma once

#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "sampling/gpu_source.hpp"
#include "sampling/records.hpp"

namespace vistrel {

// The busiest accelerator's utilisation and memory, taken together from the same one. With several
// equally busy, the earlier one stays.
GPUStat chooseAccelerator(const std::vector<AcceleratorStats>& accelerators);

class GPUReader {
 public:
  explicit GPUReader(std::unique_ptr<GPUSource> source);
  GPUStat read();

 private:
  std::unique_ptr<GPUSource> source_;
  std::optional<std::string> name_;  // asked once at first use
};

}  // namespace vistrel
