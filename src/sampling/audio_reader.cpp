#include "sampling/audio_reader.hpp"

#include <charconv>

namespace vistrel {

namespace {

std::optional<int32_t> pidIn(const AudioProperties& p, const std::string& key) {
  auto it = p.find(key);
  if (it == p.end()) return std::nullopt;
  int32_t pid = 0;
  const std::string& s = it->second;
  auto [end, ec] = std::from_chars(s.data(), s.data() + s.size(), pid);
  if (ec != std::errc() || end != s.data() + s.size() || pid <= 0) return std::nullopt;
  return pid;
}

// A pid seen from inside a sandbox's pid namespace: the sandbox's init is 1, the app 2.
bool sandboxPid(int32_t pid) {
  return pid <= 2;
}

}  // namespace

std::optional<int32_t> audioStreamPid(const AudioStream& stream) {
  std::optional<int32_t> pid = pidIn(stream.properties, "application.process.id");
  if (!pid) pid = pidIn(stream.client, "application.process.id");
  if (!pid || sandboxPid(*pid)) {
    auto secure = pidIn(stream.client, "pipewire.sec.pid");
    if (!secure) secure = pidIn(stream.properties, "pipewire.sec.pid");
    if (secure) return secure;
  }
  if (pid && sandboxPid(*pid)) return std::nullopt;
  return pid;
}

std::vector<AudioUse> audioUses(const std::vector<AudioStream>& streams) {
  std::map<int32_t, AudioUse> byPid;
  for (const AudioStream& s : streams) {
    if (s.corked) continue;
    auto pid = audioStreamPid(s);
    if (!pid) continue;
    AudioUse& use = byPid[*pid];
    use.pid = *pid;
    if (use.name.empty()) {
      for (const AudioProperties* p : {&s.properties, &s.client}) {
        auto name = p->find("application.name");
        if (name != p->end()) {
          use.name = name->second;
          break;
        }
      }
    }
    (s.output ? use.output : use.input) = true;
  }
  std::vector<AudioUse> uses;
  uses.reserve(byPid.size());
  for (auto& [pid, use] : byPid) uses.push_back(std::move(use));
  return uses;
}

void nameAudioUses(std::vector<AudioUse>& uses, const std::vector<AppUsage>& apps,
                   const std::vector<ProcessSample>& processes) {
  for (AudioUse& use : uses) {
    bool named = false;
    for (const AppUsage& app : apps) {
      for (int32_t pid : app.pids) {
        if (pid == use.pid && !app.name.empty()) {
          use.name = app.name;
          use.bundlePath = app.bundlePath;
          named = true;
          break;
        }
      }
      if (named) break;
    }
    if (named) continue;
    for (const ProcessSample& p : processes) {
      if (p.pid == use.pid) {
        if (!p.name.empty()) use.name = p.name;
        break;
      }
    }
  }
}

}  // namespace vistrel
