// The live metronome against the private sound server: the click is
// recorded from the null sink's monitor and every click is found at its
// scheduled frame; device events are survived without a reopen loop.
#include <gtest/gtest.h>

#include <chrono>
#include <cmath>
#include <cstring>
#include <string>
#include <thread>
#include <vector>

#include "sound_server.hpp"
#include "woodshed/metronome.h"

namespace {

using namespace std::chrono_literals;
using ws::test::wait_for;
using ws::test::ServerLog;

MetronomeConfig plain_config(int64_t ubpm) {
    MetronomeConfig c;
    std::memset(&c, 0, sizeof c);
    c.tempo_ubpm = ubpm;
    c.beats_per_bar = 4;
    c.subdivisions = 1;
    c.beat_divisor = 1;
    c.beat_multiplier = 1;
    c.swing = 0.5;
    c.master_gain = c.accent_gain = c.beat_gain = c.subdivision_gain = 0.8;
    c.poly_sound = 5;
    c.ramp_target_ubpm = ubpm;
    c.ramp_interval_bars = 1;
    std::memset(c.accent_pattern, 2, sizeof c.accent_pattern);  // every beat alike
    return c;
}

MetronomeStatus status() {
    MetronomeStatus s{};
    EXPECT_EQ(mn_get_status(&s), ws_ok);
    return s;
}

// Sample indices where a click starts: the first sample above a small
// threshold after at least `quiet` samples below it.
std::vector<size_t> onsets(const std::vector<float>& x, size_t quiet = 2000) {
    std::vector<size_t> out;
    size_t silent = quiet;
    for (size_t i = 0; i < x.size(); ++i) {
        if (std::fabs(x[i]) > 1e-3f) {
            if (silent >= quiet) out.push_back(i);
            silent = 0;
        } else {
            ++silent;
        }
    }
    return out;
}

// The device starts (and publishes stopped snapshots) just before the start
// command reaches the click: wait for the first snapshot of run `run`.
MetronomeSnapshot started_snapshot(uint64_t run = 1) {
    MetronomeSnapshot snap{};
    EXPECT_TRUE(wait_for([&] { return mn_get_snapshot(&snap) == 1 && snap.run_id >= run; }, 1000ms));
    return snap;
}

class MetronomeLive : public ::testing::Test {
protected:
    void SetUp() override {
        WS_REQUIRE_SOUND_SERVER();
        ASSERT_EQ(mn_create(), ws_ok);
    }
    void TearDown() override { mn_destroy(); }
};

TEST(MetronomeFrame, CallsWithoutAnInstanceAnswerNotCreated) {
    MetronomeConfig c = plain_config(120000000);
    MetronomeStatus s;
    MetronomeSnapshot snap;
    DeviceRecord d;
    EXPECT_EQ(mn_destroy(), ws_not_created);
    EXPECT_EQ(mn_configure(nullptr), ws_not_created);
    EXPECT_EQ(mn_configure(&c), ws_not_created);
    EXPECT_EQ(mn_start(nullptr, nullptr), ws_not_created);
    EXPECT_EQ(mn_stop(), ws_not_created);
    EXPECT_EQ(mn_pause(), ws_not_created);
    EXPECT_EQ(mn_resume(), ws_not_created);
    EXPECT_EQ(mn_set_tempo(100000000), ws_not_created);
    EXPECT_EQ(mn_set_master_gain(0.5), ws_not_created);
    EXPECT_EQ(mn_select_device(nullptr), ws_not_created);
    EXPECT_EQ(mn_refresh_devices(), ws_not_created);
    EXPECT_EQ(mn_get_device(0, nullptr), ws_not_created);
    EXPECT_EQ(mn_get_device(0, &d), ws_not_created);
    EXPECT_EQ(mn_get_status(nullptr), ws_not_created);
    EXPECT_EQ(mn_get_status(&s), ws_not_created);
    EXPECT_EQ(mn_get_snapshot(nullptr), ws_not_created);
    EXPECT_EQ(mn_get_snapshot(&snap), ws_not_created);
}

TEST_F(MetronomeLive, FrameRulesAndAnswersBeforeAnyAudio) {
    EXPECT_EQ(mn_create(), ws_already_created);
    EXPECT_EQ(mn_configure(nullptr), ws_invalid_argument);
    EXPECT_EQ(mn_start(nullptr, nullptr), ws_invalid_argument);
    EXPECT_EQ(mn_get_status(nullptr), ws_invalid_argument);
    EXPECT_EQ(mn_get_snapshot(nullptr), ws_invalid_argument);
    EXPECT_EQ(mn_get_device(0, nullptr), ws_invalid_argument);
    MetronomeSnapshot snap;
    EXPECT_EQ(mn_get_snapshot(&snap), 0);
    const MetronomeStatus s = status();
    EXPECT_EQ(s.update_count, 1u);
    EXPECT_EQ(s.device_state, mn_device_not_opened);
    const int32_t n = mn_refresh_devices();
    ASSERT_GE(n, 1);
    DeviceRecord d;
    EXPECT_EQ(mn_get_device(-1, &d), 0);
    EXPECT_EQ(mn_get_device(n, &d), 0);
    EXPECT_EQ(mn_get_device(0, &d), 1);
}

// Pulse k of a 110 BPM click at 48 kHz lies at floor(k * 48000 * 60 / 110):
// 26181 or 26182 frames apart. Through the float null sink the recording is
// exact, so every gap must match; a gap can only grow where the server
// underran, and no click may come early or one frame off.
#if defined(_WIN32)
constexpr bool kAudioLayerMovesBlocks = true;
#else
constexpr bool kAudioLayerMovesBlocks = false;
#endif

TEST_F(MetronomeLive, EveryClickLandsOnItsScheduledFrame) {
    const MetronomeConfig c = plain_config(110000000);
    struct Gaps {
        size_t clicks = 0, exact = 0, late = 0, wrong = 0;
        int64_t eleven = 0;  // frames from the first click to the twelfth
    };
    int64_t rate = 0;
    int underruns = 0;
    bool log_at_debug = false;
    const auto measure = [&] {
        Gaps g;
        const ServerLog log;
        ws::test::MonitorRecorder rec;
        EXPECT_TRUE(rec.start(8.0));
        EXPECT_EQ(mn_start(&c, nullptr), ws_ok);
        const MetronomeStatus s = status();
        EXPECT_EQ(s.device_state, mn_device_running);
        EXPECT_EQ(s.used_default, 1u);
        std::this_thread::sleep_for(6s);
        mn_stop();
        rec.stop();
        EXPECT_EQ(rec.sample_rate(), s.sample_rate);
        rate = s.sample_rate;
        const auto at = onsets(rec.samples());
        g.clicks = at.size();
        for (size_t k = 0; k + 1 < at.size(); ++k) {
            // The first recorded click may be any pulse; gaps repeat with a
            // period of 11 pulses, so match the phase on the first gap pair.
            const int64_t gap = int64_t(at[k + 1] - at[k]);
            const int64_t lo = rate * 60 / 110;  // 26181 at 48 kHz
            if (gap == lo || gap == lo + 1) {
                ++g.exact;
            } else if (gap > lo + 1) {
                ++g.late;
            } else {
                ++g.wrong;
            }
        }
        if (at.size() >= 12) g.eleven = int64_t(at[11] - at[0]);
        underruns = log.playback_underruns();
        log_at_debug = log.at_debug_level();
        return g;
    };
    // Under load the server may underrun between clicks (it then plays
    // silence and every later click shifts late); that is not ours to fail,
    // but an early click always is. A run with no underrun usually comes
    // within a few tries; a sanitizer build on a busy machine may underrun
    // all along, and then the server's log must say so.
    // Under Wine the Windows audio layer sits between the library and the
    // server and can itself move a block either way, unseen by the server:
    // there an early gap too gets another run, but the last run must be clean.
    Gaps g;
    for (int attempt = 0; attempt < 4 && (attempt == 0 || g.late > 0 || (kAudioLayerMovesBlocks && g.wrong > 0));
         ++attempt) {
        g = measure();
        ASSERT_GE(g.clicks, 5u);  // 11 are due; a loaded server may swallow some
        if (!kAudioLayerMovesBlocks) {
            EXPECT_EQ(g.wrong, 0u);
        }
    }
    if (kAudioLayerMovesBlocks) {
        EXPECT_EQ(g.wrong, 0u);
    }
    if (g.exact == 0 && log_at_debug) {
        EXPECT_GT(underruns, 0) << "every click came late, with no playback underrun in the server's log";
    } else {
        EXPECT_GE(g.exact, 1u) << underruns << " playback underruns logged";
    }
    RecordProperty("exact_gaps", int(g.exact));
    RecordProperty("late_gaps", int(g.late));
    // The exact pattern: over any 11 consecutive exact gaps the total is
    // 11 * 26181.8... rounded to whole frames: 288000 at 48 kHz.
    if (g.late == 0 && g.clicks >= 12) {
        EXPECT_EQ(g.eleven, rate * 60 * 11 / 110);
    }
}

TEST_F(MetronomeLive, SnapshotsFollowTheClick) {
    MetronomeConfig c = plain_config(240000000);
    c.count_in_bars = 1;
    ASSERT_EQ(mn_start(&c, nullptr), ws_ok);
    MetronomeSnapshot snap = started_snapshot();
    EXPECT_EQ(snap.state, mn_state_count_in);
    EXPECT_EQ(snap.bar, -1);
    // One bar of four at 240 BPM is a second.
    ASSERT_TRUE(wait_for([&] { return mn_get_snapshot(&snap) == 1 && snap.bar >= 1; }, 6000ms));
    EXPECT_EQ(snap.state, mn_state_running);
    EXPECT_EQ(snap.tempo_ubpm, 240000000);
    EXPECT_EQ(uint32_t(snap.sample_rate), status().sample_rate);
    ASSERT_EQ(mn_pause(), ws_ok);
    ASSERT_TRUE(wait_for([&] { return mn_get_snapshot(&snap) == 1 && snap.state == mn_state_paused; }, 1000ms));
    const uint64_t frame = snap.frame_clock;
    std::this_thread::sleep_for(100ms);
    ASSERT_EQ(mn_get_snapshot(&snap), 1);
    EXPECT_EQ(snap.frame_clock, frame);  // position kept while paused
    ASSERT_EQ(mn_resume(), ws_ok);
    ASSERT_TRUE(wait_for([&] { return mn_get_snapshot(&snap) == 1 && snap.frame_clock > frame; }, 1000ms));
    ASSERT_EQ(mn_set_tempo(90000000), ws_ok);
    ASSERT_TRUE(wait_for([&] { return mn_get_snapshot(&snap) == 1 && snap.tempo_ubpm == 90000000; }, 1000ms));
    // Stop keeps the device open and running (silent); a new start reuses it.
    const uint64_t updates = status().update_count;
    ASSERT_EQ(mn_stop(), ws_ok);
    ASSERT_TRUE(wait_for([&] { return mn_get_snapshot(&snap) == 1 && snap.state == mn_state_stopped; }, 1000ms));
    EXPECT_EQ(status().device_state, mn_device_running);
    const uint64_t run = snap.run_id;
    ASSERT_EQ(mn_start(&c, nullptr), ws_ok);
    EXPECT_EQ(status().update_count, updates);
    ASSERT_TRUE(wait_for([&] { return mn_get_snapshot(&snap) == 1 && snap.run_id == run + 1; }, 1000ms));
}

TEST_F(MetronomeLive, IdTextsChooseTheListedDeviceOrTheDefault) {
    const int32_t n = mn_refresh_devices();
    std::string id;
    for (int32_t i = 0; i < n; ++i) {
        DeviceRecord d;
        if (mn_get_device(i, &d) == 1 && std::strstr(d.name, "Woodshed_null_sink")) id = d.id_text;
    }
    ASSERT_FALSE(id.empty());
    const MetronomeConfig c = plain_config(120000000);
    ASSERT_EQ(mn_start(&c, id.c_str()), ws_ok);
    EXPECT_EQ(status().used_default, 0u);
    // A different id while the device is open is stored, not acted on.
    const MetronomeStatus before = status();
    ASSERT_EQ(mn_start(&c, "zz"), ws_ok);
    const MetronomeStatus after = status();
    EXPECT_EQ(after.update_count, before.update_count);
    EXPECT_EQ(after.used_default, 0u);
    const std::string longest(514, 'a');
    for (const char* bad : {"abc", "zz", longest.c_str(), "", static_cast<const char*>(nullptr)}) {
        EXPECT_EQ(mn_select_device(bad), ws_ok);
        EXPECT_EQ(status().used_default, 1u);
    }
    EXPECT_EQ(mn_select_device(id.c_str()), ws_ok);
    EXPECT_EQ(status().used_default, 0u);
}

// Closing its own device makes the back end report "stopped"; that must not
// read as a lost device, or the watchdog would reopen for ever.
TEST_F(MetronomeLive, SelectingTheSameDeviceAgainDoesNotStartAReopenLoop) {
    const MetronomeConfig c = plain_config(120000000);
    ASSERT_EQ(mn_start(&c, nullptr), ws_ok);
    const uint64_t u0 = status().update_count;
    ASSERT_EQ(mn_select_device(nullptr), ws_ok);
    EXPECT_EQ(status().update_count, u0 + 1);
    std::this_thread::sleep_for(400ms);  // eight watchdog passes
    EXPECT_EQ(status().update_count, u0 + 1);
    EXPECT_EQ(status().device_state, mn_device_running);
}

#if !defined(_WIN32)
TEST_F(MetronomeLive, ADeviceEventReopensAndTheClickResumesWithoutCountIn) {
    MetronomeConfig c = plain_config(120000000);
    c.count_in_bars = 2;
    ASSERT_EQ(mn_start(&c, nullptr), ws_ok);
    MetronomeSnapshot snap = started_snapshot();
    const uint64_t run = snap.run_id;
    const uint64_t u0 = status().update_count;
    ws::test::unload_null_sink();
    EXPECT_TRUE(wait_for([&] {
        const MetronomeStatus s = status();
        return s.update_count >= u0 + 2 && s.device_state == mn_device_running;
    }, 5000ms)) << "state " << status().device_state;
    ASSERT_TRUE(wait_for([&] { return mn_get_snapshot(&snap) == 1 && snap.run_id > run; }, 2000ms));
    EXPECT_EQ(snap.state, mn_state_running);  // no count-in after a reopen
    EXPECT_GE(snap.bar, 0);
    const uint64_t u1 = status().update_count;
    ws::test::restore_null_sink();
    EXPECT_TRUE(wait_for([&] { return status().update_count >= u1 + 2; }, 5000ms));
    EXPECT_EQ(status().device_state, mn_device_running);
    // And it settles: no further reopening.
    const uint64_t u2 = status().update_count;
    std::this_thread::sleep_for(400ms);
    EXPECT_EQ(status().update_count, u2);
}

TEST_F(MetronomeLive, ADeviceEventWhileStoppedReopensWithoutStarting) {
    const MetronomeConfig c = plain_config(120000000);
    ASSERT_EQ(mn_start(&c, nullptr), ws_ok);
    MetronomeSnapshot snap = started_snapshot();
    ASSERT_EQ(mn_stop(), ws_ok);
    ASSERT_TRUE(wait_for([&] { return mn_get_snapshot(&snap) == 1 && snap.state == mn_state_stopped; }, 1000ms));
    const uint64_t run = snap.run_id;
    const uint64_t u0 = status().update_count;
    ws::test::unload_null_sink();
    EXPECT_TRUE(wait_for([&] { return status().update_count >= u0 + 2; }, 5000ms));
    std::this_thread::sleep_for(100ms);
    ASSERT_EQ(mn_get_snapshot(&snap), 1);
    EXPECT_EQ(snap.state, mn_state_stopped);
    EXPECT_EQ(snap.run_id, run);
    ws::test::restore_null_sink();
}
#endif

}  // namespace
