// Temperature sensors of the HID event system, whose functions are private and looked up by name at
// run time: a system without them gives no temperatures instead of failing to start.

#include <dlfcn.h>

#include <chrono>

#include "sampling/macos/cf_util.hpp"
#include "sampling/thermal_reader.hpp"

namespace vistrel {
namespace {

using ClientRef = CFTypeRef;   // IOHIDEventSystemClientRef
using ServiceRef = CFTypeRef;  // IOHIDServiceClientRef
using EventRef = CFTypeRef;    // IOHIDEventRef
using ClientCreate = ClientRef (*)(CFAllocatorRef);
using ClientSetMatching = int (*)(ClientRef, CFDictionaryRef);
using ClientCopyServices = CFArrayRef (*)(ClientRef);
using ServiceCopyProperty = CFTypeRef (*)(ServiceRef, CFStringRef);
using ServiceCopyEvent = EventRef (*)(ServiceRef, int64_t, int32_t, int64_t);
using EventGetFloatValue = double (*)(EventRef, int32_t);

constexpr int64_t kTemperatureEvent = 15;           // kIOHIDEventTypeTemperature
constexpr int32_t kTemperatureField = 15 << 16;     // IOHIDEventFieldBase(temperature)
constexpr int kAppleVendorPage = 0xff00;            // kHIDPage_AppleVendor
constexpr int kTemperatureSensorUsage = 5;          // kHIDUsage_AppleVendor_TemperatureSensor
constexpr std::chrono::seconds kServicesEvery{60};  // sensors come and go only with hardware

class MacHIDTemperatureSource final : public HIDTemperatureSource {
 public:
  MacHIDTemperatureSource() {
    library_ = ::dlopen("/System/Library/Frameworks/IOKit.framework/IOKit", RTLD_NOW | RTLD_LOCAL);
    if (!library_) return;
    create_ = reinterpret_cast<ClientCreate>(::dlsym(library_, "IOHIDEventSystemClientCreate"));
    setMatching_ =
        reinterpret_cast<ClientSetMatching>(::dlsym(library_, "IOHIDEventSystemClientSetMatching"));
    copyServices_ = reinterpret_cast<ClientCopyServices>(
        ::dlsym(library_, "IOHIDEventSystemClientCopyServices"));
    copyProperty_ =
        reinterpret_cast<ServiceCopyProperty>(::dlsym(library_, "IOHIDServiceClientCopyProperty"));
    copyEvent_ =
        reinterpret_cast<ServiceCopyEvent>(::dlsym(library_, "IOHIDServiceClientCopyEvent"));
    floatValue_ =
        reinterpret_cast<EventGetFloatValue>(::dlsym(library_, "IOHIDEventGetFloatValue"));
    if (!create_ || !setMatching_ || !copyServices_ || !copyProperty_ || !copyEvent_ ||
        !floatValue_) {
      return;
    }
    // One client for the life of the process.
    client_.reset(create_(kCFAllocatorDefault));
    if (!client_) return;
    const int page = kAppleVendorPage, usage = kTemperatureSensorUsage;
    const mac::CFRef<CFNumberRef> pageNumber(
        CFNumberCreate(kCFAllocatorDefault, kCFNumberIntType, &page));
    const mac::CFRef<CFNumberRef> usageNumber(
        CFNumberCreate(kCFAllocatorDefault, kCFNumberIntType, &usage));
    const void* keys[] = {CFSTR("PrimaryUsagePage"), CFSTR("PrimaryUsage")};
    const void* values[] = {pageNumber.get(), usageNumber.get()};
    const mac::CFRef<CFDictionaryRef> matching(
        CFDictionaryCreate(kCFAllocatorDefault, keys, values, 2, &kCFTypeDictionaryKeyCallBacks,
                           &kCFTypeDictionaryValueCallBacks));
    if (!matching) {
      client_.reset();
      return;
    }
    setMatching_(client_.get(), matching.get());
  }

  std::vector<HIDTemperature> readAll() override {
    std::vector<HIDTemperature> readings;
    if (!client_) return readings;
    refreshServices();
    for (const Service& s : services_) {
      const mac::CFRef<EventRef> event(copyEvent_(s.service.get(), kTemperatureEvent, 0, 0));
      if (!event) continue;
      readings.push_back({s.product, floatValue_(event.get(), kTemperatureField)});
    }
    return readings;
  }

 private:
  struct Service {
    mac::CFRef<ServiceRef> service;  // retained for as long as it is in the list
    std::string product;
  };

  // The services whose product names a sensor of interest, refreshed every kServicesEvery.
  void refreshServices() {
    const auto now = std::chrono::steady_clock::now();
    if (servicesAt_ && now - *servicesAt_ < kServicesEvery) return;
    servicesAt_ = now;
    services_.clear();
    const mac::CFRef<CFArrayRef> all(copyServices_(client_.get()));
    if (!all) return;
    const CFIndex count = CFArrayGetCount(all.get());
    for (CFIndex i = 0; i < count; ++i) {
      const auto service = static_cast<ServiceRef>(CFArrayGetValueAtIndex(all.get(), i));
      if (service == nullptr) continue;
      const mac::CFRef<CFTypeRef> product(copyProperty_(service, CFSTR("Product")));
      auto name = mac::cfString(product.get());
      if (!name || !hidSensorGroup(*name)) continue;
      CFRetain(service);
      services_.push_back({mac::CFRef<ServiceRef>(service), std::move(*name)});
    }
  }

  void* library_ = nullptr;
  ClientCreate create_ = nullptr;
  ClientSetMatching setMatching_ = nullptr;
  ClientCopyServices copyServices_ = nullptr;
  ServiceCopyProperty copyProperty_ = nullptr;
  ServiceCopyEvent copyEvent_ = nullptr;
  EventGetFloatValue floatValue_ = nullptr;
  mac::CFRef<ClientRef> client_;
  std::vector<Service> services_;
  std::optional<std::chrono::steady_clock::time_point> servicesAt_;
};

}  // namespace

std::unique_ptr<HIDTemperatureSource> makeHIDTemperatureSource() {
  return std::make_unique<MacHIDTemperatureSource>();
}

}  // namespace vistrel
