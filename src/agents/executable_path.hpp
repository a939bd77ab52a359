#pragma once

#include <optional>
#include <string>

namespace vistrel {

// The absolute path of the running executable, symbolic links resolved; nullopt when the system
// will not say. One definition per platform, chosen by the build.
std::optional<std::string> runningExecutablePath();

}  // namespace vistrel
