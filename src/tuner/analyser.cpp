#include "tuner/analyser.hpp"

#include <algorithm>
#include <cmath>
#include <cstring>

#include "tuner/config.hpp"

namespace ws::tuner {

namespace {
constexpr double kPi = 3.14159265358979323846;
}

void Biquad::run(float* x, size_t n) {
    double z1 = s1, z2 = s2;
    for (size_t i = 0; i < n; ++i) {
        const double in = x[i];
        const double y = b0 * in + z1;
        z1 = b1 * in - a1 * y + z2;
        z2 = b2 * in - a2 * y;
        x[i] = static_cast<float>(y);
    }
    // Keep decaying states out of the denormal range.
    s1 = std::fabs(z1) < 1e-20 ? 0.0 : z1;
    s2 = std::fabs(z2) < 1e-20 ? 0.0 : z2;
}

double usable_rate(double r) {
    return (std::isfinite(r) && r >= 8000.0 && r <= 384000.0) ? r : 48000.0;
}

uint32_t decimation_factor(double r) {
    if (r <= 55000.0) return 1;
    const double d = std::round(r / 48000.0);
    return static_cast<uint32_t>(std::clamp(d, 1.0, 8.0));
}

uint64_t window_length(double rate, double lowest_hz) {
    const double n0 = std::ceil(rate * 2.2 / lowest_hz);
    uint64_t p = 1;
    while (static_cast<double>(p) < n0 && p < (uint64_t{1} << 30)) p <<= 1;
    return std::clamp<uint64_t>(p, 1024, 8192);
}

PitchAnalyser::PitchAnalyser(const TunerConfig* config) : config_(sanitise(config)) {
    design_filters(44100.0);
    reset(44100.0);
}

void PitchAnalyser::design_filters(double r) {
    // Two 58 Hz high-pass sections take out hum and rumble below the lowest string.
    const double w = 2.0 * kPi * 58.0 / r;
    const double alpha = std::sin(w) / (2.0 * 0.707);
    const double a0 = 1.0 + alpha, cw = std::cos(w);
    for (int k = 0; k < 2; ++k) {
        Biquad& f = filters_[k];
        f.b0 = f.b2 = (1.0 + cw) / 2.0 / a0;
        f.b1 = -(1.0 + cw) / a0;
        f.a1 = -2.0 * cw / a0;
        f.a2 = (1.0 - alpha) / a0;
    }
    // One 1800 Hz low-pass keeps upper harmonics from dominating the NSDF.
    const double wl = 11309.733552923255 / r;
    const double al = std::sin(wl) / 1.414;
    const double l0 = 1.0 + al, cl = std::cos(wl);
    Biquad& f = filters_[2];
    f.b0 = f.b2 = (1.0 - cl) / 2.0 / l0;
    f.b1 = (1.0 - cl) / l0;
    f.a1 = -2.0 * cl / l0;
    f.a2 = (1.0 - al) / l0;
    for (Biquad& b : filters_) b.s1 = b.s2 = 0.0;
}

void PitchAnalyser::reset(double requested) {
    const double rate = usable_rate(requested);
    const uint32_t d = decimation_factor(rate);
    const double r = rate / d;
    const uint64_t n = window_length(r, config_.lowest_hz);
    timing_ = FrameTiming{n / 2, n, d, rate, r};

    detector_.configure(r, config_.lowest_hz, config_.highest_hz, n);
    design_filters(r);

    analysis_.assign(n + kChunk, 0.0f);
    fill_ = 0;
    decimated_.assign(kChunk, 0.0f);
    mix_.assign(kChunk, 0.0f);
    dec_sum_ = 0.0f;
    dec_count_ = 0;

    guard_.clear();
    tracker_.clear();
    peak_ = 0.0;
    sum_squares_ = 0.0;
    level_count_ = 0;
    clip_ = false;
    total_ = 0;
    reading_ = cleared_reading();
    has_reading_ = false;
}

void PitchAnalyser::configure(const TunerConfig* config) {
    const TunerConfig next = sanitise(config);
    const TunerConfig prev = config_;
    config_ = next;
    if (next.lowest_hz != prev.lowest_hz || next.highest_hz != prev.highest_hz) {
        reset(timing_.sample_rate);
    } else if (next.fixed_note != prev.fixed_note || next.a4_hz != prev.a4_hz) {
        tracker_.reset_strobe();
    }
}

void PitchAnalyser::push(const float* samples, size_t count) {
    if (samples == nullptr || count == 0 || timing_.window == 0) return;
    const uint32_t d = timing_.decimation;
    while (count > 0) {
        const size_t chunk = std::min(count, kChunk);
        size_t produced = 0;
        float* out = decimated_.data();
        for (size_t i = 0; i < chunk; ++i) {
            float x = samples[i];
            if (!std::isfinite(x)) x = 0.0f;
            x = std::clamp(x, -4.0f, 4.0f);
            const double ax = std::fabs(static_cast<double>(x));
            peak_ = std::max(peak_, ax);
            sum_squares_ += static_cast<double>(x) * x;
            ++level_count_;
            if (ax >= 0.999) clip_ = true;
            if (d == 1) {
                out[produced++] = x;
            } else {
                dec_sum_ += x;
                if (++dec_count_ == d) {
                    out[produced++] = dec_sum_ / static_cast<float>(d);
                    dec_sum_ = 0.0f;
                    dec_count_ = 0;
                }
            }
        }
        total_ += chunk;
        if (produced > 0) {
            for (Biquad& f : filters_) f.run(out, produced);
            std::memcpy(analysis_.data() + fill_, out, produced * sizeof(float));
            fill_ += produced;
        }
        while (fill_ >= timing_.window) analyse_frame();
        samples += chunk;
        count -= chunk;
    }
}

void PitchAnalyser::analyse_frame() {
    const size_t n = static_cast<size_t>(timing_.window);
    const PitchEstimate raw = detector_.detect(analysis_.data(), n);
    const PitchEstimate est = guard_.apply(raw);

    FrameInput in{est.frequency, est.clarity, 0.0, 0.0, false};
    if (level_count_ != 0) {
        in.rms = std::sqrt(sum_squares_ / static_cast<double>(level_count_));
        in.peak = peak_;
        in.clipped = clip_;
    } else {
        // A further frame completed by the same chunk reports that chunk's levels.
        in.peak = reading_.peak;
        in.rms = std::pow(10.0, reading_.level_db / 20.0);
        in.clipped = reading_.clipped != 0;
    }
    tracker_.update(reading_, in, timing_, config_);
    has_reading_ = true;
    if (track_ != nullptr && track_written_ < track_capacity_) track_[track_written_++] = reading_;

    peak_ = 0.0;
    sum_squares_ = 0.0;
    level_count_ = 0;
    clip_ = false;

    const size_t hop = static_cast<size_t>(timing_.hop);
    std::memmove(analysis_.data(), analysis_.data() + hop, (fill_ - hop) * sizeof(float));
    fill_ -= hop;
}

bool PitchAnalyser::current_reading(TunerReading* out) const {
    if (!has_reading_ || out == nullptr) return false;
    *out = reading_;
    return true;
}

}  // namespace ws::tuner
