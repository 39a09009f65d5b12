// The recorder's callback without a device: what it plays from where, what
// it captures when, the input peak, the state record; the ring and the
// writer thread at full speed; and a round trip that moves in mid-take.
#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cmath>
#include <cstring>
#include <limits>
#include <thread>
#include <vector>

#include "recorder/core.hpp"
#include "files.hpp"
#include "signals.hpp"

namespace {

using namespace ws::recorder;
using namespace ws::test;

constexpr uint32_t kPeriod = 441;

class CoreTest : public ::testing::Test {
protected:
    void SetUp() override {
        track_file_ = dir_.file("backing.wav");
        std::vector<int16_t> s(2 * 2000);
        for (int i = 0; i < 2000; ++i) {
            s[2 * i] = static_cast<int16_t>(i);
            s[2 * i + 1] = static_cast<int16_t>(-i);
        }
        write_file(track_file_, pcm16_wav(2, 44100, s));
    }
    std::vector<float> play(uint32_t frames, const float* in = nullptr) {
        std::vector<float> out(2 * frames, 99.0f);
        core_.process(out.data(), in, frames);
        return out;
    }
    TempDir dir_;
    std::string track_file_;
    RecorderCore core_;
};

// From the start position to the track's end, then silence while the clock
// runs on; a start past the end is done at once; no track is never done.
TEST_F(CoreTest, PlaysTheTrackFromTheStartPositionThenSilence) {
    ASSERT_EQ(core_.load_track(track_file_.c_str()), LoadResult::ok);
    core_.arm(40);  // frame 1764 of 2000
    std::vector<float> out = play(kPeriod);
    for (uint32_t i = 0; i < kPeriod; ++i) {
        const int frame = 1764 + static_cast<int>(i);
        const float l = frame < 2000 ? static_cast<float>(frame / 32768.0) : 0.0f;
        ASSERT_EQ(out[2 * i], l) << i;
        ASSERT_EQ(out[2 * i + 1], -l) << i;
    }
    RecorderState s{};
    core_.fill_state(s);
    EXPECT_EQ(s.play_position, 1764 + 441);
    EXPECT_EQ(s.playback_done, 1u);
    EXPECT_EQ(s.sample_rate, 44100u);
    for (float v : play(kPeriod)) ASSERT_EQ(v, 0.0f);
    EXPECT_EQ(core_.play_position(), 1764 + 882);
    core_.arm(1000);  // frame 44100 of a 2000-frame track
    core_.fill_state(s);
    EXPECT_EQ(s.play_position, 44100);
    EXPECT_EQ(s.playback_done, 1u);
    core_.unload_track();
    core_.arm(0);
    for (int p = 0; p < 3; ++p) {
        for (float v : play(kPeriod)) ASSERT_EQ(v, 0.0f);
    }
    core_.fill_state(s);
    EXPECT_EQ(s.play_position, 3 * 441);
    EXPECT_EQ(s.playback_done, 0u);
}

TEST_F(CoreTest, CapturesOnlyWhileRecordingAndNotMuted) {
    core_.arm(0);
    const std::vector<float> in(kPeriod, 0.5f);
    play(kPeriod, in.data());  // not recording yet
    EXPECT_EQ(core_.ring().captured_frames(), 0u);
    core_.set_recording(true);
    play(kPeriod, nullptr);  // no input buffer
    EXPECT_EQ(core_.ring().captured_frames(), 0u);
    play(kPeriod, in.data());
    EXPECT_EQ(core_.ring().captured_frames(), kPeriod);
    EXPECT_EQ(core_.ring().pending(), kPeriod);

    const int64_t pos = core_.play_position();
    core_.set_muted(true);
    for (float v : play(kPeriod, in.data())) ASSERT_EQ(v, 0.0f);
    EXPECT_EQ(core_.play_position(), pos);  // muted: the position stands still
    EXPECT_EQ(core_.ring().captured_frames(), kPeriod);
    core_.set_muted(false);

    RecorderState s{};
    core_.fill_state(s);
    EXPECT_EQ(s.recording, 1u);
    EXPECT_EQ(s.captured_frames, int64_t{kPeriod});
    core_.set_recording(false);
    core_.fill_state(s);
    EXPECT_EQ(s.recording, 0u);
}

TEST_F(CoreTest, ThePeakDecaysByANinthEveryPeriod) {
    core_.arm(0);
    core_.set_recording(true);
    std::vector<float> in(kPeriod, 0.0f);
    in[100] = -0.5f;
    play(kPeriod, in.data());
    EXPECT_EQ(core_.ring().input_peak(), 0.5);
    std::fill(in.begin(), in.end(), 0.0f);
    play(kPeriod, in.data());
    EXPECT_EQ(core_.ring().input_peak(), 0.5 * 0.9);
    in[7] = 0.3f;  // quieter than the decayed peak
    play(kPeriod, in.data());
    EXPECT_EQ(core_.ring().input_peak(), 0.5 * 0.9 * 0.9);
    in[7] = 0.8f;
    play(kPeriod, in.data());
    EXPECT_EQ(core_.ring().input_peak(), static_cast<double>(0.8f));
    in[7] = std::numeric_limits<float>::quiet_NaN();  // NaN never raises it
    play(kPeriod, in.data());
    EXPECT_EQ(core_.ring().input_peak(), static_cast<double>(0.8f) * 0.9);
    core_.arm(0);
    EXPECT_EQ(core_.ring().input_peak(), 0.0);
}

// ---- under load ---------------------------------------------------------

TEST(RecorderLoad, WithoutDropsEverySampleArrivesInOrder) {
    TempDir dir;
    const std::string path = dir.file("t.wav");
    RecorderCore core;
    ASSERT_TRUE(core.take().create(path.c_str()));
    core.arm(0);
    core.writer().start();
    core.set_recording(true);
    constexpr int kPeriods = 3000;  // 30 s of audio, pushed as fast as the ring allows
    std::thread producer([&core] {
        std::vector<float> in(kPeriod), out(2 * kPeriod);
        uint32_t k = 0;
        for (int p = 0; p < kPeriods; ++p) {
            for (uint32_t i = 0; i < kPeriod; ++i, ++k) in[i] = static_cast<float>(static_cast<int>(k % 65536) - 32768) / 32768.0f;
            while (core.ring().pending() > kRingSamples / 2) std::this_thread::yield();
            core.process(out.data(), in.data(), kPeriod);
        }
    });
    producer.join();
    core.writer().stop();
    core.writer().drain_rest();
    EXPECT_EQ(core.ring().dropped_pending(), 0u);
    core.take().finish();

    const Take t = read_take(path);
    ASSERT_EQ(t.samples.size(), size_t{kPeriods} * kPeriod);
    EXPECT_EQ(t.data_size, 2u * kPeriods * kPeriod);
    for (size_t k = 0; k < t.samples.size(); ++k) {
        const int s = static_cast<int>(k % 65536) - 32768;
        const int want = s > 0 ? s - 1 : (s < 0 ? s + 1 : 0);
        ASSERT_EQ(t.samples[k], want) << k;
    }
}

// ---- a round trip that moves ------------------------------------------------

// A fake duplex device at 48000 Hz whose input hears its own output after a
// round trip of `delay` frames. At 3 s the server falls behind (300 frames
// of silence enter the loop: the round trip grows), at 6 s it skips ahead
// (480 frames vanish: the round trip shrinks). The writer must repair both
// where they happen, so the take holds the backing at one delay throughout.
TEST(RecorderAlignment, AMovedRoundTripIsRepairedWhereItMoved) {
    constexpr uint32_t kDevice = 48000, kBlock = 480;
    constexpr int kDelay = 960;  // 20 ms: 882 frames at 44100 Hz
    TempDir dir;
    const std::vector<int16_t> noise = noise16(10 * 44100, 12000, 21);
    write_file(dir.file("b.wav"), pcm16_wav(1, 44100, noise));
    RecorderCore core;
    core.set_device_rate(kDevice);
    ASSERT_EQ(core.load_track(dir.file("b.wav").c_str()), LoadResult::ok);
    ASSERT_TRUE(core.take().create(dir.file("t.wav").c_str()));
    core.arm(0);
    core.set_recording(true);
    std::vector<float> loop(kDelay, 0.0f);  // what the input hears next
    std::vector<float> out(2 * kBlock);
    for (uint32_t p = 0; p < 9 * kDevice / kBlock; ++p) {
        if (p == 3 * kDevice / kBlock) loop.insert(loop.begin(), 300, 0.0f);
        if (p == 6 * kDevice / kBlock) loop.erase(loop.begin(), loop.begin() + 480);
        core.process(out.data(), loop.data(), kBlock);
        loop.erase(loop.begin(), loop.begin() + kBlock);
        for (uint32_t i = 0; i < kBlock; ++i) loop.push_back(0.5f * (out[2 * i] + out[2 * i + 1]));
        if (p % 4 == 0) {
            ASSERT_TRUE(core.writer().pass());
        }
    }
    core.writer().drain_rest();
    core.take().finish();
    EXPECT_EQ(core.repairs(), 2);
    RecorderState st{};
    core.fill_state(st);  // the host counts at 44100 Hz
    EXPECT_EQ(st.captured_frames, 9 * 44100);
    EXPECT_EQ(st.play_position, 9 * 44100);

    const Take t = read_take(dir.file("t.wav"));
    // 9 s at 48 kHz, less the 300 frames dropped, plus the 480 inserted,
    // at 44100 Hz: ceil(432180 * 147 / 160).
    EXPECT_EQ(t.samples.size(), 397066u);
    // The delay of each 50 ms window of the take, away from the seams.
    for (double at : {0.5, 1.5, 2.8, 3.3, 4.5, 5.8, 6.3, 7.5, 8.5}) {
        const auto from = static_cast<size_t>(at * 44100);
        int best_lag = 0;
        double best = 0;
        for (int lag = 800; lag <= 1200; ++lag) {
            double tb = 0, tt = 0, bb = 0;
            for (size_t i = from; i < from + 2205; ++i) {
                const double b = noise[i - static_cast<size_t>(lag)], x = t.samples[i];
                tb += x * b;
                tt += x * x;
                bb += b * b;
            }
            const double c = tb / std::sqrt(tt * bb + 1e-30);
            if (c > best) {
                best = c;
                best_lag = lag;
            }
        }
        EXPECT_NEAR(best_lag, 882, 1) << "at " << at << " s (score " << best << ")";
        EXPECT_GT(best, 0.9) << "at " << at << " s";
    }
}

}  // namespace
