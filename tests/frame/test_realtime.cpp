// The real-time rule, shown rather than promised: while an audio callback
// runs, nothing in it allocates, locks, waits, yields, sleeps, writes or
// runs a static's first initialisation. The library's callback probe tells
// this binary when a callback starts and ends; this binary interposes those
// entry points and counts the calls made in between on that thread.
#include <gtest/gtest.h>

#include <array>
#include <atomic>
#include <cmath>
#include <cstdio>
#include <chrono>
#include <cstdlib>
#include <filesystem>
#include <thread>

#include <sched.h>
#include <unistd.h>

#include "frame/realtime.hpp"
#include "frame/wav_header.hpp"
#include "recorder/capture_ring.hpp"
#include "recorder/take_writer.hpp"
#include "rt_counter.hpp"
#include "sound_server.hpp"
#include "tuner/engine.hpp"
#include "woodshed/metronome.h"
#include "woodshed/recorder.h"
#include "woodshed/tuner.h"

namespace {

using namespace std::chrono_literals;

// Self-check of the instrument: inside a callback-like scope, each thing
// the rule forbids is seen.
TEST(RealTime, TheProbeSeesWhatItIsMeantToCatch) {
    static std::FILE* sink = std::fopen("/dev/null", "w");
    ASSERT_NE(sink, nullptr);
    struct Row { const char* what; void (*run)(); long calls; };
    const Row rows[] = {
        {"malloc and free", [] { void* volatile p = std::malloc(16); std::free(p); }, 2},
        {"a yield", [] { sched_yield(); }, 1},
        {"a short sleep", [] { usleep(1); }, 1},
        {"buffered output", [] { std::fwrite("x", 1, 1, sink); }, 1},
        {"a static's first initialisation", [] { static volatile int once = std::rand(); (void)once; }, 1},
    };
    ws::rt::probe().store(&ws::test::rt::probe);
    for (const auto& r : rows) {
        const long before = ws::test::rt::counted();
        {
            ws::rt::CallbackScope scope;
            r.run();
        }
        EXPECT_GE(ws::test::rt::counted() - before, r.calls) << r.what;
    }
    ws::rt::probe().store(nullptr);
}

// The probe is installed before the device opens, so the very first
// callbacks are watched too.
void watch() {
    ws::test::rt::reset();
    ws::rt::probe().store(&ws::test::rt::probe);
}
long unwatch() {
    ws::rt::probe().store(nullptr);
    return ws::test::rt::callbacks();
}
void wait_ms(int ms) { std::this_thread::sleep_for(std::chrono::milliseconds(ms)); }
// Enough callbacks, however long a loaded server takes (10 s at most): a
// back end may deliver the device's buffer in one period or in many.
void until(long n) {
    for (int i = 0; i < 1000 && ws::test::rt::callbacks() < n; ++i) wait_ms(10);
}

// Through the worker's own reopen as well: its passes run here on the test's
// clock, so a pass 2 s after the last, with no callback between, finds the
// stream lost. The new device's first callbacks meet a ring and an analyser
// just reset.
TEST(RealTime, CaptureCallbackNeitherAllocatesNorLocksNorSleeps) {
    WS_REQUIRE_SOUND_SERVER();
    ws::test::TonePlayer tone;
    ASSERT_TRUE(tone.start(330.0));
    watch();
    ws::tuner::TunerEngine engine(nullptr, false);
    ASSERT_EQ(engine.start(nullptr), ws_ok);
    auto now = std::chrono::steady_clock::now();
    const auto passes_until = [&](long n) {
        for (int i = 0; i < 1000 && ws::test::rt::callbacks() < n; ++i, wait_ms(10)) engine.step(now += 10ms);
    };
    passes_until(40);
    TunerStatus before{}, after{};
    engine.copy_status(&before);
    for (int i = 0; i < 100 && after.change_count <= before.change_count; ++i) {
        engine.step(now += 10ms);
        engine.step(now += ws::tuner::TunerEngine::kStallLimit + 1ms);
        engine.copy_status(&after);
    }
    EXPECT_EQ(after.change_count, before.change_count + 2);  // reopening, then running
    EXPECT_EQ(after.state, static_cast<uint32_t>(tn_engine_running));
    const long first = ws::test::rt::callbacks();
    passes_until(first + 40);
    const long callbacks = unwatch();
    EXPECT_GE(callbacks, first + 40);
    EXPECT_EQ(ws::test::rt::counted(), 0);
}

TEST(RealTime, ClickCallbackNeitherAllocatesNorLocksNorSleeps) {
    WS_REQUIRE_SOUND_SERVER();
    MetronomeConfig c{};
    c.tempo_ubpm = 400000000;  // fast, with subdivisions and a second rhythm: many voices
    c.beats_per_bar = 4;
    c.subdivisions = 4;
    c.master_gain = c.accent_gain = c.beat_gain = c.subdivision_gain = c.poly_gain = 0.5;
    c.poly_pulses = 7;
    for (auto& level : c.accent_pattern) level = 4;
    watch();
    ASSERT_EQ(mn_create(), ws_ok);
    ASSERT_EQ(mn_start(&c, nullptr), ws_ok);
    until(40);
    const long callbacks = unwatch();
    EXPECT_EQ(mn_destroy(), ws_ok);
    EXPECT_GE(callbacks, 40);
    EXPECT_EQ(ws::test::rt::counted(), 0);
}

// The duplex recorder's callback plays the backing and feeds the capture
// ring in the same period; the writer thread does the file work elsewhere.
// Here the writer is held, as a stalled disk would hold it, until the ring
// has overflowed, so the callback takes its drop path too; released, the
// writer still makes the take a whole WAV file that keeps the dropped time.
TEST(RealTime, DuplexCallbackNeitherAllocatesNorLocksNorSleeps) {
    WS_REQUIRE_SOUND_SERVER();
    const auto dir = std::filesystem::temp_directory_path();
    const std::string take = (dir / "woodshed-realtime-take.wav").string();
    const std::string backing = (dir / "woodshed-realtime-backing.wav").string();
    {
        // Eight seconds of a 220 Hz sine, so the callback plays real frames throughout.
        constexpr uint32_t kFrames = 8 * 44100;
        const auto header = ws::frame::mono16_wav_header(44100, kFrames * 2);
        std::vector<uint8_t> bytes(header.begin(), header.end());
        for (uint32_t i = 0; i < kFrames; ++i) {
            const auto v = static_cast<uint16_t>(static_cast<int16_t>(8000 * std::sin(i * 2 * M_PI * 220 / 44100)));
            bytes.push_back(static_cast<uint8_t>(v & 0xFF));
            bytes.push_back(static_cast<uint8_t>(v >> 8));
        }
        std::FILE* f = std::fopen(backing.c_str(), "wb");
        ASSERT_NE(f, nullptr);
        ASSERT_EQ(std::fwrite(bytes.data(), 1, bytes.size(), f), bytes.size());
        std::fclose(f);
    }
    watch();
    ws::recorder::g_writer_held_for_tests = true;
    ASSERT_EQ(sd_create(), ws_ok);
    ASSERT_EQ(sd_start(backing.c_str(), take.c_str(), nullptr, 0), ws_ok);
    // Half a second more than the ring holds at the device's rate, none of it drained.
    const int64_t full = int64_t{ws::recorder::kRingSamples} * 44100 / sd_device_rate() + 22050;
    RecorderState held{};
    for (int i = 0; i < 1500 && (sd_get_state(&held), held.captured_frames < full); ++i) wait_ms(10);
    ws::recorder::g_writer_held_for_tests = false;
    until(ws::test::rt::callbacks() + 20);
    const long callbacks = unwatch();
    const int64_t ms = sd_stop();
    EXPECT_EQ(sd_destroy(), ws_ok);
    std::array<uint8_t, ws::frame::kWavHeaderBytes> header{};
    std::FILE* f = std::fopen(take.c_str(), "rb");
    ASSERT_NE(f, nullptr);
    EXPECT_EQ(std::fread(header.data(), 1, header.size(), f), header.size());
    std::fclose(f);
    const auto data = static_cast<uint32_t>(std::filesystem::file_size(take) - header.size());
    std::filesystem::remove(take);
    std::filesystem::remove(backing);
    EXPECT_GE(held.captured_frames, full);
    EXPECT_EQ(header, ws::frame::mono16_wav_header(44100, data));
    EXPECT_EQ(ms, int64_t{data / 2} * 1000 / 44100);
    EXPECT_GE(data / 2, held.captured_frames);  // the dropped periods are in it
    EXPECT_GE(callbacks, 40);
    EXPECT_EQ(ws::test::rt::counted(), 0);
}

}  // namespace
