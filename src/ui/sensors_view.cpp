#include "ui/sensors_view.hpp"

#include <algorithm>
#include <cstdio>

#include "format/fmt.hpp"
#include "format/platform_text.hpp"

namespace vistrel::ui {

namespace {

// Degrees Celsius at which a temperature asks for attention, and for more. A machine under
// sustained load sits in the 80s; the 90s are where it starts to slow itself down.
constexpr double kWarmC = 85;
constexpr double kHotC = 95;

Attention heat(double c) {
  if (c >= kHotC) return Attention::trouble;
  if (c >= kWarmC) return Attention::notice;
  return Attention::none;
}

std::string rpmRange(const Fan& f) {
  return Fmt::rpm(f.min) + "–" + Fmt::rpm(f.max);
}

}  // namespace

SensorSection temperaturesSection(const SensorStat& t) {
  SensorSection s{"Temperatures", {}, {}};
  auto add = [&](const char* label, const std::optional<double>& c, const char* note) {
    if (!c) return;
    // A 0...110 °C scale for the meter: room temperature to past throttling.
    s.rows.push_back(
        {label, Fmt::temperature(*c), note, std::clamp(*c / 110.0, 0.0, 1.0), heat(*c)});
  };
  add("CPU", t.cpu, "average of the cores");
  add("Hottest CPU core", t.cpuMax, "");
  add("GPU", t.gpu, "");
  add("Storage", t.ssd, "");
  add("Battery", t.battery, "");
  if (s.rows.empty()) s.empty = platformText("This Mac reports no temperature sensors.");
  return s;
}

SensorSection fansSection(const SensorStat& t) {
  SensorSection s{"Fans", {}, {}};
  int n = 0;
  for (const Fan& f : t.fans) {
    ++n;
    double span = f.max - f.min;
    double level = span > 0 ? std::clamp((f.rpm - f.min) / span, 0.0, 1.0) : -1;
    s.rows.push_back({t.fans.size() == 1 ? "Fan" : "Fan " + std::to_string(n), Fmt::rpm(f.rpm),
                      rpmRange(f), level, Attention::none});
  }
  if (s.rows.empty())
    s.empty = platformText("No fans reported: this Mac has none, or keeps them to itself.");
  return s;
}

SensorSection powerSection(const PowerStat& p) {
  SensorSection s{"Power", {}, {}};
  if (p.system) s.rows.push_back({"Whole machine", Fmt::watts(*p.system), "", -1, Attention::none});
  if (p.gpu) s.rows.push_back({"GPU", Fmt::watts(*p.gpu), "", -1, Attention::none});
  if (s.rows.empty()) s.empty = platformText("This Mac doesn't report its power draw.");
  return s;
}

SensorSection batterySection(const BatteryStat& b) {
  SensorSection s{"Battery", {}, {}};
  if (!b.present) {
    s.empty = platformText("No battery: this Mac runs on mains power.");
    return s;
  }
  std::string state = b.charging ? "charging" : b.pluggedIn ? "plugged in" : "on battery";
  Attention low = !b.pluggedIn && b.percent <= 10   ? Attention::trouble
                  : !b.pluggedIn && b.percent <= 20 ? Attention::notice
                                                    : Attention::none;
  s.rows.push_back(
      {"Charge", Fmt::percent(b.percent / 100), state, std::clamp(b.percent / 100, 0.0, 1.0), low});
  if (b.minutesLeft) {
    s.rows.push_back({b.charging ? "Until full" : "Time left", Fmt::minutes(*b.minutesLeft), "", -1,
                      Attention::none});
  }
  if (b.watts) s.rows.push_back({"Power", Fmt::watts(*b.watts), "", -1, Attention::none});
  if (b.health) {
    s.rows.push_back(
        {"Health", Fmt::percent(*b.health / 100), "of its design capacity", -1, Attention::none});
  }
  if (b.cycles) s.rows.push_back({"Cycles", Fmt::grouped(*b.cycles), "", -1, Attention::none});
  if (b.temperature) {
    s.rows.push_back({"Temperature", Fmt::temperature(*b.temperature), "", -1, Attention::none});
  }
  return s;
}

SensorSection bluetoothSection(const std::vector<BluetoothDevice>& devices) {
  SensorSection s{"Bluetooth batteries", {}, {}};
  for (const BluetoothDevice& d : devices) {
    Attention a = d.percent <= 10 ? Attention::notice : Attention::none;
    s.rows.push_back(
        {d.name, Fmt::percent(d.percent / 100.0), "", std::clamp(d.percent / 100.0, 0.0, 1.0), a});
  }
  if (s.rows.empty()) s.empty = "No connected Bluetooth device reports a battery.";
  return s;
}

SensorSection audioSection(const std::vector<AudioUse>& audio) {
  SensorSection s{"Audio", {}, {}};
  for (const AudioUse& a : audio) {
    std::string what = a.output && a.input ? "playing and recording"
                       : a.input           ? "recording"
                                           : "playing";
    // Recording is worth a glance: the person should know which app hears them.
    s.rows.push_back({a.name, what, "pid " + std::to_string(a.pid), -1,
                      a.input ? Attention::notice : Attention::none});
  }
  if (s.rows.empty()) s.empty = "No app is playing or recording sound.";
  return s;
}

std::vector<SensorSection> sensorSections(const Snapshot& s) {
  return {temperaturesSection(s.sensors), fansSection(s.sensors),        powerSection(s.power),
          batterySection(s.battery),      bluetoothSection(s.bluetooth), audioSection(s.audio)};
}

}  // namespace vistrel::ui
