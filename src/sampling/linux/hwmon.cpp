#include "sampling/linux/hwmon.hpp"

#include <algorithm>
#include <charconv>
#include <chrono>

#include "base/files.hpp"
#include "sampling/sensor_parsers.hpp"

namespace vistrel {

namespace {

// "temp12_input" -> 12 for the given prefix and suffix; nullopt otherwise.
std::optional<int> indexOf(const std::string& file, std::string_view prefix,
                           std::string_view suffix) {
  if (file.size() <= prefix.size() + suffix.size() || file.rfind(prefix, 0) != 0) return {};
  if (file.compare(file.size() - suffix.size(), suffix.size(), suffix) != 0) return {};
  int n = 0;
  const char* first = file.data() + prefix.size();
  const char* last = file.data() + file.size() - suffix.size();
  auto [end, ec] = std::from_chars(first, last, n);
  if (ec != std::errc() || end != last) return {};
  return n;
}

std::optional<int64_t> parseInteger(std::string_view s) {
  while (!s.empty() && (s.back() == '\n' || s.back() == ' ')) s.remove_suffix(1);
  int64_t v = 0;
  auto [end, ec] = std::from_chars(s.data(), s.data() + s.size(), v);
  if (ec != std::errc() || end != s.data() + s.size() || s.empty()) return std::nullopt;
  return v;
}

}  // namespace

std::vector<HwmonChip> listHwmon(const std::string& root) {
  std::vector<HwmonChip> chips;
  const std::string base = joinPath(root, "sys/class/hwmon");
  std::vector<std::string> names = listFolder(base);
  std::sort(names.begin(), names.end());
  for (const std::string& entry : names) {
    HwmonChip chip;
    chip.folder = joinPath(base, entry);
    chip.name = readLine(joinPath(chip.folder, "name")).value_or("");
    const std::string device = joinPath(chip.folder, "device");
    if (pathExists(device)) chip.device = device;
    // A battery's chip: its device is a power supply of type Battery (the chip is usually named
    // after the supply, "BAT0").
    const bool battery =
        chip.name.rfind("BAT", 0) == 0 ||
        (!chip.device.empty() && readLine(joinPath(chip.device, "type")).value_or("") == "Battery");

    std::vector<std::string> files = listFolder(chip.folder);
    std::sort(files.begin(), files.end());
    bool hasTdie = false;
    std::vector<HwmonTemperature> temps;
    for (const std::string& file : files) {
      if (auto n = indexOf(file, "temp", "_input")) {
        const std::string prefix = joinPath(chip.folder, "temp" + std::to_string(*n));
        std::string label = readLine(prefix + "_label").value_or("");
        // An unlabelled nvme input other than the first is one of its extra sensors.
        if (label.empty() && chip.name == "nvme" && *n != 1) continue;
        auto group = hwmonGroup(chip.name, label, battery);
        if (!group) continue;
        if (label == "Tdie") hasTdie = true;
        std::string name = entry + "/" + (label.empty() ? "temp" + std::to_string(*n) : label);
        temps.push_back({prefix + "_input", std::move(name), *group});
      } else if (auto f = indexOf(file, "fan", "_input")) {
        const std::string prefix = joinPath(chip.folder, "fan" + std::to_string(*f));
        chip.fans.push_back({prefix + "_input", prefix + "_min", prefix + "_max"});
      }
    }
    // k10temp's Tctl is the control temperature, offset on some parts; Tdie is the real one.
    for (auto& t : temps) {
      if (hasTdie && t.name.size() >= 4 && t.name.compare(t.name.size() - 4, 4, "Tctl") == 0) {
        continue;
      }
      chip.temperatures.push_back(std::move(t));
    }
    for (const char* power : {"power1_average", "power1_input"}) {
      if (pathExists(joinPath(chip.folder, power))) {
        chip.power = joinPath(chip.folder, power);
        break;
      }
    }
    chips.push_back(std::move(chip));
  }
  return chips;
}

Stopwatch systemStopwatch() {
  return [] {
    return std::chrono::duration<double>(std::chrono::steady_clock::now().time_since_epoch())
        .count();
  };
}

PacedReader::PacedReader(const Clock& clock, Stopwatch stopwatch)
    : clock_(clock), stopwatch_(stopwatch ? std::move(stopwatch) : systemStopwatch()) {}

std::optional<int64_t> PacedReader::read(const std::string& path, double slowEvery) {
  const double now = clock_.uptime();
  auto [it, first] = entries_.try_emplace(path);
  Entry& e = it->second;
  if (!first && e.slow && now >= e.readAt && now - e.readAt < slowEvery) return e.value;
  const double started = first ? stopwatch_() : 0;
  e.value = readFile(path, buffer_, 64) ? parseInteger(buffer_) : std::nullopt;
  if (first) e.slow = stopwatch_() - started > kSlowReadSeconds;
  e.readAt = now;
  return e.value;
}

bool PacedReader::slow(const std::string& path) const {
  auto it = entries_.find(path);
  return it != entries_.end() && it->second.slow;
}

}  // namespace vistrel
