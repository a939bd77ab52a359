// Apps playing or recording sound, from PulseAudio or PipeWire's pulse server through libpulse,
// opened at run time: a machine without it, or without a sound server, has no audio figure. The
// library's own thread subscribes to stream events and re-lists the streams when they change;
// reading only copies the last list, so nothing is polled. The server is never started for us.

#include <dlfcn.h>
#include <pulse/pulseaudio.h>

#include <chrono>
#include <mutex>
#include <vector>

#include "sampling/audio_reader.hpp"
#include "sampling/sensor_sources.hpp"

namespace vistrel {
namespace {

constexpr std::chrono::seconds kReconnectEvery{30};
const char* const kKeys[] = {"application.process.id", "application.name", "pipewire.sec.pid"};

// The libpulse entry points used, looked up by name.
struct Pulse {
  void* library = nullptr;
#define VISTREL_PULSE(name) decltype(&::name) name = nullptr;
  VISTREL_PULSE(pa_threaded_mainloop_new)
  VISTREL_PULSE(pa_threaded_mainloop_start)
  VISTREL_PULSE(pa_threaded_mainloop_stop)
  VISTREL_PULSE(pa_threaded_mainloop_free)
  VISTREL_PULSE(pa_threaded_mainloop_lock)
  VISTREL_PULSE(pa_threaded_mainloop_unlock)
  VISTREL_PULSE(pa_threaded_mainloop_get_api)
  VISTREL_PULSE(pa_context_new)
  VISTREL_PULSE(pa_context_unref)
  VISTREL_PULSE(pa_context_connect)
  VISTREL_PULSE(pa_context_disconnect)
  VISTREL_PULSE(pa_context_get_state)
  VISTREL_PULSE(pa_context_set_state_callback)
  VISTREL_PULSE(pa_context_set_subscribe_callback)
  VISTREL_PULSE(pa_context_subscribe)
  VISTREL_PULSE(pa_context_get_sink_input_info_list)
  VISTREL_PULSE(pa_context_get_source_output_info_list)
  VISTREL_PULSE(pa_context_get_client_info_list)
  VISTREL_PULSE(pa_operation_unref)
  VISTREL_PULSE(pa_proplist_gets)
#undef VISTREL_PULSE

  bool load() {
    library = ::dlopen("libpulse.so.0", RTLD_NOW | RTLD_LOCAL);
    if (!library) return false;
    bool all = true;
    auto get = [&](auto& fn, const char* name) {
      fn = reinterpret_cast<std::remove_reference_t<decltype(fn)>>(::dlsym(library, name));
      all = all && fn != nullptr;
    };
#define VISTREL_PULSE(name) get(name, #name);
    VISTREL_PULSE(pa_threaded_mainloop_new)
    VISTREL_PULSE(pa_threaded_mainloop_start)
    VISTREL_PULSE(pa_threaded_mainloop_stop)
    VISTREL_PULSE(pa_threaded_mainloop_free)
    VISTREL_PULSE(pa_threaded_mainloop_lock)
    VISTREL_PULSE(pa_threaded_mainloop_unlock)
    VISTREL_PULSE(pa_threaded_mainloop_get_api)
    VISTREL_PULSE(pa_context_new)
    VISTREL_PULSE(pa_context_unref)
    VISTREL_PULSE(pa_context_connect)
    VISTREL_PULSE(pa_context_disconnect)
    VISTREL_PULSE(pa_context_get_state)
    VISTREL_PULSE(pa_context_set_state_callback)
    VISTREL_PULSE(pa_context_set_subscribe_callback)
    VISTREL_PULSE(pa_context_subscribe)
    VISTREL_PULSE(pa_context_get_sink_input_info_list)
    VISTREL_PULSE(pa_context_get_source_output_info_list)
    VISTREL_PULSE(pa_context_get_client_info_list)
    VISTREL_PULSE(pa_operation_unref)
    VISTREL_PULSE(pa_proplist_gets)
#undef VISTREL_PULSE
    return all;
  }
};

class PulseAudioSource final : public AudioSource {
 public:
  PulseAudioSource() {
    if (!pulse_.load()) return;
    loop_ = pulse_.pa_threaded_mainloop_new();
    if (!loop_) return;
    if (pulse_.pa_threaded_mainloop_start(loop_) < 0) {
      pulse_.pa_threaded_mainloop_free(loop_);
      loop_ = nullptr;
      return;
    }
    pulse_.pa_threaded_mainloop_lock(loop_);
    connect();
    pulse_.pa_threaded_mainloop_unlock(loop_);
  }

  ~PulseAudioSource() override {
    if (!loop_) return;
    pulse_.pa_threaded_mainloop_lock(loop_);
    dropContext();
    pulse_.pa_threaded_mainloop_unlock(loop_);
    pulse_.pa_threaded_mainloop_stop(loop_);
    pulse_.pa_threaded_mainloop_free(loop_);
  }

  PulseAudioSource(const PulseAudioSource&) = delete;
  PulseAudioSource& operator=(const PulseAudioSource&) = delete;

  std::vector<AudioUse> read() override {
    if (!loop_) return {};
    bool retry = false;
    {
      std::lock_guard guard(mutex_);
      retry = failed_ && std::chrono::steady_clock::now() - failedAt_ >= kReconnectEvery;
    }
    if (retry) {
      pulse_.pa_threaded_mainloop_lock(loop_);
      dropContext();
      connect();
      pulse_.pa_threaded_mainloop_unlock(loop_);
    }
    std::lock_guard guard(mutex_);
    return uses_;
  }

 private:
  // With the main loop locked.
  void connect() {
    {
      std::lock_guard guard(mutex_);
      failed_ = false;
    }
    context_ = pulse_.pa_context_new(pulse_.pa_threaded_mainloop_get_api(loop_), "Vistrel");
    if (!context_) return markFailed();
    pulse_.pa_context_set_state_callback(context_, &PulseAudioSource::onState, this);
    pulse_.pa_context_set_subscribe_callback(context_, &PulseAudioSource::onEvent, this);
    if (pulse_.pa_context_connect(context_, nullptr, PA_CONTEXT_NOAUTOSPAWN, nullptr) < 0) {
      markFailed();
    }
  }

  void dropContext() {
    if (!context_) return;
    pulse_.pa_context_set_state_callback(context_, nullptr, nullptr);
    pulse_.pa_context_set_subscribe_callback(context_, nullptr, nullptr);
    pulse_.pa_context_disconnect(context_);
    pulse_.pa_context_unref(context_);
    context_ = nullptr;
    listing_ = false;
    again_ = false;
  }

  void markFailed() {
    std::lock_guard guard(mutex_);
    failed_ = true;
    failedAt_ = std::chrono::steady_clock::now();
    uses_.clear();
  }

  // The callbacks below run on libpulse's thread, with the main loop locked.
  static void onState(pa_context* context, void* self) {
    auto* s = static_cast<PulseAudioSource*>(self);
    switch (s->pulse_.pa_context_get_state(context)) {
      case PA_CONTEXT_READY: {
        auto mask = static_cast<pa_subscription_mask_t>(PA_SUBSCRIPTION_MASK_SINK_INPUT |
                                                        PA_SUBSCRIPTION_MASK_SOURCE_OUTPUT |
                                                        PA_SUBSCRIPTION_MASK_CLIENT);
        s->unref(s->pulse_.pa_context_subscribe(context, mask, nullptr, nullptr));
        s->list();
        break;
      }
      case PA_CONTEXT_FAILED:
      case PA_CONTEXT_TERMINATED:
        s->markFailed();
        break;
      default:
        break;
    }
  }

  static void onEvent(pa_context*, pa_subscription_event_type_t, uint32_t, void* self) {
    static_cast<PulseAudioSource*>(self)->list();
  }

  void unref(pa_operation* op) {
    if (op) pulse_.pa_operation_unref(op);
  }

  // Re-lists clients, playback and recording streams; events during a listing ask for one more.
  void list() {
    if (listing_) {
      again_ = true;
      return;
    }
    listing_ = true;
    again_ = false;
    pending_ = 3;
    clients_.clear();
    streams_.clear();
    // A listing that could not start (the connection is going away) will never call back: count
    // it as finished at once, so that the next event lists again.
    started(pulse_.pa_context_get_client_info_list(context_, &PulseAudioSource::onClient, this));
    started(
        pulse_.pa_context_get_sink_input_info_list(context_, &PulseAudioSource::onSinkInput, this));
    started(pulse_.pa_context_get_source_output_info_list(context_,
                                                          &PulseAudioSource::onSourceOutput, this));
  }

  void started(pa_operation* op) {
    if (op) {
      pulse_.pa_operation_unref(op);
    } else {
      finished(-1);
    }
  }

  AudioProperties properties(pa_proplist* list) {
    AudioProperties p;
    if (!list) return p;
    for (const char* key : kKeys) {
      if (const char* value = pulse_.pa_proplist_gets(list, key)) p[key] = value;
    }
    return p;
  }

  struct Pending {
    uint32_t client;
    AudioStream stream;
  };

  static void onClient(pa_context*, const pa_client_info* info, int eol, void* self) {
    auto* s = static_cast<PulseAudioSource*>(self);
    if (eol) return s->finished(eol);
    s->clients_.emplace_back(info->index, s->properties(info->proplist));
  }
  static void onSinkInput(pa_context*, const pa_sink_input_info* info, int eol, void* self) {
    auto* s = static_cast<PulseAudioSource*>(self);
    if (eol) return s->finished(eol);
    s->streams_.push_back(
        {info->client, {true, info->corked != 0, s->properties(info->proplist), {}}});
  }
  static void onSourceOutput(pa_context*, const pa_source_output_info* info, int eol, void* self) {
    auto* s = static_cast<PulseAudioSource*>(self);
    if (eol) return s->finished(eol);
    s->streams_.push_back(
        {info->client, {false, info->corked != 0, s->properties(info->proplist), {}}});
  }

  // One of the three listings ended (eol > 0) or failed (eol < 0).
  void finished(int) {
    if (--pending_ > 0) return;
    std::vector<AudioStream> streams;
    for (auto& p : streams_) {
      for (const auto& [index, props] : clients_) {
        if (index == p.client) p.stream.client = props;
      }
      streams.push_back(std::move(p.stream));
    }
    {
      std::lock_guard guard(mutex_);
      uses_ = audioUses(streams);
    }
    listing_ = false;
    if (again_) list();
  }

  Pulse pulse_;
  pa_threaded_mainloop* loop_ = nullptr;
  pa_context* context_ = nullptr;
  // On libpulse's thread only.
  bool listing_ = false, again_ = false;
  int pending_ = 0;
  std::vector<std::pair<uint32_t, AudioProperties>> clients_;
  std::vector<Pending> streams_;
  // Shared with the sampler's queue.
  std::mutex mutex_;
  std::vector<AudioUse> uses_;
  bool failed_ = false;
  std::chrono::steady_clock::time_point failedAt_;
};

}  // namespace

std::unique_ptr<AudioSource> makeAudioSource() {
  return std::make_unique<PulseAudioSource>();
}

}  // namespace vistrel
