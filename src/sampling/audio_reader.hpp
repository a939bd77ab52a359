#pragma once

// Which processes are playing or recording sound. The platform lists its audio streams; turning
// them into one AudioUse per process and naming it after its app is portable.

#include <cstdint>
#include <map>
#include <optional>
#include <string>
#include <vector>

#include "sampling/records.hpp"

namespace vistrel {

using AudioProperties = std::map<std::string, std::string>;

// One stream of the sound server (PulseAudio, or PipeWire's pulse server): a playback stream
// (`output`) or a recording one, with its properties and those of the client that opened it.
struct AudioStream {
  bool output = false;
  bool corked = false;  // paused: neither playing nor recording
  AudioProperties properties;
  AudioProperties client;
  bool operator==(const AudioStream&) const = default;
};

// The process of a stream: "application.process.id" of the stream, else of its client. A
// sandboxed app (Flatpak) reports its pid inside the sandbox, 1 or 2; then the server's own view of
// the peer ("pipewire.sec.pid") is taken, from the client first. nullopt when none is usable.
std::optional<int32_t> audioStreamPid(const AudioStream& stream);

// One AudioUse per process with a running stream: `output` when it plays, `input` when it records;
// corked streams count for nothing. Named after the stream's "application.name" until the sampler
// names it after its app. In order of pid.
std::vector<AudioUse> audioUses(const std::vector<AudioStream>& streams);

// Names each use after the app that holds its process (and takes the app's bundle), else after the
// process; a pid the snapshot does not know keeps the stream's name.
void nameAudioUses(std::vector<AudioUse>& uses, const std::vector<AppUsage>& apps,
                   const std::vector<ProcessSample>& processes);

}  // namespace vistrel
