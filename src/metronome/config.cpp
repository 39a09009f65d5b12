#include "metronome/config.hpp"

#include <algorithm>
#include <cmath>

namespace ws::metronome {

namespace {
int32_t clamp_i32(int32_t v, int32_t lo, int32_t hi) { return std::clamp(v, lo, hi); }
int32_t in_range_or(int32_t v, int32_t lo, int32_t hi, int32_t fallback) {
    return (v >= lo && v <= hi) ? v : fallback;
}
}  // namespace

int64_t clamp_tempo(int64_t ubpm) { return std::clamp(ubpm, kMinTempo, kMaxTempo); }

double clamp_unit(double v) {
    // +infinity goes to 0, not 1: a non-finite gain is treated as garbage, not as loud.
    if (!std::isfinite(v) || v < 0.0) return 0.0;
    return v > 1.0 ? 1.0 : v;
}

MetronomeConfig sanitise(const MetronomeConfig& in) {
    MetronomeConfig c = in;
    c.tempo_ubpm = clamp_tempo(in.tempo_ubpm);
    c.beats_per_bar = clamp_i32(in.beats_per_bar, 1, 32);
    c.subdivisions = clamp_i32(in.subdivisions, 1, 12);
    c.beat_divisor = clamp_i32(in.beat_divisor, 1, 8);
    c.beat_multiplier = clamp_i32(in.beat_multiplier, 1, 2);
    c.swing = std::isfinite(in.swing) ? std::clamp(in.swing, 0.5, 0.75) : 0.5;
    c.master_gain = clamp_unit(in.master_gain);
    c.accent_gain = clamp_unit(in.accent_gain);
    c.beat_gain = clamp_unit(in.beat_gain);
    c.subdivision_gain = clamp_unit(in.subdivision_gain);
    c.sound = in_range_or(in.sound, 0, 5, 0);
    c.count_in_bars = clamp_i32(in.count_in_bars, 0, 8);
    c.play_bars = clamp_i32(in.play_bars, 0, 64);
    c.mute_bars = clamp_i32(in.mute_bars, 0, 64);
    // Muting with nothing to play would silence the click for good.
    if (c.mute_bars >= 1 && c.play_bars < 1) c.play_bars = 1;
    c.drop_probability = clamp_unit(in.drop_probability);
    c.poly_pulses = clamp_i32(in.poly_pulses, 0, 32);
    c.poly_sound = in_range_or(in.poly_sound, 0, 5, 5);
    c.poly_gain = clamp_unit(in.poly_gain);
    c.ramp_mode = in_range_or(in.ramp_mode, 0, 2, 0);
    c.ramp_target_ubpm = clamp_tempo(in.ramp_target_ubpm);
    c.ramp_step_ubpm = std::clamp<int64_t>(in.ramp_step_ubpm, 0, 100000000);
    c.ramp_interval_bars = clamp_i32(in.ramp_interval_bars, 1, 128);
    for (uint8_t& level : c.accent_pattern) {
        if (level > mn_level_accent) level = mn_level_normal;
    }
    return c;
}

MetronomeConfig initial_config() { return sanitise(MetronomeConfig{}); }

}  // namespace ws::metronome
