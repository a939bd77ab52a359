#pragma once

#include <cstddef>
#include <string>
#include <string_view>

namespace vistrel {

// Names the calling thread for debuggers and crash reports (truncated where the platform limits
// it).
void setCurrentThreadName(const std::string& name);

// The longest start of `name` that fits in `maxBytes` bytes without splitting a UTF-8 sequence.
// macOS refuses a name over 63 bytes outright (the thread would stay unnamed), so names are cut
// before the call.
std::string threadNamePrefix(std::string_view name, size_t maxBytes);

}  // namespace vistrel
