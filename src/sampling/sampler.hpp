#pragma once

#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "base/clock.hpp"
#include "base/main_queue.hpp"
#include "base/serial_queue.hpp"
#include "sampling/cpu_reader.hpp"
#include "sampling/disk_reader.hpp"
#include "sampling/gpu_reader.hpp"
#include "sampling/memory_reader.hpp"
#include "sampling/network_reader.hpp"
#include "sampling/records.hpp"
#include "sampling/stages.hpp"

namespace vistrel {

// Everything a sampler reads from. A part left null is filled by `withPlatformDefaults`: the
// platform's source for the readers of this layer, the empty stage for the rest until their real
// implementation is installed.
struct SamplerParts {
  std::unique_ptr<CPUSource> cpu;
  std::unique_ptr<MemorySource> memory;
  std::unique_ptr<GPUSource> gpu;
  std::unique_ptr<DiskSource> disk;
  std::unique_ptr<NetworkSource> network;
  std::unique_ptr<SMCSource> smc;
  std::unique_ptr<ThermalSource> thermal;
  std::unique_ptr<BatterySource> battery;
  std::unique_ptr<EnergySource> energy;
  std::unique_ptr<ProcessStage> processes;
  std::unique_ptr<AgentStage> agents;
  std::unique_ptr<AppStage> apps;
  std::unique_ptr<AudioSource> audio;
  std::unique_ptr<BluetoothSource> bluetooth;

  SamplerParts&& withPlatformDefaults() &&;
};

// The sampler's own CPU time for one tick, in milliseconds (whole process, and its children such as
// ps), measured around the read.
struct TickCost {
  double selfMs = 0;
  double childrenMs = 0;
};

// Measures the machine on a repeating timer on its own serial queue and hands each Snapshot to the
// main queue. Cheap figures are read every tick; expensive ones on their own slower clocks, slower
// still in the background (nobody looking). Create with `create`; the timer and every posted task
// hold the sampler weakly.
class Sampler : public std::enable_shared_from_this<Sampler> {
 public:
  static std::shared_ptr<Sampler> create(SamplerParts parts, MainQueue& main,
                                         const Clock& clock = Clock::system());
  ~Sampler();

  // Starts ticking every `interval` seconds, the first tick at once. Replaces any running timer.
  void start(double interval);
  // Changes the period. The same period leaves the timer alone; another one replaces it with a
  // timer whose first tick is one new period away (changing the period never causes an extra tick).
  void setInterval(double seconds);

  // Stops ticking for good and returns once a tick under way has finished, so that nothing more
  // is posted to the main queue: call it before the main queue goes. Later `start` and
  // `setInterval` calls do nothing. Never call it on the sampler's queue.
  void stop();

  bool background() const;
  void setBackground(bool background);

  // A fresh sample read on the sampler's queue (after any tick in progress), without calling
  // onSnapshot. Never call it on the sampler's queue.
  Snapshot sampleNow();

  // The consumer, called on the main queue. Set before `start`, on the main thread.
  void setOnSnapshot(std::function<void(Snapshot)> callback);

  // Where the debug timing line goes. By default: standard error when VISTREL_DEBUG is set.
  void setDebugSink(std::function<void(std::string_view line)> sink);

  // For tests and the benchmark: one tick run synchronously on the queue, as the timer would run
  // it.
  void tickNow();

  // Read on the queue; for tests, the benchmark and agent requests.
  std::optional<Snapshot> lastSnapshot();
  TickCost lastTickCost();
  double interval();
  std::shared_ptr<SerialQueue::Timer> timer();

  SerialQueue& queue() { return queue_; }

 private:
  Sampler(SamplerParts parts, MainQueue& main, const Clock& clock);
  void installTimer(double firstDelay);
  void tick();
  Snapshot read();
  void readProcessStages(Snapshot& snapshot, std::vector<ProcessSample> processes);

  MainQueue& main_;
  const Clock& clock_;
  SamplerParts parts_;
  CPUReader cpu_;
  MemoryReader memory_;
  GPUReader gpu_;
  DiskReader disk_;
  NetworkReader net_;

  // Touched only on the queue.
  std::shared_ptr<SerialQueue::Timer> timer_;
  bool stopped_ = false;
  SensorStat sensors_;
  BatteryStat battery_;
  double batteryAt_ = -1000;  // uptime seconds; far in the past so slow readers run on tick one
  std::optional<double> lastGPUWatts_;
  int tickCount_ = 0;  // ticks that reached the process step
  double sensorsAt_ = -1000;
  double netAt_ = -1000;
  std::vector<AudioUse> audio_;
  double audioAt_ = -1000;
  std::vector<BluetoothDevice> bluetooth_;
  double bluetoothAt_ = -1000;
  double interval_ = 2;
  std::vector<ProcessSample> lastProcesses_;
  std::optional<Snapshot> lastSnapshot_;
  TickCost lastTickCost_;
  std::function<void(std::string_view)> debugSink_;

  // Set on the main thread before start, read only in tasks posted to the main queue.
  std::function<void(Snapshot)> onSnapshot_;

  mutable std::mutex devLock_;
  bool background_ = false;  // guarded by devLock_

  // Last member: destroyed first, so no tick can run while the readers are being torn down.
  SerialQueue queue_;
};

}  // namespace vistrel
