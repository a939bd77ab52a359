// The process source on macOS: libproc for the pid list, counters, identity and folders; sysctl for
// argument vectors; the I/O registry's GPU user clients for GPU time; the system's process-status
// and network tools for what the kernel will not tell an unprivileged caller. Thin: every call
// hands raw values to the portable parsers and to the process sampler.

#include <dlfcn.h>
#include <libproc.h>
#include <mach/mach_time.h>
#include <sys/proc_info.h>
#include <sys/resource.h>
#include <sys/sysctl.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <memory>
#include <string_view>

#include "base/subprocess.hpp"
#include "processes/app_bundles.hpp"
#include "processes/process_parsers.hpp"
#include "processes/process_source.hpp"
#include "sampling/macos/cf_util.hpp"

namespace vistrel {
namespace {

// pid_t responsibility_get_pid_responsible_for_pid(pid_t): private to the system, so it is looked
// up at run time and may be missing.
using ResponsibleFunction = pid_t (*)(pid_t);
constexpr const char* kResponsibleSymbol = "responsibility_get_pid_responsible_for_pid";

// The most of a tool's output that is kept; a full process listing is a few hundred kilobytes.
constexpr size_t kToolOutputLimit = 64 << 20;

// Closes a dlopen handle once.
struct DlClose {
  void operator()(void* handle) const {
    if (handle != nullptr) dlclose(handle);
  }
};
using DlHandle = std::unique_ptr<void, DlClose>;

// Nanoseconds per mach absolute-time unit (125/3 on Apple silicon, 1 on Intel). A denominator of
// 0 counts as 1; a failed call leaves the units taken as nanoseconds.
double nanosecondsPerTick() {
  mach_timebase_info_data_t info{};
  if (mach_timebase_info(&info) != KERN_SUCCESS || info.numer == 0) return 1.0;
  return static_cast<double>(info.numer) / static_cast<double>(info.denom == 0 ? 1 : info.denom);
}

// `ticks` mach units as whole nanoseconds, saturating instead of overflowing.
uint64_t ticksToNs(uint64_t ticks, double nsPerTick) {
  const double ns = static_cast<double>(ticks) * nsPerTick;
  if (!(ns > 0)) return 0;
  if (ns >= 18446744073709551616.0) return UINT64_MAX;
  return static_cast<uint64_t>(ns);
}

// A fixed-size, possibly unterminated name field of a kernel structure, up to its first zero.
template <size_t N>
std::string fixedField(const char (&field)[N]) {
  return repairUtf8(std::string_view(field, strnlen(field, N)));
}

// Accumulated GPU time of one user client of an accelerator, added to its creator's entry.
// Clients without a readable creator or usage list are not GPU work of a known process.
void addClientGpuTime(io_registry_entry_t client, std::unordered_map<int32_t, uint64_t>& times) {
  const mac::CFRef<CFTypeRef> creator = mac::registryProperty(client, CFSTR("IOUserClientCreator"));
  const std::optional<std::string> creatorText = mac::cfString(creator.get());
  if (!creatorText) return;
  const mac::CFRef<CFTypeRef> usage = mac::registryProperty(client, CFSTR("AppUsage"));
  const auto list = mac::cfAs<CFArrayRef>(usage.get(), CFArrayGetTypeID());
  if (list == nullptr) return;
  const std::optional<int32_t> pid = parseUserClientCreator(*creatorText);
  if (!pid) return;

  uint64_t sum = 0;
  const CFIndex count = CFArrayGetCount(list);
  for (CFIndex i = 0; i < count; ++i) {
    const auto entry =
        mac::cfAs<CFDictionaryRef>(CFArrayGetValueAtIndex(list, i), CFDictionaryGetTypeID());
    sum += mac::cfUInt64(mac::cfValue(entry, CFSTR("accumulatedGPUTime"))).value_or(0);
  }
  times[*pid] += sum;
}

class MacProcessSource final : public ProcessSource {
 public:
  MacProcessSource() : nsPerTick_(nanosecondsPerTick()), library_(dlopen(nullptr, RTLD_NOW)) {
    if (library_) {
      responsible_ =
          reinterpret_cast<ResponsibleFunction>(dlsym(library_.get(), kResponsibleSymbol));
    }
  }

  void listPids(std::vector<int32_t>& out) override {
    out.clear();
    // A first call without a buffer gives the count; the spare slots hold processes born
    // between the two calls.
    const int count = std::max(proc_listallpids(nullptr, 0), 0);
    const size_t capacity = std::max<size_t>(static_cast<size_t>(count) + 64, 512);
    pidBuffer_.assign(capacity, 0);
    const int listed =
        proc_listallpids(pidBuffer_.data(), static_cast<int>(capacity * sizeof(pidBuffer_[0])));
    const size_t n = std::min(static_cast<size_t>(std::max(listed, 0)), capacity);
    for (size_t i = 0; i < n; ++i) {
      if (pidBuffer_[i] > 0) out.push_back(static_cast<int32_t>(pidBuffer_[i]));
    }
  }

  std::optional<ProcessCounters> counters(int32_t pid) override {
    rusage_info_v6 usage{};
    if (proc_pid_rusage(pid, RUSAGE_INFO_V6, reinterpret_cast<rusage_info_t*>(&usage)) != 0) {
      return std::nullopt;
    }
    ProcessCounters c;
    // CPU times are in mach absolute units, not nanoseconds, on Apple silicon.
    c.cpuNs = ticksToNs(usage.ri_user_time + usage.ri_system_time, nsPerTick_);
    c.energyNj = usage.ri_energy_nj != 0 ? usage.ri_energy_nj : usage.ri_billed_energy;
    c.diskRead = usage.ri_diskio_bytesread;
    c.diskWrite = usage.ri_diskio_byteswritten;
    c.memory = usage.ri_phys_footprint;
    c.startKey = usage.ri_proc_start_abstime;
    return c;
  }

  std::optional<ProcessIdentity> identity(int32_t pid) override {
    proc_bsdinfo info{};
    const int size = proc_pidinfo(pid, PROC_PIDTBSDINFO, 0, &info, static_cast<int>(sizeof info));
    if (size != static_cast<int>(sizeof info)) return std::nullopt;

    ProcessIdentity id;
    id.ppid = static_cast<int32_t>(info.pbi_ppid);
    id.uid = info.pbi_uid;
    char path[PROC_PIDPATHINFO_MAXSIZE] = {};
    const int length = proc_pidpath(pid, path, static_cast<uint32_t>(sizeof path));
    if (length > 0) id.path = repairUtf8(std::string_view(path, strnlen(path, sizeof path)));
    id.baseName = fixedField(info.pbi_name);
    if (id.baseName.empty()) id.baseName = fixedField(info.pbi_comm);
    id.started = Date{} + std::chrono::seconds(static_cast<int64_t>(info.pbi_start_tvsec)) +
                 std::chrono::microseconds(static_cast<int64_t>(info.pbi_start_tvusec));
    id.appPath = outermostApp(id.path);
    return id;
  }

  std::vector<std::string> arguments(int32_t pid) override {
    int mib[3] = {CTL_KERN, KERN_PROCARGS2, pid};
    size_t size = 0;
    if (sysctl(mib, 3, nullptr, &size, nullptr, 0) != 0 || size < 5) return {};
    std::vector<uint8_t> buffer(size);
    if (sysctl(mib, 3, buffer.data(), &size, nullptr, 0) != 0) return {};
    return parseProcArgs2(buffer.data(), std::min(size, buffer.size()));
  }

  std::optional<std::string> workingFolder(int32_t pid) override {
    proc_vnodepathinfo info{};
    if (proc_pidinfo(pid, PROC_PIDVNODEPATHINFO, 0, &info, static_cast<int>(sizeof info)) < 1)
      return std::nullopt;
    std::string folder = fixedField(info.pvi_cdir.vip_path);
    if (folder.empty() || folder == "/") return std::nullopt;
    return folder;
  }

  std::optional<int32_t> responsibleFor(int32_t pid) override {
    if (responsible_ == nullptr) return std::nullopt;
    return static_cast<int32_t>(responsible_(pid));
  }

  std::unordered_map<int32_t, uint64_t> gpuTimes() override {
    std::unordered_map<int32_t, uint64_t> times;
    // Every process drawing on the GPU holds user clients that are children of the accelerator
    // in the service plane; each records its creator and the GPU time it has used.
    mac::forEachService("IOAccelerator", [&](io_service_t accelerator) {
      io_iterator_t rawChildren = IO_OBJECT_NULL;
      if (IORegistryEntryGetChildIterator(accelerator, kIOServicePlane, &rawChildren) !=
          KERN_SUCCESS) {
        return;
      }
      const mac::IOObject children(rawChildren);
      while (true) {
        const mac::IOObject child(IOIteratorNext(children.get()));
        if (!child) break;
        addClientGpuTime(child.get(), times);
      }
    });
    return times;
  }

  std::unordered_map<int32_t, ProcessNetBytes> networkBytes() override {
    const SubprocessResult result =
        runSubprocess("/usr/bin/nettop", {"-P", "-L", "1", "-x", "-n", "-J", "bytes_in,bytes_out"},
                      std::nullopt, kToolOutputLimit, {"LC_ALL=C"});
    if (!result.started) return {};
    return parseNettop(result.output);
  }

  std::vector<PsRow> psListing() override {
    // In the C locale: under a person's comma-decimal locale ps prints %cpu as "12,5".
    const SubprocessResult result =
        runSubprocess("/bin/ps", {"-A", "-o", "pid=,ppid=,uid=,%cpu=,rss=,comm="}, std::nullopt,
                      kToolOutputLimit, {"LC_ALL=C"});
    if (!result.started) return {};
    // Command paths are kept, so the text is made valid UTF-8 before it is split.
    return parsePS(repairUtf8(result.output));
  }

  bool measuresEnergy() const override { return true; }
  double cores() override {
    const long online = sysconf(_SC_NPROCESSORS_ONLN);
    return online > 0 ? static_cast<double>(online) : 1.0;
  }

 private:
  const double nsPerTick_;
  DlHandle library_;
  ResponsibleFunction responsible_ = nullptr;
  std::vector<pid_t> pidBuffer_;  // reused between ticks; touched only on the sampler's queue
};

}  // namespace

std::unique_ptr<ProcessSource> makeProcessSource() {
  return std::make_unique<MacProcessSource>();
}

}  // namespace vistrel
