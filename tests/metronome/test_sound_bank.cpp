// Click tables' lengths and end fade, the voice pool's stealing rule, and the
// mixer's headroom and clip. Where clicks start within a block is proven by
// the schedule tests; channel copies and bad rates through the offline export.
#include <gtest/gtest.h>

#include <vector>

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

// ---------------------------------------------------------------- voices

TEST(VoicePool, TheTwentyFifthClickReplacesTheOldest) {
    const std::vector<float> t(100000, 0.5f);
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
