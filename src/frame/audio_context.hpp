// The miniaudio context each live engine owns, and the device buffer sizes
// that keep a stream fed on a busy machine.
#pragma once

#include <miniaudio.h>

#include <cstdint>

namespace ws::frame {

// A context over miniaudio's default back-end order, released with its
// owner. It logs into a log with no listener, and the sound libraries under
// it are kept quiet while it starts and opens devices: whatever the back end
// reports is dropped, so a host's terminal never sees it. Its device threads
// run at real-time priority where the process may start such threads.
class AudioContext {
public:
    AudioContext();
    ~AudioContext();
    AudioContext(const AudioContext&) = delete;
    AudioContext& operator=(const AudioContext&) = delete;

    bool ready() const { return result_ == MA_SUCCESS; }
    ma_result result() const { return result_; }  // of ma_context_init
    ma_context* get() { return &context_; }
    ma_backend backend() const { return context_.backend; }
    // ma_device_init on this context, quietly.
    ma_result open(const ma_device_config& config, ma_device* device);

private:
    ma_log log_{};
    ma_context context_{};
    ma_result result_ = MA_ERROR;
    bool log_ready_ = false;
};

// Whether a device notification means the stream ended under its owner:
// stopped by the system, rerouted, or back from an interruption. The
// engines that reopen their device do so after these.
bool ends_stream(ma_device_notification_type type);

// Sizes a device's buffer: the data callback runs every period_ms and the
// back end holds about buffer_ms of audio, enough to ride out the scheduling
// hiccups of a loaded machine.
//
// PulseAudio asks miniaudio for one period as the stream's target length
// (tlength for playback, fragsize for capture) and only period x count as its
// maximum, so a playback stream there gets buffer_ms as its period; a capture
// stream keeps its short period (the capture delay) with buffer_ms of room.
// Elsewhere (WASAPI's buffer duration, ALSA's buffer) the buffer is period x
// count.
void apply_steady_buffer(ma_device_config& config, ma_backend backend, std::uint32_t period_ms,
                         std::uint32_t buffer_ms);

}  // namespace ws::frame
