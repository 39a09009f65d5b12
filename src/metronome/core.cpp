#include "metronome/core.hpp"

#include <algorithm>
#include <cmath>

namespace ws::metronome {

namespace {

constexpr double kTwoToMinus32 = 2.3283064365386963e-10;
// Below this a subdivision is not worth a voice.
constexpr double kSubdivisionAudible = 0.004;
constexpr double kMediumAccent = 0.7;

uint32_t xorshift(uint32_t x) {
    x ^= x << 13;
    x ^= x >> 17;
    x ^= x << 5;
    return x;
}

}  // namespace

MetronomeCore::MetronomeCore() : config_(initial_config()), pending_(initial_config()) {
    prepare(48000.0);
}

// ---------------------------------------------------------------- control side

void MetronomeCore::prepare(double sample_rate) {
    voices_.silence_all();  // they point into the tables about to be replaced
    bank_.rebuild(sample_rate);
    rate_ = bank_.rate();
    rate_int_ = std::llround(rate_);
    recompute_timing();
}

bool MetronomeCore::push(const MetronomeCommand& command) {
    MetronomeCommand c = command;
    if (c.type == static_cast<uint32_t>(CommandType::start) ||
        c.type == static_cast<uint32_t>(CommandType::configure)) {
        c.config = sanitise(c.config);
    }
    return queue_.push(c) == CommandQueue<MetronomeCommand>::Push::replaced_newest;
}

void MetronomeCore::start(const MetronomeConfig& config) {
    MetronomeCommand c;
    c.type = static_cast<uint32_t>(CommandType::start);
    c.config = config;
    push(c);
}

void MetronomeCore::configure(const MetronomeConfig& config) {
    MetronomeCommand c;
    c.type = static_cast<uint32_t>(CommandType::configure);
    c.config = config;
    push(c);
}

void MetronomeCore::stop() {
    MetronomeCommand c;
    c.type = static_cast<uint32_t>(CommandType::stop);
    push(c);
}

void MetronomeCore::pause() {
    MetronomeCommand c;
    c.type = static_cast<uint32_t>(CommandType::pause);
    push(c);
}

void MetronomeCore::resume() {
    MetronomeCommand c;
    c.type = static_cast<uint32_t>(CommandType::resume);
    push(c);
}

void MetronomeCore::set_tempo(int64_t ubpm) {
    MetronomeCommand c;
    c.type = static_cast<uint32_t>(CommandType::set_tempo);
    c.int_value = ubpm;
    push(c);
}

void MetronomeCore::set_master_gain(double gain) {
    MetronomeCommand c;
    c.type = static_cast<uint32_t>(CommandType::set_master_gain);
    c.float_value = gain;
    push(c);
}

// ------------------------------------------------------------------ audio side

void MetronomeCore::render(float* out, uint32_t frames, uint32_t channels) {
    if (out == nullptr || frames < 1 || channels < 1) return;
    std::fill(out, out + static_cast<size_t>(frames) * channels, 0.0f);
    drain_commands();

    if (state_ == mn_state_stopped || state_ == mn_state_paused) {
        // frame_clock stays put, so a paused click resumes exactly where it was.
        publish();
        return;
    }
    if (stop_requested_) {
        // One block of linear fade instead of a click-cutting step to silence.
        voices_.mix(out, frames, channels, master_gain_);
        const float n = static_cast<float>(frames);
        for (uint32_t i = 0; i < frames; ++i) {
            const float scale = 1.0f - static_cast<float>(i) / n;
            for (uint32_t c = 0; c < channels; ++c) out[static_cast<size_t>(i) * channels + c] *= scale;
        }
        voices_.silence_all();
        stop_requested_ = false;
        state_ = mn_state_stopped;
        publish();
        return;
    }

    const int64_t start = static_cast<int64_t>(frame_clock_);
    const int64_t end = start + frames;
    while (next_pulse_frame_ < end) {
        if (beat_ == 0 && subdivision_ == 0) {
            // A bar line: the finishing bar's second rhythm plays out up to
            // it, then the new bar's grid starts on it.
            play_poly(next_pulse_frame_, false, start);
            realign_poly();
        }
        // Second-rhythm clicks due up to this pulse go first, so that voice
        // order (and with it the stealing rule) follows time.
        play_poly(next_pulse_frame_, true, start);
        sound_pulse(next_pulse_frame_ - start);
        last_pulse_frame_ = next_pulse_frame_;
        last_bar_ = bar_;
        last_beat_ = beat_;
        last_subdivision_ = subdivision_;
        advance_pulse();
        current_pulse_length_ = std::max<int64_t>(next_pulse_frame_ - last_pulse_frame_, 1);
        if (++subdivision_ >= config_.subdivisions) {
            subdivision_ = 0;
            if (++beat_ >= config_.beats_per_bar) {
                beat_ = 0;
                ++bar_;
                bar_start();
            }
        }
    }
    play_poly(end, false, start);
    voices_.mix(out, frames, channels, master_gain_);
    frame_clock_ = static_cast<uint64_t>(end);
    publish();
}

void MetronomeCore::drain_commands() {
    MetronomeCommand c;
    while (queue_.pop(c)) handle(c);
}

void MetronomeCore::handle(const MetronomeCommand& c) {
    switch (static_cast<CommandType>(c.type)) {
        case CommandType::start:
            apply_config(c.config, true);
            break;
        case CommandType::stop:
            if (state_ == mn_state_stopped || state_ == mn_state_paused) {
                voices_.silence_all();
                state_ = mn_state_stopped;
            } else {
                stop_requested_ = true;  // the next block fades out
            }
            break;
        case CommandType::pause:
            if (state_ == mn_state_count_in || state_ == mn_state_running) {
                state_ = mn_state_paused;
                voices_.silence_all();  // cut, not faded: a pause is meant to be instant
            }
            break;
        case CommandType::resume:
            if (state_ == mn_state_paused) state_ = bar_ < 0 ? mn_state_count_in : mn_state_running;
            break;
        case CommandType::set_tempo:
            tempo_ = clamp_tempo(c.int_value);
            config_.tempo_ubpm = tempo_;
            config_.ramp_mode = mn_ramp_none;  // a tempo set by hand ends any ramp
            recompute_timing();
            break;
        case CommandType::set_master_gain:
            // The active configuration keeps its own value; only the mix changes.
            master_gain_ = static_cast<float>(clamp_unit(c.float_value));
            break;
        case CommandType::configure:
            if (state_ != mn_state_stopped) {
                pending_ = c.config;  // takes effect on the next bar line
                pending_flag_ = true;
            } else {
                config_ = c.config;
                tempo_ = config_.tempo_ubpm;
                recompute_timing();
            }
            break;
        default:
            break;
    }
}

void MetronomeCore::apply_config(const MetronomeConfig& config, bool restart) {
    config_ = config;
    // On the fly, a configured ramp keeps its current tempo rather than jumping back.
    if (restart || (config_.ramp_mode == mn_ramp_none && config_.tempo_ubpm != tempo_)) {
        tempo_ = config_.tempo_ubpm;
    }
    master_gain_ = static_cast<float>(config_.master_gain);
    recompute_timing();
    // No pulse shorter than a millisecond unless the beat itself is. In-range
    // settings never reach this (the shortest is about 1.56 ms); it guards
    // the arithmetic should the limits ever change.
    const int64_t min_pulse = static_cast<int64_t>(std::floor(rate_ / 1000.0));
    while (config_.subdivisions > 1 && pulse_numerator_ / pulse_denominator_ < min_pulse) {
        --config_.subdivisions;
        recompute_timing();
    }
    if (!restart) return;

    ++run_id_;
    frame_clock_ = 0;
    bar_ = last_bar_ = -static_cast<int64_t>(config_.count_in_bars);
    next_pulse_frame_ = last_pulse_frame_ = pulse_remainder_ = 0;
    beat_ = subdivision_ = last_beat_ = last_subdivision_ = 0;
    beat_dropped_ = bar_muted_ = stop_requested_ = pending_flag_ = false;
    ramp_start_tempo_ = tempo_;
    rng_ = config_.random_seed != 0 ? config_.random_seed : kDefaultSeed;
    poly_next_frame_ = poly_remainder_ = poly_numerator_ = 0;
    poly_count_ = poly_grid_pulses_ = 0;  // the first pulse, a bar line, sets the grid
    voices_.silence_all();
    state_ = config_.count_in_bars >= 1 ? mn_state_count_in : mn_state_running;
    bar_start();
}

void MetronomeCore::recompute_timing() {
    const int64_t millibeats = std::max<int64_t>(tempo_ / 1000, 1);
    const int64_t base = config_.beat_multiplier * rate_int_ * 60000;
    pulse_numerator_ = base * 1000;
    pulse_denominator_ = millibeats * config_.beat_divisor * config_.subdivisions * 1000;
    const int64_t s = std::min<int64_t>(std::llround(config_.swing * 1000.0), 750);
    if (s >= 501 && config_.subdivisions % 2 == 0) {
        long_numerator_ = s * base * 2;
        short_numerator_ = (1000 - s) * base * 2;
    } else {
        long_numerator_ = short_numerator_ = pulse_numerator_;
    }
    if (pulse_remainder_ >= pulse_denominator_) pulse_remainder_ = 0;
    current_pulse_length_ = std::max<int64_t>(pulse_numerator_ / pulse_denominator_, 1);
}

void MetronomeCore::advance_pulse() {
    int64_t numerator = pulse_numerator_;
    if (config_.subdivisions % 2 == 0) {
        numerator = subdivision_ % 2 == 0 ? long_numerator_ : short_numerator_;
    }
    next_pulse_frame_ += numerator / pulse_denominator_;
    pulse_remainder_ += numerator % pulse_denominator_;
    if (pulse_remainder_ >= pulse_denominator_) {
        next_pulse_frame_ += 1;
        pulse_remainder_ -= pulse_denominator_;
    }
}

void MetronomeCore::play_poly(int64_t limit, bool through_limit, int64_t block_start) {
    while (poly_count_ < poly_grid_pulses_ &&
           (poly_next_frame_ < limit || (through_limit && poly_next_frame_ == limit))) {
        if (poly_next_frame_ >= block_start) {
            // Its first pulse marks the bar with the accent sound.
            click(poly_sound_, poly_count_ == 0, poly_gain_, poly_next_frame_ - block_start);
        }
        poly_next_frame_ += poly_numerator_ / poly_denominator_;
        poly_remainder_ += poly_numerator_ % poly_denominator_;
        if (poly_remainder_ >= poly_denominator_) {
            poly_next_frame_ += 1;
            poly_remainder_ -= poly_denominator_;
        }
        ++poly_count_;
    }
}

void MetronomeCore::realign_poly() {
    const MetronomeConfig& c = config_;
    poly_grid_pulses_ = c.poly_pulses;
    if (c.poly_pulses <= 0) return;
    // The unswung bar split into poly_pulses equal parts, from this bar line.
    poly_numerator_ = (pulse_numerator_ / 1000) * c.subdivisions * c.beats_per_bar;
    poly_denominator_ = (pulse_denominator_ / 1000) * c.poly_pulses;
    poly_next_frame_ = next_pulse_frame_;
    poly_remainder_ = 0;
    poly_count_ = 0;
    // Taken now, with the bar: its clicks that fall after the bar's last
    // pulse are still judged as this bar's.
    poly_sound_ = c.poly_sound;
    poly_gain_ = (bar_ < 0 || bar_muted_) ? 0.0 : c.poly_gain;
}

void MetronomeCore::bar_start() {
    if (state_ == mn_state_count_in && bar_ >= 0) state_ = mn_state_running;
    if (pending_flag_ && bar_ >= 0) {
        pending_flag_ = false;
        apply_config(pending_, false);
    }
    const MetronomeConfig& c = config_;
    bar_muted_ = c.mute_bars > 0 && c.play_bars > 0 && bar_ >= 0 &&
                 bar_ % (c.play_bars + c.mute_bars) >= c.play_bars;

    // Bar 0 never moves the tempo: a ramp starts from the tempo of the last start.
    if (bar_ > 0 && c.ramp_mode == mn_ramp_linear) {
        const double share = std::min(static_cast<double>(bar_) / c.ramp_interval_bars, 1.0);
        tempo_ = static_cast<int64_t>(static_cast<double>(ramp_start_tempo_) +
                                      share * static_cast<double>(c.ramp_target_ubpm - ramp_start_tempo_));
        recompute_timing();
    } else if (bar_ > 0 && c.ramp_mode == mn_ramp_stepwise && bar_ % c.ramp_interval_bars == 0 &&
               tempo_ != c.ramp_target_ubpm) {
        const int64_t step = c.ramp_step_ubpm != 0 ? c.ramp_step_ubpm : kDefaultRampStep;
        tempo_ = tempo_ < c.ramp_target_ubpm ? std::min(tempo_ + step, c.ramp_target_ubpm)
                                             : std::max(tempo_ - step, c.ramp_target_ubpm);
        recompute_timing();
    }
}

void MetronomeCore::sound_pulse(int64_t offset) {
    const MetronomeConfig& c = config_;
    const bool on_beat = subdivision_ == 0;
    if (state_ == mn_state_count_in || bar_ < 0) {
        // Count-in: every beat accented, nothing else; pattern, gap and drop do not apply.
        if (on_beat) click(c.sound, true, c.accent_gain, offset);
        return;
    }
    if (bar_muted_) return;
    const uint8_t level = c.accent_pattern[beat_ % 32];
    if (level == mn_level_silent) return;
    if (!on_beat) {
        if (beat_dropped_ || c.subdivision_gain <= kSubdivisionAudible) return;
        click(c.sound, false, c.subdivision_gain, offset);
        return;
    }
    if (c.drop_probability > 0.0) {
        rng_ = xorshift(rng_);
        if (c.drop_probability > static_cast<double>(rng_) * kTwoToMinus32) {
            beat_dropped_ = true;  // its subdivisions go with it
            return;
        }
    }
    beat_dropped_ = false;
    switch (level) {
        case mn_level_accent: click(c.sound, true, c.accent_gain, offset); break;
        case mn_level_medium: click(c.sound, true, c.accent_gain * kMediumAccent, offset); break;
        case mn_level_normal: click(c.sound, false, c.beat_gain, offset); break;
        default: click(c.sound, false, c.subdivision_gain, offset); break;  // soft
    }
}

void MetronomeCore::click(int32_t sound, bool accent, double gain, int64_t offset) {
    voices_.trigger(bank_.table(sound, accent), gain, offset);
}

void MetronomeCore::publish() {
    ++publish_count_;
    const MetronomeConfig& c = config_;
    double pulse_progress = 0.0;
    if (current_pulse_length_ > 0) {
        const double since = static_cast<double>(static_cast<int64_t>(frame_clock_) - last_pulse_frame_);
        pulse_progress = std::clamp(since / static_cast<double>(current_pulse_length_), 0.0, 1.0);
    }
    const double beat_phase =
        std::clamp((last_subdivision_ + pulse_progress) / std::max(c.subdivisions, 1), 0.0, 1.0);
    const int32_t beats = c.beats_per_bar < 2 ? 1 : c.beats_per_bar;
    const double bar_phase = std::clamp((last_beat_ + beat_phase) / beats, 0.0, 1.0);

    MetronomeSnapshot s{};
    s.publish_count = publish_count_;
    s.run_id = run_id_;
    s.frame_clock = frame_clock_;
    s.bar = last_bar_;
    s.beat = last_beat_;
    s.subdivision = last_subdivision_;
    s.beat_phase = beat_phase;
    s.bar_phase = bar_phase;
    s.tempo_ubpm = tempo_;
    s.state = state_;
    s.bar_muted = bar_muted_ ? 1 : 0;
    s.sample_rate = static_cast<int32_t>(rate_int_);
    s.reserved = 0;
    snapshot_.publish(s);
}

}  // namespace ws::metronome
