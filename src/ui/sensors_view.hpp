#pragma once

// What the sensors page shows, one section per source: temperatures by group, fans with their
// range, power, the battery, Bluetooth devices' batteries and the apps using audio. Each section
// is built by its own function from its own part of the Snapshot, and says plainly when this
// machine has no such source. Qt-free.

#include <string>
#include <vector>

#include "sampling/records.hpp"
#include "ui/views.hpp"

namespace vistrel::ui {

struct SensorRow {
  std::string label;
  std::string value;
  std::string note;   // "1,200–5,800 rpm", "playing"
  double level = -1;  // 0...1 for a meter; below 0: none
  Attention attention = Attention::none;
};

struct SensorSection {
  std::string title;
  std::vector<SensorRow> rows;
  std::string empty;  // shown when `rows` is empty: why there is nothing
};

// Reads SensorStat's cpu, cpuMax, gpu, ssd and battery temperatures.
SensorSection temperaturesSection(const SensorStat& sensors);
// Reads SensorStat::fans (rpm, min, max).
SensorSection fansSection(const SensorStat& sensors);
// Reads PowerStat's system and gpu watts and the apps' energy sum.
SensorSection powerSection(const PowerStat& power);
// Reads BatteryStat (present, percent, charging, pluggedIn, minutesLeft, watts, health, cycles,
// temperature).
SensorSection batterySection(const BatteryStat& battery);
SensorSection bluetoothSection(const std::vector<BluetoothDevice>& devices);
SensorSection audioSection(const std::vector<AudioUse>& audio);

// Every section in page order.
std::vector<SensorSection> sensorSections(const Snapshot& s);

}  // namespace vistrel::ui
