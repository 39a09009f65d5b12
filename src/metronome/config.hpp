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

int64_t clamp_tempo(int64_t ubpm);
// NaN, infinite or negative gives 0; above 1 gives 1. Also drop_probability.
double clamp_unit(double v);

}  // namespace ws::metronome
