// Processes playing or recording sound, from CoreAudio's process objects (macOS 14.2 and later;
// an older system lacks the property and gives none). Names come from the sampler's apps.

#include <CoreAudio/CoreAudio.h>

#include <vector>

#include "sampling/sensor_sources.hpp"

namespace vistrel {
namespace {

// The selectors of CoreAudio's process objects, spelled out so that the source builds with SDKs
// that predate them; the system is asked at run time whether it has them.
constexpr AudioObjectPropertySelector fourCC(const char (&code)[5]) {
  return static_cast<AudioObjectPropertySelector>(static_cast<unsigned char>(code[0])) << 24 |
         static_cast<AudioObjectPropertySelector>(static_cast<unsigned char>(code[1])) << 16 |
         static_cast<AudioObjectPropertySelector>(static_cast<unsigned char>(code[2])) << 8 |
         static_cast<AudioObjectPropertySelector>(static_cast<unsigned char>(code[3]));
}
constexpr AudioObjectPropertySelector kProcessObjectList = fourCC("prs#");  // on the system object
constexpr AudioObjectPropertySelector kProcessPID = fourCC("ppid");
constexpr AudioObjectPropertySelector kProcessIsRunningInput = fourCC("piri");
constexpr AudioObjectPropertySelector kProcessIsRunningOutput = fourCC("piro");

AudioObjectPropertyAddress address(AudioObjectPropertySelector selector) {
  return {selector, kAudioObjectPropertyScopeGlobal, kAudioObjectPropertyElementMain};
}

template <typename T>
bool get(AudioObjectID object, AudioObjectPropertySelector selector, T& out) {
  const AudioObjectPropertyAddress where = address(selector);
  UInt32 size = sizeof out;
  return AudioObjectGetPropertyData(object, &where, 0, nullptr, &size, &out) == noErr &&
         size == sizeof out;
}

class MacAudioSource final : public AudioSource {
 public:
  std::vector<AudioUse> read() override {
    std::vector<AudioUse> uses;
    const AudioObjectPropertyAddress list = address(kProcessObjectList);
    if (!AudioObjectHasProperty(kAudioObjectSystemObject, &list)) return uses;
    UInt32 size = 0;
    if (AudioObjectGetPropertyDataSize(kAudioObjectSystemObject, &list, 0, nullptr, &size) !=
            noErr ||
        size == 0) {
      return uses;
    }
    std::vector<AudioObjectID> objects(size / sizeof(AudioObjectID));
    if (AudioObjectGetPropertyData(kAudioObjectSystemObject, &list, 0, nullptr, &size,
                                   objects.data()) != noErr) {
      return uses;
    }
    objects.resize(size / sizeof(AudioObjectID));
    for (AudioObjectID object : objects) {
      pid_t pid = 0;
      UInt32 input = 0, output = 0;
      if (!get(object, kProcessPID, pid) || pid <= 0) continue;
      get(object, kProcessIsRunningInput, input);
      get(object, kProcessIsRunningOutput, output);
      if (!input && !output) continue;
      AudioUse use;
      use.pid = pid;
      use.input = input != 0;
      use.output = output != 0;
      uses.push_back(use);
    }
    return uses;
  }
};

}  // namespace

std::unique_ptr<AudioSource> makeAudioSource() {
  return std::make_unique<MacAudioSource>();
}

}  // namespace vistrel
