#include "base/files.hpp"
#include "base/paths.hpp"

namespace vistrel {

std::string supportFolder() {
  return joinPath(homeFolder(), "Library/Application Support/Vistrel");
}

std::string defaultSupportFolder() {
  return supportFolder();
}

std::string configFolder() {
  return supportFolder();
}

}  // namespace vistrel
