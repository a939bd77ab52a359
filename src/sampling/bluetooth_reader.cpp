#include "sampling/bluetooth_reader.hpp"

#include <algorithm>
#include <charconv>
#include <nlohmann/json.hpp>

namespace vistrel {

namespace {

// "73%" -> 73; nullopt for anything else.
std::optional<int> percentOf(const nlohmann::json& value) {
  if (!value.is_string()) return std::nullopt;
  const std::string& s = value.get_ref<const std::string&>();
  int percent = 0;
  auto [end, ec] = std::from_chars(s.data(), s.data() + s.size(), percent);
  if (ec != std::errc() || end == s.data()) return std::nullopt;
  if (end != s.data() + s.size() && *end != '%') return std::nullopt;
  if (percent < 0 || percent > 100) return std::nullopt;
  return percent;
}

}  // namespace

std::vector<BluetoothDevice> parseSystemProfilerBluetooth(std::string_view text) {
  std::vector<BluetoothDevice> devices;
  const auto root = nlohmann::json::parse(text, nullptr, false);
  if (root.is_discarded() || !root.is_object()) return devices;
  auto data = root.find("SPBluetoothDataType");
  if (data == root.end() || !data->is_array()) return devices;
  for (const auto& controller : *data) {
    if (!controller.is_object()) continue;
    auto connected = controller.find("device_connected");
    if (connected == controller.end() || !connected->is_array()) continue;
    for (const auto& entry : *connected) {
      if (!entry.is_object()) continue;
      for (auto item = entry.begin(); item != entry.end(); ++item) {
        const std::string& name = item.key();
        const nlohmann::json& properties = item.value();
        if (!properties.is_object()) continue;
        auto level = [&](const char* key) -> std::optional<int> {
          auto it = properties.find(key);
          return it == properties.end() ? std::nullopt : percentOf(*it);
        };
        std::optional<int> percent = level("device_batteryLevelMain");
        if (!percent) {
          auto left = level("device_batteryLevelLeft"), right = level("device_batteryLevelRight");
          if (left && right) {
            percent = std::min(*left, *right);
          } else {
            percent = left ? left : right;
          }
        }
        if (!percent) percent = level("device_batteryLevelCase");
        if (percent) devices.push_back({name, *percent});
      }
    }
  }
  return devices;
}

std::vector<BluetoothDevice> bluetoothFromBlueZ(const std::vector<BlueZDevice>& devices) {
  std::vector<BluetoothDevice> result;
  for (const auto& d : devices) {
    if (!d.connected || !d.percentage) continue;
    result.push_back({d.name, std::clamp(*d.percentage, 0, 100)});
  }
  return result;
}

BackgroundBluetoothReader::BackgroundBluetoothReader(
    std::function<std::vector<BluetoothDevice>()> fetch)
    : fetch_(std::move(fetch)) {}

BackgroundBluetoothReader::~BackgroundBluetoothReader() {
  if (worker_.joinable()) worker_.join();
}

std::vector<BluetoothDevice> BackgroundBluetoothReader::read() {
  std::lock_guard guard(mutex_);
  if (!running_ && fetch_) {
    if (worker_.joinable()) worker_.join();  // finished: running_ is false
    running_ = true;
    worker_ = std::thread([this] {
      std::vector<BluetoothDevice> devices = fetch_();
      std::lock_guard guard(mutex_);
      latest_ = std::move(devices);
      running_ = false;
    });
  }
  return latest_;
}

}  // namespace vistrel
