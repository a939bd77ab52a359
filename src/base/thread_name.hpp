#pragma once

#include <string>

namespace vistrel {

// Names the calling thread for debuggers and crash reports (truncated where the platform limits
// it).
void setCurrentThreadName(const std::string& name);

}  // namespace vistrel
