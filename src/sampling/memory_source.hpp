#pragma once

#include <cstdint>
#include <memory>
#include <optional>

#include "sampling/records.hpp"

namespace vistrel {

// Memory figures in bytes as the platform classifies them; the reader derives `free` from these
// and the total.
struct MemoryFigures {
  uint64_t app = 0;
  uint64_t wired = 0;
  uint64_t compressed = 0;
  uint64_t cached = 0;
  uint64_t swapUsed = 0;
  uint64_t swapTotal = 0;
  Pressure pressure = Pressure::normal;
  bool operator==(const MemoryFigures&) const = default;
};

class MemorySource {
 public:
  virtual ~MemorySource() = default;
  // Physical memory in bytes; the reader asks once. 0 when unknown.
  virtual uint64_t totalMemory() = 0;
  // nullopt when the statistics cannot be read at all.
  virtual std::optional<MemoryFigures> figures() = 0;
};

std::unique_ptr<MemorySource> makeMemorySource();

}  // namespace vistrel
