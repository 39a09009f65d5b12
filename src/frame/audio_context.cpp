#include "frame/audio_context.hpp"

#include <algorithm>

#include "frame/platform.hpp"

namespace ws::frame {

AudioContext::AudioContext() {
    const platform::QuietSoundLibraries quiet;
    log_ready_ = ma_log_init(nullptr, &log_) == MA_SUCCESS;
    ma_context_config cfg = ma_context_config_init();
    if (log_ready_) cfg.pLog = &log_;
    // The device threads run before the ordinary threads of a busy machine
    // where the system allows it: a stream whose thread waits behind a
    // build or a browser runs dry and the server plays silence.
    if (platform::realtime_threads_allowed()) cfg.threadPriority = ma_thread_priority_realtime;
    result_ = ma_context_init(nullptr, 0, &cfg, &context_);
}

AudioContext::~AudioContext() {
    if (ready()) ma_context_uninit(&context_);
    if (log_ready_) ma_log_uninit(&log_);
}

ma_result AudioContext::open(const ma_device_config& config, ma_device* device) {
    const platform::QuietSoundLibraries quiet;
    return ma_device_init(&context_, &config, device);
}

bool ends_stream(ma_device_notification_type type) {
    return type == ma_device_notification_type_stopped || type == ma_device_notification_type_rerouted ||
           type == ma_device_notification_type_interruption_ended;
}

void apply_steady_buffer(ma_device_config& config, ma_backend backend, std::uint32_t period_ms,
                         std::uint32_t buffer_ms) {
    const bool plays = config.deviceType == ma_device_type_playback || config.deviceType == ma_device_type_duplex;
    const std::uint32_t period =
        backend == ma_backend_pulseaudio && plays ? std::max(period_ms, buffer_ms) : period_ms;
    config.periodSizeInFrames = 0;
    config.periodSizeInMilliseconds = period;
    config.periods = std::max<std::uint32_t>(2, (buffer_ms + period - 1) / period);
}

}  // namespace ws::frame
