#pragma once

// Batteries of connected Bluetooth devices: parsing what the platform reports, portably.

#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <string_view>
#include <thread>
#include <vector>

#include "sampling/records.hpp"
#include "sampling/stages.hpp"

namespace vistrel {

// `system_profiler SPBluetoothDataType -json` (macOS 12.3 and later): the devices under
// "device_connected" that report a battery, in the order listed. A device's percent is
// "device_batteryLevelMain" ("73%"); earbuds report "Left" and "Right" instead, and the lower of
// the two counts (the one that runs out first); the case ("Case") counts only when nothing else is
// known. Malformed or empty text gives no devices.
std::vector<BluetoothDevice> parseSystemProfilerBluetooth(std::string_view json);

// One BlueZ device object as GetManagedObjects describes it.
struct BlueZDevice {
  std::string name;  // "Alias", else "Name", else the address
  bool connected = false;
  std::optional<int> percentage;  // org.bluez.Battery1.Percentage
  bool operator==(const BlueZDevice&) const = default;
};
// Connected devices with a battery, percentages kept within 0...100.
std::vector<BluetoothDevice> bluetoothFromBlueZ(const std::vector<BlueZDevice>& devices);

// Runs a slow `fetch` off the caller's thread: `read` starts one run when none is going and hands
// back the latest finished result at once (empty until the first run ends). The runs are as
// frequent as the calls to `read`, which the sampler makes on the Bluetooth cadence.
class BackgroundBluetoothReader final : public BluetoothSource {
 public:
  explicit BackgroundBluetoothReader(std::function<std::vector<BluetoothDevice>()> fetch);
  ~BackgroundBluetoothReader() override;
  std::vector<BluetoothDevice> read() override;

 private:
  std::function<std::vector<BluetoothDevice>()> fetch_;
  std::mutex mutex_;
  std::vector<BluetoothDevice> latest_;
  bool running_ = false;
  std::thread worker_;
};

// The platform's reader: BlueZ over the system bus on Linux, system_profiler on macOS. Create it
// only in the application (it loads the bus library on Linux).
std::unique_ptr<BluetoothSource> makeBluetoothSource();

}  // namespace vistrel
