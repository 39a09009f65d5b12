#include "test_support.hpp"

#include <cmath>
#include <random>

namespace ws::test {

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

std::vector<float> silence(size_t n) { return std::vector<float>(n, 0.0f); }

std::vector<float> noise(size_t n, double amp, unsigned seed) {
    std::mt19937 rng(seed);
    std::uniform_real_distribution<double> dist(-amp, amp);
    std::vector<float> out(n);
    for (auto& x : out) x = static_cast<float>(dist(rng));
    return out;
}

double midi_hz(int n, double a4) { return a4 * std::pow(2.0, (n - 69) / 12.0); }

}  // namespace ws::test
