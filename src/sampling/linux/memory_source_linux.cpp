#include <optional>
#include <string>
#include <vector>

#include "base/files.hpp"
#include "sampling/linux/linux_sources.hpp"
#include "sampling/proc_parsers.hpp"

namespace vistrel {

namespace {

class LinuxMemorySource final : public MemorySource {
 public:
  LinuxMemorySource(std::string root, const Clock& clock)
      : root_(std::move(root)),
        clock_(clock),
        meminfoPath_(joinPath(root_, "proc/meminfo")),
        pressurePath_(joinPath(root_, "proc/pressure/memory")) {}

  uint64_t totalMemory() override {
    if (!readFile(meminfoPath_, buffer_, 64 * 1024)) return 0;
    return parseMeminfo(buffer_).memTotal.value_or(0);
  }

  std::optional<MemoryFigures> figures() override {
    if (!readFile(meminfoPath_, buffer_, 64 * 1024)) return std::nullopt;
    MemInfo info = parseMeminfo(buffer_);
    if (!info.memTotal) return std::nullopt;  // not meminfo at all (cut short or garbage)

    uint64_t zram = 0;
    for (const std::string& path : zramStatPaths()) {
      if (readFile(path, buffer_, 1024)) zram += parseZramUsed(buffer_);
    }
    MemoryFigures figures = memoryFromMeminfo(info, zram);
    // Kernels without pressure stall information (before 4.20, or built without it) have no file:
    // the pressure stays normal.
    if (readFile(pressurePath_, buffer_, 1024)) figures.pressure = parseMemoryPressure(buffer_);
    return figures;
  }

 private:
  // zram devices are made by the swap set-up at boot and rarely afterwards, so the list of their
  // mm_stat files is cached and re-listed only every kDeviceRecheckSeconds.
  const std::vector<std::string>& zramStatPaths() {
    double now = clock_.uptime();
    if (zramAt_ && now - *zramAt_ < kDeviceRecheckSeconds && now >= *zramAt_) return zramPaths_;
    zramAt_ = now;
    zramPaths_.clear();
    std::string block = joinPath(root_, "sys/block");
    for (const std::string& name : listFolder(block)) {
      if (name.rfind("zram", 0) != 0) continue;
      zramPaths_.push_back(joinPath(joinPath(block, name), "mm_stat"));
    }
    return zramPaths_;
  }

  std::string root_;
  const Clock& clock_;
  std::string meminfoPath_;
  std::string pressurePath_;
  std::string buffer_;
  std::vector<std::string> zramPaths_;
  std::optional<double> zramAt_;
};

}  // namespace

std::unique_ptr<MemorySource> makeLinuxMemorySource(std::string root, const Clock& clock) {
  return std::make_unique<LinuxMemorySource>(std::move(root), clock);
}

std::unique_ptr<MemorySource> makeMemorySource() {
  return makeLinuxMemorySource("/");
}

}  // namespace vistrel
