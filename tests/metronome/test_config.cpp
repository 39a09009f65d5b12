// Range checks on everything that reaches the metronome from outside: the
// documented range of each field at and beyond its ends, the replacement
// rules that are not plain clamps, and the tempo and gain commands.
#include <gtest/gtest.h>

#include <cstring>
#include <limits>

#include "click_track.hpp"
#include "metronome/config.hpp"
#include "metronome/core.hpp"

namespace {

using ws::metronome::sanitise;
constexpr double kNaN = std::numeric_limits<double>::quiet_NaN();
constexpr double kInf = std::numeric_limits<double>::infinity();

template <class T>
T checked(T MetronomeConfig::*field, T value) {
    MetronomeConfig c = ws::test::base_config();
    c.*field = value;
    return sanitise(c).*field;
}

TEST(MetronomeConfigCheck, ClampedFieldsKeepTheirEndsAndClampBeyond) {
    struct Row { int32_t MetronomeConfig::*field; int32_t lo, hi; };
    const Row rows[] = {{&MetronomeConfig::beats_per_bar, 1, 32}, {&MetronomeConfig::subdivisions, 1, 12},
                        {&MetronomeConfig::beat_divisor, 1, 8},   {&MetronomeConfig::beat_multiplier, 1, 2},
                        {&MetronomeConfig::count_in_bars, 0, 8},  {&MetronomeConfig::play_bars, 0, 64},
                        {&MetronomeConfig::poly_pulses, 0, 32},   {&MetronomeConfig::ramp_interval_bars, 1, 128}};
    for (const Row& r : rows) {
        for (int32_t v : {r.lo, r.hi}) EXPECT_EQ(checked(r.field, v), v);
        EXPECT_EQ(checked(r.field, r.lo - 1), r.lo) << r.lo;
        EXPECT_EQ(checked(r.field, r.hi + 1), r.hi) << r.hi;
        EXPECT_EQ(checked(r.field, std::numeric_limits<int32_t>::min()), r.lo) << r.lo;
    }
    for (auto field : {&MetronomeConfig::tempo_ubpm, &MetronomeConfig::ramp_target_ubpm}) {
        EXPECT_EQ(checked(field, int64_t{MN_TEMPO_MIN_UBPM - 1}), MN_TEMPO_MIN_UBPM);
        EXPECT_EQ(checked(field, int64_t{MN_TEMPO_MAX_UBPM + 1}), MN_TEMPO_MAX_UBPM);
        EXPECT_EQ(checked(field, std::numeric_limits<int64_t>::max()), MN_TEMPO_MAX_UBPM);
        EXPECT_EQ(checked(field, int64_t{123456789}), 123456789);
    }
    EXPECT_EQ(checked(&MetronomeConfig::ramp_step_ubpm, int64_t{-1}), 0);
    EXPECT_EQ(checked(&MetronomeConfig::ramp_step_ubpm, int64_t{100000001}), 100000000);
}

TEST(MetronomeConfigCheck, ReplacedFieldsAndTheGapTrainerRule) {
    // Sounds out of range become 0, second-rhythm sounds 5, ramp modes 0.
    struct Row { int32_t in, sound, poly_sound, ramp_mode; };
    const Row rows[] = {{-1, 0, 5, 0}, {0, 0, 0, 0}, {2, 2, 2, 2}, {3, 3, 3, 0}, {5, 5, 5, 0}, {6, 0, 5, 0}};
    for (const Row& r : rows) {
        EXPECT_EQ(checked(&MetronomeConfig::sound, r.in), r.sound) << r.in;
        EXPECT_EQ(checked(&MetronomeConfig::poly_sound, r.in), r.poly_sound) << r.in;
        EXPECT_EQ(checked(&MetronomeConfig::ramp_mode, r.in), r.ramp_mode) << r.in;
    }
    // Muting with nothing to play plays one bar.
    struct Bars { int32_t play_in, mute_in, play_out, mute_out; };
    for (const Bars& b : {Bars{0, 3, 1, 3}, Bars{-5, 1, 1, 1}, Bars{0, 0, 0, 0}, Bars{0, 99, 1, 64}, Bars{3, -2, 3, 0}}) {
        MetronomeConfig c = ws::test::base_config();
        c.play_bars = b.play_in;
        c.mute_bars = b.mute_in;
        const MetronomeConfig s = sanitise(c);
        EXPECT_EQ(s.play_bars, b.play_out) << b.play_in << "/" << b.mute_in;
        EXPECT_EQ(s.mute_bars, b.mute_out) << b.play_in << "/" << b.mute_in;
    }
}

TEST(MetronomeConfigCheck, FloatFieldsAreClampedAndNonFiniteReplaced) {
    struct Row { double in, out; };
    for (auto field : {&MetronomeConfig::master_gain, &MetronomeConfig::accent_gain, &MetronomeConfig::beat_gain,
                       &MetronomeConfig::subdivision_gain, &MetronomeConfig::drop_probability,
                       &MetronomeConfig::poly_gain}) {
        for (const Row& r : {Row{kNaN, 0.0}, Row{kInf, 0.0}, Row{-kInf, 0.0}, Row{-0.25, 0.0}, Row{1.5, 1.0},
                             Row{0.25, 0.25}, Row{1.0, 1.0}}) {
            EXPECT_EQ(checked(field, r.in), r.out) << r.in;
        }
    }
    for (const Row& r : {Row{kNaN, 0.5}, Row{-kInf, 0.5}, Row{0.2, 0.5}, Row{0.9, 0.75}, Row{0.66, 0.66}, Row{0.75, 0.75}}) {
        EXPECT_EQ(checked(&MetronomeConfig::swing, r.in), r.out) << r.in;
    }
}

TEST(MetronomeConfigCheck, PatternLevelsAboveAccentBecomeNormalAndReservedBytesAreKept) {
    MetronomeConfig c = ws::test::base_config();
    for (int i = 0; i < 32; ++i) c.accent_pattern[i] = static_cast<uint8_t>(i);
    std::memset(c.reserved0, 0xAB, sizeof c.reserved0);
    std::memset(c.reserved2, 0xEF, sizeof c.reserved2);
    const MetronomeConfig s = sanitise(c);
    for (int i = 0; i < 32; ++i) EXPECT_EQ(s.accent_pattern[i], i <= mn_level_accent ? i : mn_level_normal) << i;
    EXPECT_EQ(std::memcmp(s.reserved0, c.reserved0, sizeof c.reserved0), 0);
    EXPECT_EQ(std::memcmp(s.reserved2, c.reserved2, sizeof c.reserved2), 0);
}

// Tempo and gain commands are clamped, and a configuration pushed through the
// core is checked whatever its bytes.
TEST(MetronomeCommandCheck, TempoAndGainCommandsAndPushedConfigurationsAreChecked) {
    struct Row { int64_t tempo_in, tempo_out; double gain_in; float gain_out; };
    const Row rows[] = {{-1, MN_TEMPO_MIN_UBPM, kNaN, 0.0f},
                        {std::numeric_limits<int64_t>::max(), MN_TEMPO_MAX_UBPM, -0.5, 0.0f},
                        {90500000, 90500000, 2.0, 1.0f}, {90500000, 90500000, 0.25, 0.25f}};
    float block[64];
    for (const Row& r : rows) {
        ws::metronome::MetronomeCore core;
        core.start(ws::test::base_config());
        core.set_tempo(r.tempo_in);
        core.set_master_gain(r.gain_in);
        core.render(block, 64, 1);
        EXPECT_EQ(core.active_config().tempo_ubpm, r.tempo_out) << r.tempo_in;
        EXPECT_EQ(ws::test::snapshot(core).tempo_ubpm, r.tempo_out) << r.tempo_in;
        EXPECT_EQ(core.master_gain(), r.gain_out) << r.gain_in;
        // The configuration keeps its own value; only the mix follows the command.
        EXPECT_EQ(core.active_config().master_gain, 1.0) << r.gain_in;
    }
    ws::metronome::MetronomeCore core;
    MetronomeConfig wild;
    std::memset(&wild, 0xFF, sizeof wild);  // every integer -1, every double NaN
    core.start(wild);
    core.render(block, 64, 1);
    const MetronomeConfig expect = sanitise(wild);
    EXPECT_EQ(std::memcmp(&core.active_config(), &expect, sizeof expect), 0);
}

}  // namespace
