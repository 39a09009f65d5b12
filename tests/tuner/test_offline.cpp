// tn_offline_process through the shared library: argument checks, window
// boundaries, channel mixing and known tones.
#include <gtest/gtest.h>

#include <cmath>
#include <cstring>
#include <limits>
#include <thread>
#include <vector>

#include "signals.hpp"
#include "woodshed/tuner.h"

namespace {

namespace t = ws::test;

TunerReading sentinel() {
    TunerReading r;
    std::memset(&r, 0xA5, sizeof r);
    return r;
}

bool untouched(const TunerReading& r) {
    const TunerReading s = sentinel();
    return std::memcmp(&r, &s, sizeof r) == 0;
}

TEST(OfflineProcess, InvalidArgumentsAreRejectedBeforeAnythingIsTouched) {
    const auto x = t::sine(440, 48000, 4096);
    struct Row { const float* samples; int32_t frames, channels; bool out; };
    const Row rows[] = {
        {nullptr, 4096, 1, true}, {x.data(), 4096, 1, false}, {x.data(), 0, 1, true},
        {x.data(), -5, 1, true},  {x.data(), 4096, 0, true},  {x.data(), 4096, -1, true},
        {x.data(), 128, 33, true},
    };
    for (const auto& r : rows) {
        TunerReading out = sentinel();
        EXPECT_EQ(tn_offline_process(nullptr, r.samples, r.frames, r.channels, 48000, r.out ? &out : nullptr),
                  ws_invalid_argument);
        EXPECT_TRUE(untouched(out));
    }
    std::vector<float> wide(32 * 2048, 0.0f);
    TunerReading out{};
    EXPECT_EQ(tn_offline_process(nullptr, wide.data(), 2048, 32, 48000, &out), 1);
}

TEST(OfflineProcess, OneWindowIsNeededForAReading) {
    struct Row { double rate; int32_t too_short; };
    // 2048-sample window at 48 kHz; at 96 kHz the same window after halving.
    const Row rows[] = {{48000, 2047}, {96000, 4095}, {8000, 1023}};
    for (const auto& r : rows) {
        const auto x = t::sine(440, r.rate, static_cast<size_t>(r.too_short) + 1);
        TunerReading out = sentinel();
        EXPECT_EQ(tn_offline_process(nullptr, x.data(), r.too_short, 1, r.rate, &out), 0) << r.rate;
        EXPECT_TRUE(untouched(out));
        EXPECT_EQ(tn_offline_process(nullptr, x.data(), r.too_short + 1, 1, r.rate, &out), 1) << r.rate;
        EXPECT_EQ(out.frame_count, 1u);
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
}

// A null configuration is the defaults, and a bad rate is 48 kHz.
TEST(OfflineProcess, DefaultsStandInForMissingOrBadSettings) {
    const auto x = t::string_tone(t::midi_hz(62) * 1.01, 48000, 30000);
    const TunerConfig defaults{440, 55, 1200, 5, -1, 0};
    TunerReading a{}, b{};
    ASSERT_EQ(tn_offline_process(&defaults, x.data(), 30000, 1, 48000, &a), 1);
    EXPECT_EQ(a.note, 62);
    EXPECT_NEAR(a.cents, 1200 * std::log2(1.01), 0.5);
    ASSERT_EQ(tn_offline_process(nullptr, x.data(), 30000, 1, 48000, &b), 1);
    EXPECT_EQ(std::memcmp(&a, &b, sizeof a), 0);
    for (double bad : {0.0, std::nan(""), std::numeric_limits<double>::infinity(), 384001.0}) {
        ASSERT_EQ(tn_offline_process(nullptr, x.data(), 30000, 1, bad, &b), 1) << bad;
        EXPECT_EQ(std::memcmp(&a, &b, sizeof a), 0) << bad;
    }
}

TEST(OfflineProcess, SettingsShapeTheReading) {
    const double f = 440.0 * std::pow(2.0, 8.0 / 1200.0);  // A4 + 8 cents
    const auto x = t::string_tone(f, 48000, 48000);
    TunerReading r{};
    TunerConfig c{440, 55, 1200, 5, -1, 0};
    ASSERT_EQ(tn_offline_process(&c, x.data(), 48000, 1, 48000, &r), 1);
    EXPECT_EQ(r.state, tn_state_pitched);  // 8 cents, tolerance 5
    c.a4_hz = 442;  // reference moves up by 7.85 cents
    ASSERT_EQ(tn_offline_process(&c, x.data(), 48000, 1, 48000, &r), 1);
    EXPECT_NEAR(r.cents, 8.0 - 1200 * std::log2(442.0 / 440.0), 0.3);
    EXPECT_NEAR(r.target_hz, 442.0, 1e-9);
    c = {440, 55, 1200, 5, 64, 0};  // fixed E4: A4 reads 500 cents sharp of it
    ASSERT_EQ(tn_offline_process(&c, x.data(), 48000, 1, 48000, &r), 1);
    EXPECT_EQ(r.note, 64);
    EXPECT_NEAR(r.cents, 508.0, 0.3);
}

// The track: one reading per hop, each stamped at its window's end, the
// first note then the second, and its last entry the single reading bit for
// bit (mono and a stereo mix, a short room that stops it early).
TEST(OfflineTrack, FollowsTheNotesAndEndsOnTheSingleReading) {
    const double rate = 48000;
    const auto x = t::concat({t::string_tone(t::midi_hz(45), rate, 24000),
                              t::string_tone(t::midi_hz(50), rate, 24000)});
    std::vector<float> stereo(x.size() * 2);
    for (size_t i = 0; i < x.size(); ++i) stereo[2 * i] = stereo[2 * i + 1] = x[i];
    const int32_t frames = int32_t(x.size());
    const int32_t expected = (frames - 2048) / 1024 + 1;
    for (int32_t channels : {1, 2}) {
        const float* data = channels == 1 ? x.data() : stereo.data();
        int32_t count = 0;
        ASSERT_EQ(tn_offline_track(nullptr, data, frames, channels, rate, nullptr, &count), 1);
        ASSERT_EQ(count, expected);
        std::vector<TunerReading> track(size_t(count) + 3);
        count += 3;
        ASSERT_EQ(tn_offline_track(nullptr, data, frames, channels, rate, track.data(), &count), 1);
        ASSERT_EQ(count, expected);
        TunerReading single{};
        ASSERT_EQ(tn_offline_process(nullptr, data, frames, channels, rate, &single), 1);
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
        ASSERT_EQ(tn_offline_track(nullptr, data, frames, channels, rate, head.data(), &count), 1);
        EXPECT_EQ(count, 5);
        EXPECT_EQ(std::memcmp(head.data(), track.data(), 5 * sizeof(TunerReading)), 0);
    }
    int32_t count = 4;
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
