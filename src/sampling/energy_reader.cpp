#include "sampling/energy_reader.hpp"

#include <cmath>

namespace vistrel {

namespace {

std::string_view trimmed(std::string_view s) {
  const auto blank = [](char c) { return c == ' ' || c == '\t' || c == '\n' || c == '\0'; };
  while (!s.empty() && blank(s.front())) s.remove_prefix(1);
  while (!s.empty() && blank(s.back())) s.remove_suffix(1);
  return s;
}

}  // namespace

std::optional<double> joulesFrom(int64_t value, std::string_view unit) {
  unit = trimmed(unit);
  const double v = static_cast<double>(value);
  if (unit == "mJ") return v / 1e3;
  if (unit == "uJ") return v / 1e6;
  if (unit == "nJ") return v / 1e9;
  return std::nullopt;
}

std::optional<double> gpuJoules(const std::vector<EnergyChannel>& delta) {
  std::optional<double> total;
  for (const auto& c : delta) {
    if (c.name.rfind("GPU Energy", 0) != 0) continue;
    if (auto j = joulesFrom(c.value, c.unit)) total = total.value_or(0) + *j;
  }
  return total;
}

EnergyReader::EnergyReader(std::unique_ptr<EnergyChannelSource> source, const Clock& clock)
    : source_(std::move(source)), clock_(clock) {}

std::optional<double> EnergyReader::gpuWatts() {
  if (!source_) return std::nullopt;
  const double now = clock_.uptime();
  auto delta = source_->delta();
  const std::optional<double> before = lastAt_;
  lastAt_ = now;
  if (!delta || !before || now <= *before) return std::nullopt;
  auto joules = gpuJoules(*delta);
  if (!joules || *joules < 0) return std::nullopt;
  double watts = *joules / (now - *before);
  if (!std::isfinite(watts)) return std::nullopt;
  return watts;
}

}  // namespace vistrel
