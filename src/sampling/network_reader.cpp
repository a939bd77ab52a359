#include "sampling/network_reader.hpp"

namespace vistrel {

namespace {
constexpr double kInterfaceEvery = 10;  // seconds between look-ups of the primary interface
constexpr const char* kOffline = "Offline";
}  // namespace

NetworkReader::NetworkReader(std::unique_ptr<NetworkSource> source, const Clock& clock)
    : source_(std::move(source)), clock_(clock) {}

NetworkStat NetworkReader::read() {
  NetworkStat stat;
  NetworkCounters counters = source_->counters();
  double now = clock_.uptime();
  std::tie(stat.inRate, stat.outRate) = rates_.update(counters.in, counters.out, now);
  if (now - interfaceAt_ > kInterfaceEvery) {
    interfaceAt_ = now;
    lookUpInterface();
  }
  stat.interface = interfaceName_;
  return stat;
}

void NetworkReader::lookUpInterface() {
  auto primary = source_->primaryInterface();
  if (!primary || primary->empty()) {
    lastInterface_.clear();
    interfaceName_ = kOffline;
    return;
  }
  if (*primary == lastInterface_ && !interfaceName_.empty() && interfaceName_ != kOffline) return;
  lastInterface_ = *primary;
  // Interface indexes may have been reassigned along with the primary interface.
  source_->interfacesChanged();
  std::string display = source_->displayName(*primary);
  interfaceName_ = display.empty() ? *primary : display;
}

}  // namespace vistrel
