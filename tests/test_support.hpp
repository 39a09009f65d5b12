// Signals with known answers for the tuner tests.
#pragma once

#include <cstddef>
#include <initializer_list>
#include <vector>

namespace ws::test {

inline constexpr double kPi = 3.14159265358979323846;

// Sum of harmonics of f: amps[k] is the amplitude of harmonic k + 1; partials
// at or above Nyquist are left out.
std::vector<float> harmonic(double f, double rate, size_t n, std::initializer_list<double> amps,
                            double phase = 0.0);
inline std::vector<float> sine(double f, double rate, size_t n, double amp = 0.5) {
    return harmonic(f, rate, n, {amp});
}
// A guitar-like tone: harmonics 1..6 with falling amplitudes.
inline std::vector<float> string_tone(double f, double rate, size_t n) {
    return harmonic(f, rate, n, {0.5, 0.3, 0.2, 0.12, 0.08, 0.05});
}
std::vector<float> concat(std::initializer_list<std::vector<float>> parts);
std::vector<float> silence(size_t n);
// Uniform white noise in [-amp, amp] from a fixed seed.
std::vector<float> noise(size_t n, double amp, unsigned seed = 1);

// Frequency of MIDI note n at A4 = 440.
double midi_hz(int n, double a4 = 440.0);

}  // namespace ws::test
