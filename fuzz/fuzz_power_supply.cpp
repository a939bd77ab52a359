// Feeds arbitrary bytes to the power_supply uevent parser and the battery arithmetic built on it:
// neither may crash, and the figures must stay in their ranges.
#include <cmath>
#include <cstddef>
#include <cstdint>
#include <string_view>

#include "sampling/sensor_parsers.hpp"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  std::string_view text(reinterpret_cast<const char*>(data), size);
  vistrel::PowerSupplyInfo info = vistrel::parsePowerSupplyUevent(text);
  vistrel::BatteryStat b = vistrel::batteryFromPowerSupply(info, std::nullopt, std::nullopt);
  if (!(b.percent >= 0 && b.percent <= 100)) __builtin_trap();
  if (b.health && !(*b.health >= 0 && *b.health <= 100)) __builtin_trap();
  if (b.minutesLeft && (*b.minutesLeft <= 0 || *b.minutesLeft >= 65535)) __builtin_trap();
  if (b.watts && !(*b.watts >= 0)) __builtin_trap();
  return 0;
}
