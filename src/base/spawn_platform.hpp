#pragma once

#include <spawn.h>

namespace vistrel {

// Makes a spawn inherit only the descriptors its file actions set up (standard input, output and
// error), whatever else is open in this process. Another thread may create a descriptor and not yet
// have marked it close-on-exec (macOS has no SOCK_CLOEXEC or accept4), so marking is not enough:
// macOS asks for POSIX_SPAWN_CLOEXEC_DEFAULT, Linux adds a file action that closes every
// descriptor from 3 up. False when the platform refused.
bool inheritOnlyStandardStreams(posix_spawnattr_t& attributes, posix_spawn_file_actions_t& actions);

// This process's environment ("NAME=value" entries, null at the end). On macOS a shared library
// or bundle (the application module) cannot name `environ` directly: it asks _NSGetEnviron.
char** processEnvironment();

}  // namespace vistrel
