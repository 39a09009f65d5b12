// Offline analysis of a host buffer: a private analyser per call, no lock,
// nothing kept between calls.
#include <algorithm>
#include <memory>

#include "frame/family.hpp"
#include "tuner/analyser.hpp"
#include "woodshed/tuner.h"

extern "C" WS_API int32_t tn_offline_process(const TunerConfig* config, const float* samples,
                                             int32_t frames, int32_t channels, double sample_rate,
                                             TunerReading* out) WS_NOEXCEPT {
    if (samples == nullptr || out == nullptr || frames < 1 || channels < 1 || channels > 32) {
        return ws_invalid_argument;
    }
    // Memory for the analyser is the only thing that can fail here; it has
    // no code of its own and ends the process.
    return ws::frame::fatal_on_throw([&]() -> int32_t {
        auto analyser = std::make_unique<ws::tuner::PitchAnalyser>(config);
        analyser->reset(sample_rate);

        const size_t total = static_cast<size_t>(frames);
        if (channels == 1) {
            analyser->push(samples, total);
        } else {
            const size_t ch = static_cast<size_t>(channels);
            const float scale = 1.0f / static_cast<float>(channels);
            float* mix = analyser->mix_buffer();
            for (size_t start = 0; start < total;) {
                const size_t run = std::min(total - start, ws::tuner::PitchAnalyser::kChunk);
                const float* frame = samples + start * ch;
                for (size_t i = 0; i < run; ++i, frame += ch) {
                    float sum = 0.0f;
                    for (size_t c = 0; c < ch; ++c) sum += frame[c];
                    mix[i] = sum * scale;
                }
                analyser->push(mix, run);
                start += run;
            }
        }
        return analyser->take_reading(out) ? 1 : 0;
    });
}
