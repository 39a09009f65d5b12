// Metronome settings as the rest of the metronome sees them: every
// MetronomeConfig, tempo and gain from outside passes through these clamps
// before anything uses it, so the scheduling code may trust every field.
#pragma once

#include <cstdint>

#include "woodshed/metronome.h"

namespace ws::metronome {

inline constexpr int64_t kMinTempo = MN_TEMPO_MIN_UBPM;
inline constexpr int64_t kMaxTempo = MN_TEMPO_MAX_UBPM;
inline constexpr int64_t kDefaultRampStep = 4000000;  // 4 BPM, meant by ramp_step_ubpm 0
inline constexpr uint32_t kDefaultSeed = 0x9E3779B9u;  // meant by random_seed 0

// Field by field as the public header lists; reserved bytes are copied.
MetronomeConfig sanitise(const MetronomeConfig& in);

// The configuration in force before any arrives: the checked all-zero record.
MetronomeConfig initial_config();

// A plain click to start from: 4/4 at `ubpm`, one pulse a beat, no swing,
// beat 1 accented and the others normal, sound 0. Tests, benchmarks and fuzz
// seeds take it and change only what they study.
inline MetronomeConfig plain_config(int64_t ubpm = 120000000) {
    MetronomeConfig c{};
    c.tempo_ubpm = ubpm;
    c.beats_per_bar = 4;
    c.subdivisions = 1;
    c.beat_divisor = 1;
    c.beat_multiplier = 1;
    c.swing = 0.5;
    c.master_gain = 1.0;
    c.accent_gain = 1.0;
    c.beat_gain = 0.7;
    c.subdivision_gain = 0.4;
    c.poly_sound = 5;
    c.poly_gain = 0.8;
    c.ramp_target_ubpm = ubpm;
    c.ramp_interval_bars = 1;
    c.accent_pattern[0] = mn_level_accent;
    for (int i = 1; i < 32; ++i) c.accent_pattern[i] = mn_level_normal;
    return c;
}

int64_t clamp_tempo(int64_t ubpm);
// NaN, infinite or negative gives 0; above 1 gives 1. Also drop_probability.
double clamp_unit(double v);

}  // namespace ws::metronome
