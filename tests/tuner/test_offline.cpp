// tn_offline_process through the shared library: argument checks, window
// boundaries, channel mixing and known tones.
#include <gtest/gtest.h>

#include <cmath>
#include <cstring>
#include <thread>
#include <vector>

#include "signals.hpp"
#include "woodshed/tuner.h"

namespace {

namespace t = ws::test;

// Invalid arguments are refused, and a buffer short of one window gives no
// reading (2048 samples at 48 kHz; at 96 kHz the same window after
// halving), both before anything is touched; one window gives one reading,
// stamped at its end at the input rate.
TEST(OfflineProcess, ArgumentsAndTheFirstWindow) {
    const auto x = t::sine(440, 48000, 32 * 4096);
    struct Row { const float* samples; int32_t frames, channels; double rate; bool out; int32_t want; };
    constexpr int32_t kBad = ws_invalid_argument;
    const Row rows[] = {
        {nullptr, 4096, 1, 48000, true, kBad},  {x.data(), 4096, 1, 48000, false, kBad},
        {x.data(), 0, 1, 48000, true, kBad},    {x.data(), -5, 1, 48000, true, kBad},
        {x.data(), 4096, 0, 48000, true, kBad}, {x.data(), 4096, -1, 48000, true, kBad},
        {x.data(), 128, 33, 48000, true, kBad}, {x.data(), 2048, 32, 48000, true, 1},
        {x.data(), 2047, 1, 48000, true, 0}, {x.data(), 2048, 1, 48000, true, 1},
        {x.data(), 4095, 1, 96000, true, 0}, {x.data(), 4096, 1, 96000, true, 1},
        {x.data(), 1023, 1, 8000, true, 0},  {x.data(), 1024, 1, 8000, true, 1},
    };
    TunerReading blank;
    std::memset(&blank, 0xA5, sizeof blank);
    for (const auto& r : rows) {
        TunerReading out = blank;
        EXPECT_EQ(tn_offline_process(nullptr, r.samples, r.frames, r.channels, r.rate, r.out ? &out : nullptr),
                  r.want) << r.frames << " x " << r.channels << " at " << r.rate;
        EXPECT_TRUE(r.want == 1 ? out.frame_count == 1 && out.time_us == uint64_t(r.frames * 1e6 / r.rate)
                                : std::memcmp(&out, &blank, sizeof out) == 0) << r.frames;
    }
}

// The mean of the channels: a tone on one of four is a quarter of it in
// mono, and a right channel that inverts the left mixes to silence.
TEST(OfflineProcess, ChannelsAreAveraged) {
    const auto tone = t::string_tone(t::midi_hz(52), 44100, 44100);
    std::vector<float> four(tone.size() * 4, 0.0f), quarter(tone.size()), stereo(tone.size() * 2);
    for (size_t i = 0; i < tone.size(); ++i) {
        four[4 * i + 2] = tone[i];
        quarter[i] = tone[i] * 0.25f;
        stereo[2 * i] = tone[i];
        stereo[2 * i + 1] = -tone[i];
    }
    TunerReading multi{}, mono{}, silent{};
    ASSERT_EQ(tn_offline_process(nullptr, four.data(), 44100, 4, 44100, &multi), 1);
    ASSERT_EQ(tn_offline_process(nullptr, quarter.data(), 44100, 1, 44100, &mono), 1);
    EXPECT_EQ(multi.note, 52);
    EXPECT_EQ(std::memcmp(&multi, &mono, sizeof mono), 0);
    ASSERT_EQ(tn_offline_process(nullptr, stereo.data(), 44100, 2, 44100, &silent), 1);
    EXPECT_EQ(silent.state, tn_state_silent);
    EXPECT_EQ(silent.note, -1);
    EXPECT_EQ(silent.level_db, -120.0);
    const TunerConfig fixed_e4{440, 55, 1200, 5, 64, 0};  // the settings reach the analysis
    ASSERT_EQ(tn_offline_process(&fixed_e4, quarter.data(), 44100, 1, 44100, &mono), 1);
    EXPECT_EQ(mono.note, 64);
    EXPECT_NEAR(mono.cents, -1200.0, 0.3);
}

// The track: one reading per hop, each stamped at its window's end, the
// first note then the second, and its last entry the single reading bit for
// bit, also when a short room stops it early.
TEST(OfflineTrack, FollowsTheNotesAndEndsOnTheSingleReading) {
    const double rate = 48000;
    const auto x = t::concat({t::string_tone(t::midi_hz(45), rate, 24000),
                              t::string_tone(t::midi_hz(50), rate, 24000)});
    const int32_t frames = int32_t(x.size()), expected = (frames - 2048) / 1024 + 1;
    int32_t count = 0;
    ASSERT_EQ(tn_offline_track(nullptr, x.data(), frames, 1, rate, nullptr, &count), 1);
    ASSERT_EQ(count, expected);
    std::vector<TunerReading> track(size_t(count) + 3);
    count += 3;
    ASSERT_EQ(tn_offline_track(nullptr, x.data(), frames, 1, rate, track.data(), &count), 1);
    ASSERT_EQ(count, expected);
    TunerReading single{};
    ASSERT_EQ(tn_offline_process(nullptr, x.data(), frames, 1, rate, &single), 1);
    EXPECT_EQ(std::memcmp(&track[size_t(count) - 1], &single, sizeof single), 0);
    for (int32_t k = 0; k < count; ++k) {
        EXPECT_EQ(track[size_t(k)].frame_count, uint64_t(k) + 1);
        EXPECT_EQ(track[size_t(k)].time_us, uint64_t(double(k * 1024 + 2048) * 1e6 / rate));
    }
    EXPECT_EQ(track[10].note, 45);
    EXPECT_EQ(single.note, 50);
    EXPECT_EQ(single.octave, 3);
    count = 5;  // a short room: the first five, as in the full track
    std::vector<TunerReading> head(5);
    ASSERT_EQ(tn_offline_track(nullptr, x.data(), frames, 1, rate, head.data(), &count), 1);
    EXPECT_EQ(count, 5);
    EXPECT_EQ(std::memcmp(head.data(), track.data(), 5 * sizeof(TunerReading)), 0);
    count = 4;
    EXPECT_EQ(tn_offline_track(nullptr, x.data(), 2047, 1, rate, nullptr, &count), ws_invalid_argument);
    std::vector<TunerReading> room(4);
    EXPECT_EQ(tn_offline_track(nullptr, x.data(), 2047, 1, rate, room.data(), &count), 0);
    EXPECT_EQ(count, 0);
    count = -1;
    EXPECT_EQ(tn_offline_track(nullptr, x.data(), frames, 1, rate, room.data(), &count), ws_invalid_argument);
    EXPECT_EQ(tn_offline_track(nullptr, x.data(), frames, 1, rate, room.data(), nullptr), ws_invalid_argument);
}

TEST(OfflineProcess, ConcurrentCallsAgree) {
    const auto x = t::string_tone(t::midi_hz(47), 96000, 96000);
    TunerReading expected{};
    ASSERT_EQ(tn_offline_process(nullptr, x.data(), int32_t(x.size()), 1, 96000, &expected), 1);
    std::vector<TunerReading> got(4);
    std::vector<std::thread> threads;
    for (auto& g : got) {
        threads.emplace_back([&] { tn_offline_process(nullptr, x.data(), int32_t(x.size()), 1, 96000, &g); });
    }
    for (auto& th : threads) th.join();
    for (const auto& g : got) EXPECT_EQ(std::memcmp(&g, &expected, sizeof g), 0);
}

}  // namespace
