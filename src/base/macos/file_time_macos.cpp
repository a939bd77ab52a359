#include <sys/stat.h>

#include "base/files.hpp"

namespace vistrel {

int64_t modifiedNanoseconds(const struct stat& info) {
  return static_cast<int64_t>(info.st_mtimespec.tv_sec) * 1'000'000'000 +
         static_cast<int64_t>(info.st_mtimespec.tv_nsec);
}

}  // namespace vistrel
