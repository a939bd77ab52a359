#include "machine.hpp"

#include <sys/utsname.h>
#include <unistd.h>

#include "base/files.hpp"
#include "base/subprocess.hpp"

namespace vistrel::bench {

std::string describeMachine() {
  std::string model;
  if (auto info = readFile("/proc/cpuinfo")) {
    auto at = info->find("model name");
    if (at != std::string::npos) {
      auto colon = info->find(':', at);
      auto end = info->find('\n', at);
      if (colon != std::string::npos && colon < end)
        model = info->substr(colon + 2, end - colon - 2);
    }
  }
  if (model.empty()) {
    auto r = runSubprocess("/usr/sbin/sysctl", {"-n", "machdep.cpu.brand_string"});
    model = r.output.substr(0, r.output.find('\n'));
  }
  if (model.empty()) model = "unknown processor";
  utsname u{};
  uname(&u);
  return model + ", " + std::to_string(sysconf(_SC_NPROCESSORS_ONLN)) + " logical cores, " +
         u.sysname + " " + u.release;
}

}  // namespace vistrel::bench
