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
    c.a4_hz = in_range_or(in->a4_hz, 400.0, 480.0, 440.0);
    c.lowest_hz = in_range_or(in->lowest_hz, 20.0, 200.0, 55.0);
    c.highest_hz = in_range_or(in->highest_hz, 200.0, 5000.0, 1200.0);
    c.tolerance_cents = in_range_or(in->tolerance_cents, 0.5, 25.0, 5.0);
    c.fixed_note = (in->fixed_note >= 0 && in->fixed_note <= 127) ? in->fixed_note : -1;
    c.slow_smoothing = in->slow_smoothing == 1 ? 1 : 0;
    // The detector needs at least half an octave of range to pick between lobes.
    if (1.5 * c.lowest_hz >= c.highest_hz) {
        c.lowest_hz = 55.0;
        c.highest_hz = 1200.0;
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
