// The "AppleSmartBattery" service's properties, converted to the portable property tree in one
// registry call.

#include <vector>

#include "sampling/battery_reader.hpp"
#include "sampling/macos/cf_util.hpp"

namespace vistrel {
namespace {

Properties convertDictionary(CFDictionaryRef dict, int depth);

std::optional<PropertyValue> convert(CFTypeRef value, int depth) {
  if (value == nullptr) return std::nullopt;
  const CFTypeID type = CFGetTypeID(value);
  PropertyValue out;
  if (type == CFBooleanGetTypeID()) {
    out.value = CFBooleanGetValue(static_cast<CFBooleanRef>(value)) != 0;
  } else if (type == CFNumberGetTypeID()) {
    const auto number = static_cast<CFNumberRef>(value);
    if (CFNumberIsFloatType(number)) {
      auto d = mac::cfDouble(number);
      if (!d) return std::nullopt;
      out.value = *d;
    } else {
      // Signed: a discharging battery's amperage is negative.
      auto i = mac::cfInt64(number);
      if (!i) return std::nullopt;
      out.value = *i;
    }
  } else if (type == CFStringGetTypeID()) {
    auto s = mac::cfString(value);
    if (!s) return std::nullopt;
    out.value = std::move(*s);
  } else if (type == CFDictionaryGetTypeID() && depth < 4) {
    out.value = convertDictionary(static_cast<CFDictionaryRef>(value), depth + 1);
  } else {
    return std::nullopt;
  }
  return out;
}

Properties convertDictionary(CFDictionaryRef dict, int depth) {
  Properties result;
  const CFIndex count = CFDictionaryGetCount(dict);
  if (count <= 0) return result;
  std::vector<const void*> keys(static_cast<size_t>(count)), values(static_cast<size_t>(count));
  CFDictionaryGetKeysAndValues(dict, keys.data(), values.data());
  for (CFIndex i = 0; i < count; ++i) {
    auto key = mac::cfString(static_cast<CFTypeRef>(keys[static_cast<size_t>(i)]));
    if (!key) continue;
    if (auto v = convert(static_cast<CFTypeRef>(values[static_cast<size_t>(i)]), depth)) {
      result.emplace(std::move(*key), std::move(*v));
    }
  }
  return result;
}

class MacBatteryPropertiesSource final : public BatteryPropertiesSource {
 public:
  std::optional<Properties> properties() override {
    const mac::IOObject service(
        IOServiceGetMatchingService(kIOMainPortDefault, IOServiceMatching("AppleSmartBattery")));
    if (!service) return std::nullopt;
    CFMutableDictionaryRef raw = nullptr;
    if (IORegistryEntryCreateCFProperties(service.get(), &raw, kCFAllocatorDefault, 0) !=
            KERN_SUCCESS ||
        raw == nullptr) {
      return std::nullopt;
    }
    const mac::CFRef<CFMutableDictionaryRef> dict(raw);
    return convertDictionary(dict.get(), 0);
  }
};

}  // namespace

std::unique_ptr<BatteryPropertiesSource> makeBatteryPropertiesSource() {
  return std::make_unique<MacBatteryPropertiesSource>();
}

}  // namespace vistrel
