// Range checks on everything that reaches the metronome from outside: every
// field of the configuration record, and the tempo and gain commands.
#include <gtest/gtest.h>

#include <cmath>
#include <cstring>
#include <functional>
#include <limits>
#include <random>

#include "click_track.hpp"
#include "metronome/config.hpp"
#include "metronome/core.hpp"

namespace {

using ws::metronome::sanitise;
constexpr double kNaN = std::numeric_limits<double>::quiet_NaN();
constexpr double kInf = std::numeric_limits<double>::infinity();

TEST(MetronomeConfigCheck, AllZeroRecordBecomesTheDocumentedDefaults) {
    const MetronomeConfig c = sanitise(MetronomeConfig{});
    EXPECT_EQ(c.tempo_ubpm, 10000000);
    EXPECT_EQ(c.beats_per_bar, 1);
    EXPECT_EQ(c.subdivisions, 1);
    EXPECT_EQ(c.beat_divisor, 1);
    EXPECT_EQ(c.beat_multiplier, 1);
    EXPECT_EQ(c.swing, 0.5);
    EXPECT_EQ(c.master_gain, 0.0);
    EXPECT_EQ(c.accent_gain, 0.0);
    EXPECT_EQ(c.beat_gain, 0.0);
    EXPECT_EQ(c.subdivision_gain, 0.0);
    EXPECT_EQ(c.sound, 0);
    EXPECT_EQ(c.count_in_bars, 0);
    EXPECT_EQ(c.play_bars, 0);
    EXPECT_EQ(c.mute_bars, 0);
    EXPECT_EQ(c.drop_probability, 0.0);
    EXPECT_EQ(c.random_seed, 0u);
    EXPECT_EQ(c.poly_pulses, 0);
    EXPECT_EQ(c.poly_sound, 0);  // in range, so it stays: the fallback 5 is only for bad values
    EXPECT_EQ(c.poly_gain, 0.0);
    EXPECT_EQ(c.ramp_mode, 0);
    EXPECT_EQ(c.ramp_target_ubpm, 10000000);
    EXPECT_EQ(c.ramp_step_ubpm, 0);
    EXPECT_EQ(c.ramp_interval_bars, 1);
    for (uint8_t level : c.accent_pattern) EXPECT_EQ(level, 0);
}

// One row per field and value: set it on a valid record, check what comes out.
struct IntRow {
    const char* name;
    std::function<void(MetronomeConfig&, int64_t)> set;
    std::function<int64_t(const MetronomeConfig&)> get;
    int64_t in, out;
};

#define FIELD(f) #f, [](MetronomeConfig& c, int64_t v) { c.f = static_cast<decltype(c.f)>(v); }, \
                 [](const MetronomeConfig& c) { return static_cast<int64_t>(c.f); }

TEST(MetronomeConfigCheck, IntegerFieldsAreClampedOrReplaced) {
    constexpr int64_t i64min = std::numeric_limits<int64_t>::min();
    constexpr int64_t i64max = std::numeric_limits<int64_t>::max();
    constexpr int64_t i32min = std::numeric_limits<int32_t>::min();
    constexpr int64_t i32max = std::numeric_limits<int32_t>::max();
    const IntRow rows[] = {
        {FIELD(tempo_ubpm), 9999999, 10000000},      {FIELD(tempo_ubpm), 400000001, 400000000},
        {FIELD(tempo_ubpm), i64min, 10000000},       {FIELD(tempo_ubpm), i64max, 400000000},
        {FIELD(tempo_ubpm), 123456789, 123456789},
        {FIELD(beats_per_bar), 0, 1},                {FIELD(beats_per_bar), 33, 32},
        {FIELD(beats_per_bar), i32min, 1},           {FIELD(beats_per_bar), 7, 7},
        {FIELD(subdivisions), -3, 1},                {FIELD(subdivisions), 13, 12},
        {FIELD(beat_divisor), 0, 1},                 {FIELD(beat_divisor), 9, 8},
        {FIELD(beat_multiplier), 0, 1},              {FIELD(beat_multiplier), 3, 2},
        {FIELD(sound), -1, 0},                       {FIELD(sound), 6, 0},
        {FIELD(sound), 5, 5},                        {FIELD(sound), i32max, 0},
        {FIELD(count_in_bars), -1, 0},               {FIELD(count_in_bars), 9, 8},
        {FIELD(play_bars), -1, 0},                   {FIELD(play_bars), 65, 64},
        {FIELD(mute_bars), -1, 0},                   {FIELD(mute_bars), 65, 64},
        {FIELD(random_seed), 0xFFFFFFFF, 0xFFFFFFFF},
        {FIELD(poly_pulses), -1, 0},                 {FIELD(poly_pulses), 33, 32},
        {FIELD(poly_sound), -1, 5},                  {FIELD(poly_sound), 6, 5},
        {FIELD(poly_sound), 0, 0},                   {FIELD(poly_sound), 3, 3},
        {FIELD(ramp_mode), -1, 0},                   {FIELD(ramp_mode), 3, 0},
        {FIELD(ramp_mode), 2, 2},
        {FIELD(ramp_target_ubpm), 0, 10000000},      {FIELD(ramp_target_ubpm), i64max, 400000000},
        {FIELD(ramp_step_ubpm), -1, 0},              {FIELD(ramp_step_ubpm), 100000001, 100000000},
        {FIELD(ramp_step_ubpm), i64min, 0},
        {FIELD(ramp_interval_bars), 0, 1},           {FIELD(ramp_interval_bars), 129, 128},
    };
    for (const auto& r : rows) {
        MetronomeConfig c = ws::test::base_config();
        r.set(c, r.in);
        SCOPED_TRACE(std::string(r.name) + " = " + std::to_string(r.in));
        EXPECT_EQ(r.get(sanitise(c)), r.out);
    }
}

TEST(MetronomeConfigCheck, MutingWithNothingToPlayPlaysOneBar) {
    struct Row { int32_t play_in, mute_in, play_out, mute_out; };
    const Row rows[] = {{0, 3, 1, 3}, {-5, 1, 1, 1}, {0, 0, 0, 0}, {2, 0, 2, 0}, {0, 99, 1, 64}, {3, -2, 3, 0}};
    for (const auto& r : rows) {
        MetronomeConfig c = ws::test::base_config();
        c.play_bars = r.play_in;
        c.mute_bars = r.mute_in;
        const MetronomeConfig s = sanitise(c);
        EXPECT_EQ(s.play_bars, r.play_out) << r.play_in << "/" << r.mute_in;
        EXPECT_EQ(s.mute_bars, r.mute_out) << r.play_in << "/" << r.mute_in;
    }
}

TEST(MetronomeConfigCheck, FloatFieldsAreClampedAndNonFiniteReplaced) {
    double MetronomeConfig::*const unit_fields[] = {
        &MetronomeConfig::master_gain, &MetronomeConfig::accent_gain, &MetronomeConfig::beat_gain,
        &MetronomeConfig::subdivision_gain, &MetronomeConfig::drop_probability, &MetronomeConfig::poly_gain};
    struct Row { double in, out; };
    const Row unit_rows[] = {{kNaN, 0.0}, {kInf, 0.0}, {-kInf, 0.0}, {-0.25, 0.0}, {1.5, 1.0},
                             {0.25, 0.25}, {1.0, 1.0}, {0.0, 0.0}, {1e300, 1.0}, {-1e-300, 0.0}};
    for (auto field : unit_fields) {
        for (const auto& r : unit_rows) {
            MetronomeConfig c = ws::test::base_config();
            c.*field = r.in;
            EXPECT_EQ(sanitise(c).*field, r.out) << r.in;
        }
    }
    const Row swing_rows[] = {{kNaN, 0.5}, {kInf, 0.5}, {-kInf, 0.5}, {0.2, 0.5},
                              {0.9, 0.75}, {0.66, 0.66}, {0.75, 0.75}};
    for (const auto& r : swing_rows) {
        MetronomeConfig c = ws::test::base_config();
        c.swing = r.in;
        EXPECT_EQ(sanitise(c).swing, r.out) << r.in;
    }
}

TEST(MetronomeConfigCheck, PatternLevelsAboveAccentBecomeNormalAndReservedBytesAreKept) {
    MetronomeConfig c = ws::test::base_config();
    for (int i = 0; i < 32; ++i) c.accent_pattern[i] = static_cast<uint8_t>(i * 8);  // 0, 8, ..., 248
    c.accent_pattern[1] = 4;
    c.accent_pattern[2] = 5;
    std::memset(c.reserved0, 0xAB, sizeof c.reserved0);
    std::memset(c.reserved1, 0xCD, sizeof c.reserved1);
    std::memset(c.reserved2, 0xEF, sizeof c.reserved2);
    const MetronomeConfig s = sanitise(c);
    EXPECT_EQ(s.accent_pattern[0], 0);
    EXPECT_EQ(s.accent_pattern[1], 4);
    EXPECT_EQ(s.accent_pattern[2], 2);
    for (int i = 3; i < 32; ++i) EXPECT_EQ(s.accent_pattern[i], 2) << i;
    EXPECT_EQ(std::memcmp(s.reserved0, c.reserved0, 4), 0);
    EXPECT_EQ(std::memcmp(s.reserved1, c.reserved1, 4), 0);
    EXPECT_EQ(std::memcmp(s.reserved2, c.reserved2, 4), 0);
}

TEST(MetronomeConfigCheck, CheckingIsIdempotentOnArbitraryBytes) {
    std::mt19937 gen(42);
    for (int trial = 0; trial < 2000; ++trial) {
        unsigned char bytes[sizeof(MetronomeConfig)];
        for (auto& b : bytes) b = static_cast<unsigned char>(gen());
        MetronomeConfig c;
        std::memcpy(&c, bytes, sizeof c);
        const MetronomeConfig once = sanitise(c);
        const MetronomeConfig twice = sanitise(once);
        ASSERT_EQ(std::memcmp(&once, &twice, sizeof once), 0) << trial;
        ASSERT_GE(once.tempo_ubpm, 10000000);
        ASSERT_LE(once.tempo_ubpm, 400000000);
        ASSERT_TRUE(once.swing >= 0.5 && once.swing <= 0.75);
    }
}

TEST(MetronomeCommandCheck, TempoAndGainCommandsAreClamped) {
    struct TempoRow { int64_t in, out; };
    const TempoRow tempos[] = {{0, 10000000}, {-1, 10000000}, {std::numeric_limits<int64_t>::min(), 10000000},
                               {std::numeric_limits<int64_t>::max(), 400000000}, {90500000, 90500000}};
    for (const auto& r : tempos) {
        ws::metronome::MetronomeCore core;
        core.start(ws::test::base_config());
        core.set_tempo(r.in);
        float block[64];
        core.render(block, 64, 1);
        EXPECT_EQ(core.tempo_ubpm(), r.out) << r.in;
        EXPECT_EQ(core.active_config().tempo_ubpm, r.out) << r.in;
        EXPECT_EQ(ws::test::snapshot(core).tempo_ubpm, r.out) << r.in;
    }
    struct GainRow { double in; float out; };
    const GainRow gains[] = {{kNaN, 0.0f}, {kInf, 0.0f}, {-kInf, 0.0f},
                             {-0.5, 0.0f}, {2.0, 1.0f},  {0.25, 0.25f}};
    for (const auto& r : gains) {
        ws::metronome::MetronomeCore core;
        core.start(ws::test::base_config());
        core.set_master_gain(r.in);
        float block[64];
        core.render(block, 64, 1);
        EXPECT_EQ(core.master_gain(), r.out) << r.in;
        // The configuration keeps its own value; only the mix follows the command.
        EXPECT_EQ(core.active_config().master_gain, 1.0) << r.in;
    }
}

TEST(MetronomeCommandCheck, PushedConfigurationsAreCheckedByTheCore) {
    ws::metronome::MetronomeCore core;
    MetronomeConfig wild{};
    std::memset(&wild, 0xFF, sizeof wild);  // every integer -1, every double NaN
    core.start(wild);
    float block[64];
    core.render(block, 64, 1);
    MetronomeConfig expect = sanitise(wild);
    EXPECT_EQ(std::memcmp(&core.active_config(), &expect, sizeof expect), 0);
    EXPECT_EQ(core.tempo_ubpm(), 10000000);
}

}  // namespace
