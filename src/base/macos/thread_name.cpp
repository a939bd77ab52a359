#include <pthread.h>

#include "base/thread_name.hpp"

namespace vistrel {

void setCurrentThreadName(const std::string& name) {
  pthread_setname_np(name.c_str());
}

}  // namespace vistrel
