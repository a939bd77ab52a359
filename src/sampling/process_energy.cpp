#include "sampling/process_energy.hpp"

#include <algorithm>
#include <cmath>

namespace vistrel {

std::optional<double> apportionEnergy(std::vector<ProcessSample>& processes,
                                      std::optional<double> packageWatts, const CPUStat& cpu) {
  for (auto& p : processes) p.energy = 0;
  if (!packageWatts || !std::isfinite(*packageWatts) || *packageWatts < 0) return std::nullopt;
  double processTime = 0;
  for (const auto& p : processes) processTime += std::max(p.cpu, 0.0);
  const double busy = cpu.total * static_cast<double>(cpu.cores.size()) * 100;
  const double denominator = std::max(processTime, busy);
  double sum = 0;
  if (denominator > 0) {
    for (auto& p : processes) {
      p.energy = *packageWatts * std::max(p.cpu, 0.0) / denominator;
      sum += p.energy;
    }
  }
  return sum;
}

}  // namespace vistrel
