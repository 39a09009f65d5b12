// Tuner settings and readings as the rest of the tuner sees them: every
// TunerConfig passes through sanitise() before anything uses it.
#pragma once

#include "woodshed/tuner.h"

namespace ws::tuner {

inline constexpr TunerConfig kDefaultConfig{TN_A4_HZ_DEFAULT,           TN_LOWEST_HZ_DEFAULT,
                                            TN_HIGHEST_HZ_DEFAULT,       TN_TOLERANCE_CENTS_DEFAULT,
                                            TN_FIXED_NOTE_DEFAULT,       0};

// Field-by-field replacement of out-of-range or non-finite values, then the
// lowest/highest consistency rule. A null record gives the defaults.
TunerConfig sanitise(const TunerConfig* in);

// The reading after any reset: all zero except note -1 and level -120 dBFS.
TunerReading cleared_reading();

bool same_config(const TunerConfig& a, const TunerConfig& b);

}  // namespace ws::tuner
