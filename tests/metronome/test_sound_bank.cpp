// Click synthesis: table lengths, sample values from the generator formulas,
// the end fade, the rate check; then the voice pool's stealing rule, delayed
// starts across blocks, and the mixer's headroom and clip.
#include <gtest/gtest.h>

#include <cmath>
#include <limits>
#include <vector>

#include "click_track.hpp"
#include "metronome/core.hpp"
#include "metronome/sound_bank.hpp"
#include "metronome/voices.hpp"

namespace {

using ws::metronome::ClickTable;
using ws::metronome::SoundBank;
using ws::metronome::VoicePool;

constexpr double kPi = 3.14159265358979323846;

SoundBank bank_at(double rate) {
    SoundBank b;
    b.rebuild(rate);
    return b;
}

// The end fade's factor for sample i of an n-sample table: k / m, k counted from the end.
double fade(size_t i, size_t n) {
    const size_t m = std::min<size_t>(n, 64);
    const size_t k = n - 1 - i;
    return k < m ? static_cast<double>(k) / static_cast<double>(m) : 1.0;
}

uint32_t xorshift(uint32_t x) {
    x ^= x << 13;
    x ^= x >> 17;
    x ^= x << 5;
    return x;
}

// Noise burst sample i straight from the recipe: the generator restarts at 7.
double noise_value(double rate, size_t i, double decay, double amplitude) {
    uint32_t s = 7;
    for (size_t j = 0; j <= i; ++j) s = xorshift(s);
    const double u = static_cast<double>(s) / 4294967296.0;
    return std::exp(-(static_cast<double>(i) / rate) * decay) * amplitude * (2.0 * u - 1.0);
}

TEST(SoundBank, TableLengthsFollowDurationAndRate) {
    struct Row { double rate; int32_t sound; bool accent; int32_t length; };
    const Row rows[] = {
        {48000, 0, false, 1824}, {48000, 0, true, 1824},  // 38 ms
        {48000, 1, false, 2640}, {48000, 2, false, 960},  // 55 ms, 20 ms
        {48000, 2, true, 960},   {48000, 3, false, 1056},  // 22 ms of noise
        {48000, 3, true, 1344},  {48000, 4, false, 4080},  // 28 ms, 85 ms
        {48000, 5, false, 2160}, {48000, 5, true, 2160},   // 45 ms
        {44100, 0, false, 1675}, {44100, 2, false, 882},   // 1675.8 and 882 exactly
        {8000, 2, false, 160},   {384000, 4, true, 32640},
        {48000, -1, false, 1824}, {48000, 6, true, 1824},  // outside 0..5 is sound 0
    };
    for (const auto& r : rows) {
        const SoundBank bank = bank_at(r.rate);
        const ClickTable t = bank.table(r.sound, r.accent);
        EXPECT_EQ(t.length, r.length) << r.rate << " Hz, sound " << r.sound << (r.accent ? " accent" : "");
        ASSERT_NE(t.samples, nullptr);
        EXPECT_EQ(t.samples[t.length - 1], 0.0f);  // the fade ends on exact silence
    }
}

TEST(SoundBank, InvalidRatesRenderAt48k) {
    const double bad[] = {0.0, -48000.0, 7999.0, 384001.0, 400000.0,
                          std::numeric_limits<double>::quiet_NaN(), std::numeric_limits<double>::infinity()};
    for (double rate : bad) {
        ws::metronome::MetronomeCore core;
        core.prepare(rate);
        EXPECT_EQ(core.sample_rate(), 48000.0) << rate;
        EXPECT_EQ(core.sound_bank().table(0, false).length, 1824) << rate;
        float block[16];
        core.render(block, 16, 1);
        EXPECT_EQ(ws::test::snapshot(core).sample_rate, 48000) << rate;
    }
    ws::metronome::MetronomeCore core;
    core.prepare(44100.5);  // kept as given; the snapshot shows it rounded
    float block[16];
    core.render(block, 16, 1);
    EXPECT_EQ(core.sample_rate(), 44100.5);
    EXPECT_EQ(ws::test::snapshot(core).sample_rate, 44101);
    EXPECT_EQ(core.sound_bank().table(2, false).length, 882);  // floor(882.01)
}

TEST(SoundBank, TonesFollowTheirFormula) {
    const double rate = 48000;
    const SoundBank b = bank_at(rate);
    struct Row { int32_t sound; bool accent; double hz, decay, amp; int wave; };  // 0 sine, 1 triangle
    const Row rows[] = {
        {0, false, 820, 95, 0.9, 1}, {0, true, 1150, 95, 0.9, 1}, {1, false, 1000, 38, 0.85, 0},
        {1, true, 1500, 38, 0.85, 0}, {2, false, 2000, 130, 0.9, 0}, {2, true, 2800, 130, 0.9, 0},
    };
    for (const auto& r : rows) {
        const ClickTable t = b.table(r.sound, r.accent);
        const size_t n = static_cast<size_t>(t.length);
        for (size_t i : {size_t{0}, size_t{1}, size_t{7}, size_t{100}, n / 2, n - 40, n - 2}) {
            const double time = static_cast<double>(i) / rate;
            const double x = 2 * kPi * r.hz * time;
            // Triangle: asin(sin x) folds x into -pi/2..pi/2, a straight line between peaks.
            double folded = std::fmod(x + kPi / 2, 2 * kPi) - kPi / 2;
            if (folded > kPi / 2) folded = kPi - folded;
            const double w = r.wave == 0 ? std::sin(x) : folded * 2 / kPi;
            const double expect = std::exp(-time * r.decay) * r.amp * w * fade(i, n);
            EXPECT_NEAR(t.samples[i], expect, 2e-6) << "sound " << r.sound << " sample " << i;
        }
    }
}

TEST(SoundBank, SquaresNoiseAndTransientFollowTheirFormulas) {
    const double rate = 48000;
    const SoundBank b = bank_at(rate);
    // Sound 4: two squares that are both +1 at the start.
    const ClickTable sq = b.table(4, false);
    EXPECT_FLOAT_EQ(sq.samples[0], 0.6f);
    EXPECT_NEAR(sq.samples[1], 0.35 * std::exp(-26.0 / rate) + 0.25 * std::exp(-34.0 / rate), 1e-6);
    // 587 Hz is negative from half its period (40.9 samples) on, 880 Hz from 27.3.
    const double t30 = 30.0 / rate;
    EXPECT_NEAR(sq.samples[30], 0.35 * std::exp(-t30 * 26) - 0.25 * std::exp(-t30 * 34), 1e-6);
    const double t45 = 45.0 / rate;
    EXPECT_NEAR(sq.samples[45], -0.35 * std::exp(-t45 * 26) - 0.25 * std::exp(-t45 * 34), 1e-6);

    // Sound 3: the xorshift burst from state 7.
    const ClickTable noise = b.table(3, false);
    for (size_t i : {size_t{0}, size_t{1}, size_t{500}, size_t{1000}}) {
        EXPECT_NEAR(noise.samples[i], noise_value(rate, i, 130, 0.55) * fade(i, 1056), 1e-6) << i;
    }
    const ClickTable noise_accent = b.table(3, true);
    EXPECT_NEAR(noise_accent.samples[3], noise_value(rate, 3, 95, 0.7), 1e-6);

    // Sound 5: a tone with a faded 6 ms burst (288 samples) added at its start only.
    const ClickTable five = b.table(5, false);
    for (size_t i : {size_t{1}, size_t{100}, size_t{250}, size_t{287}, size_t{288}, size_t{1000}}) {
        const double time = static_cast<double>(i) / rate;
        double expect = std::exp(-time * 60) * 0.8 * std::sin(2 * kPi * 1850 * time);
        if (i < 288) expect += noise_value(rate, i, 300, 0.25) * fade(i, 288);
        EXPECT_NEAR(five.samples[i], expect, 2e-6) << i;
    }
}

TEST(SoundBank, ShortTablesAreFadedOverTheirWholeLength) {
    // 6 ms at 8 kHz is 48 samples, fewer than the 64 of the usual fade.
    const std::vector<float> raw = ws::metronome::noise_burst(8000, 6, 0, 1.0);
    ASSERT_EQ(raw.size(), 48u);
    for (size_t i = 0; i < raw.size(); ++i) {
        EXPECT_NEAR(raw[i], noise_value(8000, i, 0, 1.0) * static_cast<double>(47 - i) / 48.0, 1e-6) << i;
    }
    EXPECT_TRUE(ws::metronome::tone(8000, 440, 0.1, 0, ws::metronome::Waveform::sine, 1).empty());
}

// ---------------------------------------------------------------- voices

std::vector<float> ramp_table(int32_t n) {
    std::vector<float> t(static_cast<size_t>(n));
    for (int32_t i = 0; i < n; ++i) t[static_cast<size_t>(i)] = 0.001f * static_cast<float>(i + 1);
    return t;
}

TEST(VoicePool, ADelayedStartCarriesIntoTheNextBlock) {
    const std::vector<float> t = ramp_table(100);
    VoicePool pool;
    pool.trigger({t.data(), 100}, 1.0, 100);
    float block[64] = {};
    pool.mix(block, 64, 1, 1.0f / VoicePool::kHeadroom);
    for (float s : block) EXPECT_EQ(s, 0.0f);
    EXPECT_EQ(pool.voice(0).position, -36);
    float next[64] = {};
    pool.mix(next, 64, 1, 1.0f / VoicePool::kHeadroom);
    for (int i = 0; i < 36; ++i) EXPECT_EQ(next[i], 0.0f) << i;
    for (int i = 36; i < 64; ++i) EXPECT_NEAR(next[i], t[static_cast<size_t>(i - 36)], 1e-7) << i;
}

TEST(VoicePool, AVoiceEndsAtTheFirstBlockThatFindsItPastItsTable) {
    const std::vector<float> t = ramp_table(64);
    VoicePool pool;
    pool.trigger({t.data(), 64}, 1.0, 0);
    float block[64] = {};
    pool.mix(block, 64, 1, 1.0f);
    EXPECT_EQ(pool.active_count(), 1);  // ran out exactly at the block's end
    pool.mix(block, 64, 1, 1.0f);
    EXPECT_EQ(pool.active_count(), 0);
    pool.trigger({t.data(), 64}, 1.0, 10);
    float longer[100] = {};
    pool.mix(longer, 100, 1, 1.0f);
    EXPECT_EQ(pool.active_count(), 0);
}

TEST(VoicePool, TheTwentyFifthClickReplacesTheOldest) {
    const std::vector<float> t = ramp_table(100000);
    VoicePool pool;
    float scratch[8] = {};
    // Voices 0..23 started at blocks 0..23, one 1-frame block apart: voice 0 is oldest.
    for (int i = 0; i < 24; ++i) {
        pool.trigger({t.data(), 100000}, 0.5, 0);
        pool.mix(scratch, 1, 1, 0.0f);
    }
    ASSERT_EQ(pool.active_count(), 24);
    pool.trigger({t.data(), 100000}, 0.25, 0);
    EXPECT_EQ(pool.voice(0).position, 0);
    EXPECT_EQ(pool.voice(0).gain, 0.25f);
    pool.trigger({t.data(), 100000}, 0.25, 0);
    EXPECT_EQ(pool.voice(1).position, 0);  // the next oldest
}

TEST(VoicePool, AmongEqualPositionsTheFirstInArrayOrderIsReplaced) {
    const std::vector<float> t = ramp_table(1000);
    VoicePool pool;
    for (int i = 0; i < 24; ++i) pool.trigger({t.data(), 1000}, 0.5, 0);  // all started in the same frame
    for (int i = 0; i < 3; ++i) {
        pool.trigger({t.data(), 1000}, 0.1, 5);
        EXPECT_EQ(pool.voice(i).position, -5) << i;
    }
    EXPECT_EQ(pool.voice(3).position, 0);
}

TEST(VoicePool, QuietOrEmptyTriggersAreIgnored) {
    const std::vector<float> t = ramp_table(10);
    VoicePool pool;
    pool.trigger({t.data(), 10}, 0.0001, 0);
    pool.trigger({t.data(), 10}, -1.0, 0);
    pool.trigger({t.data(), 10}, std::numeric_limits<double>::quiet_NaN(), 0);
    pool.trigger({nullptr, 10}, 1.0, 0);
    pool.trigger({t.data(), 0}, 1.0, 0);
    EXPECT_EQ(pool.active_count(), 0);
    pool.trigger({t.data(), 10}, 0.00011, 0);
    EXPECT_EQ(pool.active_count(), 1);
}

TEST(VoicePool, LoudOverlapsSaturateAtExactlyFullScale) {
    const std::vector<float> up(256, 0.9f), down(256, -0.9f);
    VoicePool pool;
    for (int i = 0; i < 3; ++i) pool.trigger({up.data(), 256}, 1.0, 0);
    for (int i = 0; i < 3; ++i) pool.trigger({down.data(), 256}, 1.0, 128);
    std::vector<float> out(256 * 3, 0.0f);
    pool.mix(out.data(), 256, 3, 1.0f);
    for (size_t f = 0; f < 256; ++f) {
        // 3 x 0.9 x 0.85 = 2.3 before the clip; from frame 128 the two sets
        // cancel (up to float rounding).
        for (size_t c = 0; c < 3; ++c) {
            if (f < 128) ASSERT_EQ(out[f * 3 + c], 1.0f) << f;
            else ASSERT_NEAR(out[f * 3 + c], 0.0f, 1e-6f) << f;
        }
    }
    pool.silence_all();
    for (int i = 0; i < 3; ++i) pool.trigger({down.data(), 256}, 1.0, 0);
    std::vector<float> neg(256, 0.0f);
    pool.mix(neg.data(), 256, 1, 1.0f);
    for (float s : neg) ASSERT_EQ(s, -1.0f);
}

TEST(VoicePool, EveryChannelCarriesTheSameClickWithHeadroom) {
    const std::vector<float> t = ramp_table(50);
    for (uint32_t channels = 1; channels <= 8; ++channels) {
        VoicePool pool;
        pool.trigger({t.data(), 50}, 0.5, 3);
        std::vector<float> out(64 * channels, 0.0f);
        pool.mix(out.data(), 64, channels, 0.8f);
        for (size_t f = 0; f < 64; ++f) {
            const float expect = f >= 3 && f < 53 ? t[f - 3] * (0.5f * (0.8f * 0.85f)) : 0.0f;
            for (size_t c = 0; c < channels; ++c) {
                ASSERT_EQ(out[f * channels + c], expect) << channels << " " << f;
            }
        }
    }
}

}  // namespace
