// The core across threads, as the engine will use it: an audio thread
// rendering, host threads pushing commands and reading snapshots. Run under
// ThreadSanitizer these also show that no access races.
#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <thread>
#include <vector>

#include "click_track.hpp"
#include "metronome/core.hpp"

namespace {

using ws::metronome::MetronomeCore;

TEST(MetronomeThreads, SnapshotReadsRacingTheWriterAreConsistent) {
    MetronomeCore core;
    MetronomeConfig c = ws::test::base_config();
    c.subdivisions = 2;
    core.start(c);
    constexpr uint32_t kBlock = 64;
    constexpr long kReads = 20000;
    std::atomic<bool> done{false}, enough{false};
    uint64_t blocks = 0;
    std::thread audio([&] {
        // On until the reader has had its share or time is up, however the
        // two threads happen to be scheduled.
        std::vector<float> out(kBlock * 2);
        const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(10);
        while (!enough.load() && std::chrono::steady_clock::now() < deadline) {
            core.render(out.data(), kBlock, 2);
            ++blocks;
        }
        done.store(true, std::memory_order_release);
    });
    long consistent = 0, bad = 0;
    uint64_t last_count = 0;
    while (!done.load(std::memory_order_acquire)) {
        MetronomeSnapshot s;
        if (!core.read_snapshot(&s)) continue;
        if (++consistent == kReads) enough = true;
        // Every field follows from the block count; a torn copy breaks at least one.
        const uint64_t clock = kBlock * s.publish_count;
        const int64_t pulses = static_cast<int64_t>((clock - 1) / 12000);  // index of the last pulse
        bad += s.frame_clock != clock;
        bad += s.bar != pulses / 8;
        bad += s.beat != (pulses / 2) % 4;
        bad += s.subdivision != pulses % 2;
        bad += s.run_id != 1 || s.state != mn_state_running || s.tempo_ubpm != 120000000;
        bad += !(s.beat_phase >= 0.0 && s.beat_phase <= 1.0 && s.bar_phase >= 0.0 && s.bar_phase <= 1.0);
        bad += s.publish_count < last_count;  // never goes back
        last_count = s.publish_count;
    }
    audio.join();
    EXPECT_EQ(bad, 0);
    EXPECT_GE(consistent, kReads) << "consistent reads within 10 s";
    MetronomeSnapshot s;
    ASSERT_TRUE(core.read_snapshot(&s));
    EXPECT_EQ(s.publish_count, blocks);
}

TEST(MetronomeThreads, CommandsFromAHostThreadWhileRendering) {
    MetronomeCore core;
    core.start(ws::test::base_config());
    std::atomic<bool> stop{false};
    std::thread audio([&] {
        std::vector<float> out(256 * 2);
        while (!stop.load(std::memory_order_acquire)) core.render(out.data(), 256, 2);
    });
    MetronomeConfig c = ws::test::base_config();
    for (int i = 0; i < 20000; ++i) {
        switch (i % 7) {
            case 0: core.pause(); break;
            case 1: core.resume(); break;
            case 2: c.sound = i % 6; core.configure(c); break;
            case 3: core.set_master_gain((i % 10) / 10.0); break;
            default: core.set_tempo(60000000 + i); break;
        }
        MetronomeSnapshot s;
        (void)core.read_snapshot(&s);
    }
    // A start is applied whatever came before it (a configuration waiting
    // for a bar line would undo a plain tempo command).
    c.tempo_ubpm = 123000000;
    core.start(c);
    // Wait (without a clock) until the audio thread has taken the last command.
    MetronomeSnapshot s{};
    while (!(core.read_snapshot(&s) && s.run_id == 2)) std::this_thread::yield();
    stop.store(true, std::memory_order_release);
    audio.join();
    EXPECT_EQ(s.tempo_ubpm, 123000000);
    EXPECT_EQ(core.tempo_ubpm(), 123000000);
}

}  // namespace
