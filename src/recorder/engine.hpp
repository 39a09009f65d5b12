// The duplex recorder: one duplex device at its own rate with 10 ms periods
// that plays the backing track (f32 stereo, converted to that rate at start)
// and captures the chosen input (f32 mono) in the same callback, so input
// frame k was captured while backing frame start + k was playing; the writer
// converts the input to the take's 44100 Hz.
//
// What callers may assume: every public method runs on a host thread with
// the recorder family's mutex held, and string arguments may be null where
// the exports allow it. start, stop and find_input also take the engine lock
// (family mutex first). No notification callback: a device that fails
// during a take is not observed, the take simply ends at stop.
#pragma once

#include <miniaudio.h>

#include <chrono>
#include <cstdint>
#include <mutex>

#include "frame/audio_context.hpp"
#include "recorder/core.hpp"
#include "woodshed/recorder.h"

namespace ws::recorder {

// Mobile stream hints, set although the desktop back ends ignore them, so
// the same device request means the same thing on every platform.
inline constexpr ma_opensl_stream_type kOpenSlStream = ma_opensl_stream_type_media;
inline constexpr ma_opensl_recording_preset kOpenSlPreset = ma_opensl_recording_preset_generic;
inline constexpr ma_aaudio_usage kAAudioUsage = ma_aaudio_usage_media;
inline constexpr ma_aaudio_content_type kAAudioContent = ma_aaudio_content_type_music;
inline constexpr ma_aaudio_input_preset kAAudioInput = ma_aaudio_input_preset_voice_performance;

// The configuration the recorder opens its device with; `capture_id` null
// means the default input. Its buffer is sized for `backend` (the context's).
ma_device_config duplex_config(const ma_device_id* capture_id, ma_device_data_proc callback,
                               void* user_data, ma_backend backend);

class RecorderEngine {
public:
    static constexpr auto kStopMute = std::chrono::milliseconds(40);

    RecorderEngine();
    ~RecorderEngine();
    RecorderEngine(const RecorderEngine&) = delete;
    RecorderEngine& operator=(const RecorderEngine&) = delete;

    bool context_ready() const { return context_.ready(); }
    int32_t backend() const;

    int32_t find_input(const char* name, char* buf, int32_t size);
    int32_t start(const char* source_path, const char* take_path, const char* input_id, int32_t start_ms);
    int64_t stop();
    void fill_state(RecorderState& out) const { core_.fill_state(out); }
    // The rate of the device of the current or last take; 0 before the first.
    uint32_t device_rate() const { return device_rate_; }
    int32_t repairs() const { return core_.repairs(); }

private:
    // Audio thread: no locks, no allocation, no blocking.
    static void on_data(ma_device* device, void* output, const void* input, ma_uint32 frames);

    void close_device();              // engine lock held
    void finish_unstopped_take();     // engine lock held

    frame::AudioContext context_;
    ma_device device_{};
    bool device_open_ = false;
    uint32_t device_rate_ = 0;
    std::mutex lock_;
    RecorderCore core_;
};

}  // namespace ws::recorder
