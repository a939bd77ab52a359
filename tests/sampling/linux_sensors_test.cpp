// The Linux sensor sources on captured trees (tests/fixtures/linux/SENSORS.md says where each came
// from) and on trees written by the test for the cases no capture shows.

#include <gtest/gtest.h>
#include <stdio.h>
#include <stdlib.h>
#include <unistd.h>

#include <string>

#include "base/files.hpp"
#include "base/main_queue.hpp"
#include "sampling/linux/linux_sources.hpp"
#include "sampling/process_energy.hpp"
#include "sampling/sampler.hpp"
#include "sampling/sensor_parsers.hpp"

namespace vistrel {
namespace {

const std::string kFixtures = std::string(VISTREL_FIXTURES) + "/linux/";

class TempRoot {
 public:
  TempRoot() {
    std::string pattern = ::testing::TempDir() + "vistrel-sensors-XXXXXX";
    EXPECT_NE(::mkdtemp(pattern.data()), nullptr);
    path_ = pattern;
  }
  ~TempRoot() { EXPECT_EQ(::system(("rm -rf '" + path_ + "'").c_str()), 0); }
  const std::string& path() const { return path_; }
  void write(const std::string& relative, const std::string& text) const {
    std::string full = joinPath(path_, relative);
    ASSERT_TRUE(makeFolders(full.substr(0, full.rfind('/'))));
    FILE* f = ::fopen(full.c_str(), "wb");
    ASSERT_NE(f, nullptr);
    ::fputs(text.c_str(), f);
    ::fclose(f);
  }
  void link(const std::string& relative, const std::string& target) const {
    std::string full = joinPath(path_, relative);
    ASSERT_TRUE(makeFolders(full.substr(0, full.rfind('/'))));
    ASSERT_EQ(::symlink(target.c_str(), full.c_str()), 0);
  }

 private:
  std::string path_;
};

// Every read takes the given time.
Stopwatch steps(double seconds) {
  return [t = 0.0, seconds]() mutable { return t += seconds; };
}

TEST(LinuxThermalSource, CapturedTrees) {
  struct Case {
    std::string root;
    std::optional<double> cpu, cpuMax, gpu, ssd, battery;
  };
  const Case cases[] = {
      // k10temp with Tctl alone, amdgpu's edge, the nvme drive's composite (not its hotter extra
      // sensors).
      {"amd-desktop", 63.75, 63.75, 58.0, 44.85, std::nullopt},
      // coretemp's package and four cores; the battery's chip has no temperature; dell_smm's
      // unlabelled temperatures are not the CPU's; the ACPI zone is not needed.
      {"laptop-discharging", (44 + 41 * 4) / 5.0, 44.0, std::nullopt, 36.9, std::nullopt},
      {"laptop-charging", (68 + 67 + 64 + 67 + 68 + 65 + 65) / 7.0, 68.0, std::nullopt,
       std::nullopt, std::nullopt},
      {"no-such-machine", std::nullopt, std::nullopt, std::nullopt, std::nullopt, std::nullopt},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.root);
    ManualClock clock;
    auto source = makeLinuxThermalSource(kFixtures + c.root, clock, steps(0));
    SensorStat s = source->read({{1, 2, 3}});
    ASSERT_EQ(s.cpu.has_value(), c.cpu.has_value());
    if (c.cpu) {
      EXPECT_NEAR(*s.cpu, *c.cpu, 1e-9);
    }
    EXPECT_EQ(s.cpuMax, c.cpuMax);
    EXPECT_EQ(s.gpu, c.gpu);
    EXPECT_EQ(s.ssd, c.ssd);
    EXPECT_EQ(s.battery, c.battery);
    EXPECT_EQ(s.fans, (std::vector<Fan>{{1, 2, 3}}));
  }
}

TEST(LinuxThermalSource, WrittenTrees) {
  struct Chip {
    std::string name;
    std::vector<std::pair<std::string, std::string>> files;
  };
  struct Case {
    const char* label;
    std::vector<std::pair<std::string, std::string>> files;
    std::optional<double> cpu, cpuMax, gpu, battery;
  };
  const Case cases[] = {
      {"Tdie before Tctl, with the CCDs",
       {{"hwmon0/name", "k10temp"},
        {"hwmon0/temp1_label", "Tctl"},
        {"hwmon0/temp1_input", "65000"},
        {"hwmon0/temp2_label", "Tdie"},
        {"hwmon0/temp2_input", "45000"},
        {"hwmon0/temp3_label", "Tccd1"},
        {"hwmon0/temp3_input", "51000"}},
       48.0,
       51.0,
       std::nullopt,
       std::nullopt},
      {"two sockets with the same core labels count apart",
       {{"hwmon0/name", "coretemp"},
        {"hwmon0/temp2_label", "Core 0"},
        {"hwmon0/temp2_input", "40000"},
        {"hwmon1/name", "coretemp"},
        {"hwmon1/temp2_label", "Core 0"},
        {"hwmon1/temp2_input", "60000"}},
       50.0,
       60.0,
       std::nullopt,
       std::nullopt},
      {"amdgpu's junction, a battery's chip, a misread, a file cut short",
       {{"hwmon0/name", "amdgpu"},
        {"hwmon0/temp1_label", "edge"},
        {"hwmon0/temp1_input", "50000"},
        {"hwmon0/temp2_label", "junction"},
        {"hwmon0/temp2_input", "57000"},
        {"hwmon0/temp3_label", "mem"},
        {"hwmon0/temp3_input", "70000"},
        {"hwmon1/name", "BAT0"},
        {"hwmon1/temp1_input", "31500"},
        {"hwmon2/name", "coretemp"},
        {"hwmon2/temp1_label", "Package id 0"},
        {"hwmon2/temp1_input", "-273000"},
        {"hwmon2/temp2_label", "Core 0"},
        {"hwmon2/temp2_input", "4"}},
       0.004,
       0.004,
       57.0,
       31.5},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.label);
    TempRoot root;
    for (const auto& [file, text] : c.files) root.write("sys/class/hwmon/" + file, text + "\n");
    ManualClock clock;
    SensorStat s = makeLinuxThermalSource(root.path(), clock, steps(0))->read({});
    EXPECT_EQ(s.cpu.has_value(), c.cpu.has_value());
    if (s.cpu && c.cpu) {
      EXPECT_NEAR(*s.cpu, *c.cpu, 1e-9);
    }
    EXPECT_EQ(s.cpuMax, c.cpuMax);
    EXPECT_EQ(s.gpu, c.gpu);
    EXPECT_EQ(s.battery, c.battery);
  }
}

TEST(LinuxThermalSource, ThermalZoneFallbackAndSleepingDevices) {
  TempRoot root;
  root.write("sys/class/thermal/thermal_zone0/type", "acpitz\n");
  root.write("sys/class/thermal/thermal_zone0/temp", "27800\n");
  root.write("sys/class/thermal/thermal_zone1/type", "x86_pkg_temp\n");
  root.write("sys/class/thermal/thermal_zone1/temp", "52000\n");
  root.write("sys/class/thermal/cooling_device0/type", "Processor\n");
  // A discrete GPU asleep: its sensors are not read, since reading would wake it.
  root.write("sys/class/hwmon/hwmon0/name", "amdgpu\n");
  root.write("sys/class/hwmon/hwmon0/temp1_label", "edge\n");
  root.write("sys/class/hwmon/hwmon0/temp1_input", "40000\n");
  root.write("sys/devices/dgpu/power/runtime_status", "suspended\n");
  root.link("sys/class/hwmon/hwmon0/device", "../../../devices/dgpu");
  ManualClock clock;
  SensorStat s = makeLinuxThermalSource(root.path(), clock, steps(0))->read({});
  EXPECT_EQ(s.cpu, 52.0);
  EXPECT_EQ(s.gpu, std::nullopt);

  root.write("sys/devices/dgpu/power/runtime_status", "active\n");
  s = makeLinuxThermalSource(root.path(), clock, steps(0))->read({});
  EXPECT_EQ(s.gpu, 40.0);
}

// A file whose first read was slow (an NVMe drive, an embedded controller) is read again only on
// the slow clock; a fast one every time.
TEST(LinuxThermalSource, SlowFilesMoveToTheSlowClock) {
  for (double readTime : {0.0, 0.005}) {
    SCOPED_TRACE(readTime);
    TempRoot root;
    root.write("sys/class/hwmon/hwmon0/name", "nvme\n");
    root.write("sys/class/hwmon/hwmon0/temp1_label", "Composite\n");
    root.write("sys/class/hwmon/hwmon0/temp1_input", "40000\n");
    ManualClock clock;
    auto source = makeLinuxThermalSource(root.path(), clock, steps(readTime));
    EXPECT_EQ(source->read({}).ssd, 40.0);
    root.write("sys/class/hwmon/hwmon0/temp1_input", "45000\n");
    clock.advance(10);
    EXPECT_EQ(source->read({}).ssd, readTime > 0 ? 40.0 : 45.0);
    clock.advance(60);
    EXPECT_EQ(source->read({}).ssd, 45.0);
  }
}

TEST(LinuxPowerSource, FansFromHwmon) {
  struct Case {
    std::string root;
    std::vector<Fan> fans;
  };
  const Case cases[] = {
      {"laptop-discharging", {{910, 0, 6100}}},
      // Two headers reading 0 with no maximum: empty sockets, not stopped fans.
      {"laptop-charging", {}},
      {"amd-desktop", {}},
      {"no-such-machine", {}},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.root);
    ManualClock clock;
    EXPECT_EQ(makeLinuxPowerSource(kFixtures + c.root, clock, steps(0))->fans(), c.fans);
  }
}

TEST(LinuxPowerSource, SlowFansAreReadOnTheSlowClock) {
  TempRoot root;
  root.write("sys/class/hwmon/hwmon0/name", "thinkpad\n");
  root.write("sys/class/hwmon/hwmon0/fan1_input", "2000\n");
  ManualClock clock;
  auto source = makeLinuxPowerSource(root.path(), clock, steps(0.01));
  EXPECT_EQ(source->fans(), (std::vector<Fan>{{2000, 0, 0}}));
  root.write("sys/class/hwmon/hwmon0/fan1_input", "3000\n");
  clock.advance(2);
  EXPECT_EQ(source->fans(), (std::vector<Fan>{{2000, 0, 0}}));
  clock.advance(8);
  EXPECT_EQ(source->fans(), (std::vector<Fan>{{3000, 0, 0}}));
}

void writeZone(const TempRoot& root, const std::string& zone, const std::string& name,
               const std::string& energy, const std::string& max) {
  root.write("sys/class/powercap/" + zone + "/name", name + "\n");
  root.write("sys/class/powercap/" + zone + "/energy_uj", energy + "\n");
  if (!max.empty()) root.write("sys/class/powercap/" + zone + "/max_energy_range_uj", max + "\n");
}

TEST(LinuxPowerSource, RAPL) {
  TempRoot root;
  writeZone(root, "intel-rapl:0", "package-0", "1000000", "262143328850");
  writeZone(root, "intel-rapl:0:0", "core", "500000", "262143328850");  // inside the package
  writeZone(root, "intel-rapl:1", "psys", "262143000000", "262143328850");
  ManualClock clock;
  auto source = makeLinuxPowerSource(root.path(), clock, steps(0));
  EXPECT_EQ(source->systemPower(), std::nullopt);  // a rate needs two readings
  EXPECT_EQ(source->packagePower(), std::nullopt);
  clock.advance(2);
  writeZone(root, "intel-rapl:0", "package-0", "21000000", "262143328850");
  // psys wrapped: 328850 uJ to the top, then 671150 uJ: 1 J over 2 s.
  writeZone(root, "intel-rapl:1", "psys", "671150", "262143328850");
  EXPECT_EQ(source->systemPower(), 0.5);
  EXPECT_EQ(source->packagePower(), 10.0);  // 20 J over 2 s
  EXPECT_EQ(source->packagePower(), 10.0);  // asked again in the same tick: the same figure

  // Without psys the packages stand for the machine; a counter that went down with no known
  // range gives no figure.
  TempRoot noPsys;
  writeZone(noPsys, "intel-rapl:0", "package-0", "5000000", "");
  auto packages = makeLinuxPowerSource(noPsys.path(), clock, steps(0));
  packages->systemPower();
  clock.advance(1);
  writeZone(noPsys, "intel-rapl:0", "package-0", "8000000", "");
  EXPECT_EQ(packages->systemPower(), 3.0);
  clock.advance(1);
  writeZone(noPsys, "intel-rapl:0", "package-0", "100", "");
  EXPECT_EQ(packages->systemPower(), std::nullopt);
}

TEST(LinuxPowerSource, BatteryDischargeStandsForTheMachine) {
  ManualClock clock;
  auto onBattery = makeLinuxPowerSource(kFixtures + "laptop-discharging", clock, steps(0));
  EXPECT_EQ(onBattery->systemPower(), 5.156);
  EXPECT_EQ(onBattery->packagePower(), std::nullopt);  // no RAPL readable
  auto charging = makeLinuxPowerSource(kFixtures + "laptop-charging", clock, steps(0));
  EXPECT_EQ(charging->systemPower(), std::nullopt);  // on mains the battery says nothing
  auto none = makeLinuxPowerSource(kFixtures + "no-such-machine", clock, steps(0));
  EXPECT_EQ(none->systemPower(), std::nullopt);
}

TEST(LinuxGPUPowerSource, AmdgpuAndSleepingCards) {
  ManualClock clock;
  EXPECT_EQ(makeLinuxGPUPowerSource(kFixtures + "amd-desktop", clock)->gpuWatts(), 10.0);
  EXPECT_EQ(makeLinuxGPUPowerSource(kFixtures + "laptop-charging", clock)->gpuWatts(),
            std::nullopt);

  TempRoot root;
  root.write("sys/class/hwmon/hwmon0/name", "amdgpu\n");
  root.write("sys/class/hwmon/hwmon0/power1_average", "35000000\n");
  root.write("sys/class/hwmon/hwmon1/name", "amdgpu\n");
  root.write("sys/class/hwmon/hwmon1/power1_input", "5000000\n");
  root.write("sys/devices/dgpu/power/runtime_status", "suspended\n");
  root.link("sys/class/hwmon/hwmon0/device", "../../../devices/dgpu");
  // The sleeping card draws next to nothing and is not woken to ask.
  EXPECT_EQ(makeLinuxGPUPowerSource(root.path(), clock)->gpuWatts(), 5.0);
  root.write("sys/devices/dgpu/power/runtime_status", "active\n");
  EXPECT_EQ(makeLinuxGPUPowerSource(root.path(), clock)->gpuWatts(), 40.0);
}

TEST(LinuxBatterySource, PowerSupplies) {
  BatteryStat discharging;
  discharging.present = true;
  discharging.percent = 61;
  discharging.health = 100;  // energy_full above its design is capped
  discharging.watts = 5.156;
  discharging.minutesLeft = 274;  // 23.6 Wh at 5.156 W
  BatteryStat charging;
  charging.present = true;
  charging.percent = 98;
  charging.charging = true;
  charging.pluggedIn = true;
  charging.health = 3750000.0 / 4474000.0 * 100;
  charging.watts = 0.413 * 12.729;
  charging.minutesLeft = 8;  // 58 mAh at 413 mA
  struct Case {
    std::string root;
    std::optional<double> temperature;
    BatteryStat expected;
  };
  BatteryStat withTemperature = discharging;
  withTemperature.temperature = 33.0;
  const Case cases[] = {
      {"laptop-discharging", std::nullopt, discharging},
      {"laptop-discharging", 33.0, withTemperature},
      {"laptop-charging", std::nullopt, charging},
      {"amd-desktop", std::nullopt, BatteryStat{}},
      {"no-such-machine", std::nullopt, BatteryStat{}},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.root);
    BatteryStat b = makeLinuxBatterySource(kFixtures + c.root)->read(c.temperature);
    EXPECT_EQ(b.present, c.expected.present);
    EXPECT_EQ(b.percent, c.expected.percent);
    EXPECT_EQ(b.charging, c.expected.charging);
    EXPECT_EQ(b.pluggedIn, c.expected.pluggedIn);
    EXPECT_EQ(b.minutesLeft, c.expected.minutesLeft);
    EXPECT_EQ(b.cycles, c.expected.cycles);
    EXPECT_EQ(b.temperature, c.expected.temperature);
    ASSERT_EQ(b.watts.has_value(), c.expected.watts.has_value());
    if (b.watts) {
      EXPECT_NEAR(*b.watts, *c.expected.watts, 1e-9);
    }
    ASSERT_EQ(b.health.has_value(), c.expected.health.has_value());
    if (b.health) {
      EXPECT_NEAR(*b.health, *c.expected.health, 1e-9);
    }
  }
}

TEST(SensorParsers, PowerSupplyUevent) {
  struct Case {
    const char* label;
    std::string text;
    std::optional<bool> plugged;
    BatteryStat expected;
  };
  BatteryStat kernelEstimate;
  kernelEstimate.present = true;
  kernelEstimate.percent = 50;
  kernelEstimate.minutesLeft = 90;
  kernelEstimate.cycles = 12;
  kernelEstimate.temperature = 29.5;
  kernelEstimate.watts = 4.0;
  BatteryStat cutShort;
  cutShort.present = true;
  cutShort.percent = 0;
  cutShort.pluggedIn = true;  // "Full" with no supply listed: on mains
  BatteryStat fromEnergy;
  fromEnergy.present = true;
  fromEnergy.percent = 25;
  fromEnergy.watts = 12.0;  // negative current on some drivers: the magnitude counts
  BatteryStat almostFull;
  almostFull.present = true;
  almostFull.percent = 99;
  almostFull.charging = true;
  almostFull.pluggedIn = true;
  almostFull.watts = 1.0;
  const Case cases[] = {
      // Found by the fuzzer: half a minute left is no figure, not "0 minutes".
      {"less than a minute to full",
       "POWER_SUPPLY_TYPE=Battery\nPOWER_SUPPLY_STATUS=Charging\nPOWER_SUPPLY_CAPACITY=99\n"
       "POWER_SUPPLY_ENERGY_NOW=39990000\nPOWER_SUPPLY_ENERGY_FULL=40000000\n"
       "POWER_SUPPLY_POWER_NOW=1000000\n",
       std::nullopt, almostFull},
      {"the kernel's own estimate, tenths of a degree",
       "POWER_SUPPLY_TYPE=Battery\nPOWER_SUPPLY_STATUS=Discharging\nPOWER_SUPPLY_CAPACITY=50\n"
       "POWER_SUPPLY_TIME_TO_EMPTY_NOW=5400\nPOWER_SUPPLY_CYCLE_COUNT=12\nPOWER_SUPPLY_TEMP=295\n"
       "POWER_SUPPLY_POWER_NOW=4000000\nPOWER_SUPPLY_ENERGY_NOW=1\n",
       false, kernelEstimate},
      {"cut short mid-line",
       "POWER_SUPPLY_TYPE=Battery\nPOWER_SUPPLY_STATUS=Full\nPOWER_SUPPLY_CAPACITY=9x\n"
       "POWER_SUPPLY_CYCLE_COU",
       std::nullopt, cutShort},
      {"percent from energy, negative current, unknown status",
       "POWER_SUPPLY_TYPE=Battery\nPOWER_SUPPLY_STATUS=Unknown\nPOWER_SUPPLY_ENERGY_NOW=10000000\n"
       "POWER_SUPPLY_ENERGY_FULL=40000000\nPOWER_SUPPLY_CURRENT_NOW=-1000000\n"
       "POWER_SUPPLY_VOLTAGE_NOW=12000000\n",
       false, fromEnergy},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.label);
    PowerSupplyInfo info = parsePowerSupplyUevent(c.text);
    EXPECT_TRUE(isSystemBattery(info));
    BatteryStat b = batteryFromPowerSupply(info, c.plugged, std::nullopt);
    EXPECT_EQ(b.percent, c.expected.percent);
    EXPECT_EQ(b.pluggedIn, c.expected.pluggedIn);
    EXPECT_EQ(b.minutesLeft, c.expected.minutesLeft);
    EXPECT_EQ(b.cycles, c.expected.cycles);
    EXPECT_EQ(b.temperature, c.expected.temperature);
    EXPECT_EQ(b.watts, c.expected.watts);
  }
  EXPECT_FALSE(isSystemBattery(parsePowerSupplyUevent(
      "POWER_SUPPLY_TYPE=Battery\nPOWER_SUPPLY_SCOPE=Device\nPOWER_SUPPLY_CAPACITY=20\n")));
  EXPECT_FALSE(isSystemBattery(
      parsePowerSupplyUevent("POWER_SUPPLY_TYPE=Battery\nPOWER_SUPPLY_PRESENT=0\n")));
}

// Two batteries (an internal and a removable one) are one battery to the person.
TEST(LinuxBatterySource, TwoBatteriesTakenTogether) {
  TempRoot root;
  root.write("sys/class/power_supply/BAT0/uevent",
             "POWER_SUPPLY_TYPE=Battery\nPOWER_SUPPLY_STATUS=Discharging\n"
             "POWER_SUPPLY_CAPACITY=50\nPOWER_SUPPLY_ENERGY_NOW=20000000\n"
             "POWER_SUPPLY_ENERGY_FULL=40000000\nPOWER_SUPPLY_ENERGY_FULL_DESIGN=50000000\n"
             "POWER_SUPPLY_POWER_NOW=5000000\nPOWER_SUPPLY_CYCLE_COUNT=100\n"
             "POWER_SUPPLY_TIME_TO_EMPTY_NOW=14400\n");
  root.write("sys/class/power_supply/BAT1/uevent",
             "POWER_SUPPLY_TYPE=Battery\nPOWER_SUPPLY_STATUS=Unknown\n"
             "POWER_SUPPLY_CAPACITY=20\nPOWER_SUPPLY_ENERGY_NOW=4000000\n"
             "POWER_SUPPLY_ENERGY_FULL=20000000\nPOWER_SUPPLY_ENERGY_FULL_DESIGN=20000000\n"
             "POWER_SUPPLY_POWER_NOW=0\nPOWER_SUPPLY_CYCLE_COUNT=300\n");
  root.write("sys/class/power_supply/AC/uevent",
             "POWER_SUPPLY_TYPE=Mains\nPOWER_SUPPLY_ONLINE=0\n");
  BatteryStat b = makeLinuxBatterySource(root.path())->read(std::nullopt);
  EXPECT_TRUE(b.present);
  EXPECT_EQ(b.percent, 40);  // (50 x 40 + 20 x 20) / 60
  EXPECT_FALSE(b.charging);
  EXPECT_FALSE(b.pluggedIn);
  ASSERT_TRUE(b.health);
  EXPECT_NEAR(*b.health, 60.0 / 70.0 * 100, 1e-9);
  EXPECT_EQ(b.watts, 5.0);
  EXPECT_EQ(b.minutesLeft, 288);  // 24 Wh at 5 W, not the first battery's own 240 minutes
  EXPECT_EQ(b.cycles, 300);
}

TEST(SensorParsers, WrappingDelta) {
  EXPECT_EQ(wrappingDelta(100, 150, std::nullopt), 50u);
  EXPECT_EQ(wrappingDelta(900, 100, 1000), 200u);
  EXPECT_EQ(wrappingDelta(900, 100, std::nullopt), std::nullopt);
  EXPECT_EQ(wrappingDelta(2000, 100, 1000), std::nullopt);  // beyond its own range
}

TEST(ProcessEnergy, SharedOutByCPUTime) {
  struct Case {
    const char* label;
    std::vector<double> cpu;  // percent of one core per process
    double machineBusy;       // cpu.total of a 4-core machine
    std::optional<double> package;
    std::vector<double> energy;
    std::optional<double> sum;
  };
  const Case cases[] = {
      {"processes account for all the busy time", {100, 300}, 1.0, 20.0, {5, 15}, 20.0},
      {"the kernel was busy too: processes get their share only",
       {100, 100},
       1.0,
       20.0,
       {5, 5},
       10.0},
      {"the processes' sum exceeds the machine's (sampling skew)",
       {200, 200},
       0.5,
       8.0,
       {4, 4},
       8.0},
      {"an idle machine", {0, 0}, 0, 8.0, {0, 0}, 0.0},
      {"no package power: unknown, not zero", {100, 300}, 1.0, std::nullopt, {0, 0}, std::nullopt},
      {"a nonsense package power", {100}, 1.0, -3.0, {0}, std::nullopt},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.label);
    std::vector<ProcessSample> processes;
    for (double cpu : c.cpu) {
      ProcessSample p;
      p.cpu = cpu;
      p.energy = 99;  // whatever was there is replaced
      processes.push_back(p);
    }
    CPUStat machine;
    machine.total = c.machineBusy;
    machine.cores = {0, 0, 0, 0};
    EXPECT_EQ(apportionEnergy(processes, c.package, machine), c.sum);
    for (size_t i = 0; i < processes.size(); ++i) {
      EXPECT_DOUBLE_EQ(processes[i].energy, c.energy[i]);
    }
  }
}

// The captured laptop through the whole sampler: the heat and battery metrics and the power figures
// come alive in the Snapshot.
TEST(LinuxSensorSources, SnapshotsCarryTheFigures) {
  const std::string root = kFixtures + "laptop-discharging";
  ManualMainQueue main;
  ManualClock clock;
  SamplerParts parts;
  parts.smc = makeLinuxPowerSource(root, clock, steps(0));
  parts.thermal = makeLinuxThermalSource(root, clock, steps(0));
  parts.battery = makeLinuxBatterySource(root);
  parts.energy = makeLinuxGPUPowerSource(root, clock);
  auto sampler = Sampler::create(std::move(parts), main, clock);
  Snapshot s = sampler->sampleNow();
  EXPECT_EQ(s.sensors.cpuMax, 44.0);
  EXPECT_EQ(s.sensors.hottest(), 44.0);
  EXPECT_DOUBLE_EQ(s.level(Metric::heat), 44.0 / 105);
  EXPECT_EQ(s.sensors.fans, (std::vector<Fan>{{910, 0, 6100}}));
  EXPECT_TRUE(s.battery.present);
  EXPECT_DOUBLE_EQ(s.level(Metric::battery), 0.61);
  EXPECT_EQ(s.power.system, 5.156);  // on battery: the battery's draw
  EXPECT_EQ(s.power.gpu, std::nullopt);
}

// This build machine has no battery and no readable sensors: every reader degrades quietly.
TEST(LinuxSensorSources, ThisMachineDegradesQuietly) {
  auto thermal = makeLinuxThermalSource("/");
  auto power = makeLinuxPowerSource("/");
  auto gpu = makeLinuxGPUPowerSource("/");
  auto battery = makeLinuxBatterySource("/");
  for (int i = 0; i < 2; ++i) {
    SensorStat s = thermal->read(power->fans());
    for (auto t : {s.cpu, s.cpuMax, s.gpu, s.ssd, s.battery}) {
      if (t) {
        EXPECT_TRUE(*t > -20 && *t < 150);
      }
    }
    if (auto w = power->systemPower()) {
      EXPECT_GE(*w, 0);
    }
    if (auto w = gpu->gpuWatts()) {
      EXPECT_GE(*w, 0);
    }
    BatteryStat b = battery->read(std::nullopt);
    EXPECT_TRUE(b.percent >= 0 && b.percent <= 100);
  }
}

}  // namespace
}  // namespace vistrel
