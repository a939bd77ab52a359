#include <pthread.h>

#include "base/thread_name.hpp"

namespace vistrel {

void setCurrentThreadName(const std::string& name) {
  // Linux allows 15 characters; keep the distinctive tail ("vistrel.sampler" of the full label).
  std::string shortName = name.size() > 15 ? name.substr(name.size() - 15) : name;
  pthread_setname_np(pthread_self(), shortName.c_str());
}

}  // namespace vistrel
