#include "base/spawn_platform.hpp"

extern char** environ;

namespace vistrel {

char** processEnvironment() {
  return environ;
}

bool inheritOnlyStandardStreams(posix_spawnattr_t& /*attributes*/,
                                posix_spawn_file_actions_t& actions) {
  // Runs after the other file actions, in the child.
  return posix_spawn_file_actions_addclosefrom_np(&actions, 3) == 0;
}

}  // namespace vistrel
