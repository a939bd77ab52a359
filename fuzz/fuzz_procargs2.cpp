// Feeds arbitrary bytes to the KERN_PROCARGS2 buffer parser: no crash, no read out of bounds, no
// more arguments than argc promises or the buffer can hold, and every argument valid UTF-8 (each
// repaired byte grows by at most two bytes).
#include <cstddef>
#include <cstdint>
#include <cstring>

#include "processes/process_parsers.hpp"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  const auto args = vistrel::parseProcArgs2(data, size);
  if (args.empty()) return 0;
  if (size < 5) __builtin_trap();
  int32_t argc = 0;
  std::memcpy(&argc, data, sizeof argc);
  if (argc < 0 || args.size() > static_cast<size_t>(argc)) __builtin_trap();
  size_t total = 0;
  for (const auto& arg : args) {
    total += arg.size() + 1;
    if (vistrel::repairUtf8(arg) != arg) __builtin_trap();
  }
  if (total > 3 * (size - 4)) __builtin_trap();
  return 0;
}
