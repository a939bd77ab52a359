#include "sampling/thermal_reader.hpp"

#include <algorithm>
#include <cctype>
#include <map>

namespace vistrel {

namespace {

constexpr double kColdest = -20;  // readings at or beyond these are misreads
constexpr double kHottest = 150;

bool startsWith(std::string_view s, std::string_view prefix) {
  return s.substr(0, prefix.size()) == prefix;
}
bool endsWith(std::string_view s, std::string_view suffix) {
  return s.size() >= suffix.size() && s.substr(s.size() - suffix.size()) == suffix;
}
bool contains(std::string_view s, std::string_view part) {
  return s.find(part) != std::string_view::npos;
}
bool containsIgnoringCase(std::string_view s, std::string_view lowerPart) {
  auto it = std::search(s.begin(), s.end(), lowerPart.begin(), lowerPart.end(), [](char a, char b) {
    return std::tolower(static_cast<unsigned char>(a)) == b;
  });
  return it != s.end();
}

}  // namespace

SensorStat summarizeTemperatures(const std::vector<TemperatureReading>& readings,
                                 std::vector<Fan> fans) {
  // Per group, the largest reading of each sensor name.
  std::map<std::string, double> byName[4];
  for (const auto& r : readings) {
    if (!(r.celsius > kColdest && r.celsius < kHottest)) continue;  // also drops NaN
    auto& group = byName[static_cast<int>(r.group)];
    auto [it, inserted] = group.emplace(r.name, r.celsius);
    if (!inserted) it->second = std::max(it->second, r.celsius);
  }
  auto largest = [](const std::map<std::string, double>& group) -> std::optional<double> {
    if (group.empty()) return std::nullopt;
    double m = group.begin()->second;
    for (const auto& [name, c] : group) m = std::max(m, c);
    return m;
  };

  SensorStat stat;
  const auto& cpu = byName[static_cast<int>(SensorGroup::cpu)];
  if (!cpu.empty()) {
    double sum = 0;
    for (const auto& [name, c] : cpu) sum += c;
    stat.cpu = sum / static_cast<double>(cpu.size());
    stat.cpuMax = largest(cpu);
  }
  stat.gpu = largest(byName[static_cast<int>(SensorGroup::gpu)]);
  stat.ssd = largest(byName[static_cast<int>(SensorGroup::ssd)]);
  stat.battery = largest(byName[static_cast<int>(SensorGroup::battery)]);
  stat.fans = std::move(fans);
  return stat;
}

std::optional<SensorGroup> hidSensorGroup(std::string_view p) {
  if (contains(p, "tdie") || startsWith(p, "CPU") || contains(p, "PECPU") ||
      containsIgnoringCase(p, "pacc") || containsIgnoringCase(p, "eacc")) {
    return SensorGroup::cpu;
  }
  if ((startsWith(p, "PMU TP") && endsWith(p, "g")) || startsWith(p, "GPU")) {
    return SensorGroup::gpu;
  }
  if (contains(p, "NAND")) return SensorGroup::ssd;
  if (contains(p, "battery") || contains(p, "Battery")) return SensorGroup::battery;
  return std::nullopt;
}

ThermalReader::ThermalReader(std::unique_ptr<HIDTemperatureSource> source)
    : source_(std::move(source)) {}

SensorStat ThermalReader::read(std::vector<Fan> fans) {
  std::vector<TemperatureReading> readings;
  if (source_) {
    for (auto& t : source_->readAll()) {
      if (auto group = hidSensorGroup(t.product)) {
        readings.push_back({*group, std::move(t.product), t.celsius});
      }
    }
  }
  return summarizeTemperatures(readings, std::move(fans));
}

}  // namespace vistrel
