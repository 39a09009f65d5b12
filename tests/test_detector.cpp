// Detector and octave guard on windows whose pitch is known.
#include <gtest/gtest.h>

#include <cmath>

#include "test_support.hpp"
#include "tuner/detector.hpp"

namespace {

using ws::tuner::OctaveGuard;
using ws::tuner::PitchDetector;
using ws::tuner::PitchEstimate;
namespace t = ws::test;

PitchDetector detector_for(double rate, double lo, double hi, uint64_t n) {
    PitchDetector d;
    d.configure(rate, lo, hi, n);
    return d;
}

TEST(PitchDetector, LagLimitsFollowRateAndRange) {
    struct Row { double rate, lo, hi; uint64_t n; int32_t min, max; };
    const Row rows[] = {
        {48000, 55, 1200, 2048, 40, 873},
        {44100, 55, 1200, 2048, 36, 802},
        {8000, 200, 5000, 1024, 2, 40},     // rate / highest below 2 is raised to 2
        {48000, 20, 1200, 8192, 40, 2400},
        {48000, 20, 200, 1024, 240, 1023},  // capped at N - 1
    };
    for (const auto& r : rows) {
        auto d = detector_for(r.rate, r.lo, r.hi, r.n);
        EXPECT_EQ(d.min_lag(), r.min) << r.rate << " " << r.lo;
        EXPECT_EQ(d.max_lag(), r.max) << r.rate << " " << r.lo;
    }
}

// Pure and harmonic tones over the range and rates: the frequency is found to
// a small fraction of a cent and the clarity is near 1.
TEST(PitchDetector, FindsTheFundamentalOfTones) {
    for (double rate : {8000.0, 22050.0, 44100.0, 48000.0}) {
        const uint64_t n = rate <= 8000 ? 1024 : 2048;
        auto d = detector_for(rate, 55, 1200, n);
        for (double f : {60.0, 82.41, 110.0, 196.0, 329.63, 440.0, 880.0, 1150.0}) {
            for (int shape = 0; shape < 2; ++shape) {
                const auto x = shape == 0 ? t::sine(f, rate, n) : t::string_tone(f, rate, n);
                const PitchEstimate e = d.detect(x.data(), x.size());
                SCOPED_TRACE(testing::Message() << rate << " Hz, f " << f << ", shape " << shape);
                ASSERT_GT(e.frequency, 0.0);
                // Parabolic refinement is exact only in the limit: short
                // periods (under 20 samples) keep a few cents of bias.
                EXPECT_NEAR(ws::tuner::cents_between(e.frequency, f), 0.0, rate / f < 20 ? 5.0 : 1.0);
                EXPECT_GE(e.clarity, 0.9);
                EXPECT_LE(e.clarity, 1.0 + 1e-9);
            }
        }
    }
}

// A strong second harmonic must not pull the estimate an octave up, and a
// strong sub-period must not pull it an octave down.
TEST(PitchDetector, StrongSecondHarmonicKeepsTheFundamental) {
    auto d = detector_for(48000, 55, 1200, 2048);
    const auto x = t::harmonic(110.0, 48000, 2048, {0.2, 0.6, 0.3});
    const PitchEstimate e = d.detect(x.data(), x.size());
    EXPECT_NEAR(e.frequency, 110.0, 0.2);
}

TEST(PitchDetector, QuietWindowsHaveNoPitchWhateverTheirShape) {
    auto d = detector_for(48000, 55, 1200, 2048);
    // RMS 0.002, below the 0.0025 silence threshold.
    const auto quiet = t::sine(220.0, 48000, 2048, 0.002 * std::sqrt(2.0));
    EXPECT_EQ(d.detect(quiet.data(), quiet.size()).frequency, 0.0);
    // Just above it the same tone is found.
    const auto audible = t::sine(220.0, 48000, 2048, 0.003 * std::sqrt(2.0));
    EXPECT_NEAR(d.detect(audible.data(), audible.size()).frequency, 220.0, 0.5);
}

TEST(PitchDetector, DcAloneIsNotAPitchButDcIsIgnoredUnderATone) {
    auto d = detector_for(48000, 55, 1200, 2048);
    std::vector<float> dc(2048, 0.7f);
    EXPECT_EQ(d.detect(dc.data(), dc.size()).frequency, 0.0);
    auto tone = t::sine(330.0, 48000, 2048, 0.3);
    for (auto& v : tone) v += 0.5f;
    EXPECT_NEAR(d.detect(tone.data(), tone.size()).frequency, 330.0, 0.5);
}

TEST(PitchDetector, NoiseHasNoClearPeriod) {
    auto d = detector_for(48000, 55, 1200, 2048);
    for (unsigned seed = 1; seed <= 5; ++seed) {
        const auto x = t::noise(2048, 0.5, seed);
        const PitchEstimate e = d.detect(x.data(), x.size());
        EXPECT_EQ(e.frequency, 0.0) << "seed " << seed;
        EXPECT_EQ(e.clarity, 0.0);
    }
}

TEST(PitchDetector, RejectsWindowsOfTheWrongLength) {
    auto d = detector_for(48000, 55, 1200, 2048);
    const auto x = t::sine(440.0, 48000, 4096);
    EXPECT_EQ(d.detect(x.data(), 2047).frequency, 0.0);
    EXPECT_EQ(d.detect(x.data(), 4096).frequency, 0.0);
    EXPECT_GT(d.detect(x.data(), 2048).frequency, 0.0);
    PitchDetector unconfigured;
    EXPECT_EQ(unconfigured.detect(x.data(), 2048).frequency, 0.0);
}

// The chosen lag is the first key maximum within 90% of the best: values at
// integer lags of an exact-period signal peak at the period itself.
TEST(PitchDetector, NsdfPeaksAtThePeriod) {
    auto d = detector_for(48000, 55, 1200, 2048);
    const auto x = t::sine(48000.0 / 100.0, 48000, 2048);  // period 100 samples
    const PitchEstimate e = d.detect(x.data(), x.size());
    const auto& v = d.values();
    EXPECT_GT(v[100], v[99]);
    EXPECT_GT(v[100], v[101]);
    EXPECT_NEAR(v[100], 1.0, 1e-6);
    EXPECT_NEAR(v[50], -1.0, 1e-2);
    EXPECT_NEAR(e.frequency, 480.0, 0.01);
}

PitchEstimate pitched(double f) { return {f, 0.95}; }

TEST(OctaveGuard, ReplacesASingleOctaveJumpByTheMedian) {
    OctaveGuard g;
    for (int i = 0; i < 4; ++i) EXPECT_EQ(g.apply(pitched(220.0)).frequency, 220.0);
    const PitchEstimate out = g.apply(pitched(440.0));
    EXPECT_EQ(out.frequency, 220.0);
    EXPECT_EQ(out.clarity, 0.95);
    // The raw estimate went into the history: after two more high values the
    // median is the new octave and it passes.
    EXPECT_EQ(g.apply(pitched(440.0)).frequency, 220.0);
    EXPECT_EQ(g.apply(pitched(440.0)).frequency, 440.0);
}

TEST(OctaveGuard, SmallDeviationsPassUnchanged) {
    OctaveGuard g;
    for (double f : {220.0, 221.0, 219.0, 220.5}) g.apply(pitched(f));
    // 60 cents above the median of 220.x passes; 100 cents does not.
    const double f60 = 220.0 * std::pow(2.0, 60.0 / 1200.0);
    EXPECT_DOUBLE_EQ(g.apply(pitched(f60)).frequency, f60);
}

TEST(OctaveGuard, ThirdMissInARowForgetsTheHistory) {
    OctaveGuard g;
    for (int i = 0; i < 4; ++i) g.apply(pitched(220.0));
    g.apply({});
    g.apply({});
    EXPECT_EQ(g.count(), 4);
    EXPECT_EQ(g.apply(pitched(440.0)).frequency, 220.0);  // history kept after two misses

    OctaveGuard h;
    for (int i = 0; i < 4; ++i) h.apply(pitched(220.0));
    for (int i = 0; i < 3; ++i) EXPECT_EQ(h.apply({}).frequency, 0.0);
    EXPECT_EQ(h.count(), 0);
    EXPECT_EQ(h.apply(pitched(440.0)).frequency, 440.0);  // fresh start
}

TEST(OctaveGuard, EvenCountTakesTheUpperMiddle) {
    OctaveGuard g;
    g.apply(pitched(100.0));
    // History {100, 300}: median is 300 (upper middle), and 300 is the input.
    EXPECT_EQ(g.apply(pitched(300.0)).frequency, 300.0);
    // {100, 300, 310}: median 300; 100 is far off but is not the input here.
    EXPECT_EQ(g.apply(pitched(310.0)).frequency, 310.0);
    // {100,300,310,100}: sorted 100,100,300,310 -> index 2 = 300; 100 replaced.
    EXPECT_EQ(g.apply(pitched(100.0)).frequency, 300.0);
}

}  // namespace
