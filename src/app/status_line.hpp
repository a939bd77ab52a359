#pragma once

#include <string>

#include "sampling/records.hpp"

namespace vistrel {

// One line of the machine's state for a terminal: the mood and every live figure.
std::string statusLine(const Snapshot& snapshot);

}  // namespace vistrel
