// The tuner worker's stall rule and its passes on a driven clock: a stream
// that should run but delivers nothing for over 2 s is reopened, once per
// 2 s; a stream that delivers, or one that was stopped, never is.
#include <gtest/gtest.h>

#include <chrono>

#include "tuner/engine.hpp"

namespace {

using ws::tuner::StallWatch;
using ms = std::chrono::milliseconds;

TEST(TunerStall, LostOnlyAfterTwoSilentSecondsWhileCapturing) {
    struct Row { int t_ms; uint64_t callbacks; bool capturing; bool lost; };
    const Row rows[] = {
        {0, 0, true, false},      {1000, 5, true, false},  // callbacks arrive
        {3000, 5, true, false},   // exactly 2 s silent: not yet
        {3001, 5, true, true},    // over 2 s: lost, counting starts anew
        {4000, 5, true, false},   {5001, 5, true, false},  {5002, 5, true, true},
        {6000, 5, false, false},  // stopped: silence is expected
        {9000, 5, false, false},  // the last pass that saw it stopped: counted from here
        {9001, 5, true, false},   {11000, 5, true, false}, {11001, 5, true, true},
    };
    StallWatch watch(ws::tuner::TunerEngine::kStallLimit);
    const StallWatch::clock::time_point t0{};
    for (const auto& r : rows) {
        EXPECT_EQ(watch.lost(r.callbacks, r.capturing, t0 + ms(r.t_ms)), r.lost) << r.t_ms;
    }
    watch.rearm(5, t0 + ms(12000));  // a reopened stream gets its own 2 s
    EXPECT_FALSE(watch.lost(5, true, t0 + ms(14000)));
    EXPECT_TRUE(watch.lost(5, true, t0 + ms(14001)));
}

// Without a started device the worker's passes, however far the clock
// moves, neither reopen anything nor change the status.
TEST(TunerStall, IdlePassesDoNothing) {
    ws::tuner::TunerEngine engine(nullptr, false);
    if (!engine.context_ready()) GTEST_SKIP() << "no audio context";
    TunerStatus before{}, after{};
    engine.copy_status(&before);
    const auto t0 = std::chrono::steady_clock::now();
    for (int s = 0; s <= 20; ++s) engine.step(t0 + std::chrono::seconds(s));
    engine.stop();
    for (int s = 21; s <= 40; ++s) engine.step(t0 + std::chrono::seconds(s));
    engine.copy_status(&after);
    EXPECT_EQ(after.change_count, before.change_count + 1);  // the stop only
    EXPECT_EQ(after.state, static_cast<uint32_t>(tn_engine_stopped));
}

}  // namespace
