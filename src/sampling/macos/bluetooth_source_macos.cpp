// Batteries of connected Bluetooth devices, from system_profiler's report. It takes a second or
// more, so it runs off the sampler's queue and the sampler takes the latest result.

#include "base/subprocess.hpp"
#include "sampling/bluetooth_reader.hpp"

namespace vistrel {

std::unique_ptr<BluetoothSource> makeBluetoothSource() {
  return std::make_unique<BackgroundBluetoothReader>([] {
    const SubprocessResult r = runSubprocess(
        "/usr/sbin/system_profiler", {"SPBluetoothDataType", "-json"}, std::nullopt, 4 << 20);
    if (!r.started || r.exitStatus != 0) return std::vector<BluetoothDevice>{};
    return parseSystemProfilerBluetooth(r.output);
  });
}

}  // namespace vistrel
