#include "base/paths.hpp"

#include <pwd.h>
#include <unistd.h>

#include <cstdlib>

namespace vistrel {

std::string homeFolder() {
  if (const char* home = std::getenv("HOME"); home && *home) return home;
  if (passwd* pw = ::getpwuid(::getuid()); pw && pw->pw_dir) return pw->pw_dir;
  return "/tmp";
}

}  // namespace vistrel
