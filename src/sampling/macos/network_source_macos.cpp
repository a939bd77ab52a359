// Interface byte counters from the routing sysctl's interface list, the primary interface from the
// system configuration dynamic store, and display names from the list of network interfaces.

#include <SystemConfiguration/SystemConfiguration.h>
#include <net/if.h>
#include <net/route.h>
#include <sys/socket.h>
#include <sys/sysctl.h>

#include <cerrno>
#include <cstddef>
#include <initializer_list>
#include <iterator>
#include <string_view>
#include <unordered_map>
#include <vector>

#include "sampling/mac_decoders.hpp"
#include "sampling/macos/cf_util.hpp"
#include "sampling/network_source.hpp"

namespace vistrel {
namespace {

static_assert(RTM_IFINFO2 == kRTM_IFINFO2, "routing message type differs from the decoder's");
static_assert(sizeof(struct if_msghdr2) == kIfMsgHdr2Size,
              "interface message size differs from the decoder's");
static_assert(offsetof(struct if_msghdr2, ifm_index) == 12);
static_assert(offsetof(struct if_msghdr2, ifm_data) + offsetof(struct if_data64, ifi_ibytes) == 96);
static_assert(offsetof(struct if_msghdr2, ifm_data) + offsetof(struct if_data64, ifi_obytes) ==
              104);

class MacNetworkSource final : public NetworkSource {
 public:
  NetworkCounters counters() override {
    if (!readInterfaceList()) return {};
    return sumInterfaceMessages(buffer_.data(), buffer_.size(),
                                [this](uint16_t index) { return nameOf(index); });
  }

  std::optional<std::string> primaryInterface() override {
    if (!store_) {
      store_.reset(SCDynamicStoreCreate(kCFAllocatorDefault, CFSTR("Vistrel"), nullptr, nullptr));
      if (!store_) return std::nullopt;
    }
    // The IPv4 state first; a network with IPv6 only (or IPv4 not yet configured) has its
    // primary interface in the IPv6 state alone.
    for (CFStringRef key :
         {CFSTR("State:/Network/Global/IPv4"), CFSTR("State:/Network/Global/IPv6")}) {
      const mac::CFRef<CFPropertyListRef> global(SCDynamicStoreCopyValue(store_.get(), key));
      const auto dict = mac::cfAs<CFDictionaryRef>(global.get(), CFDictionaryGetTypeID());
      std::optional<std::string> bsdName =
          mac::cfString(mac::cfValue(dict, CFSTR("PrimaryInterface")));
      if (bsdName && !bsdName->empty()) return bsdName;
    }
    return std::nullopt;
  }

  std::string displayName(const std::string& interface) override {
    const mac::CFRef<CFArrayRef> all(SCNetworkInterfaceCopyAll());
    if (!all) return {};
    const CFIndex count = CFArrayGetCount(all.get());
    for (CFIndex i = 0; i < count; ++i) {
      const auto item = mac::cfAs<SCNetworkInterfaceRef>(CFArrayGetValueAtIndex(all.get(), i),
                                                         SCNetworkInterfaceGetTypeID());
      if (item == nullptr) continue;
      // Both strings follow the get rule: owned by the interface object.
      if (mac::cfString(SCNetworkInterfaceGetBSDName(item)) != interface) continue;
      return mac::cfString(SCNetworkInterfaceGetLocalizedDisplayName(item)).value_or("");
    }
    return {};
  }

  void interfacesChanged() override { names_.clear(); }

 private:
  // Fills buffer_ with the NET_RT_IFLIST2 list: its size is asked first, then the data is read. An
  // interface that appears in between makes the second call fail with ENOMEM; one more try covers
  // that.
  bool readInterfaceList() {
    int mib[] = {CTL_NET, PF_ROUTE, 0, 0, NET_RT_IFLIST2, 0};
    const u_int mibLength = static_cast<u_int>(std::size(mib));
    for (int attempt = 0; attempt < 2; ++attempt) {
      size_t needed = 0;
      if (sysctl(mib, mibLength, nullptr, &needed, nullptr, 0) != 0) break;
      buffer_.resize(needed);
      if (needed == 0) return true;
      size_t got = needed;
      if (sysctl(mib, mibLength, buffer_.data(), &got, nullptr, 0) == 0) {
        buffer_.resize(got);
        return true;
      }
      if (errno != ENOMEM) break;
    }
    buffer_.clear();
    return false;
  }

  // The interface's name, cached by index; "" (and nothing cached) when the index names nothing.
  std::string_view nameOf(uint16_t index) {
    if (const auto it = names_.find(index); it != names_.end()) return it->second;
    char name[IF_NAMESIZE] = {};
    if (if_indextoname(index, name) == nullptr) return {};
    // Nodes of an unordered_map stay put when it grows, so the view stays valid for the walk.
    return names_.emplace(index, std::string(name)).first->second;
  }

  std::vector<uint8_t> buffer_;  // reused between reads; the list is a few kilobytes
  std::unordered_map<uint16_t, std::string> names_;
  mac::CFRef<SCDynamicStoreRef> store_;
};

}  // namespace

std::unique_ptr<NetworkSource> makeNetworkSource() {
  return std::make_unique<MacNetworkSource>();
}

}  // namespace vistrel
