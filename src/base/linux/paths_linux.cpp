#include <cstdlib>

#include "base/files.hpp"
#include "base/paths.hpp"

namespace vistrel {

namespace {

// An XDG base folder: the variable when it holds an absolute path (the XDG rule ignores relative
// ones), else the default under the home folder.
std::string xdgFolder(const char* variable, const char* fallback) {
  if (const char* value = std::getenv(variable); value && value[0] == '/') return value;
  return joinPath(homeFolder(), fallback);
}

}  // namespace

std::string supportFolder() {
  return joinPath(xdgFolder("XDG_DATA_HOME", ".local/share"), "Vistrel");
}

std::string defaultSupportFolder() {
  return joinPath(homeFolder(), ".local/share/Vistrel");
}

std::string configFolder() {
  return joinPath(xdgFolder("XDG_CONFIG_HOME", ".config"), "vistrel");
}

}  // namespace vistrel
