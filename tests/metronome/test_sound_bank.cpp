// Click synthesis: table lengths, the noise generator's values,
// the end fade, the rate check; then the voice pool's stealing rule, delayed
// starts across blocks, and the mixer's headroom and clip (the channel copies
// are checked through the offline export).
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

SoundBank bank_at(double rate) {
    SoundBank b;
    b.rebuild(rate);
    return b;
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
        {48000, 0, true, 1824},  {48000, 3, false, 1056},  // 38 ms; 22 ms of noise
        {48000, 3, true, 1344},  {44100, 0, false, 1675},  // 28 ms; 1675.8
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
    const double bad[] = {0.0, 7999.0, 384001.0, std::numeric_limits<double>::quiet_NaN(),
                          std::numeric_limits<double>::infinity()};
    for (double rate : bad) {
        ws::metronome::MetronomeCore core;
        core.prepare(rate);
        EXPECT_EQ(core.sample_rate(), 48000.0) << rate;
        EXPECT_EQ(core.sound_bank().table(0, false).length, 1824) << rate;
        float block[16];
        core.render(block, 16, 1);
        EXPECT_EQ(ws::test::snapshot(core).sample_rate, 48000) << rate;
    }
}

TEST(SoundBank, NoiseFollowsItsRecipeAndShortTablesFadeOverTheirWholeLength) {
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
    // Among equal positions the first in array order goes.
    VoicePool same;
    for (int i = 0; i < 24; ++i) same.trigger({t.data(), 1000}, 0.5, 0);
    for (int i = 0; i < 3; ++i) {
        same.trigger({t.data(), 1000}, 0.1, 5);
        EXPECT_EQ(same.voice(i).position, -5) << i;
    }
    EXPECT_EQ(same.voice(3).position, 0);
}

TEST(VoicePool, QuietOrEmptyTriggersAreIgnored) {
    const std::vector<float> t = ramp_table(10);
    VoicePool pool;
    pool.trigger({t.data(), 10}, 0.0001, 0);
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
}

}  // namespace
