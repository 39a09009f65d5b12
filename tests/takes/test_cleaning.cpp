// Leak removal against takes with a known answer (take_scenes.hpp): music
// through a room with a decaying tail, a player with rests, noise, 16 bits;
// the pieces (resampler, reader, solver) against answers known by arithmetic.
#include <gtest/gtest.h>

#include <cmath>
#include <vector>

#include "take_scenes.hpp"
#include "files.hpp"
#include "signals.hpp"
#include "takes/cleaning.hpp"

namespace {

namespace b = ws::bench;
using ws::takes::clean_take;
using ws::takes::CleanReport;
using ws::takes::ReferenceReader;

constexpr double kRate = 44100;

TEST(CatmullRom, PassesThroughSamplesAndFollowsStraightLines) {
    std::vector<float> ramp(64);
    for (size_t i = 0; i < ramp.size(); ++i) ramp[i] = 0.25f + 0.01f * static_cast<float>(i);
    for (double x : {1.0, 5.25, 30.75, 61.0}) {
        EXPECT_NEAR(ws::takes::catmull_rom(ramp.data(), ramp.size(), x), 0.25 + 0.01 * x, 1e-6) << x;
    }
    const std::vector<float> spikes = {0.0f, 1.0f, 0.0f, -2.0f, 0.0f};
    // Halfway between 1 and 0 with neighbours 0 and -2: (-p0 + 9p1 + 9p2 - p3) / 16.
    EXPECT_FLOAT_EQ(ws::takes::catmull_rom(spikes.data(), spikes.size(), 1.5), (9.0f + 2.0f) / 16.0f);
    for (double x : {-3.0, 6.0, 1e12, -1e12}) EXPECT_EQ(ws::takes::catmull_rom(spikes.data(), spikes.size(), x), 0.0f) << x;
}

TEST(ReferenceReaderTest, ReadsSamplesOrZerosAndResamples) {
    const std::vector<float> a = {1, 2, 3, 4, 5};
    std::vector<float> out(9);
    for (bool resample : {false, true}) {  // at scale 1 the resampler reads the samples
        ReferenceReader(a.data(), a.size(), 100, 1.0, resample).read(-2, out.size(), out.data());
        EXPECT_EQ(out, (std::vector<float>{0, 0, 1, 2, 3, 4, 5, 0, 0}));
    }
    // Scale 0.5 about take position 0: index q reads (q + base) / 2 - base.
    const std::vector<float> line = {0, 1, 2, 3, 4, 5, 6, 7, 8, 9, 10};
    EXPECT_FLOAT_EQ(ReferenceReader(line.data(), line.size(), -4, 0.5, true).at(9), 6.5f);
}

// Autocorrelation 0.6^|k|: a well-conditioned Toeplitz system whose
// solution is chosen first; a prior that is 1 on its taps does not bend it.
TEST(LeakFilterSolve, RecoversAKnownFilter) {
    const size_t n = 4096;
    std::vector<double> autoc(n), h(n, 0.0), cross(n, 0.0);
    for (size_t k = 0; k < n; ++k) autoc[k] = 1000.0 * std::pow(0.6, static_cast<double>(k));
    h[0] = 0.3, h[256] = 0.5, h[300] = -0.2, h[4095] = 0.05;
    for (size_t i = 0; i < n; ++i) {
        for (size_t j = 0; j < n; ++j) cross[i] += autoc[i > j ? i - j : j - i] * h[j];
    }
    const auto solved = ws::takes::solve_leak_filter(autoc, cross, std::vector<double>(n, 1.0), 1e-9, 200);
    for (size_t k = 0; k < n; ++k) EXPECT_NEAR(solved[k], h[k], 1e-6) << k;
}

b::SceneSetup setup(double seconds, double rt60, double room_seconds, double musician_db) {
    b::SceneSetup s;
    s.seconds = seconds;
    s.rt60 = rt60;
    s.room_seconds = room_seconds;
    s.musician_db = musician_db;
    return s;
}

struct Cleaned {
    std::vector<float> out;
    CleanReport report;
    b::Outcome outcome;
};

Cleaned clean(const b::Scene& sc, int64_t lag) {
    Cleaned c{sc.take, {}, {}};
    EXPECT_TRUE(clean_take(sc.backing.data(), sc.backing.size(), c.out, lag, kRate, c.report));
    c.outcome = b::judge(sc, c.out);
    return c;
}

TEST(Cleaning, ALongRoomComesOutFarBelowWhatTheFirst2048TapsCouldReach) {
    WS_SKIP_UNDER_TSAN();
    // RT60 0.5 s, 0.7 s long, a quiet player. Even a filter that knew the
    // first 2048 taps exactly would leave the rest of the room in the take.
    b::SceneSetup s = setup(15, 0.5, 0.7, -20);
    const auto sc = b::make_scene(s);
    auto room = b::room(kRate, s.rt60, s.room_seconds, s.seed + 1);
    const auto whole = b::fast_convolve(sc.backing, room);
    std::fill(room.begin(), room.begin() + 2048, 0.0f);
    const auto tail = b::fast_convolve(sc.backing, room);
    const double short_filter_db = 10.0 * std::log10(b::energy(whole.data(), whole.size()) / b::energy(tail.data(), tail.size()));
    const Cleaned c = clean(sc, s.delay);
    EXPECT_GT(c.outcome.reduction_db, short_filter_db + 6.0) << short_filter_db;
    EXPECT_GT(c.report.taps, 0.5 * kRate);
    EXPECT_TRUE(c.report.changed);
}

TEST(Cleaning, AWeakLeakIsNeverMadeWorseAndNoLeakLeavesTheTakeAlone) {
    WS_SKIP_UNDER_TSAN();
    // 15 s has held-out runs to check against, 7 s has none.
    for (const double seconds : {15.0, 7.0}) {
        b::SceneSetup s = setup(seconds, 0.25, 0.35, 33);
        s.leak_rms = 0.25 * std::pow(10.0, -33.0 / 20.0);
        const auto weak = b::make_scene(s);
        const Cleaned c = clean(weak, s.delay);
        // Never more non-player energy than went in, the player untouched.
        EXPECT_GE(c.outcome.reduction_db, b::judge(weak, weak.take).reduction_db - 1e-9) << seconds;
        EXPECT_NEAR(c.outcome.gain_db, 0.0, 0.1) << seconds;

        s.leak_rms = 0.0;
        const auto none = b::make_scene(s);
        const Cleaned n = clean(none, s.delay);
        EXPECT_FALSE(n.report.changed) << seconds;
        EXPECT_EQ(n.out, none.take) << seconds;
    }
}

TEST(Cleaning, AJumpIsFoundAndBothStretchesAreCleaned) {
    WS_SKIP_UNDER_TSAN();
    b::SceneSetup s = setup(20, 0.25, 0.35, 0);
    s.jumps = {{0.4, 1504}};
    const auto sc = b::make_scene(s);
    const Cleaned c = clean(sc, s.delay + 3);  // a host's delay a little off
    ASSERT_EQ(c.report.stretches.size(), 2u);
    const auto& st = c.report.stretches;
    EXPECT_NEAR(static_cast<double>(st[0].delay), 1234.0, 1.0);
    EXPECT_NEAR(static_cast<double>(st[1].delay), 1234.0 + 1504.0, 1.0);
    EXPECT_NEAR(static_cast<double>(st[1].start), static_cast<double>(sc.jump_frames[0]), 0.01 * kRate);
    EXPECT_TRUE(st[0].cleaned && st[1].cleaned);
    // Both sides of the jump lose their leak.
    for (auto [from, to] : {std::pair<size_t, size_t>{0, static_cast<size_t>(st[0].end)},
                            std::pair<size_t, size_t>{static_cast<size_t>(st[1].start), sc.take.size()}}) {
        double leak = 0.0, left = 0.0;
        for (size_t i = from; i < to; ++i) {
            leak += static_cast<double>(sc.leak[i]) * sc.leak[i];
            const double d = static_cast<double>(c.out[i]) - sc.musician[i];
            left += d * d;
        }
        EXPECT_GT(10.0 * std::log10(leak / left), 10.0) << from;
    }
}

TEST(Cleaning, ADriftOfAHundredPpmIsCorrected) {
    WS_SKIP_UNDER_TSAN();
    // Corrected, it leaves about as much as the same take without drift.
    b::SceneSetup s = setup(12, 0.25, 0.35, -20);
    const Cleaned steady = clean(b::make_scene(s), s.delay);
    s.drift_ppm = 100;
    const Cleaned c = clean(b::make_scene(s), s.delay);
    EXPECT_NEAR(c.report.drift, 1e-4, 3e-6);
    EXPECT_EQ(c.report.stretches.size(), 1u);
    EXPECT_GT(c.outcome.reduction_db, steady.outcome.reduction_db - 3.0) << steady.outcome.reduction_db;
}

}  // namespace
