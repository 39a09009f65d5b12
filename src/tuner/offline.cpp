// Offline analysis of a host buffer: a private analyser per call, no lock,
// nothing kept between calls.
#include "tuner/offline.hpp"

#include <algorithm>
#include <climits>
#include <memory>

#include "frame/family.hpp"
#include "tuner/analyser.hpp"
#include "tuner/config.hpp"

namespace ws::tuner {

size_t analyse_offline(const TunerConfig* config, const float* samples, size_t frames,
                       size_t channels, double sample_rate, TunerReading* track, size_t capacity,
                       TunerReading* last) {
    auto analyser = std::make_unique<PitchAnalyser>(config);
    analyser->reset(sample_rate);
    analyser->set_track(track, capacity);
    // Pushing run by run of kChunk gives the analyser the same chunks as one
    // push of the whole buffer (it cuts its input the same way), so a track
    // may stop early without changing any reading.
    const size_t run_max = PitchAnalyser::kChunk;
    float* mix = analyser->mix_buffer();
    const float scale = 1.0f / static_cast<float>(channels);
    for (size_t start = 0; start < frames && !analyser->track_full();) {
        const size_t run = std::min(frames - start, run_max);
        if (channels == 1) {
            analyser->push(samples + start, run);
        } else {
            const float* frame = samples + start * channels;
            for (size_t i = 0; i < run; ++i, frame += channels) {
                float sum = 0.0f;
                for (size_t c = 0; c < channels; ++c) sum += frame[c];
                mix[i] = sum * scale;
            }
            analyser->push(mix, run);
        }
        start += run;
    }
    TunerReading r;
    if (!analyser->current_reading(&r)) return 0;
    if (last != nullptr) *last = r;
    return static_cast<size_t>(r.frame_count);
}

namespace {
struct Framing {
    uint32_t decimation;
    uint64_t window;  // decimated samples
};
Framing framing(const TunerConfig* config, double sample_rate) {
    const TunerConfig cfg = sanitise(config);
    const double rate = usable_rate(sample_rate);
    const uint32_t d = decimation_factor(rate);
    return {d, window_length(rate / d, cfg.lowest_hz)};
}
}  // namespace

size_t offline_reading_count(const TunerConfig* config, size_t frames, double sample_rate) {
    const Framing f = framing(config, sample_rate);
    const uint64_t hop = f.window / 2;
    const uint64_t decimated = frames / f.decimation;
    return decimated < f.window ? 0 : static_cast<size_t>((decimated - f.window) / hop + 1);
}

OfflineFrames offline_frames(const TunerConfig* config, double sample_rate) {
    const Framing f = framing(config, sample_rate);
    return {f.window * f.decimation, f.window / 2 * f.decimation};
}

}  // namespace ws::tuner

namespace {
bool valid_buffer(const float* samples, int32_t frames, int32_t channels) {
    return samples != nullptr && frames >= 1 && channels >= 1 && channels <= 32;
}
}  // namespace

extern "C" WS_API int32_t tn_offline_process(const TunerConfig* config, const float* samples,
                                             int32_t frames, int32_t channels, double sample_rate,
                                             TunerReading* out) WS_NOEXCEPT {
    if (!valid_buffer(samples, frames, channels) || out == nullptr) return ws_invalid_argument;
    // Memory for the analyser is the only thing that can fail here; it has
    // no code of its own and ends the process.
    return ws::frame::fatal_on_throw([&] {
        const size_t n = ws::tuner::analyse_offline(config, samples, static_cast<size_t>(frames),
                                                    static_cast<size_t>(channels), sample_rate,
                                                    nullptr, 0, out);
        return n > 0 ? 1 : 0;
    });
}

extern "C" WS_API int32_t tn_offline_track(const TunerConfig* config, const float* samples,
                                           int32_t frames, int32_t channels, double sample_rate,
                                           TunerReading* track, int32_t* count) WS_NOEXCEPT {
    if (!valid_buffer(samples, frames, channels) || count == nullptr || *count < 0 ||
        (track == nullptr && *count > 0)) {
        return ws_invalid_argument;
    }
    const size_t expected = ws::tuner::offline_reading_count(config, static_cast<size_t>(frames),
                                                             sample_rate);
    if (*count == 0) {
        // The size query: how many readings the buffer gives.
        *count = static_cast<int32_t>(std::min<size_t>(expected, INT32_MAX));
        return expected > 0 ? 1 : 0;
    }
    // Memory for the analyser is the only thing that can fail here; it has
    // no code of its own and ends the process.
    return ws::frame::fatal_on_throw([&] {
        const size_t written = ws::tuner::analyse_offline(
            config, samples, static_cast<size_t>(frames), static_cast<size_t>(channels),
            sample_rate, track, static_cast<size_t>(*count), nullptr);
        *count = static_cast<int32_t>(std::min<size_t>(written, static_cast<size_t>(*count)));
        return written > 0 ? 1 : 0;
    });
}
