#include "recorder/core.hpp"

#include <algorithm>
#include <cstring>

namespace ws::recorder {

int64_t start_frame(int32_t start_ms, uint32_t rate) {
    return start_ms > 0 ? int64_t{start_ms} * rate / 1000 : 0;
}

void RecorderCore::arm(int32_t start_ms) {
    const int64_t start = start_frame(start_ms, device_rate_);
    play_position_.store(start);
    ring_.reset();
    writer_.prepare(track_.samples.data(), track_.frames, start, device_rate_);
}

void RecorderCore::process(float* out, const float* in, uint32_t frames) {
    if (muted_.load()) {
        if (out != nullptr) std::memset(out, 0, size_t{frames} * 2 * sizeof(float));
        return;
    }
    const int64_t pos = play_position_.load(std::memory_order_relaxed);
    if (out != nullptr) {
        const int64_t left = std::clamp<int64_t>(track_.frames - pos, 0, frames);
        const size_t copied = static_cast<size_t>(left) * 2;
        if (copied > 0) std::memcpy(out, track_.samples.data() + pos * 2, copied * sizeof(float));
        std::memset(out + copied, 0, (size_t{frames} * 2 - copied) * sizeof(float));
    }
    // The position moves on past the end and without a track: the host
    // reads it as the recording's clock.
    play_position_.store(pos + frames, std::memory_order_relaxed);
    if (in == nullptr || !recording_.load()) return;
    ring_.push_period(in, frames);
}

void RecorderCore::fill_state(RecorderState& out) const {
    // The host counts at 44100 Hz whatever the device runs at.
    const int64_t pos = play_position();
    out.play_position = pos * kRecorderRate / device_rate_;
    out.captured_frames = static_cast<int64_t>(ring_.captured_frames() * kRecorderRate / device_rate_);
    out.sample_rate = kRecorderRate;
    out.playback_done = track_.frames > 0 && pos >= track_.frames ? 1u : 0u;
    out.input_peak = ring_.input_peak();
    out.recording = recording_.load() ? 1u : 0u;
}

}  // namespace ws::recorder
