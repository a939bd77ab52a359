#pragma once

#include <cstdint>
#include <memory>
#include <optional>
#include <string>

namespace vistrel {

// Cumulative bytes received and sent over the physical interfaces (Wi-Fi and Ethernet) together.
struct NetworkCounters {
  uint64_t in = 0;
  uint64_t out = 0;
  bool operator==(const NetworkCounters&) const = default;
};

class NetworkSource {
 public:
  virtual ~NetworkSource() = default;
  // Zeros when the interfaces cannot be listed.
  virtual NetworkCounters counters() = 0;
  // The system name of the primary interface ("en0", "wlp2s0"); nullopt when there is none.
  virtual std::optional<std::string> primaryInterface() = 0;
  // The display name of an interface ("Wi-Fi", "Ethernet"); empty when it has none.
  virtual std::string displayName(const std::string& interface) = 0;
  // The primary interface changed: drop any cache of interface indexes.
  virtual void interfacesChanged() {}
};

std::unique_ptr<NetworkSource> makeNetworkSource();

}  // namespace vistrel
