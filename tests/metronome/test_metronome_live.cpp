// The live metronome against the private sound server: the click recorded
// from the null sink's monitor must hold every pulse on its scheduled frame
// (the schedule itself is proven without a device; this proves the device
// path keeps it), and the device opens, plays, stops and restarts.
#include <gtest/gtest.h>

#include <chrono>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <thread>
#include <vector>

#include "metronome/config.hpp"
#include "sound_server.hpp"
#include "woodshed/metronome.h"

namespace {

using namespace std::chrono_literals;
using ws::test::wait_for;

// Every beat alike (the accent's sound would start differently).
MetronomeConfig plain_config(int64_t ubpm) {
    MetronomeConfig c = ws::metronome::plain_config(ubpm);
    std::memset(c.accent_pattern, mn_level_normal, sizeof c.accent_pattern);
    return c;
}

MetronomeStatus status() {
    MetronomeStatus s{};
    EXPECT_EQ(mn_get_status(&s), ws_ok);
    return s;
}

// Sample indices where a click starts: the first sample above a small
// threshold after at least `quiet` samples below it.
std::vector<int64_t> onsets(const std::vector<float>& x, size_t quiet = 2000) {
    std::vector<int64_t> out;
    size_t silent = quiet;
    for (size_t i = 0; i < x.size(); ++i) {
        if (std::fabs(x[i]) > 1e-3f) {
            if (silent >= quiet) out.push_back(int64_t(i));
            silent = 0;
        } else {
            ++silent;
        }
    }
    return out;
}

class MetronomeLive : public ::testing::Test {
protected:
    void SetUp() override {
        WS_REQUIRE_SOUND_SERVER();
        ASSERT_EQ(mn_create(), ws_ok);
    }
    void TearDown() override { mn_destroy(); }
};

// At 110 BPM pulse k lies on floor(k x rate x 60 / 110), counted from the
// first recorded click; through the float null sink the path is exact. A
// stream the server could not keep fed would push every later click back:
// the failure this test exists for. Only an underrun in the server's own log
// earns another run; it can also make a click early (the sink drops late
// data, and a rewind shifts its monitor by a few frames), so an early click
// fails like a late one unless the server logged an underrun in that run.
TEST_F(MetronomeLive, EveryClickLandsOnItsScheduledFrame) {
    const MetronomeConfig c = plain_config(110000000);
    constexpr int kPulses = 10;
    for (int run = 1;; ++run) {
        const ws::test::ServerLog log;
        ws::test::MonitorRecorder rec;
        ASSERT_TRUE(rec.start(16.0));
        ASSERT_EQ(mn_start(&c, nullptr), ws_ok);
        const MetronomeStatus s = status();
        EXPECT_EQ(s.device_state, mn_device_running);
        // Rendered, not slept: a loaded machine may be slow to start the
        // stream, and the clicks are judged on what was played. Half a
        // second more covers the output's own buffer (larger on Windows),
        // which a stop discards.
        const uint64_t enough = uint64_t(kPulses) * s.sample_rate * 60 / 110 + s.sample_rate / 2;
        // And never less than the pulses' own time: a back end may render
        // far ahead of what is heard (Windows does at start).
        const auto began = std::chrono::steady_clock::now();
        MetronomeSnapshot snap{};
        EXPECT_TRUE(wait_for([&] { return mn_get_snapshot(&snap) == 1 && snap.frame_clock >= enough; }, 14000ms));
        std::this_thread::sleep_until(began + std::chrono::milliseconds(kPulses * 60000 / 110 + 500));
        mn_stop();
        std::this_thread::sleep_for(300ms);  // what was rendered reaches the sink
        rec.stop();
        const int64_t rate = s.sample_rate;
        ASSERT_EQ(rec.sample_rate(), s.sample_rate);
        if (const char* want = std::getenv("WOODSHED_SINK_RATE")) {
            EXPECT_EQ(rate, std::atol(want));
        }

        const std::vector<int64_t> at = onsets(rec.samples());
        ASSERT_GE(at.size(), 2u);
        int late = 0, early = 0;
        for (size_t k = 1; k < at.size(); ++k) {
            const int64_t due = int64_t(k) * rate * 60 / 110, got = at[k] - at[0];
            late += got > due;
            early += got < due;
        }
        RecordProperty("run_" + std::to_string(run) + "_late", late);
        RecordProperty("run_" + std::to_string(run) + "_early", early);
        if (late + early == 0) {
            EXPECT_GE(at.size(), size_t(kPulses)) << "clicks recorded of " << kPulses << " played at 110 BPM";
            break;
        }
        const int underruns = log.playback_underruns();
        ASSERT_TRUE(log.at_debug_level()) << late << " late, " << early << " early; the server's log cannot say why";
#if defined(_WIN32)
        // The Windows audio layer (Wine's, in these tests) can move the
        // stream's first block without the server seeing it: every click
        // then looks early or late against the first. Another run, and one
        // of the three must still be clean.
        const bool excused = true;
#else
        const bool excused = underruns > 0;
#endif
        ASSERT_TRUE(excused) << late << " late, " << early << " early, with no playback underrun logged";
        ASSERT_LT(run, 3) << late << " late, " << early << " early in every run; " << underruns << " underruns";
        std::printf("run %d: %d late, %d early, %d playback underruns logged: another run\n", run, late,
                    early, underruns);
    }
}

// Opens the default device, plays (the snapshot moves through the count-in
// into the bars), stops with the device kept open, and starts again on it.
TEST_F(MetronomeLive, PlaysStopsAndRestartsOnTheOpenDevice) {
    MetronomeConfig c = plain_config(240000000);
    c.count_in_bars = 1;
    ASSERT_EQ(mn_start(&c, nullptr), ws_ok);
    const MetronomeStatus s = status();
    EXPECT_EQ(s.device_state, mn_device_running);
    EXPECT_EQ(s.used_default, 1u);
    MetronomeSnapshot snap{};
    ASSERT_TRUE(wait_for([&] { return mn_get_snapshot(&snap) == 1 && snap.run_id >= 1; }, 1000ms));
    EXPECT_EQ(snap.state, mn_state_count_in);
    // One bar of four at 240 BPM is a second.
    ASSERT_TRUE(wait_for([&] { return mn_get_snapshot(&snap) == 1 && snap.bar >= 1; }, 6000ms));
    EXPECT_EQ(snap.state, mn_state_running);
    EXPECT_EQ(uint32_t(snap.sample_rate), s.sample_rate);

    ASSERT_EQ(mn_stop(), ws_ok);
    ASSERT_TRUE(wait_for([&] { return mn_get_snapshot(&snap) == 1 && snap.state == mn_state_stopped; }, 1000ms));
    EXPECT_EQ(status().device_state, mn_device_running);
    const uint64_t run = snap.run_id;
    ASSERT_EQ(mn_start(&c, nullptr), ws_ok);
    EXPECT_EQ(status().update_count, s.update_count);  // no reopen
    ASSERT_TRUE(wait_for([&] { return mn_get_snapshot(&snap) == 1 && snap.run_id == run + 1; }, 1000ms));
    const uint64_t frame = snap.frame_clock;
    EXPECT_TRUE(wait_for([&] { return mn_get_snapshot(&snap) == 1 && snap.frame_clock > frame; }, 1000ms));
}

}  // namespace
