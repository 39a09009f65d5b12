// Signals with known answers for the tests: tones of given pitch, seeded
// noise, a music-like reference, delays (whole and fractional) and a short
// room-like leak path. Whole takes through long rooms, with a player and
// noise: bench/take_scenes.hpp.
#pragma once

#include <cstddef>
#include <cstdint>
#include <initializer_list>
#include <vector>

// Long single-threaded signal tests add nothing under ThreadSanitizer, which
// slows them twenty-fold; the other builds (plain, ASan, Wine) run them.
#if defined(__SANITIZE_THREAD__)
#  define WS_SKIP_UNDER_TSAN() GTEST_SKIP() << "single-threaded signal processing"
#elif defined(__has_feature)
#  if __has_feature(thread_sanitizer)
#    define WS_SKIP_UNDER_TSAN() GTEST_SKIP() << "single-threaded signal processing"
#  endif
#endif
#ifndef WS_SKIP_UNDER_TSAN
#  define WS_SKIP_UNDER_TSAN() static_cast<void>(0)
#endif

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
inline std::vector<float> silence(size_t n) { return std::vector<float>(n, 0.0f); }
// Uniform white noise in [-amp, amp] from a fixed seed.
std::vector<float> noise(size_t n, double amp, unsigned seed = 1);
// The same as 16-bit samples in [-amp, amp].
std::vector<int16_t> noise16(size_t n, int amp, unsigned seed);

// Frequency of MIDI note n at A4 = 440.
double midi_hz(int n, double a4 = 440.0);

// Three voices of harmonic notes with attack/decay envelopes, changing
// every 0.1 to 0.4 s, over steeply low-passed noise (brushes, room): music-like,
// band-limited (nothing above a quarter of the rate), peak around 0.5.
std::vector<float> music(size_t n, double rate, unsigned seed);

// y[t] = x(t - d), length n, zeros outside x. Whole delays copy samples;
// fractional ones interpolate with a 64-tap windowed sinc, exact for
// signals below a quarter of the rate to better than -80 dB.
std::vector<float> delayed(const std::vector<float>& x, double d, size_t n);

// A short room: direct sound, a few reflections and a decaying tail, all
// within the first 700 taps.
std::vector<float> room_response(unsigned seed);

// Direct convolution, same length as x.
std::vector<float> convolve(const std::vector<float>& x, const std::vector<float>& h);

// a + gain * b, elementwise (b may be shorter).
std::vector<float> mix(const std::vector<float>& a, const std::vector<float>& b, float gain = 1.0f);

}  // namespace ws::test
