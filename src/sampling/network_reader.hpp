#pragma once

#include <memory>
#include <string>

#include "base/clock.hpp"
#include "sampling/network_source.hpp"
#include "sampling/rate_meter.hpp"
#include "sampling/records.hpp"

namespace vistrel {

class NetworkReader {
 public:
  NetworkReader(std::unique_ptr<NetworkSource> source, const Clock& clock);
  NetworkStat read();

 private:
  void lookUpInterface();

  std::unique_ptr<NetworkSource> source_;
  const Clock& clock_;
  RateMeter rates_;
  std::string interfaceName_;
  double interfaceAt_ = -100;  // uptime seconds; far in the past so the first read looks it up
  std::string lastInterface_;  // system name of the primary interface at the last look-up
};

}  // namespace vistrel
