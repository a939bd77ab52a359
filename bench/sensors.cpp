// The cost of each sensor reader's read on this machine, through the platform's own sources as the
// sampler builds them: wall time and the calling thread's CPU time per call (median and max of
// repeated calls, after one call that opens files and libraries). A reader whose source the machine
// lacks shows what its absence costs.
//
// On Linux the readers are also run over the captured trees under tests/fixtures/linux (a laptop
// with coretemp, a fan and a battery; an AMD desktop with k10temp, amdgpu and an NVMe drive), so
// that a machine without sensors still shows what reading them costs: the trees are ordinary files,
// so sysfs's own cost (and an embedded controller's) is not in those figures.
//
//   bench_sensors [calls per reader, default 200]

#include <time.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <functional>
#include <string>
#include <vector>

#include "machine.hpp"
#include "sampling/bluetooth_reader.hpp"
#include "sampling/sensor_sources.hpp"
#if defined(__linux__)
#include "sampling/linux/linux_sources.hpp"
#endif

namespace {

using namespace vistrel;

double threadCpuUs() {
  timespec t{};
  clock_gettime(CLOCK_THREAD_CPUTIME_ID, &t);
  return static_cast<double>(t.tv_sec) * 1e6 + static_cast<double>(t.tv_nsec) / 1e3;
}

double wallUs() {
  return std::chrono::duration<double, std::micro>(
             std::chrono::steady_clock::now().time_since_epoch())
      .count();
}

void measure(const char* name, int calls, const std::function<void()>& read) {
  const double firstStart = wallUs();
  read();  // first use: files opened, libraries loaded, devices listed
  const double first = wallUs() - firstStart;
  std::vector<double> wall, cpu;
  for (int i = 0; i < calls; ++i) {
    const double w0 = wallUs(), c0 = threadCpuUs();
    read();
    cpu.push_back(threadCpuUs() - c0);
    wall.push_back(wallUs() - w0);
  }
  std::sort(wall.begin(), wall.end());
  std::sort(cpu.begin(), cpu.end());
  std::printf("%s first: %.1f us\n", name, first);
  std::printf("%s wall median: %.1f us\n", name, wall[wall.size() / 2]);
  std::printf("%s wall max: %.1f us\n", name, wall.back());
  std::printf("%s cpu median: %.1f us\n", name, cpu[cpu.size() / 2]);
}

}  // namespace

int main(int argc, char** argv) {
  const int calls = argc > 1 ? std::max(10, std::atoi(argv[1])) : 200;
  std::printf("machine: %s\n", bench::describeMachine().c_str());
  std::printf("calls per reader: %d\n", calls);

  auto smc = makeSMCSource();
  auto thermal = makeThermalSource();
  auto battery = makeBatterySource();
  auto energy = makeEnergySource();
  auto audio = makeAudioSource();
  auto bluetooth = makeBluetoothSource();

  // What each reader found, so that a cost of "nothing" reads as such.
  const SensorStat sensors = thermal->read(smc->fans());
  const BatteryStat b = battery->read(std::nullopt);
  std::printf(
      "found: cpu %s, gpu %s, ssd %s, fans %zu, battery %s, system power %s, gpu power %s\n",
      sensors.cpu ? "yes" : "no", sensors.gpu ? "yes" : "no", sensors.ssd ? "yes" : "no",
      sensors.fans.size(), b.present ? "yes" : "no", smc->systemPower() ? "yes" : "no",
      energy->gpuWatts() ? "yes" : "no");

  measure("fans", calls, [&] { (void)smc->fans(); });
  measure("system power", calls, [&] { (void)smc->systemPower(); });
  measure("package power", calls, [&] { (void)smc->packagePower(); });
  measure("temperatures", calls, [&] { (void)thermal->read({}); });
  measure("battery", calls, [&] { (void)battery->read(std::nullopt); });
  measure("gpu power", calls, [&] { (void)energy->gpuWatts(); });
  // Both keep their own thread: a read copies the latest result (and, for Bluetooth, starts a run
  // when none is going).
  measure("audio", calls, [&] { (void)audio->read(); });
  measure("bluetooth", calls, [&] { (void)bluetooth->read(); });

#if defined(__linux__)
  for (const char* tree : {"laptop-discharging", "amd-desktop"}) {
    const std::string root = std::string(VISTREL_FIXTURES) + "/linux/" + tree;
    auto treeThermal = makeLinuxThermalSource(root);
    auto treePower = makeLinuxPowerSource(root);
    auto treeBattery = makeLinuxBatterySource(root);
    auto treeGPU = makeLinuxGPUPowerSource(root);
    const std::string prefix = std::string(tree) + " ";
    measure((prefix + "fans").c_str(), calls, [&] { (void)treePower->fans(); });
    measure((prefix + "system power").c_str(), calls, [&] { (void)treePower->systemPower(); });
    measure((prefix + "temperatures").c_str(), calls, [&] { (void)treeThermal->read({}); });
    measure((prefix + "battery").c_str(), calls, [&] { (void)treeBattery->read(std::nullopt); });
    measure((prefix + "gpu power").c_str(), calls, [&] { (void)treeGPU->gpuWatts(); });
  }
#endif
  return 0;
}
