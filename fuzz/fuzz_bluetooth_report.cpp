// Feeds arbitrary bytes to the system_profiler Bluetooth report parser: no crash, and every
// percent within 0...100.
#include <cstddef>
#include <cstdint>
#include <string_view>

#include "sampling/bluetooth_reader.hpp"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  std::string_view text(reinterpret_cast<const char*>(data), size);
  for (const auto& device : vistrel::parseSystemProfilerBluetooth(text)) {
    if (device.percent < 0 || device.percent > 100) __builtin_trap();
  }
  return 0;
}
