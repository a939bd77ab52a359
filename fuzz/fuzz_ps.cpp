// Feeds arbitrary bytes to the process-status listing parser: no crash, no read out of bounds, and
// every row it keeps must come from a line of the input.
#include <cstddef>
#include <cstdint>
#include <string_view>
#include <unordered_set>

#include "processes/process_parsers.hpp"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  std::string_view text(reinterpret_cast<const char*>(data), size);
  const auto rows = vistrel::parsePS(text);
  std::unordered_set<int32_t> pids;
  for (const auto& row : rows) {
    if (row.path.empty() || row.path.size() > size) __builtin_trap();
    if (row.rss % 1024 != 0 || row.cpu != row.cpu) __builtin_trap();
    if (!pids.insert(row.pid).second) __builtin_trap();  // one row per pid
  }
  if (rows.size() > size / 11 + 1) __builtin_trap();  // a row needs at least "1 1 1 1 1 x"
  return 0;
}
