#include "tuner/config.hpp"

#include <cmath>

namespace ws::tuner {

namespace {
double in_range_or(double v, double lo, double hi, double fallback) {
    return (std::isfinite(v) && v >= lo && v <= hi) ? v : fallback;
}
}  // namespace

TunerConfig sanitise(const TunerConfig* in) {
    if (in == nullptr) return kDefaultConfig;
    TunerConfig c;
    c.a4_hz = in_range_or(in->a4_hz, TN_A4_HZ_MIN, TN_A4_HZ_MAX, TN_A4_HZ_DEFAULT);
    c.lowest_hz = in_range_or(in->lowest_hz, TN_LOWEST_HZ_MIN, TN_LOWEST_HZ_MAX, TN_LOWEST_HZ_DEFAULT);
    c.highest_hz = in_range_or(in->highest_hz, TN_HIGHEST_HZ_MIN, TN_HIGHEST_HZ_MAX, TN_HIGHEST_HZ_DEFAULT);
    c.tolerance_cents = in_range_or(in->tolerance_cents, TN_TOLERANCE_CENTS_MIN, TN_TOLERANCE_CENTS_MAX,
                                    TN_TOLERANCE_CENTS_DEFAULT);
    c.fixed_note = (in->fixed_note >= TN_FIXED_NOTE_MIN && in->fixed_note <= TN_FIXED_NOTE_MAX)
                       ? in->fixed_note
                       : TN_FIXED_NOTE_DEFAULT;
    c.slow_smoothing = in->slow_smoothing == 1 ? 1 : 0;
    // The detector needs at least half an octave of range to pick between lobes.
    if (1.5 * c.lowest_hz >= c.highest_hz) {
        c.lowest_hz = TN_LOWEST_HZ_DEFAULT;
        c.highest_hz = TN_HIGHEST_HZ_DEFAULT;
    }
    return c;
}

TunerReading cleared_reading() {
    TunerReading r{};
    r.note = -1;
    r.level_db = -120.0;
    return r;
}

bool same_config(const TunerConfig& a, const TunerConfig& b) {
    return a.a4_hz == b.a4_hz && a.lowest_hz == b.lowest_hz && a.highest_hz == b.highest_hz &&
           a.tolerance_cents == b.tolerance_cents && a.fixed_note == b.fixed_note &&
           a.slow_smoothing == b.slow_smoothing;
}

}  // namespace ws::tuner
