// The real-time rule, shown rather than promised: while the capture
// callback runs, nothing in it allocates, takes a mutex or sleeps. The
// library's callback probe tells this binary when a callback starts and
// ends; this binary interposes the allocation and locking entry points and
// counts the calls made in between on that thread.
#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <cstdlib>
#include <filesystem>
#include <thread>

#include "frame/realtime.hpp"
#include "rt_counter.hpp"
#include "sound_server.hpp"
#include "woodshed/metronome.h"
#include "woodshed/recorder.h"
#include "woodshed/tuner.h"

namespace {

TEST(RealTime, TheProbeSeesAnAllocationItIsMeantToCatch) {
    // Self-check of the instrument: a callback-like scope that allocates.
    ws::rt::probe().store(&ws::test::rt::probe);
    const long before = ws::test::rt::counted();
    {
        ws::rt::CallbackScope scope;
        void* volatile p = std::malloc(16);
        std::free(p);
    }
    ws::rt::probe().store(nullptr);
    EXPECT_EQ(ws::test::rt::counted() - before, 2);
}

TEST(RealTime, CaptureCallbackNeitherAllocatesNorLocksNorSleeps) {
    WS_REQUIRE_SOUND_SERVER();
    ws::test::TonePlayer tone;
    ASSERT_TRUE(tone.start(330.0));
    ASSERT_EQ(tn_engine_create(nullptr), ws_ok);
    ASSERT_EQ(tn_engine_start(nullptr), ws_ok);
    std::this_thread::sleep_for(std::chrono::milliseconds(100));
    ws::test::rt::reset();
    ws::rt::probe().store(&ws::test::rt::probe);
    std::this_thread::sleep_for(std::chrono::milliseconds(1500));
    ws::rt::probe().store(nullptr);
    const long callbacks = ws::test::rt::callbacks();
    EXPECT_EQ(tn_engine_destroy(), ws_ok);
    EXPECT_GT(callbacks, 50);  // about 150 periods of 10 ms
    EXPECT_EQ(ws::test::rt::counted(), 0);
}

TEST(RealTime, ClickCallbackNeitherAllocatesNorLocksNorSleeps) {
    WS_REQUIRE_SOUND_SERVER();
    ASSERT_EQ(mn_create(), ws_ok);
    MetronomeConfig c{};
    c.tempo_ubpm = 400000000;  // fast, with subdivisions and a second rhythm: many voices
    c.beats_per_bar = 4;
    c.subdivisions = 4;
    c.master_gain = c.accent_gain = c.beat_gain = c.subdivision_gain = c.poly_gain = 0.5;
    c.poly_pulses = 7;
    for (auto& level : c.accent_pattern) level = 4;
    ASSERT_EQ(mn_start(&c, nullptr), ws_ok);
    std::this_thread::sleep_for(std::chrono::milliseconds(100));
    ws::test::rt::reset();
    ws::rt::probe().store(&ws::test::rt::probe);
    std::this_thread::sleep_for(std::chrono::milliseconds(1500));
    ws::rt::probe().store(nullptr);
    const long callbacks = ws::test::rt::callbacks();
    EXPECT_EQ(mn_destroy(), ws_ok);
    EXPECT_GT(callbacks, 100);  // 6 ms periods
    EXPECT_EQ(ws::test::rt::counted(), 0);
}

// The duplex recorder's callback plays the backing and feeds the capture
// ring in the same period; the writer thread does the file work elsewhere.
TEST(RealTime, DuplexCallbackNeitherAllocatesNorLocksNorSleeps) {
    WS_REQUIRE_SOUND_SERVER();
    const std::string take = (std::filesystem::temp_directory_path() / "woodshed-realtime-take.wav").string();
    ASSERT_EQ(sd_create(), ws_ok);
    ASSERT_EQ(sd_start(nullptr, take.c_str(), nullptr, 0), ws_ok);
    std::this_thread::sleep_for(std::chrono::milliseconds(100));
    ws::test::rt::reset();
    ws::rt::probe().store(&ws::test::rt::probe);
    std::this_thread::sleep_for(std::chrono::milliseconds(1500));
    ws::rt::probe().store(nullptr);
    const long callbacks = ws::test::rt::callbacks();
    EXPECT_GE(sd_stop(), 0);
    EXPECT_EQ(sd_destroy(), ws_ok);
    std::filesystem::remove(take);
    EXPECT_GT(callbacks, 50);
    EXPECT_EQ(ws::test::rt::counted(), 0);
}

}  // namespace
