#include "kernel_churn.hpp"

namespace vistrel::bench {

// No /proc to imitate on this platform.
ChurnFigures soakKernelChurn(int) {
  return {};
}

}  // namespace vistrel::bench
