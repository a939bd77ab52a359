#include <pthread.h>

#include "base/thread_name.hpp"

namespace vistrel {

// MAXTHREADNAMESIZE is 64 bytes with the terminating zero; a longer name fails with ENAMETOOLONG
// and leaves the thread unnamed.
constexpr size_t kMaxThreadNameBytes = 63;

void setCurrentThreadName(const std::string& name) {
  pthread_setname_np(threadNamePrefix(name, kMaxThreadNameBytes).c_str());
}

}  // namespace vistrel
