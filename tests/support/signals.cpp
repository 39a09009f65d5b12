#include "signals.hpp"

#include <algorithm>
#include <cmath>
#include <complex>
#include <random>


namespace ws::test {

namespace {

constexpr int kSincHalf = 32;
constexpr int kPhases = 4096;

// Blackman-windowed sinc, kPhases fractional offsets x 2 * kSincHalf taps:
// row f holds the taps for positions f / kPhases past a sample.
const std::vector<float>& sinc_table() {
    static const std::vector<float> table = [] {
        std::vector<float> t(static_cast<size_t>(kPhases + 1) * 2 * kSincHalf);
        for (int f = 0; f <= kPhases; ++f) {
            const double frac = static_cast<double>(f) / kPhases;
            for (int j = 0; j < 2 * kSincHalf; ++j) {
                const double u = frac + kSincHalf - 1 - j;  // distance from tap to position
                const double w = 0.42 + 0.5 * std::cos(kPi * u / kSincHalf) +
                                 0.08 * std::cos(2 * kPi * u / kSincHalf);
                const double v = std::fabs(u) >= kSincHalf ? 0.0
                                 : u == 0.0                ? 1.0
                                                           : w * std::sin(kPi * u) / (kPi * u);
                t[static_cast<size_t>(f) * 2 * kSincHalf + static_cast<size_t>(j)] = static_cast<float>(v);
            }
        }
        return t;
    }();
    return table;
}

// x at fractional position p.
double interpolate(const std::vector<float>& x, double p) {
    const double fl = std::floor(p);
    const long long i0 = static_cast<long long>(fl);
    const int f = static_cast<int>(std::lround((p - fl) * kPhases));
    const float* taps = sinc_table().data() + static_cast<size_t>(f) * 2 * kSincHalf;
    const long long first = i0 - kSincHalf + 1;
    double v = 0.0;
    for (int j = 0; j < 2 * kSincHalf; ++j) {
        const long long k = first + j;
        if (k < 0 || k >= static_cast<long long>(x.size())) continue;
        v += static_cast<double>(x[static_cast<size_t>(k)]) * taps[j];
    }
    return v;
}

}  // namespace

std::vector<float> music(size_t n, double rate, unsigned seed) {
    std::mt19937 rng(seed);
    std::uniform_real_distribution<double> uni(0.0, 1.0);
    std::vector<double> out(n, 0.0);
    const int scale[] = {0, 2, 4, 5, 7, 9, 11};
    for (int voice = 0; voice < 3; ++voice) {
        for (size_t t = 0; t < n;) {
            const size_t len = static_cast<size_t>(rate * (0.1 + 0.3 * uni(rng)));
            const int midi = 40 + 12 * voice + scale[rng() % 7] + 12 * static_cast<int>(rng() % 2);
            const double f = 440.0 * std::pow(2.0, (midi - 69) / 12.0);
            const double amp = 0.12 * (0.5 + uni(rng));
            // Harmonics as rotating phasors, the decay as a running factor.
            std::complex<double> z[6], step[6];
            int harmonics = 0;
            for (int h = 1; h <= 6 && f * h < rate * 0.25; ++h, ++harmonics) {
                z[h - 1] = std::polar(1.0 / h, 2 * kPi * uni(rng));
                step[h - 1] = std::polar(1.0, 2 * kPi * f * h / rate);
            }
            const double decay = std::exp(-4.0 / rate);
            const double attack = rate * 0.01;
            double env = 1.0;
            for (size_t i = 0; i < len && t + i < n; ++i) {
                double v = 0.0;
                for (int h = 0; h < harmonics; ++h) {
                    v += z[h].imag();
                    z[h] *= step[h];
                }
                out[t + i] += amp * std::min(1.0, static_cast<double>(i) / attack) * env * v;
                env *= decay;
            }
            t += len;
        }
    }
    // Noise through four one-pole low-passes (corner near 1 kHz at 44.1 kHz):
    // broadband enough for a clear correlation peak, steep enough that the
    // peak stays sharp under a small drift.
    std::normal_distribution<double> gauss(0.0, 0.1);
    double lp[4] = {};
    for (size_t i = 0; i < n; ++i) {
        double x = gauss(rng);
        for (double& state : lp) x = state += 0.15 * (x - state);
        out[i] += x;
    }
    std::vector<float> f(n);
    for (size_t i = 0; i < n; ++i) f[i] = static_cast<float>(out[i]);
    return f;
}

std::vector<float> noise(size_t n, double amp, unsigned seed) {
    std::mt19937 rng(seed);
    std::uniform_real_distribution<double> dist(-amp, amp);
    std::vector<float> out(n);
    for (auto& v : out) v = static_cast<float>(dist(rng));
    return out;
}

std::vector<float> delayed(const std::vector<float>& x, double d, size_t n) {
    std::vector<float> out(n, 0.0f);
    const bool whole = d == std::floor(d);
    for (size_t t = 0; t < n; ++t) {
        const double p = static_cast<double>(t) - d;
        if (whole) {
            const long long i = static_cast<long long>(p);
            if (i >= 0 && i < static_cast<long long>(x.size())) out[t] = x[static_cast<size_t>(i)];
        } else {
            out[t] = static_cast<float>(interpolate(x, p));
        }
    }
    return out;
}

std::vector<float> room_response(unsigned seed) {
    std::mt19937 rng(seed);
    std::normal_distribution<double> gauss(0.0, 1.0);
    std::vector<float> h(700, 0.0f);
    h[0] = 0.5f;
    h[37] = 0.2f;
    h[113] = -0.12f;
    h[290] = 0.07f;
    // A diffuse tail, every third tap (cheap to convolve, still dense in time
    // against the filter's resolution).
    for (size_t k = 300; k < h.size(); k += 3) {
        h[k] += static_cast<float>(0.017 * gauss(rng) * std::exp(-static_cast<double>(k - 300) / 120.0));
    }
    return h;
}

std::vector<float> convolve(const std::vector<float>& x, const std::vector<float>& h) {
    std::vector<float> out(x.size(), 0.0f);
    for (size_t k = 0; k < h.size(); ++k) {
        if (h[k] == 0.0f) continue;
        for (size_t t = k; t < x.size(); ++t) out[t] += h[k] * x[t - k];
    }
    return out;
}

std::vector<float> mix(const std::vector<float>& a, const std::vector<float>& b, float gain) {
    std::vector<float> out(a);
    for (size_t i = 0; i < std::min(a.size(), b.size()); ++i) out[i] += gain * b[i];
    return out;
}

std::vector<int16_t> noise16(size_t n, int amp, unsigned seed) {
    std::mt19937 gen(seed);
    std::uniform_int_distribution<int> dist(-amp, amp);
    std::vector<int16_t> out(n);
    for (auto& s : out) s = static_cast<int16_t>(dist(gen));
    return out;
}

std::vector<float> harmonic(double f, double rate, size_t n, std::initializer_list<double> amps,
                            double phase) {
    std::vector<float> out(n);
    for (size_t i = 0; i < n; ++i) {
        const double t = static_cast<double>(i) / rate;
        double v = 0.0;
        int k = 1;
        for (double a : amps) {
            // Partials at or above Nyquist would alias to other pitches.
            if (f * k < rate / 2) v += a * std::sin(2.0 * kPi * f * k * t + phase);
            ++k;
        }
        out[i] = static_cast<float>(v);
    }
    return out;
}

std::vector<float> concat(std::initializer_list<std::vector<float>> parts) {
    std::vector<float> out;
    for (const auto& p : parts) out.insert(out.end(), p.begin(), p.end());
    return out;
}

double midi_hz(int n, double a4) { return a4 * std::pow(2.0, (n - 69) / 12.0); }

}  // namespace ws::test
