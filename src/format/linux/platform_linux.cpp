#include "format/platform_text.hpp"

namespace vistrel {

bool runningOnLinux() {
  return true;
}

}  // namespace vistrel
