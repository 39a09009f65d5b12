// The analysis chain: rates, windows, settings, the filters and the
// per-chunk metering, on tones of known pitch.
#include <gtest/gtest.h>

#include <cmath>
#include <limits>

#include "signals.hpp"
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
        EXPECT_TRUE(ws::tuner::same_config(ws::tuner::sanitise(&r.in), r.out))
            << r.in.a4_hz << " " << r.in.lowest_hz << " " << r.in.highest_hz;
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

// Pure and harmonic tones of known pitch over the range, at every supported
// kind of rate, read as their note within a cent, in tune, near clarity 1.
TEST(PitchAnalyser, TonesReadAsTheirNoteAcrossRates) {
    for (double rate : {8000.0, 22050.0, 44100.0, 48000.0, 96000.0, 192000.0}) {
        for (int note : {35, 40, 47, 57, 69, 81, 86}) {  // B1 .. D6
            for (int shape = 0; shape < 2; ++shape) {
                const double f = t::midi_hz(note);
                const size_t n = static_cast<size_t>(rate * 0.6);
                const auto x = shape == 0 ? t::sine(f, rate, n) : t::string_tone(f, rate, n);
                PitchAnalyser a(nullptr);
                a.reset(rate);
                a.push(x.data(), x.size());
                TunerReading r{};
                ASSERT_TRUE(a.current_reading(&r));
                SCOPED_TRACE(testing::Message() << rate << " Hz, note " << note << ", shape " << shape);
                EXPECT_EQ(r.note, note);
                // The parabola through three NSDF values is exact only in the
                // limit; periods shorter than 20 samples leave a few cents.
                EXPECT_NEAR(r.cents, 0.0, rate / a.decimation() / f < 20 ? 5.0 : 1.0);
                EXPECT_EQ(r.state, tn_state_in_tune);
                EXPECT_GE(r.clarity, 0.9);
                EXPECT_LE(r.clarity, 1.0 + 1e-9);
            }
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

// Levels are those of the input that completed the frames: a constant reads
// its own level; non-finite samples are silence; loud ones are metered
// clamped to 4 with the peak reported as 1; one sample of exactly 1.0 among
// quiet ones sets the clip flag; frames completed by a later chunk report
// only that chunk.
TEST(PitchAnalyser, LevelsAreThoseOfTheChunkThatCompletedTheFrames) {
    const float nan = std::numeric_limits<float>::quiet_NaN();
    struct Row { float fill, at_1000, then; uint64_t frames; double peak, level_db; uint32_t clipped; };
    const Row rows[] = {
        {nan, nan, 0, 3, 0.0, -120.0, 0},
        {10.0f, 10.0f, 0, 3, 1.0, 20.0 * std::log10(4.0), 1},
        {0.1f, 1.0f, 0, 3, 1.0, kNaN, 1},
        {0.5f, 0.5f, 0, 3, 0.5, 20.0 * std::log10(0.5), 0},
        {0.5f, 0.5f, 0.05f, 4, 0.05f, 20.0 * std::log10(double{0.05f}), 0},  // 1024 more: frame 4 only
    };
    for (const Row& row : rows) {
        PitchAnalyser a(nullptr);
        a.reset(48000);
        std::vector<float> x(4096, row.fill);  // completes frames 1..3
        x[1000] = row.at_1000;
        a.push(x.data(), x.size());
        x.assign(1024, row.then);
        if (row.then != 0) a.push(x.data(), x.size());
        TunerReading r{};
        ASSERT_TRUE(a.current_reading(&r));
        SCOPED_TRACE(testing::Message() << row.fill << " then " << row.then);
        EXPECT_EQ(r.frame_count, row.frames);
        EXPECT_EQ(r.peak, row.peak);
        if (!std::isnan(row.level_db)) {
            EXPECT_NEAR(r.level_db, row.level_db, 1e-9);
        }
        EXPECT_EQ(r.clipped, row.clipped);
        if (std::isnan(row.fill)) {
            EXPECT_EQ(r.state, tn_state_silent);
        }
    }
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
    const auto a3 = t::string_tone(t::midi_hz(57), 48000, 48000);
    const auto x = t::mix(t::sine(30.0, 48000, 48000, 0.8), a3, 0.3f);
    a.push(x.data(), x.size());
    TunerReading r{};
    ASSERT_TRUE(a.current_reading(&r));
    EXPECT_EQ(r.note, 57);  // A3
}

TEST(PitchAnalyser, ConfigureResetsOnlyForANewRange) {
    PitchAnalyser a(nullptr);
    a.reset(48000);
    const auto x = t::sine(441.0, 48000, 48000);
    a.push(x.data(), x.size());
    TunerReading r{}, again{};
    ASSERT_TRUE(a.current_reading(&r));
    ASSERT_NE(r.strobe_phase, 0.0);
    ASSERT_TRUE(a.current_reading(&again));  // taking does not consume
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
