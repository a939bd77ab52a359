#pragma once

// GPU power from the energy-report channels: the energy a channel counted between two samples,
// divided by the time between them.

#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "base/clock.hpp"
#include "sampling/stages.hpp"

namespace vistrel {

// One channel of a delta between two energy samples.
struct EnergyChannel {
  std::string name;  // "GPU Energy"
  std::string unit;  // "mJ", "uJ" or "nJ", possibly padded with blanks
  int64_t value = 0;
};

// `value` in joules by its unit label, blanks around the label ignored; nullopt for any other unit.
std::optional<double> joulesFrom(int64_t value, std::string_view unit);

// The GPU's joules in a delta: the channels whose name begins with "GPU Energy", summed; nullopt
// when there is no such channel with a known unit.
std::optional<double> gpuJoules(const std::vector<EnergyChannel>& delta);

// The platform's side: subscribed to the GPU's energy channel only (the whole energy group holds
// hundreds of channels and sampling it costs milliseconds). Each call takes a new sample and
// returns the channels of its delta against the previous one; nullopt on the first call or without
// a subscription.
class EnergyChannelSource {
 public:
  virtual ~EnergyChannelSource() = default;
  virtual std::optional<std::vector<EnergyChannel>> delta() = 0;
};

// The energy-report library (macOS); defined under macos/.
std::unique_ptr<EnergyChannelSource> makeEnergyChannelSource();

class EnergyReader final : public EnergySource {
 public:
  EnergyReader(std::unique_ptr<EnergyChannelSource> source, const Clock& clock);
  std::optional<double> gpuWatts() override;

 private:
  std::unique_ptr<EnergyChannelSource> source_;
  const Clock& clock_;
  std::optional<double> lastAt_;  // uptime of the previous sample
};

}  // namespace vistrel
