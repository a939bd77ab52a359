#pragma once

#include <memory>
#include <optional>

#include "sampling/memory_source.hpp"
#include "sampling/records.hpp"

namespace vistrel {

class MemoryReader {
 public:
  explicit MemoryReader(std::unique_ptr<MemorySource> source);
  MemoryStat read();

 private:
  std::unique_ptr<MemorySource> source_;
  std::optional<uint64_t> total_;  // physical memory, asked once at first use
};

}  // namespace vistrel
