// Writes the starting corpus of fuzz_offline into the directory given as the
// only argument: short periodic signals that the repeat count stretches into
// full windows, at the rates and channel counts the decimator and mixer treat
// differently, plus a few inputs that must be refused.
#include <cmath>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <string>
#include <vector>

#include "seed_bytes.hpp"

#include "offline_input.hpp"
#include "woodshed/tuner.h"

namespace {

using namespace fuzz_offline;

struct Seed {
    const char* name;
    bool null_config;
    TunerConfig config;
    double rate;
    int32_t channels;
    uint32_t period;      // samples per period of the tone, per channel
    uint16_t repeats;     // how often the period is played
    float amplitude;
    float special = 0.0f;  // if non-zero, replaces the first sample of each period
};

constexpr TunerConfig kDefaults{440.0, 55.0, 1200.0, 5.0, -1, 0};

std::vector<uint8_t> encode(const Seed& s) {
    std::vector<uint8_t> out(kHeaderBytes);
    std::memcpy(out.data(), &s.config, kConfigBytes);
    out[kFlagsAt] = s.null_config ? kNullConfig : 0;
    const uint16_t rep = s.repeats > 0 ? static_cast<uint16_t>(s.repeats - 1) : 0;
    std::memcpy(out.data() + kRepeatAt, &rep, sizeof rep);
    std::memcpy(out.data() + kRateAt, &s.rate, sizeof s.rate);
    std::memcpy(out.data() + kChannelsAt, &s.channels, sizeof s.channels);
    const uint32_t ch = s.channels >= 1 && s.channels <= 32 ? static_cast<uint32_t>(s.channels) : 1;
    for (uint32_t i = 0; i < s.period; ++i) {
        // Fundamental plus a weaker octave, so the function has more than one lobe.
        const double phase = 6.283185307179586 * i / s.period;
        float v = static_cast<float>(s.amplitude * (std::sin(phase) + 0.4 * std::sin(2.0 * phase)));
        if (i == 0 && s.special != 0.0f) v = s.special;
        for (uint32_t c = 0; c < ch; ++c) {
            uint8_t b[sizeof(float)];
            std::memcpy(b, &v, sizeof v);
            out.insert(out.end(), b, b + sizeof b);
        }
    }
    return out;
}

}  // namespace

int main(int argc, char** argv) {
    if (argc != 2) {
        std::fprintf(stderr, "usage: %s <corpus directory>\n", argv[0]);
        return 2;
    }
    const float inf = INFINITY, nan = NAN;
    const Seed corpus[] = {
        {"a220_48k_mono", true, {}, 48000.0, 1, 218, 40, 0.3f},
        {"a440_44k1_stereo", false, kDefaults, 44100.0, 2, 100, 40, 0.5f},
        {"tone_96k_decimated", false, kDefaults, 96000.0, 1, 400, 30, 0.2f},
        {"tone_384k_stereo", false, kDefaults, 384000.0, 2, 800, 21, 0.2f},
        {"eight_channels", false, kDefaults, 48000.0, 8, 200, 20, 0.2f},
        {"low20_8192_window", false, {440.0, 20.0, 1200.0, 5.0, -1, 1}, 48000.0, 1, 960, 20, 0.4f},
        {"high200_8k", false, {415.0, 200.0, 5000.0, 0.5, -1, 0}, 8000.0, 1, 20, 200, 0.4f},
        {"fixed_note_a4", false, {440.0, 55.0, 1200.0, 25.0, 69, 0}, 48000.0, 1, 106, 100, 0.3f},
        {"all_zero_config", false, {}, 48000.0, 1, 300, 40, 0.3f},
        {"clipping_tone", true, {}, 48000.0, 1, 200, 60, 1.5f},
        {"nan_and_inf", true, {}, 48000.0, 1, 200, 60, 0.3f, nan},
        {"infinite_spike", true, {}, 48000.0, 1, 200, 60, 0.3f, inf},
        {"silence", true, {}, 48000.0, 1, 64, 200, 0.0f},
        {"nan_rate", true, {}, NAN, 1, 200, 60, 0.3f},
        {"negative_rate", true, {}, -44100.0, 1, 200, 60, 0.3f},
        {"short_buffer", true, {}, 48000.0, 1, 200, 1, 0.3f},
        {"no_samples", true, {}, 48000.0, 1, 0, 1, 0.3f},
        {"zero_channels", true, {}, 48000.0, 0, 200, 20, 0.3f},
        {"thirty_three_channels", true, {}, 48000.0, 33, 20, 4, 0.3f},
    };
    for (const Seed& s : corpus) {
        if (!seeds::write_seed(argv[1], s.name, encode(s))) return 1;
    }
    return 0;
}
