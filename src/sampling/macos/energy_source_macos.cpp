// The GPU's energy channel of the energy-report library, looked up by name at run time.

#include <dlfcn.h>

#include "sampling/energy_reader.hpp"
#include "sampling/macos/cf_util.hpp"

namespace vistrel {
namespace {

using SubscriptionRef = CFTypeRef;
using CopyChannelsInGroup = CFDictionaryRef (*)(CFStringRef, CFStringRef, uint64_t, uint64_t,
                                                uint64_t);
using CreateSubscription = SubscriptionRef (*)(void*, CFMutableDictionaryRef,
                                               CFMutableDictionaryRef*, uint64_t, CFTypeRef);
using CreateSamples = CFDictionaryRef (*)(SubscriptionRef, CFMutableDictionaryRef, CFTypeRef);
using CreateSamplesDelta = CFDictionaryRef (*)(CFDictionaryRef, CFDictionaryRef, CFTypeRef);
using ChannelGetString = CFStringRef (*)(CFDictionaryRef);
using SimpleGetIntegerValue = int64_t (*)(CFDictionaryRef, int32_t);

class MacEnergyChannelSource final : public EnergyChannelSource {
 public:
  MacEnergyChannelSource() {
    void* lib = ::dlopen("/usr/lib/libIOReport.dylib", RTLD_NOW | RTLD_LOCAL);
    if (!lib) return;
    auto copyChannels =
        reinterpret_cast<CopyChannelsInGroup>(::dlsym(lib, "IOReportCopyChannelsInGroup"));
    auto subscribe =
        reinterpret_cast<CreateSubscription>(::dlsym(lib, "IOReportCreateSubscription"));
    createSamples_ = reinterpret_cast<CreateSamples>(::dlsym(lib, "IOReportCreateSamples"));
    createDelta_ = reinterpret_cast<CreateSamplesDelta>(::dlsym(lib, "IOReportCreateSamplesDelta"));
    channelName_ =
        reinterpret_cast<ChannelGetString>(::dlsym(lib, "IOReportChannelGetChannelName"));
    unitLabel_ = reinterpret_cast<ChannelGetString>(::dlsym(lib, "IOReportChannelGetUnitLabel"));
    integerValue_ =
        reinterpret_cast<SimpleGetIntegerValue>(::dlsym(lib, "IOReportSimpleGetIntegerValue"));
    if (!copyChannels || !subscribe || !createSamples_ || !createDelta_ || !channelName_ ||
        !unitLabel_ || !integerValue_) {
      return;
    }
    const mac::CFRef<CFDictionaryRef> group(copyChannels(CFSTR("Energy Model"), nullptr, 0, 0, 0));
    const auto all = mac::cfAs<CFArrayRef>(mac::cfValue(group.get(), CFSTR("IOReportChannels")),
                                           CFArrayGetTypeID());
    if (all == nullptr) return;
    // Only the GPU's channel: sampling the whole group costs milliseconds.
    const mac::CFRef<CFMutableArrayRef> gpu(
        CFArrayCreateMutable(kCFAllocatorDefault, 0, &kCFTypeArrayCallBacks));
    for (CFIndex i = 0; i < CFArrayGetCount(all); ++i) {
      const auto channel =
          mac::cfAs<CFDictionaryRef>(CFArrayGetValueAtIndex(all, i), CFDictionaryGetTypeID());
      if (channel == nullptr) continue;
      auto name = mac::cfString(channelName_(channel));
      if (name && name->rfind("GPU Energy", 0) == 0) CFArrayAppendValue(gpu.get(), channel);
    }
    if (CFArrayGetCount(gpu.get()) == 0) return;
    desired_.reset(CFDictionaryCreateMutableCopy(kCFAllocatorDefault, 0, group.get()));
    if (!desired_) return;
    CFDictionarySetValue(desired_.get(), CFSTR("IOReportChannels"), gpu.get());
    CFMutableDictionaryRef subscribed = nullptr;
    subscription_.reset(subscribe(nullptr, desired_.get(), &subscribed, 0, nullptr));
    subscribed_.reset(subscribed);
  }

  std::optional<std::vector<EnergyChannel>> delta() override {
    if (!subscription_ || !subscribed_) return std::nullopt;
    mac::CFRef<CFDictionaryRef> sample(
        createSamples_(subscription_.get(), subscribed_.get(), nullptr));
    if (!sample) return std::nullopt;
    mac::CFRef<CFDictionaryRef> previous = std::move(previous_);
    previous_ = std::move(sample);
    if (!previous) return std::nullopt;
    const mac::CFRef<CFDictionaryRef> diff(createDelta_(previous.get(), previous_.get(), nullptr));
    const auto channels = mac::cfAs<CFArrayRef>(mac::cfValue(diff.get(), CFSTR("IOReportChannels")),
                                                CFArrayGetTypeID());
    if (channels == nullptr) return std::nullopt;
    std::vector<EnergyChannel> result;
    for (CFIndex i = 0; i < CFArrayGetCount(channels); ++i) {
      const auto channel =
          mac::cfAs<CFDictionaryRef>(CFArrayGetValueAtIndex(channels, i), CFDictionaryGetTypeID());
      if (channel == nullptr) continue;
      EnergyChannel c;
      c.name = mac::cfString(channelName_(channel)).value_or("");
      c.unit = mac::cfString(unitLabel_(channel)).value_or("");
      c.value = integerValue_(channel, 0);
      result.push_back(std::move(c));
    }
    return result;
  }

 private:
  CreateSamples createSamples_ = nullptr;
  CreateSamplesDelta createDelta_ = nullptr;
  ChannelGetString channelName_ = nullptr;
  ChannelGetString unitLabel_ = nullptr;
  SimpleGetIntegerValue integerValue_ = nullptr;
  mac::CFRef<CFMutableDictionaryRef> desired_;
  mac::CFRef<CFMutableDictionaryRef> subscribed_;
  mac::CFRef<SubscriptionRef> subscription_;
  mac::CFRef<CFDictionaryRef> previous_;
};

}  // namespace

std::unique_ptr<EnergyChannelSource> makeEnergyChannelSource() {
  return std::make_unique<MacEnergyChannelSource>();
}

}  // namespace vistrel
