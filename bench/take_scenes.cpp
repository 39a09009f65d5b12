#include "take_scenes.hpp"

#include <algorithm>
#include <cmath>
#include <complex>
#include <fstream>
#include <random>

#include "frame/wav_header.hpp"
#include "takes/fft.hpp"

namespace ws::bench {

namespace {

constexpr double kTwoPi = 6.283185307179586;

double midi_hz(double note) { return 440.0 * std::pow(2.0, (note - 69.0) / 12.0); }

// A note of a few harmonics with an attack and an exponential decay, added
// into out from frame `start` for `length` frames.
void add_note(std::vector<float>& out, double rate, size_t start, size_t length, double hz,
              double amp, double decay_s, int harmonics, double brightness) {
    const size_t end = std::min(out.size(), start + length);
    const double attack = 0.01 * rate;
    const double release = 0.02 * rate;
    for (size_t i = start; i < end; ++i) {
        const double t = static_cast<double>(i - start);
        double env = std::exp(-t / (decay_s * rate)) * std::min(1.0, t / attack);
        env *= std::min(1.0, static_cast<double>(end - i) / release);
        double v = 0.0, a = 1.0;
        for (int h = 1; h <= harmonics && hz * h < 0.45 * rate; ++h, a *= brightness) {
            v += a * std::sin(kTwoPi * hz * h * t / rate);
        }
        out[i] += static_cast<float>(amp * env * v);
    }
}

void normalise_peak(std::vector<float>& x, double peak) {
    float m = 0.0f;
    for (float v : x) m = std::max(m, std::fabs(v));
    if (m > 0.0f) {
        for (auto& v : x) v *= static_cast<float>(peak / m);
    }
}

// Quantised to the 16-bit grid as a file holds it.
void quantise(std::vector<float>& x) {
    for (auto& v : x) {
        v = static_cast<float>(std::clamp(std::nearbyint(static_cast<double>(v) * 32768.0), -32768.0, 32767.0) /
                               32768.0);
    }
}

// x at fractional position p: a 32-tap Blackman-windowed sinc.
double interpolate(const std::vector<float>& x, double p) {
    constexpr int kHalf = 16;
    const double fl = std::floor(p);
    const double frac = p - fl;
    const auto i0 = static_cast<int64_t>(fl);
    double v = 0.0;
    for (int j = -kHalf + 1; j <= kHalf; ++j) {
        const int64_t k = i0 + j;
        if (k < 0 || k >= static_cast<int64_t>(x.size())) continue;
        const double u = static_cast<double>(j) - frac;
        const double w = 0.42 + 0.5 * std::cos(kTwoPi * 0.5 * u / kHalf) + 0.08 * std::cos(kTwoPi * u / kHalf);
        const double s = u == 0.0 ? 1.0 : std::sin(kTwoPi * 0.5 * u) / (kTwoPi * 0.5 * u);
        v += static_cast<double>(x[static_cast<size_t>(k)]) * w * s;
    }
    return v;
}

}  // namespace

std::vector<float> backing_music(size_t n, double rate, unsigned seed) {
    std::mt19937 rng(seed);
    std::uniform_real_distribution<double> uni(0.0, 1.0);
    std::normal_distribution<double> gauss(0.0, 1.0);
    std::vector<float> out(n, 0.0f);
    const double beat = 60.0 / (100.0 + 40.0 * uni(rng)) * rate;
    const size_t beats = static_cast<size_t>(static_cast<double>(n) / beat) + 1;
    const int progression[4][3] = {{0, 4, 7}, {9, 12, 16}, {5, 9, 12}, {7, 11, 14}};
    const double key = 45.0 + std::floor(uni(rng) * 7.0);
    double hp = 0.0, prev = 0.0;
    for (size_t b = 0; b < beats; ++b) {
        const auto at = static_cast<size_t>(static_cast<double>(b) * beat);
        const int chord = static_cast<int>((b / 4 + (b / 16) * 3) % 4);
        // Kick on 1 and 3: a falling sine.
        if (b % 2 == 0) {
            for (size_t i = at; i < std::min(n, at + static_cast<size_t>(0.25 * rate)); ++i) {
                const double t = static_cast<double>(i - at) / rate;
                out[i] += static_cast<float>(0.5 * std::exp(-t / 0.06) * std::sin(kTwoPi * (50.0 * t + 60.0 * 0.03 * (1.0 - std::exp(-t / 0.03)))));
            }
        }
        // Snare on 2 and 4, hi-hat on every eighth: noise bursts, the hat high-passed.
        for (int half = 0; half < 2; ++half) {
            const auto s = at + static_cast<size_t>(half * beat / 2);
            const bool snare = half == 0 && b % 2 == 1;
            const double len = snare ? 0.18 : 0.05;
            for (size_t i = s; i < std::min(n, s + static_cast<size_t>(len * rate)); ++i) {
                const double t = static_cast<double>(i - s) / rate;
                const double g = gauss(rng);
                hp = g - prev;
                prev = g;
                out[i] += static_cast<float>(snare ? 0.25 * std::exp(-t / 0.05) * g : 0.06 * std::exp(-t / 0.015) * hp);
            }
        }
        // Bass: the chord's root, a note a beat, sometimes the fifth.
        const double root = key - 12.0 + progression[chord][0] + (uni(rng) < 0.25 ? 7.0 : 0.0);
        add_note(out, rate, at, static_cast<size_t>(0.9 * beat), midi_hz(root), 0.22, 0.4, 6, 0.6);
        // Chords: three voices held for the bar.
        if (b % 4 == 0) {
            for (int v = 0; v < 3; ++v) {
                add_note(out, rate, at, static_cast<size_t>(4.0 * beat), midi_hz(key + 12.0 + progression[chord][v]),
                         0.07, 1.5, 5, 0.5);
            }
        }
    }
    normalise_peak(out, 0.5);
    return out;
}

std::vector<float> melody(size_t n, double rate, unsigned seed) {
    std::mt19937 rng(seed);
    std::uniform_real_distribution<double> uni(0.0, 1.0);
    std::vector<float> out(n, 0.0f);
    const int scale[7] = {0, 2, 3, 5, 7, 8, 10};
    int degree = 7;
    size_t at = static_cast<size_t>(0.3 * rate);
    while (at < n) {
        if (uni(rng) < 0.25) {  // a rest
            at += static_cast<size_t>((0.2 + 1.3 * uni(rng)) * rate);
            continue;
        }
        degree = std::clamp(degree + static_cast<int>(std::floor(uni(rng) * 5.0)) - 2, 0, 16);
        const double note = 57.0 + 12.0 * (degree / 7) + scale[degree % 7];
        const auto length = static_cast<size_t>((0.15 + 0.45 * uni(rng)) * rate);
        add_note(out, rate, at, length, midi_hz(note), 0.3, 0.8, 4, 0.45);
        at += length;
    }
    normalise_peak(out, 0.5);
    return out;
}

std::vector<float> room(double rate, double rt60, double seconds, unsigned seed) {
    std::mt19937 rng(seed);
    std::normal_distribution<double> gauss(0.0, 1.0);
    std::uniform_real_distribution<double> uni(0.0, 1.0);
    const auto n = static_cast<size_t>(seconds * rate);
    std::vector<float> h(std::max<size_t>(n, 1), 0.0f);
    h[0] = 1.0f;
    // Early reflections within 30 ms, then a diffuse tail from 5 ms on,
    // decaying by 60 dB in rt60 (amplitude exp(-6.91 t / rt60)).
    for (int r = 0; r < 8; ++r) {
        const auto k = static_cast<size_t>((0.001 + 0.029 * uni(rng)) * rate);
        if (k < h.size()) h[k] += static_cast<float>((uni(rng) < 0.5 ? -1.0 : 1.0) * (0.2 + 0.4 * uni(rng)));
    }
    const double tail_level = 0.08;
    double lp = 0.0;
    for (size_t k = static_cast<size_t>(0.005 * rate); k < h.size(); ++k) {
        const double t = static_cast<double>(k) / rate;
        lp += 0.7 * (gauss(rng) - lp);  // walls absorb the highs
        h[k] += static_cast<float>(tail_level * lp * std::exp(-6.907755 * t / rt60));
    }
    return h;
}

std::vector<float> fast_convolve(const std::vector<float>& x, const std::vector<float>& h) {
    size_t n = 1024;
    while (n < 4 * h.size()) n *= 2;
    const size_t hop = n - h.size() + 1;
    const ws::takes::FftTable table(n);
    std::vector<std::complex<double>> hf(n), buf(n);
    for (size_t k = 0; k < h.size(); ++k) hf[k] = {h[k], 0.0};
    table.transform(hf.data(), false);
    std::vector<double> acc(x.size() + n, 0.0);
    for (size_t s = 0; s < x.size(); s += hop) {
        const size_t m = std::min(hop, x.size() - s);
        std::fill(buf.begin(), buf.end(), std::complex<double>(0.0, 0.0));
        for (size_t i = 0; i < m; ++i) buf[i] = {x[s + i], 0.0};
        table.transform(buf.data(), false);
        for (size_t i = 0; i < n; ++i) buf[i] *= hf[i];
        table.transform(buf.data(), true);
        for (size_t i = 0; i < n; ++i) acc[s + i] += buf[i].real();
    }
    std::vector<float> y(x.size());
    for (size_t i = 0; i < y.size(); ++i) y[i] = static_cast<float>(acc[i]);
    return y;
}

double energy(const float* x, size_t n) {
    double e = 0.0;
    for (size_t i = 0; i < n; ++i) e += static_cast<double>(x[i]) * x[i];
    return e;
}

Scene make_scene(const SceneSetup& setup) {
    Scene sc;
    const auto n = static_cast<size_t>(setup.seconds * setup.rate);
    sc.backing = backing_music(n, setup.rate, setup.seed);
    quantise(sc.backing);
    // The backing as the take's clock sees it (a fast clock records more
    // frames per second of backing), through the room.
    std::vector<float> played = sc.backing;
    if (setup.drift_ppm != 0.0) {
        const double stretch = 1.0 + setup.drift_ppm * 1e-6;
        for (size_t t = 0; t < n; ++t) played[t] = static_cast<float>(interpolate(sc.backing, static_cast<double>(t) / stretch));
    }
    const auto heard = fast_convolve(played, room(setup.rate, setup.rt60, setup.room_seconds, setup.seed + 1));
    // The round trip: the first delay, then each jump moves it on from its
    // point (capture fell behind: the take skips ahead or holds back).
    sc.leak.assign(n, 0.0f);
    int64_t delay = setup.delay;
    std::vector<std::pair<int64_t, int64_t>> changes;  // (from frame, delay)
    changes.emplace_back(0, delay);
    for (const auto& j : setup.jumps) {
        delay += j.size;
        const auto at = static_cast<int64_t>(j.at * static_cast<double>(n));
        changes.emplace_back(at, delay);
        sc.jump_frames.push_back(at);
    }
    for (size_t c = 0; c < changes.size(); ++c) {
        const int64_t from = changes[c].first;
        const int64_t to = c + 1 < changes.size() ? changes[c + 1].first : static_cast<int64_t>(n);
        for (int64_t t = from; t < to; ++t) {
            const int64_t q = t - changes[c].second;
            if (q >= 0 && q < static_cast<int64_t>(n)) sc.leak[static_cast<size_t>(t)] = heard[static_cast<size_t>(q)];
        }
    }
    const double leak_gain = setup.leak_rms / std::sqrt(energy(sc.leak.data(), n) / static_cast<double>(n));
    for (auto& v : sc.leak) v *= static_cast<float>(leak_gain);
    sc.musician.assign(n, 0.0f);
    if (setup.musician_db > -200.0) {
        sc.musician = melody(n, setup.rate, setup.seed + 2);
        const double want = setup.leak_rms * std::pow(10.0, setup.musician_db / 20.0);
        const double gain = want / std::sqrt(energy(sc.musician.data(), n) / static_cast<double>(n));
        for (auto& v : sc.musician) v *= static_cast<float>(gain);
    }
    std::mt19937 rng(setup.seed + 3);
    std::normal_distribution<double> gauss(0.0, setup.noise_rms);
    sc.take.resize(n);
    for (size_t i = 0; i < n; ++i) sc.take[i] = sc.leak[i] + sc.musician[i] + static_cast<float>(gauss(rng));
    quantise(sc.take);
    return sc;
}

Outcome judge(const Scene& scene, const std::vector<float>& out) {
    const size_t n = std::min(out.size(), scene.musician.size());
    double rest = 0.0, om = 0.0, mm = 0.0;
    for (size_t i = 0; i < n; ++i) {
        const double d = static_cast<double>(out[i]) - scene.musician[i];
        rest += d * d;
        om += static_cast<double>(out[i]) * scene.musician[i];
        mm += static_cast<double>(scene.musician[i]) * scene.musician[i];
    }
    Outcome o{};
    o.reduction_db = 10.0 * std::log10(energy(scene.leak.data(), n) / std::max(rest, 1e-30));
    o.gain_db = mm > 0.0 ? 20.0 * std::log10(std::max(om / mm, 1e-9)) : 0.0;
    return o;
}

bool write_wav16(const std::string& path, const std::vector<float>& x, uint32_t rate) {
    const auto header = ws::frame::mono16_wav_header(rate, static_cast<uint32_t>(x.size() * 2));
    std::vector<uint8_t> bytes(header.begin(), header.end());
    bytes.reserve(header.size() + 2 * x.size());
    for (float v : x) {
        const auto s = static_cast<int16_t>(std::clamp(std::nearbyint(static_cast<double>(v) * 32768.0), -32768.0, 32767.0));
        bytes.push_back(static_cast<uint8_t>(static_cast<uint16_t>(s) & 0xFF));
        bytes.push_back(static_cast<uint8_t>(static_cast<uint16_t>(s) >> 8));
    }
    std::ofstream f(path, std::ios::binary);
    f.write(reinterpret_cast<const char*>(bytes.data()), static_cast<std::streamsize>(bytes.size()));
    return static_cast<bool>(f);
}

std::vector<float> read_wav16(const std::string& path) {
    std::ifstream f(path, std::ios::binary);
    std::vector<char> bytes((std::istreambuf_iterator<char>(f)), std::istreambuf_iterator<char>());
    std::vector<float> x;
    if (bytes.size() < 44) return x;
    x.resize((bytes.size() - 44) / 2);
    for (size_t i = 0; i < x.size(); ++i) {
        const auto lo = static_cast<uint8_t>(bytes[44 + 2 * i]);
        const auto hi = static_cast<uint8_t>(bytes[45 + 2 * i]);
        x[i] = static_cast<float>(static_cast<int16_t>(static_cast<uint16_t>(lo | (hi << 8)))) / 32768.0f;
    }
    return x;
}

}  // namespace ws::bench
