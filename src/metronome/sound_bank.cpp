#include "metronome/sound_bank.hpp"

#include <algorithm>
#include <cmath>

namespace ws::metronome {

namespace {

constexpr double kTwoPi = 6.283185307179586;
constexpr double kTwoOverPi = 0.6366197723675814;
constexpr double kTwoToMinus32 = 2.3283064365386963e-10;

size_t table_length(double rate, double ms) {
    const double n = rate * ms / 1000.0;
    return n >= 1.0 ? static_cast<size_t>(n) : 0;
}

double wave_value(Waveform wave, double x) {
    switch (wave) {
        case Waveform::sine: return std::sin(x);
        case Waveform::triangle: return std::asin(std::sin(x)) * kTwoOverPi;
        case Waveform::square: return std::sin(x) >= 0.0 ? 1.0 : -1.0;
    }
    return 0.0;
}

// Sum of two component tables, each already end-faded; the sum is not faded again.
std::vector<float> mix(std::vector<float> a, const std::vector<float>& b) {
    add_into(a, b);
    return a;
}

}  // namespace

std::vector<float> tone(double rate, double hz, double ms, double decay_per_s, Waveform wave,
                        double amplitude) {
    std::vector<float> t(table_length(rate, ms));
    for (size_t i = 0; i < t.size(); ++i) {
        const double time = static_cast<double>(i) / rate;
        const double envelope = std::exp(-time * decay_per_s);
        t[i] = static_cast<float>(envelope * amplitude * wave_value(wave, kTwoPi * hz * time));
    }
    end_fade(t);
    return t;
}

std::vector<float> noise_burst(double rate, double ms, double decay_per_s, double amplitude) {
    std::vector<float> t(table_length(rate, ms));
    uint32_t state = 7;  // fixed, so every burst with the same parameters is identical
    for (size_t i = 0; i < t.size(); ++i) {
        state ^= state << 13;
        state ^= state >> 17;
        state ^= state << 5;
        const double u = static_cast<double>(state) * kTwoToMinus32;
        const double envelope = std::exp(-(static_cast<double>(i) / rate) * decay_per_s);
        t[i] = static_cast<float>(envelope * amplitude * (2.0 * u - 1.0));
    }
    end_fade(t);
    return t;
}

void end_fade(std::vector<float>& table) {
    const size_t n = table.size();
    const size_t m = std::min<size_t>(n, 64);
    for (size_t k = 0; k < m; ++k) {
        float& s = table[n - 1 - k];
        s = static_cast<float>(static_cast<double>(s) * static_cast<double>(k) / static_cast<double>(m));
    }
}

void add_into(std::vector<float>& a, const std::vector<float>& b) {
    const size_t n = std::min(a.size(), b.size());
    for (size_t i = 0; i < n; ++i) a[i] += b[i];
}

double sanitise_rate(double rate) {
    return (std::isfinite(rate) && rate >= 8000.0 && rate <= 384000.0) ? rate : 48000.0;
}

void SoundBank::rebuild(double rate) {
    const double r = sanitise_rate(rate);
    rate_ = r;
    using W = Waveform;
    for (int accent = 0; accent < 2; ++accent) {
        const bool a = accent != 0;
        tables_[0][accent] = tone(r, a ? 1150 : 820, 38, 95, W::triangle, 0.9);
        tables_[1][accent] = tone(r, a ? 1500 : 1000, 55, 38, W::sine, 0.85);
        tables_[2][accent] = tone(r, a ? 2800 : 2000, 20, 130, W::sine, 0.9);
        tables_[3][accent] = a ? noise_burst(r, 28, 95, 0.7) : noise_burst(r, 22, 130, 0.55);
        // Two detuned squares: the lower (B) carries the body, A brightens it.
        tables_[4][accent] = mix(tone(r, a ? 845 : 587, 85, 26, W::square, 0.35),
                                 tone(r, a ? 1260 : 880, 85, 34, W::square, 0.25));
        // A tone with a short noise transient on its attack.
        tables_[5][accent] = mix(tone(r, a ? 2530 : 1850, 45, 60, W::sine, 0.8),
                                 noise_burst(r, 6, 300, 0.25));
    }
}

ClickTable SoundBank::table(int32_t sound, bool accent) const {
    const int s = (sound >= 0 && sound < kSounds) ? sound : 0;
    const std::vector<float>& t = tables_[s][accent ? 1 : 0];
    return ClickTable{t.empty() ? nullptr : t.data(), static_cast<int32_t>(t.size())};
}

}  // namespace ws::metronome
