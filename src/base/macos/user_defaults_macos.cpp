#include <CoreFoundation/CoreFoundation.h>

#include <cstdint>
#include <limits>
#include <string>
#include <utility>
#include <vector>

#include "base/macos/preferences_defaults.hpp"
#include "base/user_defaults.hpp"

namespace vistrel {

namespace {

using nlohmann::json;

// Owns one reference to a Core Foundation object (one obtained under the Create or Copy rule, or
// retained for the purpose) and releases it.
class CFHolder {
 public:
  CFHolder() = default;
  explicit CFHolder(CFTypeRef ref) : ref_(ref) {}
  CFHolder(CFHolder&& other) noexcept : ref_(std::exchange(other.ref_, nullptr)) {}
  CFHolder& operator=(CFHolder&& other) noexcept {
    if (this != &other) {
      if (ref_) CFRelease(ref_);
      ref_ = std::exchange(other.ref_, nullptr);
    }
    return *this;
  }
  CFHolder(const CFHolder&) = delete;
  CFHolder& operator=(const CFHolder&) = delete;
  ~CFHolder() {
    if (ref_) CFRelease(ref_);
  }
  CFTypeRef get() const { return ref_; }
  explicit operator bool() const { return ref_ != nullptr; }

 private:
  CFTypeRef ref_ = nullptr;
};

CFHolder makeString(std::string_view text) {
  CFStringRef made =
      CFStringCreateWithBytes(kCFAllocatorDefault, reinterpret_cast<const UInt8*>(text.data()),
                              static_cast<CFIndex>(text.size()), kCFStringEncodingUTF8, false);
  if (made) return CFHolder(made);
  // Not valid UTF-8: store the text with U+FFFD in place of the bad bytes rather than nothing.
  std::string repaired =
      json::parse(json(std::string(text)).dump(-1, ' ', false, json::error_handler_t::replace))
          .get<std::string>();
  return CFHolder(
      CFStringCreateWithBytes(kCFAllocatorDefault, reinterpret_cast<const UInt8*>(repaired.data()),
                              static_cast<CFIndex>(repaired.size()), kCFStringEncodingUTF8, false));
}

std::string stringFrom(CFStringRef string) {
  CFIndex length = CFStringGetLength(string);
  CFIndex capacity = CFStringGetMaximumSizeForEncoding(length, kCFStringEncodingUTF8);
  if (capacity == kCFNotFound) return {};
  // CFStringGetBytes rather than CFStringGetCString: it keeps embedded NUL characters.
  std::string out(static_cast<size_t>(capacity), '\0');
  CFIndex used = 0;
  CFStringGetBytes(string, CFRangeMake(0, length), kCFStringEncodingUTF8, 0, false,
                   reinterpret_cast<UInt8*>(out.data()), capacity, &used);
  out.resize(static_cast<size_t>(used));
  return out;
}

// A property list for a value; empty for null (which property lists lack). Nulls inside arrays
// and objects are left out. Unsigned integers above INT64_MAX become reals (CFNumber has no
// unsigned 64-bit type).
CFHolder toPropertyList(const json& value) {
  switch (value.type()) {
    case json::value_t::boolean:
      return CFHolder(CFRetain(value.get<bool>() ? kCFBooleanTrue : kCFBooleanFalse));
    case json::value_t::number_unsigned:
      if (value.get<uint64_t>() > uint64_t(std::numeric_limits<int64_t>::max())) {
        double real = value.get<double>();
        return CFHolder(CFNumberCreate(kCFAllocatorDefault, kCFNumberFloat64Type, &real));
      }
      [[fallthrough]];
    case json::value_t::number_integer: {
      int64_t integer = value.get<int64_t>();
      return CFHolder(CFNumberCreate(kCFAllocatorDefault, kCFNumberSInt64Type, &integer));
    }
    case json::value_t::number_float: {
      double real = value.get<double>();
      return CFHolder(CFNumberCreate(kCFAllocatorDefault, kCFNumberFloat64Type, &real));
    }
    case json::value_t::string:
      return makeString(value.get_ref<const std::string&>());
    case json::value_t::binary: {
      const auto& bytes = value.get_binary();
      return CFHolder(
          CFDataCreate(kCFAllocatorDefault, bytes.data(), static_cast<CFIndex>(bytes.size())));
    }
    case json::value_t::array: {
      CFMutableArrayRef array =
          CFArrayCreateMutable(kCFAllocatorDefault, 0, &kCFTypeArrayCallBacks);
      CFHolder holder(array);
      for (const auto& item : value) {
        // The array retains what it is given; our holder releases our own reference.
        if (CFHolder element = toPropertyList(item)) CFArrayAppendValue(array, element.get());
      }
      return holder;
    }
    case json::value_t::object: {
      CFMutableDictionaryRef dictionary = CFDictionaryCreateMutable(
          kCFAllocatorDefault, 0, &kCFTypeDictionaryKeyCallBacks, &kCFTypeDictionaryValueCallBacks);
      CFHolder holder(dictionary);
      for (const auto& [key, item] : value.items()) {
        CFHolder name = makeString(key);
        CFHolder element = toPropertyList(item);
        if (name && element) CFDictionarySetValue(dictionary, name.get(), element.get());
      }
      return holder;
    }
    default:  // null, discarded
      return CFHolder();
  }
}

// The value of a property list; nullopt for types we do not carry (dates).
std::optional<json> fromPropertyList(CFTypeRef ref) {
  if (ref == nullptr) return std::nullopt;
  CFTypeID type = CFGetTypeID(ref);
  if (type == CFBooleanGetTypeID()) {
    // Boolean is an unsigned char: compare, or the JSON value would be a number.
    return json(CFBooleanGetValue(static_cast<CFBooleanRef>(ref)) != 0);
  }
  if (type == CFNumberGetTypeID()) {
    auto number = static_cast<CFNumberRef>(ref);
    if (CFNumberIsFloatType(number)) {
      double real = 0;
      CFNumberGetValue(number, kCFNumberFloat64Type, &real);
      return json(real);
    }
    int64_t integer = 0;
    CFNumberGetValue(number, kCFNumberSInt64Type, &integer);
    return json(integer);
  }
  if (type == CFStringGetTypeID()) return json(stringFrom(static_cast<CFStringRef>(ref)));
  if (type == CFDataGetTypeID()) {
    auto data = static_cast<CFDataRef>(ref);
    const UInt8* bytes = CFDataGetBytePtr(data);
    return json::binary(std::vector<uint8_t>(bytes, bytes + CFDataGetLength(data)));
  }
  if (type == CFArrayGetTypeID()) {
    auto array = static_cast<CFArrayRef>(ref);
    json out = json::array();
    for (CFIndex i = 0, count = CFArrayGetCount(array); i < count; ++i) {
      if (auto item = fromPropertyList(CFArrayGetValueAtIndex(array, i))) {
        out.push_back(std::move(*item));
      }
    }
    return out;
  }
  if (type == CFDictionaryGetTypeID()) {
    auto dictionary = static_cast<CFDictionaryRef>(ref);
    auto count = static_cast<size_t>(CFDictionaryGetCount(dictionary));
    std::vector<const void*> keys(count), values(count);
    CFDictionaryGetKeysAndValues(dictionary, keys.data(), values.data());
    json out = json::object();
    for (size_t i = 0; i < count; ++i) {
      if (CFGetTypeID(keys[i]) != CFStringGetTypeID()) continue;  // property lists use strings
      if (auto item = fromPropertyList(values[i])) {
        out[stringFrom(static_cast<CFStringRef>(keys[i]))] = std::move(*item);
      }
    }
    return out;
  }
  return std::nullopt;
}

// The user defaults of macOS. CFPreferences is thread-safe and shares values with other processes
// of the same user (the --mcp process, the `defaults` tool) through cfprefsd. The App functions
// use the current user on any host.
class PreferencesDefaults final : public UserDefaults {
 public:
  explicit PreferencesDefaults(CFHolder domain) : domain_(std::move(domain)) {}

  std::optional<json> get(std::string_view key) override {
    CFHolder name = makeString(key);
    if (!name || !domain_) return std::nullopt;
    CFHolder value(CFPreferencesCopyAppValue(static_cast<CFStringRef>(name.get()), domain()));
    return fromPropertyList(value.get());
  }

  void set(std::string_view key, json value) override {
    CFHolder name = makeString(key);
    if (!name || !domain_) return;
    // A null property list removes the key.
    CFHolder list = toPropertyList(value);
    CFPreferencesSetAppValue(static_cast<CFStringRef>(name.get()), list.get(), domain());
    CFPreferencesAppSynchronize(domain());
  }

 private:
  CFStringRef domain() const { return static_cast<CFStringRef>(domain_.get()); }

  const CFHolder domain_;
};

}  // namespace

std::unique_ptr<UserDefaults> makePreferencesDefaults(std::string_view domain) {
  return std::make_unique<PreferencesDefaults>(makeString(domain));
}

std::unique_ptr<UserDefaults> makeUserDefaults() {
  return makePreferencesDefaults("org.brackwood.vistrel");
}

}  // namespace vistrel
