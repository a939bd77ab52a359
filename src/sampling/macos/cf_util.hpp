#pragma once

// Owners and readers shared by the macOS sources: CoreFoundation references, IOKit objects, the
// host port, and typed reads of CoreFoundation values and sysctl settings. Every reader returns
// nullopt (or an empty value) for a missing or mistyped value instead of failing.

#include <CoreFoundation/CoreFoundation.h>
#include <IOKit/IOKitLib.h>
#include <mach/mach.h>
#include <sys/sysctl.h>

#include <cmath>
#include <cstdint>
#include <cstring>
#include <optional>
#include <string>
#include <utility>

#include "sampling/mac_decoders.hpp"

namespace vistrel::mac {

// Owns one CoreFoundation reference obtained under the create or copy rule and releases it once.
template <typename T>
class CFRef {
 public:
  CFRef() = default;
  explicit CFRef(T ref) : ref_(ref) {}
  ~CFRef() { reset(); }
  CFRef(const CFRef&) = delete;
  CFRef& operator=(const CFRef&) = delete;
  CFRef(CFRef&& other) noexcept : ref_(std::exchange(other.ref_, nullptr)) {}
  CFRef& operator=(CFRef&& other) noexcept {
    if (this != &other) reset(std::exchange(other.ref_, nullptr));
    return *this;
  }

  T get() const { return ref_; }
  explicit operator bool() const { return ref_ != nullptr; }
  void reset(T ref = nullptr) {
    if (ref_ != nullptr) CFRelease(ref_);
    ref_ = ref;
  }

 private:
  T ref_ = nullptr;
};

// Owns one IOKit object (service, iterator) and releases it once.
class IOObject {
 public:
  IOObject() = default;
  explicit IOObject(io_object_t object) : object_(object) {}
  ~IOObject() { reset(); }
  IOObject(const IOObject&) = delete;
  IOObject& operator=(const IOObject&) = delete;
  IOObject(IOObject&& other) noexcept : object_(std::exchange(other.object_, IO_OBJECT_NULL)) {}
  IOObject& operator=(IOObject&& other) noexcept {
    if (this != &other) reset(std::exchange(other.object_, IO_OBJECT_NULL));
    return *this;
  }

  io_object_t get() const { return object_; }
  explicit operator bool() const { return object_ != IO_OBJECT_NULL; }
  void reset(io_object_t object = IO_OBJECT_NULL) {
    if (object_ != IO_OBJECT_NULL) IOObjectRelease(object_);
    object_ = object;
  }

 private:
  io_object_t object_ = IO_OBJECT_NULL;
};

// The send right to the host port. mach_host_self() adds a user reference at every call, so each
// source takes one at creation and gives it back when destroyed.
class HostPort {
 public:
  HostPort() : port_(mach_host_self()) {}
  ~HostPort() {
    if (port_ != MACH_PORT_NULL) mach_port_deallocate(mach_task_self(), port_);
  }
  HostPort(const HostPort&) = delete;
  HostPort& operator=(const HostPort&) = delete;

  host_t get() const { return port_; }

 private:
  host_t port_ = MACH_PORT_NULL;
};

// `value` as a T when it is a CoreFoundation object of that type, else null. Never retains.
template <typename T>
T cfAs(CFTypeRef value, CFTypeID type) {
  return value != nullptr && CFGetTypeID(value) == type ? static_cast<T>(value) : nullptr;
}

// The value under `key`, or null; owned by the dictionary (get rule).
inline CFTypeRef cfValue(CFDictionaryRef dict, CFStringRef key) {
  return dict != nullptr ? CFDictionaryGetValue(dict, key) : nullptr;
}

inline std::optional<double> cfDouble(CFTypeRef value) {
  const auto number = cfAs<CFNumberRef>(value, CFNumberGetTypeID());
  double result = 0;
  if (number == nullptr || !CFNumberGetValue(number, kCFNumberDoubleType, &result)) {
    return std::nullopt;
  }
  if (!std::isfinite(result)) return std::nullopt;
  return result;
}

inline std::optional<int64_t> cfInt64(CFTypeRef value) {
  const auto number = cfAs<CFNumberRef>(value, CFNumberGetTypeID());
  if (number == nullptr) return std::nullopt;
  if (CFNumberIsFloatType(number)) {
    const std::optional<double> d = cfDouble(number);
    // 2^63 is exactly representable; anything at or beyond it does not fit.
    if (!d || *d < -9223372036854775808.0 || *d >= 9223372036854775808.0) return std::nullopt;
    return static_cast<int64_t>(*d);
  }
  int64_t result = 0;
  if (!CFNumberGetValue(number, kCFNumberSInt64Type, &result)) return std::nullopt;
  return result;
}

// An unsigned 64-bit figure. IOKit hands its unsigned 64-bit numbers over as signed CFNumbers
// holding the same bits, so integers are taken bit for bit; a floating-point value must be
// non-negative and fit.
inline std::optional<uint64_t> cfUInt64(CFTypeRef value) {
  const auto number = cfAs<CFNumberRef>(value, CFNumberGetTypeID());
  if (number == nullptr) return std::nullopt;
  if (CFNumberIsFloatType(number)) {
    const std::optional<double> d = cfDouble(number);
    if (!d || *d < 0 || *d >= 18446744073709551616.0) return std::nullopt;
    return static_cast<uint64_t>(*d);
  }
  int64_t bits = 0;
  if (!CFNumberGetValue(number, kCFNumberSInt64Type, &bits)) return std::nullopt;
  return static_cast<uint64_t>(bits);
}

inline std::optional<bool> cfBool(CFTypeRef value) {
  const auto boolean = cfAs<CFBooleanRef>(value, CFBooleanGetTypeID());
  if (boolean == nullptr) return std::nullopt;
  return CFBooleanGetValue(boolean) != 0;
}

inline std::optional<std::string> cfString(CFTypeRef value) {
  const auto string = cfAs<CFStringRef>(value, CFStringGetTypeID());
  if (string == nullptr) return std::nullopt;
  if (const char* direct = CFStringGetCStringPtr(string, kCFStringEncodingUTF8)) return direct;
  const CFIndex length = CFStringGetLength(string);
  const CFIndex capacity = CFStringGetMaximumSizeForEncoding(length, kCFStringEncodingUTF8);
  if (capacity == kCFNotFound || capacity < 0) return std::nullopt;
  std::string result(static_cast<size_t>(capacity) + 1, '\0');
  if (!CFStringGetCString(string, result.data(), capacity + 1, kCFStringEncodingUTF8)) {
    return std::nullopt;
  }
  result.resize(std::strlen(result.c_str()));
  return result;
}

// A property of an I/O registry entry, owned by the caller; null when the entry has none.
inline CFRef<CFTypeRef> registryProperty(io_registry_entry_t entry, CFStringRef key) {
  return CFRef<CFTypeRef>(IORegistryEntryCreateCFProperty(entry, key, kCFAllocatorDefault, 0));
}

// Calls `visit(io_service_t)` for every registered service of class `className` (or a subclass), in
// the registry's order. False when the services cannot be listed.
template <typename Visit>
bool forEachService(const char* className, Visit&& visit) {
  CFMutableDictionaryRef matching = IOServiceMatching(className);
  if (matching == nullptr) return false;
  io_iterator_t rawIterator = IO_OBJECT_NULL;
  // The matching dictionary is consumed by this call whatever its outcome.
  if (IOServiceGetMatchingServices(kIOMainPortDefault, matching, &rawIterator) != KERN_SUCCESS) {
    return false;
  }
  const IOObject iterator(rawIterator);
  while (true) {
    const IOObject service(IOIteratorNext(iterator.get()));
    if (!service) break;
    visit(static_cast<io_service_t>(service.get()));
  }
  return true;
}

// An integer sysctl setting, read into a 64-bit buffer; nullopt when it cannot be read.
inline std::optional<int64_t> sysctlInteger(const char* name) {
  int64_t buffer = 0;
  size_t length = sizeof buffer;
  if (sysctlbyname(name, &buffer, &length, nullptr, 0) != 0) return std::nullopt;
  return decodeSysctlInteger(&buffer, length);
}

// A string sysctl setting: its length is asked first, then that many bytes are read. nullopt when
// either call fails or the length is below 1. The terminating NUL the system includes is dropped.
inline std::optional<std::string> sysctlString(const char* name) {
  size_t length = 0;
  if (sysctlbyname(name, nullptr, &length, nullptr, 0) != 0 || length < 1) return std::nullopt;
  std::string buffer(length, '\0');
  if (sysctlbyname(name, buffer.data(), &length, nullptr, 0) != 0) return std::nullopt;
  if (length > buffer.size()) return std::nullopt;
  buffer.resize(strnlen(buffer.data(), length));
  return buffer;
}

}  // namespace vistrel::mac
