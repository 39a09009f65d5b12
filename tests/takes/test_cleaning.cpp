// Leak removal against takes built from physics: the reference through a
// known room at a known delay, under a musician and noise; drift made by
// playing the reference slower; the pieces (resampler, slope, solver,
// subtraction) against answers known by arithmetic.
#include <gtest/gtest.h>

#include <cmath>
#include <vector>

#include "take_signals.hpp"
#include "takes/cleaning.hpp"

namespace {

namespace s = ws::test::takes;
using ws::takes::clean_take;
using ws::takes::CleanReport;
using ws::takes::DriftPoint;
using ws::takes::FftTable;
using ws::takes::ReferenceReader;

constexpr double kRate = 44100;

TEST(CatmullRom, PassesThroughSamplesAndFollowsStraightLines) {
    std::vector<float> ramp(64);
    for (size_t i = 0; i < ramp.size(); ++i) ramp[i] = 0.25f + 0.01f * static_cast<float>(i);
    for (double x : {1.0, 5.0, 5.25, 17.5, 30.75, 61.0}) {
        EXPECT_NEAR(ws::takes::catmull_rom(ramp.data(), ramp.size(), x), 0.25 + 0.01 * x, 1e-6) << x;
    }
    const std::vector<float> spikes = {0.0f, 1.0f, 0.0f, -2.0f, 0.0f};
    for (size_t i = 0; i < spikes.size(); ++i) {
        EXPECT_EQ(ws::takes::catmull_rom(spikes.data(), spikes.size(), static_cast<double>(i)), spikes[i]);
    }
    // Halfway between 1 and 0 with neighbours 0 and -2: (-p0 + 9p1 + 9p2 - p3) / 16.
    EXPECT_FLOAT_EQ(ws::takes::catmull_rom(spikes.data(), spikes.size(), 1.5), (9.0f + 2.0f) / 16.0f);
    // Outside the signal everything reads as zero, also far away.
    for (double x : {-3.0, -1.5, 6.0, 1e12, -1e12}) {
        EXPECT_EQ(ws::takes::catmull_rom(spikes.data(), spikes.size(), x), 0.0f) << x;
    }
}

TEST(ReferenceReaderTest, ReadsSamplesOrZerosAndResamples) {
    const std::vector<float> a = {1, 2, 3, 4, 5};
    const ReferenceReader direct(a.data(), a.size(), 100, 1.0, false);
    std::vector<float> out(9);
    direct.read(-2, out.size(), out.data());
    EXPECT_EQ(out, (std::vector<float>{0, 0, 1, 2, 3, 4, 5, 0, 0}));
    direct.read(7, 2, out.data());
    EXPECT_EQ(out[0], 0.0f);
    // Resampling at scale 1 reads the samples themselves.
    const ReferenceReader same(a.data(), a.size(), 100, 1.0, true);
    same.read(-2, out.size(), out.data());
    EXPECT_EQ(out, (std::vector<float>{0, 0, 1, 2, 3, 4, 5, 0, 0}));
    // Scale 0.5 about take position 0: index q reads (q + base) / 2 - base.
    const std::vector<float> line = {0, 1, 2, 3, 4, 5, 6, 7, 8, 9, 10};
    const ReferenceReader half(line.data(), line.size(), -4, 0.5, true);
    EXPECT_FLOAT_EQ(half.at(10), 7.0f);  // (10 - 4) / 2 + 4
    EXPECT_FLOAT_EQ(half.at(9), 6.5f);
}

TEST(RobustSlope, MedianOfPairwiseSlopes) {
    using P = std::vector<DriftPoint>;
    EXPECT_EQ(ws::takes::robust_slope(P{}), 0.0);
    EXPECT_EQ(ws::takes::robust_slope(P{{0, 0}, {100, 1}}), 0.0);  // fewer than three
    EXPECT_DOUBLE_EQ(ws::takes::robust_slope(P{{0, 0}, {100, 1}, {200, 2}}), 0.01);
    // One wild point does not move the median.
    EXPECT_DOUBLE_EQ(ws::takes::robust_slope(P{{0, 1}, {100, 2}, {200, 3}, {300, 90}, {400, 5}}), 0.01);
    // Pairs at the same position are left out; none left gives 0.
    EXPECT_EQ(ws::takes::robust_slope(P{{5, 0}, {5, 1}, {5.5, 2}}), 0.0);
    // Even count: the upper of the two middle slopes.
    EXPECT_DOUBLE_EQ(ws::takes::robust_slope(P{{0, 0}, {10, 1}, {20, 4}, {30.5, 4}}), 3.0 / 20.5);
}

// Autocorrelation 0.6^|k| (a first-order process): the Toeplitz system is
// well conditioned, and a filter chosen first must come back from its
// right-hand side.
TEST(LeakFilterSolve, RecoversAKnownFilter) {
    const size_t n = ws::takes::kTaps;
    std::vector<double> autoc(n), h(n, 0.0), cross(n, 0.0);
    for (size_t k = 0; k < n; ++k) autoc[k] = 1000.0 * std::pow(0.6, static_cast<double>(k));
    h[0] = 0.3;
    h[256] = 0.5;
    h[300] = -0.2;
    h[2047] = 0.05;
    const double lambda = 2e-5 * autoc[0];
    for (size_t i = 0; i < n; ++i) {
        for (size_t j = 0; j < n; ++j) cross[i] += autoc[i > j ? i - j : j - i] * h[j];
        cross[i] += lambda * h[i];
    }
    const auto solved = ws::takes::solve_leak_filter(autoc.data(), cross.data());
    // Conjugate gradients stop at a residual of 1e-7 of the start.
    for (size_t k = 0; k < n; ++k) EXPECT_NEAR(solved[k], h[k], 1e-6) << k;
    // No correlation at all: the filter stays zero.
    const std::vector<double> zeros(n, 0.0);
    EXPECT_EQ(ws::takes::solve_leak_filter(autoc.data(), zeros.data()), zeros);
}

TEST(LeakSubtraction, RemovesAnExactlyKnownLeak) {
    const size_t n = 30000;
    const auto ref = s::music(n, kRate, 2);
    // take = 0.5 x ref delayed by base + 10 frames, minus 0.25 x it delayed by base + 40.
    const int64_t base = 700;
    auto take = s::mix(s::delayed(ref, base + 10, n), s::delayed(ref, base + 40, n), -0.5f);
    for (auto& v : take) v *= 0.5f;
    std::vector<double> h(ws::takes::kTaps, 0.0);
    h[10] = 0.5;
    h[40] = -0.25;
    const ReferenceReader reader(ref.data(), ref.size(), base, 1.0, false);
    double before = 0.0, after = 0.0;
    ws::takes::subtract_leak(reader, take.data(), take.size(), h.data(), before, after);
    EXPECT_LT(s::energy(take), 1e-9 * before);
    EXPECT_GT(before, 100.0);
}

// ---- whole takes ---------------------------------------------------------------

struct Scene {
    std::vector<float> ref, leak, musician, noise, take;
};

// The leak is the reference through the room at `delay`; the musician
// plays `musician_db` relative to the leak, the room noise sits 60 dB
// below it.
Scene scene(size_t n, double delay, unsigned seed) {
    Scene sc;
    sc.ref = s::music(n, kRate, seed);
    sc.leak = s::convolve(s::delayed(sc.ref, delay, n), s::room_response(seed + 1));
    sc.musician = s::music(n, kRate, seed + 2);
    sc.noise = s::white(n, std::sqrt(3 * s::energy(sc.leak) / static_cast<double>(n)) * 1e-3, seed + 3);
    return sc;
}

void set_musician_level(Scene& sc, double musician_db) {
    const double gain = std::sqrt(s::energy(sc.leak) / s::energy(sc.musician) * std::pow(10.0, musician_db / 10));
    for (auto& v : sc.musician) v *= static_cast<float>(gain);
    sc.take = s::mix(s::mix(sc.leak, sc.musician), sc.noise);
}

// Energy of what is left of the leak, relative to the leak, in dB.
double leak_left_db(const Scene& sc, const std::vector<float>& cleaned) {
    return s::db(s::energy_of_difference(cleaned, s::mix(sc.musician, sc.noise)) / s::energy(sc.leak));
}

TEST(Cleaning, RemovesTheLeakAndKeepsTheMusician) {
    WS_SKIP_UNDER_TSAN();
    // A least-squares fit over 2048 taps sees the musician as noise: what
    // it leaves behind scales with her level and with 2048 / take length.
    struct Row { double musician_db; double max_left_db; };
    const Row rows[] = {{-20, -30}, {0, -12}};
    for (double delay : {1234.0, 1234.4}) {  // on a frame and between frames
        Scene sc = scene(200000, delay, 1);
        for (const auto& r : rows) {
            set_musician_level(sc, r.musician_db);
            auto cleaned = sc.take;
            CleanReport report;
            ASSERT_TRUE(clean_take(sc.ref.data(), sc.ref.size(), cleaned, 1234, report));
            EXPECT_LT(leak_left_db(sc, cleaned), r.max_left_db) << delay << " " << r.musician_db;
            // The musician stays: the cleaned take is about as loud as she is.
            EXPECT_NEAR(s::db(s::energy(cleaned) / s::energy(s::mix(sc.musician, sc.noise))), 0.0, 0.2);
            EXPECT_NEAR(report.reduction_db, s::db(s::energy(sc.take) / s::energy(cleaned)), 0.01);
            EXPECT_EQ(report.drift, 0.0);
        }
    }
}

TEST(Cleaning, ADelayOutsideTheFilterSpanLeavesTheLeak) {
    WS_SKIP_UNDER_TSAN();
    // The filter covers delays from lag - 256 to lag + 1791. White noise
    // makes the edges sharp: no part of it predicts another, so a leak
    // just outside the span cannot be fitted from just inside.
    const size_t n = 60000;
    const int64_t delay = 3000;
    const auto ref = s::white(n, 0.5, 11);
    const auto take = s::mix(s::delayed(ref, static_cast<double>(delay), n), s::music(n, kRate, 12), 0.05f);
    struct Row { int64_t lag; bool removed; };
    const Row rows[] = {
        {delay + 256, true}, {delay - 1791, true},   // the first and the last tap
        {delay + 257, false}, {delay - 1792, false},  // one frame beyond
        {delay + 5000, false}, {delay - 9000, false},
    };
    const auto leak = s::delayed(ref, static_cast<double>(delay), n);
    for (const auto& r : rows) {
        auto cleaned = take;
        CleanReport report;
        ASSERT_TRUE(clean_take(ref.data(), ref.size(), cleaned, r.lag, report));
        const double left = s::db(s::energy_of_difference(cleaned, s::mix(take, leak, -1.0f)) / s::energy(leak));
        if (r.removed) {
            EXPECT_LT(left, -20) << r.lag;
        } else {
            EXPECT_GT(left, -0.5) << r.lag;
        }
    }
}

TEST(Cleaning, SilentReferenceChangesNothing) {
    const std::vector<float> silent(50000, 0.0f);
    const auto take = s::music(50000, kRate, 3);
    auto cleaned = take;
    CleanReport report;
    ASSERT_TRUE(clean_take(silent.data(), silent.size(), cleaned, 100, report));
    EXPECT_EQ(cleaned, take);
    EXPECT_EQ(report.reduction_db, 0.0);
}

TEST(Cleaning, RefusesTooShortATakeOrAnEmptyReference) {
    const auto ref = s::music(20000, kRate, 4);
    auto take = s::delayed(ref, 10, 8191);
    const auto before = take;
    CleanReport report;
    EXPECT_FALSE(clean_take(ref.data(), ref.size(), take, 10, report));
    EXPECT_EQ(take, before);
    take = s::delayed(ref, 10, 8192);
    EXPECT_TRUE(clean_take(ref.data(), ref.size(), take, 10, report));
    EXPECT_FALSE(clean_take(ref.data(), 0, take, 10, report));
    EXPECT_FALSE(clean_take(nullptr, 100, take, 10, report));
}

TEST(Cleaning, ReferenceSilentInPlacesLeavesThoseBlocksAlone) {
    WS_SKIP_UNDER_TSAN();
    // The reference stops after 60000 frames; the take goes on with the
    // musician alone, and those frames must come out bit for bit.
    const size_t n = 100000;
    auto ref = s::music(n, kRate, 6);
    std::fill(ref.begin() + 60000, ref.end(), 0.0f);
    const auto musician = s::music(n, kRate, 7);
    const auto take = s::mix(s::delayed(ref, 500, n), musician, 0.1f);
    auto cleaned = take;
    CleanReport report;
    ASSERT_TRUE(clean_take(ref.data(), ref.size(), cleaned, 500, report));
    // The first block after the reference's end still sees its filter's tail.
    const size_t quiet_from = ((60000 + 500 + 1791) / 6144 + 1) * 6144;
    for (size_t i = quiet_from; i < n; ++i) ASSERT_EQ(cleaned[i], take[i]) << i;
    EXPECT_GT(report.reduction_db, 10.0);
}

TEST(Drift, ShortTakesGetNoDriftPoints) {
    const auto ref = s::music(393215, kRate, 8);
    const auto take = s::stretched(ref, 1.0001, 1000, ref.size());
    const FftTable big(262144);
    EXPECT_TRUE(ws::takes::drift_points(ref.data(), ref.size(), take.data(), take.size(), 1000, 0.0, big).empty());
}

TEST(Drift, HundredPpmIsCorrectedAndAThousandIsNot) {
    WS_SKIP_UNDER_TSAN();
    // Band-limited music: a smeared correlation peak stays in the middle of
    // each segment, so the first slope is close enough for the second look.
    const size_t n = 400000;
    const auto ref = s::music(n, kRate, 1);
    const auto noise = s::white(n, 1e-3, 2);

    auto take = s::mix(s::stretched(ref, 1.0001, 1000, n), noise);
    for (auto& v : take) v *= 0.5f;
    const auto original = take;
    CleanReport report;
    ASSERT_TRUE(clean_take(ref.data(), ref.size(), take, 1000, report));
    EXPECT_NEAR(report.drift, 1e-4, 3e-6);
    EXPECT_GT(report.reduction_db, 30.0);

    // Ten times that is beyond what is plausible: no correction.
    const auto fast = s::mix(s::stretched(ref, 1.001, 1000, n), noise);
    const FftTable big(262144);
    EXPECT_EQ(ws::takes::estimate_drift(ref.data(), n, fast.data(), n, 1000, big), 0.0);
}

}  // namespace
