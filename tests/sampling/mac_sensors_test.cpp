// The SMC, HID temperature, energy-report and smart-battery decoding, from captured bytes and
// dictionaries (sources in tests/fixtures/macos/README.md).

#include <gtest/gtest.h>

#include <cstring>
#include <map>
#include <vector>

#include "sampling/battery_reader.hpp"
#include "sampling/energy_reader.hpp"
#include "sampling/smc.hpp"
#include "sampling/thermal_reader.hpp"

namespace vistrel {
namespace {

TEST(SMCDecoding, CapturedBytes) {
  struct Case {
    const char* type;
    std::vector<uint8_t> bytes;
    std::optional<double> value;
  };
  const Case cases[] = {
      {"flt ", {0x98, 0x99, 0xe5, 0x41}, 28.70},         // little-endian
      {"flt ", {0x00, 0x00, 0x00, 0x00}, 0.0},           // a stopped fan
      {"flt ", {0x00, 0x00, 0xc0, 0x7f}, std::nullopt},  // NaN is no value
      {"flt ", {0x98, 0x99, 0xe5}, std::nullopt},        // cut short
      {"ui32", {0x00, 0x00, 0x03, 0x5f}, 863.0},
      {"ui16", {0x01, 0x02}, 258.0},
      {"ui8 ", {0x02}, 2.0},
      {"ui8 ", {}, std::nullopt},
      {"fpe2", {0x1f, 0x40}, 2000.0},  // Intel-era fan speed: 0x1f40 / 4
      {"sp78", {0x1c, 0x80}, 28.5},
      {"sp78", {0xff, 0x00}, -1.0},  // signed
      {"si16", {0x00, 0x01}, std::nullopt},
      {"{fds", {0x00, 0x01, 0x02, 0x03}, std::nullopt},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.type);
    const auto value = decodeSMC(smcCode(c.type), c.bytes.data(), c.bytes.size());
    ASSERT_EQ(value.has_value(), c.value.has_value());
    if (value) {
      EXPECT_NEAR(*value, *c.value, 1e-5);
    }
  }
  EXPECT_EQ(smcCode("FNum"), 0x464e756du);
  EXPECT_EQ(smcCode("ui8"), smcCode("ui8 "));  // padded
}

// A controller that answers from a table of keys and counts what it was asked.
struct FakeSMCConnection : SMCConnection {
  bool opens = true;
  std::map<std::string, std::pair<std::string, std::vector<uint8_t>>> keys;  // type, bytes
  std::map<std::string, int> infoAsked, readAsked;
  bool open() override { return opens; }
  static std::string name(uint32_t code) {
    return {static_cast<char>(code >> 24), static_cast<char>(code >> 16),
            static_cast<char>(code >> 8), static_cast<char>(code)};
  }
  std::optional<SMCKeyInfo> keyInfo(uint32_t key) override {
    ++infoAsked[name(key)];
    auto it = keys.find(name(key));
    if (it == keys.end()) return std::nullopt;
    return SMCKeyInfo{static_cast<uint32_t>(it->second.second.size()), smcCode(it->second.first)};
  }
  std::optional<std::vector<uint8_t>> readBytes(uint32_t key, const SMCKeyInfo&) override {
    ++readAsked[name(key)];
    auto it = keys.find(name(key));
    if (it == keys.end()) return std::nullopt;
    return it->second.second;
  }
};

std::vector<uint8_t> flt(float f) {
  uint32_t bits;
  std::memcpy(&bits, &f, 4);
  return {static_cast<uint8_t>(bits), static_cast<uint8_t>(bits >> 8),
          static_cast<uint8_t>(bits >> 16), static_cast<uint8_t>(bits >> 24)};
}

TEST(SMC, Fans) {
  struct Case {
    const char* label;
    std::map<std::string, std::pair<std::string, std::vector<uint8_t>>> keys;
    std::vector<Fan> fans;
  };
  const Case cases[] = {
      {"two fans, the second without a maximum",
       {{"FNum", {"ui8 ", {2}}},
        {"F0Ac", {"flt ", flt(1200)}},
        {"F0Mn", {"flt ", flt(1000)}},
        {"F0Mx", {"flt ", flt(4900)}},
        {"F1Ac", {"flt ", flt(1300)}},
        {"F1Mn", {"flt ", flt(1100)}}},
       {{1200, 1000, 4900}, {1300, 1100, 0}}},
      {"no fan (a MacBook Air)", {{"FNum", {"ui8 ", {0}}}}, {}},
      {"a misread count", {{"FNum", {"ui8 ", {8}}}}, {}},
      {"no count at all", {}, {}},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.label);
    auto connection = std::make_unique<FakeSMCConnection>();
    connection->keys = c.keys;
    SMC smc(std::move(connection));
    EXPECT_EQ(smc.fans(), c.fans);
  }
}

TEST(SMC, AsksForEachKeyInfoOnceAndNeverRetriesAFailedKey) {
  auto connection = std::make_unique<FakeSMCConnection>();
  FakeSMCConnection& fake = *connection;
  fake.keys = {{"PSTR", {"flt ", flt(7.5)}}};
  SMC smc(std::move(connection));
  for (int i = 0; i < 3; ++i) {
    EXPECT_EQ(smc.systemPower(), 7.5);
    EXPECT_EQ(smc.number("F0Ac"), std::nullopt);
  }
  EXPECT_EQ(fake.infoAsked["PSTR"], 1);
  EXPECT_EQ(fake.readAsked["PSTR"], 3);
  EXPECT_EQ(fake.infoAsked["F0Ac"], 1);  // refused once, never asked again
  EXPECT_EQ(fake.readAsked["F0Ac"], 0);
}

TEST(SMC, NoControllerGivesNothing) {
  auto connection = std::make_unique<FakeSMCConnection>();
  connection->opens = false;
  connection->keys = {{"PSTR", {"flt ", flt(7.5)}}, {"FNum", {"ui8 ", {1}}}};
  SMC smc(std::move(connection));
  EXPECT_FALSE(smc.available());
  EXPECT_EQ(smc.systemPower(), std::nullopt);
  EXPECT_TRUE(smc.fans().empty());
  SMC none(nullptr);
  EXPECT_EQ(none.systemPower(), std::nullopt);
}

TEST(ThermalReader, SensorGroupsByProductName) {
  const std::pair<const char*, std::optional<SensorGroup>> cases[] = {
      {"PMU tdie1", SensorGroup::cpu},
      {"pACC MTR Temp Sensor3", SensorGroup::cpu},  // M1 family, matched in any case
      {"eACC MTR Temp Sensor0", SensorGroup::cpu},
      {"PACC MTR Temp Sensor9", SensorGroup::cpu},
      {"CPU Die", SensorGroup::cpu},
      {"PECPU", SensorGroup::cpu},
      {"PMU TP1g", SensorGroup::gpu},
      {"GPU MTR Temp Sensor1", SensorGroup::gpu},
      {"PMU TP1s", std::nullopt},
      {"NAND CH0 temp", SensorGroup::ssd},
      {"gas gauge battery", SensorGroup::battery},
      {"Battery Temp", SensorGroup::battery},
      {"PMU tcal", std::nullopt},
      {"", std::nullopt},
  };
  for (const auto& [name, group] : cases) EXPECT_EQ(hidSensorGroup(name), group) << name;
}

struct FakeHID : HIDTemperatureSource {
  std::vector<HIDTemperature> readings;
  std::vector<HIDTemperature> readAll() override { return readings; }
};

TEST(ThermalReader, Summaries) {
  struct Case {
    const char* label;
    std::vector<HIDTemperature> readings;
    std::optional<double> cpu, cpuMax, gpu, ssd, battery;
  };
  const Case cases[] = {
      {"mean and hottest core",
       {{"PMU tdie1", 50}, {"PMU tdie2", 70}},
       60.0,
       70.0,
       std::nullopt,
       std::nullopt,
       std::nullopt},
      {"one sensor seen twice counts once, at its largest",
       {{"PMU tdie1", 60}, {"PMU tdie1", 64}, {"PMU tdie2", 50}},
       57.0,
       64.0,
       std::nullopt,
       std::nullopt,
       std::nullopt},
      {"misreads at the bounds are dropped; 149.9 is kept",
       {{"PMU tdie1", 150}, {"PMU tdie2", -20}, {"PMU tdie3", 149.9}},
       149.9,
       149.9,
       std::nullopt,
       std::nullopt,
       std::nullopt},
      {"no CPU sensor",
       {{"PMU TP1g", 41}, {"PMU TP2g", 45}, {"NAND CH0 temp", 38}, {"gas gauge battery", 30}},
       std::nullopt,
       std::nullopt,
       45.0,
       38.0,
       30.0},
      {"nothing of interest", {{"PMU tcal", 50}}, {}, {}, {}, {}, {}},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.label);
    auto source = std::make_unique<FakeHID>();
    source->readings = c.readings;
    ThermalReader reader(std::move(source));
    SensorStat s = reader.read({{1200, 1000, 5000}});
    EXPECT_EQ(s.cpu, c.cpu);
    EXPECT_EQ(s.cpuMax, c.cpuMax);
    EXPECT_EQ(s.gpu, c.gpu);
    EXPECT_EQ(s.ssd, c.ssd);
    EXPECT_EQ(s.battery, c.battery);
    EXPECT_EQ(s.fans, (std::vector<Fan>{{1200, 1000, 5000}}));
  }
  ThermalReader none(nullptr);
  EXPECT_EQ(none.read({}), SensorStat{});
}

struct ScriptedEnergy : EnergyChannelSource {
  std::vector<std::optional<std::vector<EnergyChannel>>> script;
  size_t next = 0;
  std::optional<std::vector<EnergyChannel>> delta() override {
    return next < script.size() ? script[next++] : std::nullopt;
  }
};

TEST(EnergyReader, GPUWatts) {
  EXPECT_EQ(joulesFrom(1500, "mJ"), 1.5);
  EXPECT_EQ(joulesFrom(1500, " mJ "), 1.5);  // labels come padded
  EXPECT_EQ(joulesFrom(2'000'000, "uJ"), 2.0);
  EXPECT_EQ(joulesFrom(3'000'000'000, "nJ"), 3.0);
  EXPECT_EQ(joulesFrom(5, "J"), std::nullopt);

  ManualClock clock(100);
  auto source = std::make_unique<ScriptedEnergy>();
  source->script = {
      std::nullopt,  // the first sample has nothing to compare with
      std::vector<EnergyChannel>{{"GPU Energy", "mJ", 4000}, {"CPU Energy", "mJ", 9000}},
      std::vector<EnergyChannel>{{"GPU Energy", "nJ ", 1'000'000'000}},
      std::vector<EnergyChannel>{{"CPU Energy", "mJ", 9000}},  // no GPU channel
      std::vector<EnergyChannel>{{"GPU Energy", "mJ", 1000}},  // the clock did not move
  };
  EnergyReader reader(std::move(source), clock);
  EXPECT_EQ(reader.gpuWatts(), std::nullopt);
  clock.advance(2);
  EXPECT_EQ(reader.gpuWatts(), 2.0);  // 4 J over 2 s; the CPU's channel is not the GPU's
  clock.advance(0.5);
  EXPECT_EQ(reader.gpuWatts(), 2.0);
  clock.advance(1);
  EXPECT_EQ(reader.gpuWatts(), std::nullopt);
  EXPECT_EQ(reader.gpuWatts(), std::nullopt);
  EnergyReader none(nullptr, clock);
  EXPECT_EQ(none.gpuWatts(), std::nullopt);
}

PropertyValue num(int64_t v) {
  return {v};
}
PropertyValue flag(bool v) {
  return {v};
}
PropertyValue dict(Properties p) {
  return {std::move(p)};
}

TEST(BatteryReader, SmartBatteryProperties) {
  struct Case {
    const char* label;
    std::optional<Properties> properties;
    std::optional<double> sensorTemperature;
    BatteryStat expected;
  };
  BatteryStat intel;  // capacities and cycles only inside BatteryData, the amperage 0
  intel.present = true;
  intel.health = 4119.0 / 4315.0 * 100;
  intel.cycles = 50;
  intel.watts = 0;
  BatteryStat silicon;
  silicon.present = true;
  silicon.minutesLeft = 221;
  BatteryStat air;
  air.present = true;
  air.percent = 68;
  BatteryStat charging;
  charging.present = true;
  charging.percent = 87;
  charging.charging = true;
  charging.pluggedIn = true;
  charging.minutesLeft = 45;
  charging.watts = 12.0 * 1.5;
  charging.health = 100;  // capped
  charging.cycles = 312;
  charging.temperature = 30.55;
  BatteryStat onBattery;
  onBattery.present = true;
  onBattery.percent = 100;  // capped
  onBattery.watts = 11.4 * 1.2;
  onBattery.health = 4000.0 / 5000.0 * 100;
  onBattery.temperature = 29.0;
  BatteryStat virtualTemperature;
  virtualTemperature.present = true;
  virtualTemperature.temperature = 31.0;
  BatteryStat present;
  present.present = true;
  present.temperature = 33.5;

  const Case cases[] = {
      {"no battery service", std::nullopt, std::nullopt, BatteryStat{}},
      {"battery not installed", Properties{{"BatteryInstalled", flag(false)}}, 40.0, BatteryStat{}},
      {"Intel MacBook, 2019",
       Properties{{"Amperage", num(0)},
                  {"AppleRawCurrentCapacity", num(3938)},
                  {"AppleRawMaxCapacity", num(4119)},
                  {"AvgTimeToEmpty", num(65535)},
                  {"AvgTimeToFull", num(65535)},
                  {"BatteryData", dict({{"CycleCount", num(50)},
                                        {"DesignCapacity", num(4315)},
                                        {"Voltage", num(12818)}})},
                  {"BatteryInstalled", flag(true)}},
       std::nullopt, intel},
      {"Apple silicon on battery",
       Properties{{"Amperage", num(-1889)},
                  {"AppleRawCurrentCapacity", num(6974)},
                  {"AppleRawMaxCapacity", num(8747)},
                  {"AvgTimeToEmpty", num(221)},
                  {"AvgTimeToFull", num(65535)}},
       std::nullopt, silicon},
      {"M1 Air: the maximum only inside BatteryData",
       Properties{
           {"CurrentCapacity", num(68)},
           {"AppleRawCurrentCapacity", num(2776)},
           {"BatteryData", dict({{"DesignCapacity", num(4382)}, {"MaxCapacity", num(100)}})}},
       std::nullopt, air},
      {"charging, hundredths of a degree",
       Properties{{"CurrentCapacity", num(87)},
                  {"MaxCapacity", num(100)},
                  {"IsCharging", flag(true)},
                  {"ExternalConnected", flag(true)},
                  {"CycleCount", num(312)},
                  {"AppleRawMaxCapacity", num(5200)},
                  {"DesignCapacity", num(5100)},
                  {"Voltage", num(12000)},
                  {"InstantAmperage", num(1500)},
                  {"Amperage", num(900)},
                  {"TimeRemaining", num(0)},
                  {"AvgTimeToFull", num(45)},
                  {"AvgTimeToEmpty", num(300)},
                  {"Temperature", num(3055)}},
       std::nullopt, charging},
      {"on battery: signed amperage, nominal capacity inside BatteryData, sensor temperature",
       Properties{{"CurrentCapacity", num(120)},
                  {"MaxCapacity", num(0)},
                  {"Voltage", num(11400)},
                  {"InstantAmperage", num(-1200)},
                  {"AvgTimeToEmpty", num(65535)},
                  {"BatteryData", dict({{"NominalChargeCapacity", num(4000)},
                                        {"FullChargeCapacity", num(3900)},
                                        {"DesignCapacity", num(5000)}})},
                  {"Temperature", num(3300)}},
       29.0, onBattery},
      {"virtual temperature only",
       Properties{{"CurrentCapacity", num(0)}, {"VirtualTemperature", num(3100)}}, std::nullopt,
       virtualTemperature},
      {"wrong types are no values",
       Properties{{"CycleCount", PropertyValue{std::string("many")}},
                  {"IsCharging", num(1)},
                  {"DesignCapacity", flag(true)},
                  {"AppleRawMaxCapacity", num(100)},
                  {"Temperature", PropertyValue{3350.0}}},
       std::nullopt, present},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.label);
    struct Fixed : BatteryPropertiesSource {
      std::optional<Properties> p;
      std::optional<Properties> properties() override { return p; }
    };
    auto source = std::make_unique<Fixed>();
    source->p = c.properties;
    BatteryReader reader(std::move(source));
    const BatteryStat b = reader.read(c.sensorTemperature);
    EXPECT_EQ(b.present, c.expected.present);
    EXPECT_DOUBLE_EQ(b.percent, c.expected.percent);
    EXPECT_EQ(b.charging, c.expected.charging);
    EXPECT_EQ(b.pluggedIn, c.expected.pluggedIn);
    EXPECT_EQ(b.minutesLeft, c.expected.minutesLeft);
    EXPECT_EQ(b.cycles, c.expected.cycles);
    EXPECT_EQ(b.watts.has_value(), c.expected.watts.has_value());
    if (b.watts && c.expected.watts) {
      EXPECT_NEAR(*b.watts, *c.expected.watts, 1e-9);
    }
    EXPECT_EQ(b.health.has_value(), c.expected.health.has_value());
    if (b.health && c.expected.health) {
      EXPECT_NEAR(*b.health, *c.expected.health, 1e-9);
    }
    EXPECT_EQ(b.temperature, c.expected.temperature);
  }
}

}  // namespace
}  // namespace vistrel
