// Audio streams to per-process uses, and Bluetooth batteries from the platforms' reports.

#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <thread>

#include "base/files.hpp"
#include "sampling/audio_reader.hpp"
#include "sampling/bluetooth_reader.hpp"

namespace vistrel {
namespace {

AudioStream stream(bool output, bool corked, AudioProperties props, AudioProperties client = {}) {
  return {output, corked, std::move(props), std::move(client)};
}

TEST(AudioReader, StreamPids) {
  struct Case {
    const char* label;
    AudioStream s;
    std::optional<int32_t> pid;
  };
  const Case cases[] = {
      {"the stream's own pid", stream(true, false, {{"application.process.id", "4242"}}), 4242},
      {"the client's pid when the stream has none",
       stream(true, false, {}, {{"application.process.id", "77"}}), 77},
      {"a sandboxed app's pid 2 falls back to the server's view of its client",
       stream(true, false, {{"application.process.id", "2"}}, {{"pipewire.sec.pid", "9001"}}),
       9001},
      {"or to the stream's",
       stream(true, false, {{"application.process.id", "2"}, {"pipewire.sec.pid", "9002"}}), 9002},
      {"a sandbox pid with nothing better is no pid",
       stream(true, false, {{"application.process.id", "2"}}), std::nullopt},
      {"garbage", stream(true, false, {{"application.process.id", "12ab"}}), std::nullopt},
      {"negative", stream(true, false, {{"application.process.id", "-5"}}), std::nullopt},
      {"nothing at all", stream(false, false, {}), std::nullopt},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.label);
    EXPECT_EQ(audioStreamPid(c.s), c.pid);
  }
}

TEST(AudioReader, UsesPerProcessNamedAfterTheirApps) {
  const std::vector<AudioStream> streams = {
      stream(true, false, {{"application.process.id", "300"}, {"application.name", "Firefox"}}),
      stream(false, false, {{"application.process.id", "300"}}),  // and records
      stream(true, true, {{"application.process.id", "400"}, {"application.name", "mpv"}}),
      stream(false, false, {{"application.process.id", "500"}}, {{"application.name", "OBS"}}),
      stream(true, false, {{"application.process.id", "600"}, {"application.name", "aplay"}}),
  };
  std::vector<AudioUse> uses = audioUses(streams);
  ASSERT_EQ(uses.size(), 3u);  // the corked player is neither playing nor recording
  EXPECT_EQ(uses[0], (AudioUse{300, "Firefox", std::nullopt, true, true}));
  EXPECT_EQ(uses[1], (AudioUse{500, "OBS", std::nullopt, false, true}));
  EXPECT_EQ(uses[2], (AudioUse{600, "aplay", std::nullopt, true, false}));

  AppUsage browser;
  browser.name = "Firefox Web Browser";
  browser.bundlePath = "/usr/share/applications/firefox.desktop";
  browser.pids = {290, 300};
  ProcessSample obs;
  obs.pid = 500;
  obs.name = "obs";
  ProcessSample unnamed;  // a process whose name could not be read names nothing
  unnamed.pid = 600;
  nameAudioUses(uses, {browser}, {obs, unnamed});
  EXPECT_EQ(uses[0].name, "Firefox Web Browser");
  EXPECT_EQ(uses[0].bundlePath, browser.bundlePath);
  EXPECT_EQ(uses[1].name, "obs");
  EXPECT_EQ(uses[2].name, "aplay");  // unknown to the snapshot: the stream's own name
}

TEST(BluetoothReader, SystemProfilerReport) {
  auto text = readFile(std::string(VISTREL_FIXTURES) + "/macos/system_profiler_bluetooth.json");
  ASSERT_TRUE(text);
  EXPECT_EQ(parseSystemProfilerBluetooth(*text),
            (std::vector<BluetoothDevice>{{"My AirPods3", 89}, {"My Beats Studio³", 100}}));

  const std::pair<const char*, std::vector<BluetoothDevice>> cases[] = {
      {"", {}},
      {"not json", {}},
      {R"({"SPBluetoothDataType": {}})", {}},
      {R"({"SPBluetoothDataType": [{"device_connected": [{"Pad": {"device_batteryLevelCase": "40%"}}]}]})",
       {{"Pad", 40}}},
      {R"({"SPBluetoothDataType": [{"device_connected": [{"Bud": {"device_batteryLevelRight": "55%"}}]}]})",
       {{"Bud", 55}}},
      {R"({"SPBluetoothDataType": [{"device_connected": [{"X": {"device_batteryLevelMain": "150%"}},
          {"Y": {"device_batteryLevelMain": 70}}, {"Z": {"device_batteryLevelMain": "7 of 10"}}, 5]}]})",
       {}},
      // Cut short mid-document.
      {text->substr(0, text->size() / 2).c_str(), {}},
  };
  for (const auto& [json, devices] : cases) {
    SCOPED_TRACE(json);
    EXPECT_EQ(parseSystemProfilerBluetooth(json), devices);
  }
}

TEST(BluetoothReader, BlueZDevices) {
  const std::vector<BlueZDevice> devices = {
      {"MX Master 3", true, 85},
      {"Keyboard K380", false, 60},      // paired but not connected
      {"JBL Flip", true, std::nullopt},  // no battery service
      {"Odd", true, 255},
  };
  EXPECT_EQ(bluetoothFromBlueZ(devices),
            (std::vector<BluetoothDevice>{{"MX Master 3", 85}, {"Odd", 100}}));
}

// The slow report runs off the caller's thread: the first read returns at once with nothing, later
// reads the latest finished result, and runs never overlap.
TEST(BluetoothReader, BackgroundRunsNeverBlockTheCaller) {
  std::atomic<int> runs{0};
  std::atomic<bool> release{false};
  BackgroundBluetoothReader reader([&] {
    ++runs;
    while (!release) std::this_thread::sleep_for(std::chrono::milliseconds(1));
    return std::vector<BluetoothDevice>{{"Mouse", 50 + runs.load()}};
  });
  EXPECT_TRUE(reader.read().empty());
  EXPECT_TRUE(reader.read().empty());  // still running: no second run
  release = true;
  std::vector<BluetoothDevice> got;
  for (int i = 0; i < 2000 && got.empty(); ++i) {
    std::this_thread::sleep_for(std::chrono::milliseconds(1));
    got = reader.read();
  }
  ASSERT_EQ(got.size(), 1u);
  EXPECT_EQ(got[0].percent, 51);
  EXPECT_LE(runs.load(), 2);
}

}  // namespace
}  // namespace vistrel
