// SPDX-License-Identifier: MIT
#include "synth.hpp"

#include <algorithm>
#include <cmath>
#include <numbers>

namespace cli {

// Harmonics of a string plucked near one end: amplitude sin(k pi p) / k for a
// pluck at p of the length, each harmonic dying faster than the one below, as
// on a real string. Phases are fixed so the output is reproducible.
std::vector<float> pluck(double f0, double seconds, uint32_t rate, double peak_out) {
    const auto n = static_cast<size_t>(std::llround(seconds * rate));
    std::vector<double> mix(n, 0.0);
    constexpr double kPluckAt = 0.18;
    // Long tones decay more slowly so the note is still clearly there at the end.
    const double tau1 = std::max(1.0, 0.6 * seconds);
    const double top = pluck_top(rate);
    for (int k = 1; k * f0 < top; ++k) {
        const double amp = std::fabs(std::sin(k * std::numbers::pi * kPluckAt)) / k;
        const double tau = tau1 / (1.0 + 0.35 * (k - 1));
        const double w = 2.0 * std::numbers::pi * k * f0 / rate;
        const double phase = 0.7 * k * k;
        const double decay = std::exp(-1.0 / (tau * rate));
        // A rotating phasor, re-anchored to exact values every block so the
        // rounding of the recursion cannot build up over long tones.
        const double cw = std::cos(w), sw = std::sin(w);
        constexpr size_t kBlock = 4096;
        for (size_t start = 0; start < n; start += kBlock) {
            const double at = w * static_cast<double>(start) + phase;
            double re = std::cos(at), im = std::sin(at);
            double env = amp * std::exp(-static_cast<double>(start) / (tau * rate));
            for (size_t i = start; i < std::min(n, start + kBlock); ++i) {
                mix[i] += env * im;
                const double next_re = re * cw - im * sw;
                im = im * cw + re * sw;
                re = next_re;
                env *= decay;
            }
        }
    }
    // 2 ms ramps keep the ends free of clicks; longer fades would bend the
    // pitch the tuner sees in the last analysis window.
    const size_t attack = std::min(n, static_cast<size_t>(0.002 * rate) + 1);
    const size_t release = attack;
    for (size_t i = 0; i < attack; ++i) {
        mix[i] *= static_cast<double>(i) / static_cast<double>(attack);
    }
    for (size_t i = 0; i < release; ++i) {
        mix[n - 1 - i] *= static_cast<double>(i) / static_cast<double>(release);
    }

    double peak = 0.0;
    for (double v : mix) peak = std::max(peak, std::fabs(v));
    const double gain = peak > 0.0 ? peak_out / peak : 0.0;
    std::vector<float> out(n);
    for (size_t i = 0; i < n; ++i) out[i] = static_cast<float>(mix[i] * gain);
    return out;
}

}  // namespace cli
