// Delay search against takes whose delay was put there: whole and
// fractional delays at every decimation setting, through a room with a
// musician on top, the range and validity rules, and the ways it gives up.
#include <gtest/gtest.h>

#include <cmath>
#include <vector>

#include "files.hpp"
#include "signals.hpp"
#include "takes/analysis.hpp"

namespace {

namespace s = ws::test;
using ws::takes::block_average;
using ws::takes::DelayEstimate;
using ws::takes::find_delay;

DelayEstimate locate(const std::vector<float>& ref, const std::vector<float>& take, int64_t rate,
                     int64_t lo, int64_t hi) {
    return find_delay(ref.data(), ref.size(), take.data(), take.size(), rate, lo, hi);
}

TEST(BlockAverage, MeansOfWholeBlocks) {
    const std::vector<float> x = {1, 2, 3, 4, 5, 6, 7, 8, 9, 10};
    EXPECT_EQ(block_average(x.data(), x.size(), 4), (std::vector<float>{2.5f, 6.5f}));
    EXPECT_EQ(block_average(x.data(), x.size(), 1), x);
    EXPECT_EQ(block_average(x.data(), x.size(), 10), (std::vector<float>{5.5f}));
    EXPECT_TRUE(block_average(x.data(), x.size(), 11).empty());
    EXPECT_TRUE(block_average(x.data(), 0, 4).empty());
}

TEST(DelaySearch, IdenticalSignalsHaveNoDelay) {
    const auto x = s::music(3 * 44100, 44100, 4);
    const DelayEstimate d = locate(x, x, 44100, 0, 22050);
    EXPECT_TRUE(d.valid);
    EXPECT_EQ(d.delay_frames, 0);
    EXPECT_GT(d.score, 30.0);
}

TEST(DelaySearch, FindsTheDelayPutThereAtEveryRate) {
    WS_SKIP_UNDER_TSAN();
    // Rates below 32 kHz search at the full rate, others at a quarter of it;
    // the fine search must land on the frame either way. A fractional delay
    // lands on the nearest frame.
    struct Row { int64_t rate; double delay; int64_t expected; int64_t lo, hi; };
    const Row rows[] = {
        {48000, 1234, 1234, 0, 4800},          {44100, 1234, 1234, 0, 4410},
        {44100, 1234.3, 1234, 0, 4410},        {44100, 1233.7, 1234, 0, 4410},
        {22050, 517, 517, 0, 2205},            {8000, 77.4, 77, 0, 800},
        {96000, 9001, 9001, 4800, 14400},      {32000, 3, 3, -320, 320},
        {44100, 30000, 30000, 0, 44100},
    };
    for (const auto& r : rows) {
        const size_t n = static_cast<size_t>(2 * r.rate);
        const auto ref = s::music(n, static_cast<double>(r.rate), 5);
        const auto take = s::delayed(ref, r.delay, n);
        const DelayEstimate d = locate(ref, take, r.rate, r.lo, r.hi);
        EXPECT_EQ(d.delay_frames, r.expected) << r.rate << " " << r.delay;
        EXPECT_TRUE(d.valid) << r.rate << " " << r.delay;
        EXPECT_GE(d.score, 8.0);
    }
}

TEST(DelaySearch, ATakeThatLeadsHasANegativeDelay) {
    const size_t n = 3 * 44100;
    const auto ref = s::music(n + 500, 44100, 6);
    const std::vector<float> take(ref.begin() + 500, ref.end());  // the take starts 500 frames in
    const DelayEstimate d = locate(ref, take, 44100, -1000, 1000);
    EXPECT_EQ(d.delay_frames, -500);
    EXPECT_TRUE(d.valid);
}

TEST(DelaySearch, FindsTheLeakThroughARoomUnderAMusician) {
    WS_SKIP_UNDER_TSAN();
    const double rate = 44100;
    const size_t n = 4 * 44100;
    const auto ref = s::music(n, rate, 8);
    const auto room = s::room_response(3);
    const auto musician = s::music(n, rate, 9);
    for (double delay : {2205.0, 2205.4}) {
        // The leak is 6 dB below the musician, with room noise.
        auto take = s::convolve(s::delayed(ref, delay, n), room);
        take = s::mix(s::mix(take, musician, 1.0f), s::noise(n, 0.01, 4));
        const DelayEstimate d = locate(ref, take, 44100, 0, 8820);
        EXPECT_EQ(d.delay_frames, 2205) << delay;
        EXPECT_TRUE(d.valid) << delay;
    }
}

TEST(DelaySearch, ValidOnlyInsideTheRequestedRange) {
    const size_t n = 2 * 48000;
    const auto ref = s::music(n, 48000, 10);
    const auto take = s::delayed(ref, 1000, n);
    // A delay just outside the range (within the search's 2-block margin)
    // is still found, but not valid.
    DelayEstimate d = locate(ref, take, 48000, 1002, 2000);
    EXPECT_EQ(d.delay_frames, 1000);
    EXPECT_FALSE(d.valid);
    EXPECT_GE(d.score, 8.0);
    d = locate(ref, take, 48000, 0, 999);
    EXPECT_EQ(d.delay_frames, 1000);
    EXPECT_FALSE(d.valid);
    // The bounds themselves are inside.
    d = locate(ref, take, 48000, 1000, 2000);
    EXPECT_EQ(d.delay_frames, 1000);
    EXPECT_TRUE(d.valid);
    d = locate(ref, take, 48000, 0, 1000);
    EXPECT_EQ(d.delay_frames, 1000);
    EXPECT_TRUE(d.valid);
}

TEST(DelaySearch, GivesUpWithAllZero) {
    const auto ref = s::music(44100, 44100, 11);
    const auto take = s::delayed(ref, 100, 44100);
    const std::vector<float> quarter_less_one(ref.begin(), ref.begin() + 11024);
    struct Row { const char* what; DelayEstimate d; };
    const Row rows[] = {
        {"range upside down", locate(ref, take, 44100, 500, 400)},
        {"reference under a quarter second", locate(quarter_less_one, take, 44100, 0, 4410)},
        {"take under a quarter second", locate(ref, quarter_less_one, 44100, 0, 4410)},
        {"no rate", locate(ref, take, 0, 0, 4410)},
        {"range entirely beyond the take", locate(ref, take, 44100, 900000, 1000000)},
        // Too few lags outside 5 ms of the peak to score it against.
        {"range of a single lag", locate(ref, take, 44100, 100, 100)},
        {"range of 7 ms", locate(ref, take, 44100, 0, 300)},
        {"missing signal", find_delay(nullptr, 0, take.data(), take.size(), 44100, 0, 10)},
    };
    for (const auto& r : rows) {
        EXPECT_FALSE(r.d.valid) << r.what;
        EXPECT_EQ(r.d.delay_frames, 0) << r.what;
        EXPECT_EQ(r.d.score, 0.0) << r.what;
    }
    // A silent reference scores nothing (wherever its peak falls).
    const DelayEstimate silent = locate(std::vector<float>(44100, 0.0f), take, 44100, 0, 4410);
    EXPECT_FALSE(silent.valid);
    EXPECT_EQ(silent.score, 0.0);
    // Exactly a quarter second is enough.
    const std::vector<float> quarter(ref.begin(), ref.begin() + 11025);
    EXPECT_TRUE(locate(quarter, s::delayed(quarter, 100, 30000), 44100, 0, 4410).valid);
}

}  // namespace
