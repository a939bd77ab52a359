// Account numbering on macOS: system accounts and daemons sit below 500, people from 501 up.

#include "processes/process_source.hpp"

namespace vistrel {

uint32_t firstUserId() {
  return 500;
}

}  // namespace vistrel
