#include <stdlib.h>

#include <string>
#include <vector>

#include "base/files.hpp"
#include "sampling/linux/linux_sources.hpp"
#include "sampling/proc_parsers.hpp"

namespace vistrel {

namespace {

class LinuxCPUSource final : public CPUSource {
 public:
  explicit LinuxCPUSource(std::string root)
      : root_(std::move(root)), statPath_(joinPath(root_, "proc/stat")), realRoot_(root_ == "/") {}

  bool coreTicks(std::vector<CoreTicks>& out) override {
    // /proc/stat carries a long "intr" line; the buffer keeps its capacity between ticks.
    if (!readFile(statPath_, buffer_)) {
      out.clear();
      return false;
    }
    return parseProcStat(buffer_, out);
  }

  std::array<double, 3> loadAverages() override {
    if (realRoot_) {
      double load[3] = {};
      if (::getloadavg(load, 3) != 3) return {};
      return {load[0], load[1], load[2]};
    }
    // A captured tree: the same figures from its /proc/loadavg.
    if (!readFile(joinPath(root_, "proc/loadavg"), buffer_, 256)) return {};
    return parseLoadavg(buffer_);
  }

  int performanceCores() override {
    countCores();
    return performance_;
  }
  int efficiencyCores() override {
    countCores();
    return efficiency_;
  }

 private:
  // Hybrid Intel CPUs expose one PMU per core type, each listing its CPUs. Elsewhere every logical
  // core counts as a performance core.
  void countCores() {
    if (counted_) return;
    counted_ = true;
    std::string text;
    int core = 0, atom = 0;
    bool hybrid = false;
    if (readFile(joinPath(root_, "sys/devices/cpu_core/cpus"), text, 4096)) {
      core = countCPUList(text);
      hybrid = true;
    }
    if (readFile(joinPath(root_, "sys/devices/cpu_atom/cpus"), text, 4096)) {
      atom = countCPUList(text);
      hybrid = true;
    }
    if (hybrid && core + atom > 0) {
      performance_ = core;
      efficiency_ = atom;
      return;
    }
    std::vector<CoreTicks> ticks;
    performance_ = coreTicks(ticks) ? static_cast<int>(ticks.size()) : 0;
    efficiency_ = 0;
  }

  std::string root_;
  std::string statPath_;
  bool realRoot_;
  std::string buffer_;
  bool counted_ = false;
  int performance_ = 0;
  int efficiency_ = 0;
};

}  // namespace

std::unique_ptr<CPUSource> makeLinuxCPUSource(std::string root) {
  return std::make_unique<LinuxCPUSource>(std::move(root));
}

std::unique_ptr<CPUSource> makeCPUSource() {
  return makeLinuxCPUSource("/");
}

}  // namespace vistrel
