#pragma once

#include <string>

namespace vistrel::bench {

// "Intel(R) Xeon(R) ... , 2 logical cores, Linux 6.1" or the Mac's equivalent: printed with every
// absolute figure so that a reader knows what it was measured on.
std::string describeMachine();

}  // namespace vistrel::bench
