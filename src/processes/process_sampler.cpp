#include "processes/process_sampler.hpp"

#include <algorithm>
#include <cctype>
#include <random>

#include "base/files.hpp"
#include "processes/app_bundles.hpp"

namespace vistrel {

namespace {

constexpr size_t kPruneSlack = 200;  // dead pids tolerated in the memories before a forced sweep
constexpr int kPruneOdds = 30;       // otherwise a sweep runs with a chance of one in this many

// Counters can go down when a pid is reused before its memory is pruned: that field reads 0.
double perSecond(uint64_t now, uint64_t before, double dt) {
  return now >= before ? static_cast<double>(now - before) / dt : 0.0;
}

}  // namespace

ProcessSampler::ProcessSampler(std::unique_ptr<ProcessSource> source, const Clock& clock,
                               std::function<int()> random)
    : source_(std::move(source)), clock_(clock), random_(std::move(random)) {
  if (!random_) {
    random_ = [engine = std::minstd_rand(std::random_device{}())]() mutable {
      return static_cast<int>(engine() % kPruneOdds);
    };
  }
  cores_ = source_->cores();
}

const ProcessSampler::Info* ProcessSampler::infoFor(int32_t pid, const ProcessCounters& counters) {
  auto it = info_.find(pid);
  if (it != info_.end() && it->second.startKey == counters.startKey &&
      it->second.program == counters.program) {
    return &it->second;
  }
  // A new process, the pid now names another one, or the process exec'd another program: read who
  // it is, once per program it runs.
  auto identity = source_->identity(pid);
  if (!identity) return nullptr;
  Info info{std::move(*identity), {}, counters.startKey, counters.program};
  const ProcessIdentity& id = info.identity;
  info.name = id.path.empty() ? id.baseName : std::string(lastComponent(id.path));
  // Programs installed under version-numbered file names ("2.1.0") are shown under the name they
  // were started by.
  if (!info.name.empty() && std::isdigit(static_cast<unsigned char>(info.name.front()))) {
    auto args = source_->arguments(pid);
    if (!args.empty() && !args.front().empty())
      info.name = std::string(lastComponent(args.front()));
  }
  auto [slot, inserted] = info_.insert_or_assign(pid, std::move(info));
  (void)inserted;
  return &slot->second;
}

double ProcessSampler::gpuShareFor(int32_t pid,
                                   const std::unordered_map<int32_t, uint64_t>& gpuTimes,
                                   double now) {
  auto found = gpuTimes.find(pid);
  if (found == gpuTimes.end()) return 0;
  double share = 0;
  uint64_t ns = found->second;
  auto last = gpuLast_.find(pid);
  if (last != gpuLast_.end() && last->second.time < now && ns >= last->second.ns) {
    double seconds = static_cast<double>(ns - last->second.ns) / 1e9;
    share = std::min(seconds / (now - last->second.time), 1.0);
  }
  gpuLast_[pid] = {ns, now};
  return share;
}

std::vector<ProcessSample> ProcessSampler::sample(bool network, double psEvery, bool gpu) {
  const double now = clock_.uptime();
  source_->listPids(pids_);
  std::erase_if(pids_, [](int32_t pid) { return pid <= 0; });
  std::sort(pids_.begin(), pids_.end());
  pids_.erase(std::unique(pids_.begin(), pids_.end()), pids_.end());
  // What the source holds for exited processes (open files) goes now, every tick: a walk of a few
  // hundred entries, cheaper than letting descriptors pile up until a sweep.
  source_->retainOnly(pids_);

  std::unordered_map<int32_t, uint64_t> gpuTimes;
  if (gpu) gpuTimes = source_->gpuTimes();
  std::unordered_map<int32_t, ProcessNetBytes> netBytes;
  if (network) netBytes = source_->networkBytes();

  std::vector<ProcessSample> samples;
  samples.reserve(pids_.size());
  unreadable_.clear();
  int kernelTasks = 0;

  for (int32_t pid : pids_) {
    auto counters = source_->counters(pid);
    if (!counters) {
      unreadable_.push_back(pid);
      continue;
    }
    if (counters->kernelThread) {
      // No program of its own: its time shows in the system's unattributed share.
      ++kernelTasks;
      continue;
    }
    const Info* info = infoFor(pid, *counters);
    if (!info) {
      unreadable_.push_back(pid);
      continue;
    }
    ProcessSample s;
    s.pid = pid;
    s.ppid = info->identity.ppid;
    s.name = info->name;
    s.path = info->identity.path;
    s.appPath = info->identity.appPath;
    s.uid = info->identity.uid;
    s.started = info->identity.started;
    s.memory = counters->memory;

    auto last = last_.find(pid);
    if (last != last_.end() && last->second.time < now) {
      const Last& l = last->second;
      double dt = now - l.time;
      s.cpu = perSecond(counters->cpuNs, l.cpuNs, dt) / 1e9 * 100;     // percent of one core
      s.energy = perSecond(counters->energyNj, l.energyNj, dt) / 1e9;  // watts
      s.diskRead = perSecond(counters->diskRead, l.read, dt);
      s.diskWrite = perSecond(counters->diskWrite, l.write, dt);
    }
    last_[pid] = {counters->cpuNs, counters->energyNj, counters->diskRead, counters->diskWrite,
                  now};

    if (gpu) gpuShare_[pid] = gpuShareFor(pid, gpuTimes, now);
    if (auto share = gpuShare_.find(pid); share != gpuShare_.end()) s.gpu = share->second;

    if (network) {
      std::pair<double, double> rates{0, 0};
      if (auto bytes = netBytes.find(pid); bytes != netBytes.end()) {
        auto prev = netLast_.find(pid);
        if (prev != netLast_.end() && prev->second.time < now &&
            bytes->second.in >= prev->second.bytes.in &&
            bytes->second.out >= prev->second.bytes.out) {
          double dt = now - prev->second.time;
          rates = {static_cast<double>(bytes->second.in - prev->second.bytes.in) / dt,
                   static_cast<double>(bytes->second.out - prev->second.bytes.out) / dt};
        }
        netLast_[pid] = {bytes->second, now};
      }
      netRate_[pid] = rates;
    }
    if (auto rate = netRate_.find(pid); rate != netRate_.end()) {
      s.netIn = rate->second.first;
      s.netOut = rate->second.second;
    }
    samples.push_back(std::move(s));
  }

  // Processes the kernel would not describe: the process-status tool's view of them, refreshed at
  // most once per psEvery seconds and only when something was unreadable.
  int hidden = 0;
  if (!unreadable_.empty()) {
    if (now - psAt_ > psEvery) {
      psAt_ = now;
      auto rows = source_->psListing();
      if (!rows.empty()) {
        psCache_.clear();
        for (auto& row : rows) psCache_[row.pid] = std::move(row);
      }
    }
    for (int32_t pid : unreadable_) {
      auto row = psCache_.find(pid);
      if (row == psCache_.end()) {
        ++hidden;
        continue;
      }
      const PsRow& r = row->second;
      ProcessSample s;
      s.pid = pid;
      s.ppid = r.ppid;
      s.uid = r.uid;
      s.path = r.path;
      std::string_view last = lastComponent(r.path);
      s.name = last.empty() ? r.path : std::string(last);
      s.appPath = outermostApp(r.path);
      s.cpu = r.cpu;
      s.memory = r.rss;
      // Its GPU share is measured on GPU ticks but not remembered for the ticks between.
      if (gpu) s.gpu = gpuShareFor(pid, gpuTimes, now);
      samples.push_back(std::move(s));
    }
  }
  hidden_ = hidden + kernelTasks;

  if (last_.size() > pids_.size() + kPruneSlack || random_() == 0) prune(pids_);
  return samples;
}

void ProcessSampler::prune(const std::vector<int32_t>& pids) {
  // `pids` is sorted: membership by binary search, no set to build.
  auto dead = [&](int32_t pid) { return !std::binary_search(pids.begin(), pids.end(), pid); };
  std::erase_if(last_, [&](const auto& e) { return dead(e.first); });
  std::erase_if(info_, [&](const auto& e) { return dead(e.first); });
  std::erase_if(gpuLast_, [&](const auto& e) { return dead(e.first); });
  std::erase_if(netLast_, [&](const auto& e) { return dead(e.first); });
  std::erase_if(netRate_, [&](const auto& e) { return dead(e.first); });
  std::erase_if(gpuShare_, [&](const auto& e) { return dead(e.first); });
  std::erase_if(responsibleCache_, [&](const auto& e) { return dead(e.first); });
}

std::optional<int32_t> ProcessSampler::responsiblePid(int32_t pid) {
  if (auto cached = responsibleCache_.find(pid); cached != responsibleCache_.end()) {
    if (cached->second == pid) return std::nullopt;
    return cached->second;
  }
  auto answer = source_->responsibleFor(pid);
  if (!answer) return std::nullopt;  // no such notion here: nothing to cache
  int32_t responsible = *answer < 1 ? pid : *answer;
  responsibleCache_[pid] = responsible;
  if (responsible == pid) return std::nullopt;
  return responsible;
}

ProcessSampler::MemorySizes ProcessSampler::memorySizes() const {
  return {last_.size(),    info_.size(),     gpuLast_.size(),         netLast_.size(),
          netRate_.size(), gpuShare_.size(), responsibleCache_.size()};
}

}  // namespace vistrel
