#include <optional>
#include <string>
#include <vector>

#include "base/files.hpp"
#include "sampling/linux/linux_sources.hpp"
#include "sampling/proc_parsers.hpp"

namespace vistrel {

namespace {

class LinuxNetworkSource final : public NetworkSource {
 public:
  LinuxNetworkSource(std::string root, const Clock& clock)
      : root_(std::move(root)),
        clock_(clock),
        netPath_(joinPath(root_, "sys/class/net")),
        routePath_(joinPath(root_, "proc/net/route")) {}

  NetworkCounters counters() override {
    NetworkCounters total;
    for (const Interface& interface : physicalInterfaces()) {
      total.in += readCounter(interface.rxBytes);
      total.out += readCounter(interface.txBytes);
    }
    return total;
  }

  std::optional<std::string> primaryInterface() override {
    if (!readFile(routePath_, buffer_, 256 * 1024)) return std::nullopt;
    return parseDefaultRoute(buffer_);
  }

  std::string displayName(const std::string& interface) override {
    if (interface.empty() || interface.find('/') != std::string::npos) return {};
    std::string folder = joinPath(netPath_, interface);
    if (pathExists(joinPath(folder, "wireless")) || pathExists(joinPath(folder, "phy80211"))) {
      return "Wi-Fi";
    }
    if (pathExists(joinPath(folder, "device"))) return "Ethernet";
    return {};
  }

  void interfacesChanged() override { listedAt_.reset(); }

 private:
  struct Interface {
    std::string rxBytes;  // statistics/rx_bytes
    std::string txBytes;  // statistics/tx_bytes
  };

  // A counter that cannot be read (the interface went away since the last listing) adds nothing;
  // the reader then sees the total go down and shows 0 for that tick.
  uint64_t readCounter(const std::string& path) {
    if (!readFile(path, buffer_, 64)) return 0;
    return parseSysfsNumber(buffer_).value_or(0);
  }

  // Physical interfaces are those backed by a device (a `device` link); loopback, bridges, veth
  // pairs, tunnels and VPNs have none. They change only when an adapter is plugged in or a driver
  // loaded, so the list is re-made every kDeviceRecheckSeconds, or at once when the reader reports
  // that the primary interface changed.
  const std::vector<Interface>& physicalInterfaces() {
    double now = clock_.uptime();
    if (listedAt_ && now - *listedAt_ < kDeviceRecheckSeconds && now >= *listedAt_) {
      return interfaces_;
    }
    listedAt_ = now;
    interfaces_.clear();
    for (const std::string& name : listFolder(netPath_)) {
      std::string folder = joinPath(netPath_, name);
      if (!pathExists(joinPath(folder, "device"))) continue;
      interfaces_.push_back(
          {joinPath(folder, "statistics/rx_bytes"), joinPath(folder, "statistics/tx_bytes")});
    }
    return interfaces_;
  }

  std::string root_;
  const Clock& clock_;
  std::string netPath_;
  std::string routePath_;
  std::string buffer_;
  std::vector<Interface> interfaces_;
  std::optional<double> listedAt_;
};

}  // namespace

std::unique_ptr<NetworkSource> makeLinuxNetworkSource(std::string root, const Clock& clock) {
  return std::make_unique<LinuxNetworkSource>(std::move(root), clock);
}

std::unique_ptr<NetworkSource> makeNetworkSource() {
  return makeLinuxNetworkSource("/");
}

}  // namespace vistrel
