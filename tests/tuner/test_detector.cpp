// Detector and octave guard on windows whose pitch is known.
#include <gtest/gtest.h>

#include <cmath>
#include <vector>

#include "signals.hpp"
#include "tuner/detector.hpp"

namespace {

using ws::tuner::OctaveGuard;
using ws::tuner::PitchDetector;
using ws::tuner::PitchEstimate;
namespace t = ws::test;

// The analyser's detector at 48 kHz for the default range.
PitchDetector default_detector() {
    PitchDetector d;
    d.configure(48000, 55, 1200, 2048);
    return d;
}

double detect_hz(PitchDetector& d, const std::vector<float>& x) { return d.detect(x.data(), x.size()).frequency; }

TEST(PitchDetector, NoPitchInSilenceDcNoiseOrAWindowOfTheWrongLength) {
    auto d = default_detector();
    // RMS 0.002 is below the 0.0025 silence threshold; 0.003 is above it.
    EXPECT_EQ(detect_hz(d, t::sine(220.0, 48000, 2048, 0.002 * std::sqrt(2.0))), 0.0);
    EXPECT_NEAR(detect_hz(d, t::sine(220.0, 48000, 2048, 0.003 * std::sqrt(2.0))), 220.0, 0.5);
    // DC alone is no pitch, and under a tone it is ignored.
    EXPECT_EQ(detect_hz(d, std::vector<float>(2048, 0.7f)), 0.0);
    auto tone = t::sine(330.0, 48000, 2048, 0.3);
    for (auto& v : tone) v += 0.5f;
    EXPECT_NEAR(detect_hz(d, tone), 330.0, 0.5);
    for (unsigned seed = 1; seed <= 3; ++seed) {
        const PitchEstimate e = d.detect(t::noise(2048, 0.5, seed).data(), 2048);
        EXPECT_EQ(e.frequency, 0.0) << "seed " << seed;
        EXPECT_EQ(e.clarity, 0.0);
    }
    const auto x = t::sine(440.0, 48000, 4096);
    EXPECT_EQ(d.detect(x.data(), 2047).frequency, 0.0);
    EXPECT_EQ(d.detect(x.data(), 4096).frequency, 0.0);
    PitchDetector unconfigured;
    EXPECT_EQ(unconfigured.detect(x.data(), 2048).frequency, 0.0);
}

// Partial amplitudes from dB relative to the strongest.
std::vector<double> from_db(std::initializer_list<double> levels) {
    std::vector<double> out;
    for (double l : levels) out.push_back(l <= -200 ? 0.0 : std::pow(10.0, l / 20.0));
    return out;
}

std::vector<float> partials(double f, const std::vector<double>& amps, double rate = 48000, size_t n = 2048) {
    std::vector<float> x(n, 0.0f);
    for (size_t k = 1; k <= amps.size(); ++k) {
        const auto p = t::harmonic(f * static_cast<double>(k), rate, n, {amps[k - 1]}, 0.3 * static_cast<double>(k));
        for (size_t i = 0; i < n; ++i) x[i] += p[i];
    }
    return x;
}

// The share is power at the odd harmonics of the period over all power,
// whatever the window's length in periods.
TEST(PitchDetector, OddHarmonicShareIsThePowerOfTheOddHarmonics) {
    const double period = 48000.0 / 82.41;
    for (size_t n : {size_t{1500}, size_t{2048}, size_t{4096}}) {
        const auto x = partials(82.41, {0.1, 1.0, 0.3, 0.2, 0.05, 0.1}, 48000, n);
        const std::vector<double> xd(x.begin(), x.end());
        const double odd = 0.01 + 0.09 + 0.0025, all = odd + 1.0 + 0.04 + 0.01;
        EXPECT_NEAR(ws::tuner::odd_harmonics(xd.data(), n, period).share, odd / all, 0.002) << n;
        // Only even harmonics: a tone an octave up has none.
        const auto up = partials(82.41, {0.0, 1.0, 0.0, 0.5, 0.0, 0.3}, 48000, n);
        const std::vector<double> ud(up.begin(), up.end());
        EXPECT_LT(ws::tuner::odd_harmonics(ud.data(), n, period).share, 1e-6) << n;
    }
}

// Low strings whose fundamental and third harmonic are weak (the measured
// steel and nylon low E profiles) are nearly periodic at half their period;
// they read at their own pitch, and true tones an octave up stay there.
TEST(PitchDetector, LowStringsReadAtTheirFundamentalAndUpperTonesStayUp) {
    auto d = default_detector();
    const auto steel = from_db({-24, 0, -21, -11, -18, -27, -27, -25});
    const auto nylon = from_db({-20, 0, -10, -18, -26, -25, -29, -24});
    for (int note : {40, 45}) {  // E2, A2
        for (const auto* profile : {&steel, &nylon}) {
            const double f = t::midi_hz(note);
            EXPECT_NEAR(ws::tuner::cents_between(detect_hz(d, partials(f, *profile)), f), 0.0, 1.0) << note;
        }
    }
    const double e3 = t::midi_hz(52);
    EXPECT_NEAR(detect_hz(d, t::string_tone(e3, 48000, 2048)), e3, 0.2);
    EXPECT_NEAR(detect_hz(d, partials(e3, {1.0, 0.0, 0.33, 0.0, 0.2, 0.0, 0.14})), e3, 0.2);  // clarinet-like
    EXPECT_NEAR(detect_hz(d, t::harmonic(110.0, 48000, 2048, {0.2, 0.6, 0.3})), 110.0, 0.2);
}

// An E3 tone with odd harmonics of E2 added at a share just past the
// threshold either way: 1.5 dB above reads E2, 1.5 dB below reads E3.
TEST(PitchDetector, TheLowerOctaveIsTakenFromItsThresholdOn) {
    auto d = default_detector();
    const double e2 = t::midi_hz(40);
    const double even = 1.0 + 0.25 + 0.11 + 0.0625;  // E3's harmonics 1..4: 1, 1/2, 1/3, 1/4
    for (double margin_db : {1.5, -1.5}) {
        const double share = PitchDetector::kLowerOctaveShare * std::pow(10.0, margin_db / 10.0);
        const double b = std::sqrt(share / (1.0 - share) * even / 3.0);  // E2's harmonics 1, 3, 5
        const double hz = detect_hz(d, partials(e2, {b, 1.0, b, 0.5, b, 1.0 / 3.0, 0.0, 0.25}));
        EXPECT_NEAR(hz, margin_db > 0 ? e2 : 2 * e2, 0.3) << margin_db;
        EXPECT_NEAR(10 * std::log10(d.lower_octave_share() / PitchDetector::kLowerOctaveShare), margin_db, 0.5);
    }
}

// A sine decaying 10 dB/s over noise 15 dB below it, low-passed as a band's
// leftovers are: the noise gives the octaves below some power at their odd
// harmonics, but no peaks, and the sine reads at its own octave. So does one
// over a quieter note a twelfth below it (with its third harmonic on the sine).
TEST(PitchDetector, AnUpperToneOverABackgroundStaysAtItsOctave) {
    auto d = default_detector();
    auto power = [](const std::vector<float>& x) {
        double p = 0.0;
        for (float v : x) p += double(v) * v;
        return p;
    };
    for (double f : {220.0, 392.0, 880.0}) {
        auto x = t::sine(f, 48000, 2048);
        for (size_t i = 0; i < x.size(); ++i) x[i] *= static_cast<float>(std::pow(10.0, -0.5 * static_cast<double>(i) / 48000.0));
        for (unsigned seed : {1u, 2u, 3u}) {
            auto noise = t::noise(2048, 1.0, seed);
            for (size_t i = 1; i < noise.size(); ++i) noise[i] += 0.9f * noise[i - 1];
            const double gain = std::sqrt(power(x) / power(noise) / std::pow(10.0, 1.5));
            EXPECT_NEAR(detect_hz(d, t::mix(x, noise, static_cast<float>(gain))), f, 1.0) << f << " seed " << seed;
        }
        const auto below = t::harmonic(f / 3, 48000, 2048, {0.5, 0.25, 0.0, 0.12});
        // The other note bends the value around the period: a few cents.
        const auto both = t::mix(x, below, static_cast<float>(std::sqrt(0.1 * power(x) / power(below))));
        EXPECT_NEAR(ws::tuner::cents_between(detect_hz(d, both), f), 0.0, 20.0) << f;
    }
}

// Sequences of estimates (0 for none) and what the guard lets through.
TEST(OctaveGuard, ReplacesAnOctaveJumpByTheMedianOfFiveAndForgetsOnTheThirdMiss) {
    const double f60 = 220.0 * std::pow(2.0, 60.0 / 1200.0), f100 = 220.0 * std::pow(2.0, 100.0 / 1200.0);
    struct Row { std::vector<double> in, out; };
    const Row rows[] = {
        // 60 cents above the median passes, an octave does not; the raw
        // estimates go into the history, so after two more the octave is the median.
        {{220, 221, 219, 220.5, f60, 440, 440, 440}, {220, 221, 219, 220.5, f60, 221, f60, 440}},
        {{220, 220, 220, 220, f100}, {220, 220, 220, 220, 220}},  // 100 cents is too far
        {{100, 300, 310, 100}, {100, 300, 310, 300}},  // an even count takes the upper middle
        // Two misses keep the history, the third forgets it.
        {{220, 220, 220, 220, 0, 0, 440, 0, 0, 0, 440}, {220, 220, 220, 220, 0, 0, 220, 0, 0, 0, 440}},
    };
    for (const Row& r : rows) {
        OctaveGuard g;
        for (size_t i = 0; i < r.in.size(); ++i) {
            const PitchEstimate out = g.apply(r.in[i] > 0 ? PitchEstimate{r.in[i], 0.95} : PitchEstimate{});
            EXPECT_EQ(out.frequency, r.out[i]) << i;
            EXPECT_EQ(out.clarity, r.in[i] > 0 ? 0.95 : 0.0) << i;
        }
    }
}

}  // namespace
