#include "tuner/note_tracker.hpp"

#include <algorithm>
#include <cmath>

#include "tuner/detector.hpp"

namespace ws::tuner {

namespace {
constexpr double kTwoPi = 6.283185307179586;
// Past a million turns the phase is folded back so it keeps its precision.
constexpr double kStrobeFold = 6283185.307179586;
}  // namespace

int32_t note_of(double f, double a4) {
    return static_cast<int32_t>(std::round(12.0 * std::log2(f / a4) + 69.0));
}

double note_frequency(int32_t note, double a4) {
    return a4 * std::pow(2.0, (note - 69) / 12.0);
}

void NoteTracker::clear() {
    current_ = -1;
    candidate_ = -1;
    candidate_count_ = 0;
    misses_ = 0;
    smoothed_ = 0.0;
    strobe_ = 0.0;
}

void NoteTracker::update(TunerReading& r, const FrameInput& in, const FrameTiming& t,
                         const TunerConfig& cfg) {
    const uint64_t index = r.frame_count;  // frames before this one
    const double dt = t.decimated_rate > 0.0 ? static_cast<double>(t.hop) / t.decimated_rate : 0.0;
    const double f = in.frequency;

    double alpha = std::clamp(0.3 * in.clarity + 0.08, 0.08, 0.42);
    if (cfg.slow_smoothing == 1) alpha *= 0.5;

    enum class Next { pitched, hold, finish } next = Next::finish;
    double target = 0.0;

    if (f > 0.0) {
        misses_ = 0;
        if (cfg.fixed_note == -1) {
            const int32_t n = note_of(f, cfg.a4_hz);
            const double raw = cents_between(f, note_frequency(n, cfg.a4_hz));
            if (current_ != -1 && n != current_) {
                // A different note must show up twice in a row before it is taken.
                if (candidate_ != n) {
                    candidate_ = n;
                    candidate_count_ = 1;
                    next = Next::hold;
                } else if (++candidate_count_ < 2) {
                    next = Next::hold;
                } else {
                    smoothed_ = raw;
                    candidate_ = -1;
                    candidate_count_ = 0;
                    current_ = n;
                    strobe_ = 0.0;
                    next = Next::pitched;
                }
            } else {
                candidate_ = -1;
                candidate_count_ = 0;
                if (current_ != -1) {
                    smoothed_ += (raw - smoothed_) * alpha;
                } else {
                    smoothed_ = raw;
                    strobe_ = 0.0;
                }
                current_ = n;
                next = Next::pitched;
            }
            target = note_frequency(current_, cfg.a4_hz);
        } else {
            const int32_t k = cfg.fixed_note;
            candidate_ = -1;
            candidate_count_ = 0;
            target = note_frequency(k, cfg.a4_hz);
            const double raw = cents_between(f, target);
            if (current_ == k) {
                smoothed_ += (raw - smoothed_) * alpha;
            } else {
                smoothed_ = raw;
            }
            current_ = k;
            next = Next::pitched;
        }
    } else {
        ++misses_;
        if (misses_ > kMaxHeldFrames) {
            current_ = -1;
            candidate_ = -1;
            candidate_count_ = 0;
            smoothed_ = 0.0;
            strobe_ = 0.0;
            r.frequency_hz = 0.0;
            r.target_hz = 0.0;
            r.cents = 0.0;
            r.clarity = 0.0;
            r.note = -1;
            r.octave = 0;
            r.state = tn_state_silent;
        } else if (current_ != -1) {
            next = Next::hold;
        }
    }

    if (next == Next::pitched) {
        if (f > 0.0 && target > 0.0 && dt > 0.0) {
            strobe_ += (f - target) * kTwoPi * dt;
            if (std::fabs(strobe_) > kStrobeFold) strobe_ = std::fmod(strobe_, kTwoPi);
        }
        r.frequency_hz = f;
        r.target_hz = target;
        r.cents = smoothed_;
        r.clarity = in.clarity;
        r.strobe_phase = strobe_;
        r.note = current_;
        r.state = cfg.tolerance_cents >= std::fabs(smoothed_) ? tn_state_in_tune : tn_state_pitched;
    } else if (next == Next::hold) {
        r.state = tn_state_holding;
    }

    r.octave = r.note >= 0 ? r.note / 12 - 1 : 0;
    r.peak = std::min(in.peak, 1.0);
    r.level_db = 20.0 * std::log10(std::max(in.rms, 0.000001));
    r.clipped = in.clipped ? 1u : 0u;
    const uint64_t end = (t.hop * index + t.window) * t.decimation;
    r.time_us = t.sample_rate > 0.0
                    ? static_cast<uint64_t>(static_cast<double>(end) * 1000000.0 / t.sample_rate)
                    : 0;
    r.frame_count = index + 1;
}

}  // namespace ws::tuner
