#include "sampling/sampler.hpp"

#include <sys/resource.h>

#include <cmath>
#include <cstdio>
#include <cstdlib>

#include "sampling/audio_reader.hpp"
#include "sampling/bluetooth_reader.hpp"
#include "sampling/process_energy.hpp"
#include "sampling/sensor_sources.hpp"

namespace vistrel {

namespace {

// Thresholds sit half a second below round periods so that timer jitter never skips a reading.
constexpr double kSlowForeground = 9.5;  // temperatures, battery, audio; full ps refresh
constexpr double kSlowBackground =
    29.5;  // temperatures, battery; full ps refresh; per-process network
constexpr double kNetForeground = 5.5;  // per-process network
constexpr double kBluetoothForeground = 60;
constexpr double kBluetoothBackground = 300;
constexpr double kVolumesForeground = 30;
constexpr double kVolumesBackground = 120;

double cpuMilliseconds(const rusage& r) {
  auto ms = [](const timeval& t) {
    return static_cast<double>(t.tv_sec) * 1000 + static_cast<double>(t.tv_usec) / 1000;
  };
  return ms(r.ru_utime) + ms(r.ru_stime);
}

bool debugEnvironment() {
  static const bool on = std::getenv("VISTREL_DEBUG") != nullptr;
  return on;
}

// A period the timer cannot represent is a programming error: callers only pass the settings'
// intervals.
void checkInterval(double seconds) {
  double leewayMs = std::trunc(seconds * 150);
  if (!std::isfinite(seconds) || seconds <= 0 || !std::isfinite(leewayMs) || leewayMs > 1e12) {
    std::fprintf(stderr, "vistrel: invalid sampling interval %g s\n", seconds);
    std::abort();
  }
}

}  // namespace

SamplerParts&& SamplerParts::withPlatformDefaults() && {
  if (!cpu) cpu = makeCPUSource();
  if (!memory) memory = makeMemorySource();
  if (!gpu) gpu = makeGPUSource();
  if (!disk) disk = makeDiskSource();
  if (!network) network = makeNetworkSource();
  if (!smc) smc = makeSMCSource();
  if (!thermal) thermal = makeThermalSource();
  if (!battery) battery = makeBatterySource();
  if (!energy) energy = makeEnergySource();
  if (!processes) processes = std::make_unique<ProcessStage>();
  if (!agents) agents = std::make_unique<AgentStage>();
  if (!apps) apps = std::make_unique<AppStage>();
  if (!audio) audio = makeAudioSource();
  if (!bluetooth) bluetooth = makeBluetoothSource();
  return std::move(*this);
}

std::shared_ptr<Sampler> Sampler::create(SamplerParts parts, MainQueue& main, const Clock& clock) {
  return std::shared_ptr<Sampler>(
      new Sampler(std::move(parts).withPlatformDefaults(), main, clock));
}

Sampler::Sampler(SamplerParts parts, MainQueue& main, const Clock& clock)
    : main_(main),
      clock_(clock),
      parts_(std::move(parts)),
      cpu_(std::move(parts_.cpu)),
      memory_(std::move(parts_.memory)),
      gpu_(std::move(parts_.gpu)),
      disk_(std::move(parts_.disk), clock),
      net_(std::move(parts_.network), clock),
      queue_("org.brackwood.vistrel.sampler") {}

Sampler::~Sampler() {
  if (timer_) timer_->cancel();
}

void Sampler::stop() {
  // The queue is serial: this runs after the tick under way, and no tick runs after it.
  queue_.sync([this] {
    stopped_ = true;
    if (timer_) timer_->cancel();
  });
}

void Sampler::installTimer(double firstDelay) {
  if (timer_) timer_->cancel();
  if (stopped_) return;
  std::weak_ptr<Sampler> weak = weak_from_this();
  timer_ = queue_.schedule(firstDelay, interval_, [weak] {
    if (auto self = weak.lock()) self->tick();
  });
}

void Sampler::start(double interval) {
  checkInterval(interval);
  std::weak_ptr<Sampler> weak = weak_from_this();
  queue_.async([weak, interval] {
    auto self = weak.lock();
    if (!self) return;
    self->interval_ = interval;
    self->installTimer(0);
  });
}

void Sampler::setInterval(double seconds) {
  checkInterval(seconds);
  std::weak_ptr<Sampler> weak = weak_from_this();
  queue_.async([weak, seconds] {
    auto self = weak.lock();
    if (!self || seconds == self->interval_) return;
    self->interval_ = seconds;
    self->installTimer(seconds);
  });
}

bool Sampler::background() const {
  std::lock_guard lock(devLock_);
  return background_;
}

void Sampler::setBackground(bool background) {
  std::lock_guard lock(devLock_);
  background_ = background;
}

Snapshot Sampler::sampleNow() {
  return queue_.syncValue([this] { return read(); });
}

void Sampler::setOnSnapshot(std::function<void(Snapshot)> callback) {
  onSnapshot_ = std::move(callback);
}

void Sampler::setDebugSink(std::function<void(std::string_view)> sink) {
  queue_.sync([&] { debugSink_ = std::move(sink); });
}

void Sampler::tickNow() {
  queue_.sync([this] { tick(); });
}

std::optional<Snapshot> Sampler::lastSnapshot() {
  return queue_.syncValue([this] { return lastSnapshot_; });
}

TickCost Sampler::lastTickCost() {
  return queue_.syncValue([this] { return lastTickCost_; });
}

double Sampler::interval() {
  return queue_.syncValue([this] { return interval_; });
}

std::shared_ptr<SerialQueue::Timer> Sampler::timer() {
  return queue_.syncValue([this] { return timer_; });
}

void Sampler::tick() {
  rusage selfBefore{}, childBefore{}, selfAfter{}, childAfter{};
  getrusage(RUSAGE_SELF, &selfBefore);
  getrusage(RUSAGE_CHILDREN, &childBefore);
  Snapshot snapshot = read();
  getrusage(RUSAGE_SELF, &selfAfter);
  getrusage(RUSAGE_CHILDREN, &childAfter);
  lastTickCost_ = {cpuMilliseconds(selfAfter) - cpuMilliseconds(selfBefore),
                   cpuMilliseconds(childAfter) - cpuMilliseconds(childBefore)};

  if (debugSink_ || debugEnvironment()) {
    char line[128];
    std::snprintf(line, sizeof line, "tick self %.1f ms, children %.1f ms, bg %s\n",
                  lastTickCost_.selfMs, lastTickCost_.childrenMs, background() ? "yes" : "no");
    if (debugSink_) {
      debugSink_(line);
    } else {
      std::fputs(line, stderr);
    }
  }

  // The sampler never waits for its consumer.
  std::weak_ptr<Sampler> weak = weak_from_this();
  main_.post([weak, snapshot = std::move(snapshot)]() mutable {
    auto self = weak.lock();
    if (self && self->onSnapshot_) self->onSnapshot_(std::move(snapshot));
  });
}

Snapshot Sampler::read() {
  Snapshot snapshot;
  snapshot.time = clock_.now();
  snapshot.cpu = cpu_.read();
  snapshot.memory = memory_.read();
  snapshot.gpu = gpu_.read();
  snapshot.disk = disk_.read();
  // Takes effect from the next read: volumes are re-listed less often when nobody is looking.
  disk_.volumeEvery = background() ? kVolumesBackground : kVolumesForeground;
  snapshot.network = net_.read();

  const double now = clock_.uptime();
  const bool bg = background();  // one value for the rest of the tick
  const double slow = bg ? kSlowBackground : kSlowForeground;

  // Temperatures on their slow clock; fan speeds stay live on every tick.
  if (now - sensorsAt_ > slow) {
    sensorsAt_ = now;
    sensors_ = parts_.thermal->read(parts_.smc->fans());
  } else {
    sensors_.fans = parts_.smc->fans();
  }
  snapshot.sensors = sensors_;

  if (now - batteryAt_ > slow || (!battery_.present && batteryAt_ < 0)) {
    batteryAt_ = now;
    battery_ = parts_.battery->read(sensors_.battery);
  }
  snapshot.battery = battery_;

  // GPU power is costly to read; in the background one known value is enough.
  if (!bg || !lastGPUWatts_) lastGPUWatts_ = parts_.energy->gpuWatts();
  snapshot.power.system = parts_.smc->systemPower();
  snapshot.power.gpu = lastGPUWatts_;

  if (!bg) {
    double elapsed = now - netAt_;
    ++tickCount_;
    bool network = elapsed > kNetForeground;
    if (network) netAt_ = now;
    readProcessStages(snapshot, parts_.processes->sample(network, kSlowForeground, true));
  } else {
    bool network = now - netAt_ > kSlowBackground;
    if (network) netAt_ = now;
    int old = tickCount_;
    tickCount_ = old + 1;
    if (old % 2 == 1 || !lastSnapshot_) {
      // The process table is the costliest step: in the background it runs on every second tick,
      // and per-process GPU time on every sixth.
      readProcessStages(snapshot,
                        parts_.processes->sample(network, kSlowBackground, tickCount_ % 6 == 0));
    } else {
      snapshot.processes = lastSnapshot_->processes;
      snapshot.hiddenProcesses = lastSnapshot_->hiddenProcesses;
      snapshot.power.apps = lastSnapshot_->power.apps;
      snapshot.apps = lastSnapshot_->apps;
      snapshot.agents = lastSnapshot_->agents;
      snapshot.audio = audio_;
      snapshot.bluetooth = bluetooth_;
      lastSnapshot_ = snapshot;
      return snapshot;
    }
  }

  if (!bg && now - audioAt_ > kSlowForeground) {
    audioAt_ = now;
    audio_ = parts_.audio->read();
    nameAudioUses(audio_, snapshot.apps, snapshot.processes);
  }
  snapshot.audio = audio_;

  if (now - bluetoothAt_ > (bg ? kBluetoothBackground : kBluetoothForeground)) {
    bluetoothAt_ = now;
    bluetooth_ = parts_.bluetooth->read();
  }
  snapshot.bluetooth = bluetooth_;

  lastProcesses_ = snapshot.processes;
  lastSnapshot_ = snapshot;
  return snapshot;
}

void Sampler::readProcessStages(Snapshot& snapshot, std::vector<ProcessSample> processes) {
  snapshot.hiddenProcesses = parts_.processes->hidden();
  if (parts_.processes->measuresEnergy()) {
    double energy = 0;
    for (const auto& p : processes) energy += p.energy;
    snapshot.power.apps = energy;
  } else {
    snapshot.power.apps = apportionEnergy(processes, parts_.smc->packagePower(), snapshot.cpu);
  }
  auto [sessions, agentRoots] = parts_.agents->sessions(processes);
  snapshot.apps = parts_.apps->group(processes, agentRoots, snapshot.cpu, snapshot.memory,
                                     snapshot.hiddenProcesses);
  snapshot.agents = std::move(sessions);
  snapshot.processes = std::move(processes);
}

}  // namespace vistrel
