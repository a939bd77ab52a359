#include <crt_externs.h>

#include "base/spawn_platform.hpp"

namespace vistrel {

char** processEnvironment() {
  return *_NSGetEnviron();
}

bool inheritOnlyStandardStreams(posix_spawnattr_t& attributes,
                                posix_spawn_file_actions_t& /*actions*/) {
  // Every descriptor is closed in the child except those the file actions open or duplicate.
  short flags = 0;
  if (posix_spawnattr_getflags(&attributes, &flags) != 0) return false;
  return posix_spawnattr_setflags(&attributes,
                                  static_cast<short>(flags | POSIX_SPAWN_CLOEXEC_DEFAULT)) == 0;
}

}  // namespace vistrel
