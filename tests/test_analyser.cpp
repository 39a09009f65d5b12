// The analysis chain: rates, windows, settings, the filters and the
// per-chunk metering, on tones of known pitch.
#include <gtest/gtest.h>

#include <cmath>
#include <limits>

#include "test_support.hpp"
#include "tuner/analyser.hpp"
#include "tuner/config.hpp"

namespace {

using ws::tuner::PitchAnalyser;
namespace t = ws::test;
constexpr double kNaN = std::numeric_limits<double>::quiet_NaN();
constexpr double kInf = std::numeric_limits<double>::infinity();

TEST(TunerConfig, FieldsOutsideTheirRangesAreReplaced) {
    struct Row { TunerConfig in, out; };
    const Row rows[] = {
        {{0, 0, 0, 0, 0, 0}, {440, 55, 1200, 5, 0, 0}},  // all zero fixes the target on MIDI 0
        {{400, 20, 5000, 0.5, 127, 1}, {400, 20, 5000, 0.5, 127, 1}},  // inclusive bounds
        {{480, 200, 200 * 1.5 + 1, 25, -1, 1}, {480, 200, 301, 25, -1, 1}},
        {{399.9, 19.9, 5000.1, 0.4, 128, 2}, {440, 55, 1200, 5, -1, 0}},
        {{kNaN, kInf, -kInf, kNaN, -2, -1}, {440, 55, 1200, 5, -1, 0}},
        {{440, 140, 210, 5, -1, 0}, {440, 55, 1200, 5, -1, 0}},  // exactly 1.5x
        {{440, 140, 211, 5, -1, 0}, {440, 140, 211, 5, -1, 0}},
    };
    for (const auto& r : rows) {
        const TunerConfig c = ws::tuner::sanitise(&r.in);
        SCOPED_TRACE(testing::Message() << r.in.a4_hz << " " << r.in.lowest_hz << " " << r.in.highest_hz);
        EXPECT_EQ(c.a4_hz, r.out.a4_hz);
        EXPECT_EQ(c.lowest_hz, r.out.lowest_hz);
        EXPECT_EQ(c.highest_hz, r.out.highest_hz);
        EXPECT_EQ(c.tolerance_cents, r.out.tolerance_cents);
        EXPECT_EQ(c.fixed_note, r.out.fixed_note);
        EXPECT_EQ(c.slow_smoothing, r.out.slow_smoothing);
    }
    EXPECT_TRUE(ws::tuner::same_config(ws::tuner::sanitise(nullptr), ws::tuner::kDefaultConfig));
}

TEST(PitchAnalyser, RatesDecimationAndWindows) {
    struct Row { double rate; double lowest; double used; uint32_t d; uint64_t n; };
    const Row rows[] = {
        {0, 55, 48000, 1, 2048},       {kNaN, 55, 48000, 1, 2048},    {7999, 55, 48000, 1, 2048},
        {384001, 55, 48000, 1, 2048},  {8000, 55, 8000, 1, 1024},     {384000, 55, 384000, 8, 2048},
        {55000, 55, 55000, 1, 4096},   {88200, 55, 88200, 2, 2048},   {192000, 55, 192000, 4, 2048},
        {48000, 20, 48000, 1, 8192},   {8000, 200, 8000, 1, 1024},
    };
    for (const auto& r : rows) {
        TunerConfig cfg = ws::tuner::kDefaultConfig;
        cfg.lowest_hz = r.lowest;
        if (r.lowest * 1.5 >= cfg.highest_hz) cfg.highest_hz = 5000;
        PitchAnalyser a(&cfg);
        a.reset(r.rate);
        SCOPED_TRACE(testing::Message() << r.rate << " Hz, lowest " << r.lowest);
        EXPECT_EQ(a.sample_rate(), r.used);
        EXPECT_EQ(a.decimation(), r.d);
        EXPECT_EQ(a.window(), r.n);
        EXPECT_EQ(a.hop(), r.n / 2);
    }
}

// Tones of known pitch at every supported kind of rate read as their note,
// within a cent, in tune.
TEST(PitchAnalyser, TonesReadAsTheirNoteAcrossRates) {
    for (double rate : {8000.0, 22050.0, 44100.0, 48000.0, 96000.0, 192000.0}) {
        for (int note : {40, 47, 57, 69, 81}) {  // E2 .. A5
            const double f = t::midi_hz(note);
            PitchAnalyser a(nullptr);
            a.reset(rate);
            const auto x = t::string_tone(f, rate, static_cast<size_t>(rate * 0.6));
            a.push(x.data(), x.size());
            TunerReading r{};
            ASSERT_TRUE(a.current_reading(&r));
            SCOPED_TRACE(testing::Message() << rate << " Hz, note " << note);
            EXPECT_EQ(r.note, note);
            // The parabola through three NSDF values is exact only in the
            // limit; periods shorter than 20 samples leave a few cents.
            const double tolerance = rate / a.decimation() / f < 20 ? 5.0 : 1.0;
            EXPECT_NEAR(r.cents, 0.0, tolerance);
            EXPECT_EQ(r.state, tn_state_in_tune);
        }
    }
}

TEST(PitchAnalyser, PushingInPiecesEqualsPushingAtOnce) {
    const auto x = t::concat({t::string_tone(196, 96000, 50000), t::string_tone(247, 96000, 50000)});
    PitchAnalyser whole(nullptr), pieces(nullptr);
    whole.reset(96000);
    pieces.reset(96000);
    whole.push(x.data(), x.size());
    // Odd piece sizes exercise the decimation carry between pushes; the
    // levels differ (they are per chunk) but the pitch path must not.
    for (size_t i = 0; i < x.size();) {
        const size_t n = std::min<size_t>(777, x.size() - i);
        pieces.push(x.data() + i, n);
        i += n;
    }
    TunerReading a{}, b{};
    ASSERT_TRUE(whole.current_reading(&a));
    ASSERT_TRUE(pieces.current_reading(&b));
    EXPECT_EQ(a.frame_count, b.frame_count);
    EXPECT_EQ(a.time_us, b.time_us);
    EXPECT_EQ(a.frequency_hz, b.frequency_hz);
    EXPECT_EQ(a.cents, b.cents);
    EXPECT_EQ(a.note, 59);
}

TEST(PitchAnalyser, NonFiniteSamplesAreSilenceAndLoudOnesAreClampedAndFlagged) {
    PitchAnalyser a(nullptr);
    a.reset(48000);
    std::vector<float> x(2048, std::numeric_limits<float>::quiet_NaN());
    a.push(x.data(), x.size());
    TunerReading r{};
    ASSERT_TRUE(a.current_reading(&r));
    EXPECT_EQ(r.peak, 0.0);
    EXPECT_EQ(r.level_db, -120.0);
    EXPECT_EQ(r.clipped, 0u);
    EXPECT_EQ(r.state, tn_state_silent);

    // A constant 10 is metered as 4: peak reported as 1, level 20 log10(4).
    a.reset(48000);
    std::fill(x.begin(), x.end(), 10.0f);
    a.push(x.data(), x.size());
    ASSERT_TRUE(a.current_reading(&r));
    EXPECT_EQ(r.peak, 1.0);
    EXPECT_NEAR(r.level_db, 20.0 * std::log10(4.0), 1e-9);
    EXPECT_EQ(r.clipped, 1u);

    // One sample of exactly 1.0 among quiet ones sets the clip flag.
    a.reset(48000);
    std::fill(x.begin(), x.end(), 0.1f);
    x[1000] = 1.0f;
    a.push(x.data(), x.size());
    ASSERT_TRUE(a.current_reading(&r));
    EXPECT_EQ(r.clipped, 1u);
    EXPECT_EQ(r.peak, 1.0);
}

// All frames completed by one chunk report that chunk's levels; the next
// chunk's frames report only the new input.
TEST(PitchAnalyser, LevelsArePerChunkOfInput) {
    PitchAnalyser a(nullptr);
    a.reset(48000);
    std::vector<float> loud(4096, 0.5f), quiet(1024, 0.05f);
    a.push(loud.data(), loud.size());  // completes frames 1..3
    TunerReading r{};
    ASSERT_TRUE(a.current_reading(&r));
    EXPECT_EQ(r.frame_count, 3u);
    EXPECT_NEAR(r.level_db, 20.0 * std::log10(0.5), 1e-6);
    EXPECT_EQ(r.peak, 0.5);
    a.push(quiet.data(), quiet.size());  // completes frame 4 only
    ASSERT_TRUE(a.current_reading(&r));
    EXPECT_EQ(r.frame_count, 4u);
    EXPECT_NEAR(r.level_db, 20.0 * std::log10(0.05), 1e-5);
    EXPECT_NEAR(r.peak, 0.05, 1e-7);
}

// The band edges: each 58 Hz high-pass section has Q 0.707 and so passes
// 0.707 at its corner; two of them give 0.5. The 1800 Hz low-pass gives 0.707.
double chain_gain(double f, double rate) {
    PitchAnalyser a(nullptr);
    a.reset(rate);
    ws::tuner::Biquad chain[3] = {a.filters()[0], a.filters()[1], a.filters()[2]};
    auto x = t::sine(f, rate, static_cast<size_t>(rate));
    for (auto& b : chain) b.run(x.data(), x.size());
    double peak = 0;
    for (size_t i = x.size() / 2; i < x.size(); ++i) peak = std::max(peak, double(std::fabs(x[i])));
    return peak / 0.5;
}

TEST(PitchAnalyser, FilterChainPassesTheTuningBand) {
    for (double rate : {8000.0, 44100.0, 48000.0}) {
        SCOPED_TRACE(rate);
        EXPECT_NEAR(chain_gain(58.0, rate), 0.5, 0.01);
        EXPECT_NEAR(chain_gain(400.0, rate), 1.0, 0.03);
        EXPECT_LT(chain_gain(20.0, rate), 0.07);
        if (rate > 8000) {
            EXPECT_NEAR(chain_gain(1800.0, rate), 0.707, 0.01);
        }
    }
}

// The analyser's own filters remove what the detector must not see: a strong
// 30 Hz hum under a quiet tone does not hide the tone.
TEST(PitchAnalyser, HumBelowTheBandIsFilteredOut) {
    PitchAnalyser a(nullptr);
    a.reset(48000);
    auto x = t::sine(30.0, 48000, 48000, 0.8);
    const auto tone = t::string_tone(t::midi_hz(57), 48000, 48000);  // A3
    for (size_t i = 0; i < x.size(); ++i) x[i] += 0.3f * tone[i];
    a.push(x.data(), x.size());
    TunerReading r{};
    ASSERT_TRUE(a.current_reading(&r));
    EXPECT_EQ(r.note, 57);
}

TEST(PitchAnalyser, ConfigureResetsOnlyForANewRange) {
    PitchAnalyser a(nullptr);
    a.reset(48000);
    const auto x = t::sine(441.0, 48000, 48000);
    a.push(x.data(), x.size());
    TunerReading r{}, again{};
    ASSERT_TRUE(a.current_reading(&r));
    ASSERT_NE(r.strobe_phase, 0.0);
    ASSERT_TRUE(a.current_reading(&again));  // reading does not consume
    EXPECT_EQ(again.frame_count, r.frame_count);
    EXPECT_FALSE(a.current_reading(nullptr));

    TunerConfig cfg = ws::tuner::kDefaultConfig;
    cfg.tolerance_cents = 1.0;  // takes effect at the next frame, no reset
    a.configure(&cfg);
    EXPECT_TRUE(a.current_reading(&r));

    cfg.fixed_note = 69;  // only the strobe restarts
    a.configure(&cfg);
    a.push(x.data(), 1024);
    ASSERT_TRUE(a.current_reading(&r));
    EXPECT_NEAR(r.strobe_phase, 2 * t::kPi * 1.0 * 1024 / 48000, 5e-3);

    cfg.lowest_hz = 200;  // a new range resets: no reading until a new window
    a.configure(&cfg);
    EXPECT_FALSE(a.current_reading(&r));
    EXPECT_EQ(a.window(), 1024u);
}

}  // namespace
