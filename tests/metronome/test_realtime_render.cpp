// The real-time rule for the render path, shown rather than promised: this
// binary replaces the global allocation functions (and, on glibc without a
// sanitizer, malloc and the mutex and sleep calls) with counters that are
// armed only on the thread and for the span of the render calls. Everything
// the engine's audio callback will do is exercised inside that span.
#include <gtest/gtest.h>

#include <algorithm>
#include <vector>

#include "click_track.hpp"
#include "metronome/core.hpp"

#include "rt_counter.hpp"

namespace {

using ws::metronome::MetronomeCore;
using ws::test::rt::Armed;

TEST(MetronomeRealTime, RenderAndCommandsNeitherAllocateNorLock) {
    MetronomeCore core;  // allocates its tables here, before any rendering
    core.prepare(44100);
    MetronomeConfig busy = ws::test::base_config();
    busy.tempo_ubpm = 400000000;
    busy.beat_divisor = 8;
    busy.subdivisions = 12;
    busy.swing = 0.7;
    busy.sound = 4;            // long clicks: all 24 voices busy, stealing constantly
    busy.count_in_bars = 1;
    busy.poly_pulses = 32;
    busy.play_bars = 3;
    busy.mute_bars = 1;
    busy.drop_probability = 0.3;
    busy.ramp_mode = mn_ramp_stepwise;
    busy.ramp_target_ubpm = 300000000;
    busy.ramp_interval_bars = 1;
    MetronomeConfig linear = busy;
    linear.ramp_mode = mn_ramp_linear;
    linear.subdivisions = 5;
    std::vector<float> out(1024 * 8);
    int most_voices = 0;
    ws::test::rt::reset();
    {
        Armed armed;
        delete new std::vector<int>(8);  // the counters see what they are meant to catch
    }
    EXPECT_GE(ws::test::rt::counted(), 2);
    ws::test::rt::reset();
    {
        Armed armed;
        core.start(busy);
        for (int block = 0; block < 3000; ++block) {
            switch (block) {
                case 500: core.configure(linear); break;
                case 900: core.pause(); break;
                case 950: core.resume(); break;
                case 1200: core.set_tempo(90000000); break;
                case 1300: core.set_master_gain(0.5); break;
                case 1500:
                    for (int i = 0; i < 40; ++i) core.set_tempo(100000000 + i);  // overflow
                    break;
                case 2000: core.stop(); break;
                case 2100: core.start(linear); break;
                default: break;
            }
            const uint32_t frames = 1 + static_cast<uint32_t>(block * 7919 % 1024);
            const uint32_t channels = 1 + static_cast<uint32_t>(block % 8);
            core.render(out.data(), frames, channels);
            MetronomeSnapshot s;
            (void)core.read_snapshot(&s);
            most_voices = std::max(most_voices, core.voices().active_count());
        }
    }
    EXPECT_EQ(ws::test::rt::counted(), 0);
    EXPECT_EQ(most_voices, ws::metronome::VoicePool::kVoices);  // the stealing path ran too
}

}  // namespace
