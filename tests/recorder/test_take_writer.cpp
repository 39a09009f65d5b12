// The take on disk without a device: sample conversion, the empty take's
// header, the writer's pass (silence for drops, samples, checkpoints) and
// what a refused write leaves behind.
#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <limits>
#include <string>
#include <vector>

#include "recorder/core.hpp"
#include "recorder/take_writer.hpp"
#include "files.hpp"
#include "signals.hpp"

namespace {

using namespace ws::recorder;
using namespace ws::test;

constexpr uint32_t kPeriod = 441;  // 10 ms at 44100 Hz

TEST(TakeSample, ConversionTable) {
    const float nan = std::numeric_limits<float>::quiet_NaN();
    const float inf = std::numeric_limits<float>::infinity();
    struct Row { float x; int16_t want; };
    const Row rows[] = {
        {0.0f, 0},          {-0.0f, 0},         {1.0f, 32767},      {-1.0f, -32767},
        {1.5f, 32767},      {-1.5f, -32768},    {0.99999f, 32766},  {-0.99999f, -32766},
        {0.5f, 16383},      {-0.5f, -16383},    // 16383.5 truncated toward zero
        {1e-9f, 0},         {-1e-9f, 0},        {3.0517578e-05f, 0},  // 1/32768 * 32767 < 1
        {65537.0f, 32767},  {65538.0f, -32768}, // 65538 * 32767 rounds to 2^31: out of int range
        {-65538.0f, -32768}, {1e30f, -32768},   {-1e30f, -32768},
        {nan, -32768},      {-nan, -32768},     {inf, -32768},      {-inf, -32768},
    };
    for (const Row& r : rows) EXPECT_EQ(to_take_sample(r.x), r.want) << r.x;
}

const uint8_t kEmptyHeader[44] = {
    'R', 'I', 'F', 'F', 36, 0, 0, 0, 'W', 'A', 'V', 'E', 'f', 'm', 't', ' ',
    16, 0, 0, 0, 1, 0, 1, 0, 0x44, 0xAC, 0, 0, 0x88, 0x58, 0x01, 0,
    2, 0, 16, 0, 'd', 'a', 't', 'a', 0, 0, 0, 0};

TEST(TakeFileTest, ATakeStoppedAtOnceIsAnEmptyPlayableWav) {
    TempDir dir;
    TakeFile take;
    ASSERT_TRUE(take.create(dir.file("t.wav").c_str()));
    take.finish();
    const Take t = read_take(dir.file("t.wav"));
    EXPECT_EQ(t.file_size, 44u);
    EXPECT_EQ(t.header, std::vector<uint8_t>(kEmptyHeader, kEmptyHeader + 44));
    EXPECT_FALSE(take.is_open());
    EXPECT_FALSE(take.create(dir.file("no-such-dir/t.wav").c_str()));
}

// A core with a take open and recording, no device: the test plays the
// audio thread's part by calling process().
struct CoreRig {
    RecorderCore core;
    std::vector<float> out = std::vector<float>(2 * kPeriod);
    bool open(const std::string& path, int32_t start_ms = 0) {
        if (!core.take().create(path.c_str())) return false;
        core.arm(start_ms);
        core.set_recording(true);
        return true;
    }
    void push(const float* in, uint32_t frames = kPeriod) {
        if (out.size() < 2 * frames) out.resize(2 * frames);
        core.process(out.data(), in, frames);
    }
};

TEST(TakeWriterPass, DroppedPeriodsBecomeSilenceAheadOfTheWaitingSamples) {
    TempDir dir;
    CoreRig rig;
    ASSERT_TRUE(rig.open(dir.file("t.wav")));
    // 600 periods without a consumer: 594 fit (261954 of 262144 samples),
    // the last 6, louder, are dropped whole; they count as captured but
    // leave the input peak as it was.
    std::vector<float> in(kPeriod);
    double peak = 0.0;
    for (int p = 0; p < 600; ++p) {
        const float v = p < 594 ? static_cast<float>((p % 200 + 1) / 256.0) : 0.9f;
        std::fill(in.begin(), in.end(), v);
        if (p == 594) peak = rig.core.ring().input_peak();
        rig.push(in.data());
    }
    EXPECT_EQ(rig.core.ring().input_peak(), peak);
    EXPECT_EQ(rig.core.ring().captured_frames(), 600u * kPeriod);
    EXPECT_EQ(rig.core.ring().dropped_pending(), 6u * kPeriod);
    EXPECT_EQ(rig.core.ring().pending(), 594u * kPeriod);
    EXPECT_TRUE(rig.core.ring().take_overflow());
    ASSERT_TRUE(rig.core.writer().pass());
    EXPECT_EQ(rig.core.ring().dropped_pending(), 0u);
    EXPECT_EQ(rig.core.ring().pending(), 0u);
    EXPECT_EQ(rig.core.take().samples_written(), 600u * kPeriod);
    rig.core.take().finish();

    const Take t = read_take(dir.file("t.wav"));
    ASSERT_EQ(t.samples.size(), 600u * kPeriod);
    EXPECT_EQ(t.data_size, 2 * 600u * kPeriod);
    for (size_t i = 0; i < 6 * kPeriod; ++i) ASSERT_EQ(t.samples[i], 0) << i;
    for (int p = 0; p < 594; ++p) {
        const int16_t want = to_take_sample(static_cast<float>((p % 200 + 1) / 256.0));
        ASSERT_EQ(t.samples[6 * kPeriod + p * kPeriod], want) << p;
        ASSERT_EQ(t.samples[6 * kPeriod + p * kPeriod + kPeriod - 1], want) << p;
    }
}

TEST(TakeWriterPass, TheHeaderIsCheckpointedAtFiveSecondsOfAudio) {
    TempDir dir;
    CoreRig rig;
    const std::string path = dir.file("t.wav");
    ASSERT_TRUE(rig.open(path));
    std::vector<float> in(kPeriod, 0.25f);
    for (int p = 0; p < 499; ++p) rig.push(in.data());  // 220059 samples: not yet
    ASSERT_TRUE(rig.core.writer().pass());
    EXPECT_EQ(read_take(path).data_size, 0u);
    rig.push(in.data());  // 220500: exactly five seconds
    ASSERT_TRUE(rig.core.writer().pass());
    Take t = read_take(path);  // read while the take is still open
    EXPECT_EQ(t.data_size, 441000u);
    EXPECT_EQ(t.riff_size, 441036u);
    EXPECT_EQ(t.file_size, 44u + 441000u);
    // Writing goes on at the end, not over the header's neighbourhood.
    for (int p = 0; p < 10; ++p) rig.push(in.data());
    ASSERT_TRUE(rig.core.writer().pass());
    t = read_take(path);
    EXPECT_EQ(t.data_size, 441000u);  // next checkpoint only 5 s later
    EXPECT_EQ(t.file_size, 44u + 2u * 510u * kPeriod);
    rig.core.take().finish();
    t = read_take(path);
    EXPECT_EQ(t.data_size, 2u * 510u * kPeriod);
    for (int16_t s : t.samples) ASSERT_EQ(s, 8191);  // trunc(0.25 * 32767)
}

TEST(TakeWriterPass, DrainRestWritesWhatIsLeftButOwesNoSilence) {
    TempDir dir;
    CoreRig rig;
    ASSERT_TRUE(rig.open(dir.file("t.wav")));
    std::vector<float> in(kPeriod, -0.5f);
    for (int p = 0; p < 596; ++p) rig.push(in.data());  // two periods dropped
    rig.core.writer().drain_rest();
    EXPECT_EQ(rig.core.take().samples_written(), 594u * kPeriod);
    EXPECT_EQ(rig.core.ring().dropped_pending(), 2u * kPeriod);  // only the writer's pass pads
}

#if !defined(_WIN32)
TEST(TakeWriterPass, AShortWriteEndsTheWriterAndCountsNothingUnwritten) {
    CoreRig rig;
    ASSERT_TRUE(rig.open("/dev/full"));
    std::vector<float> in(kPeriod, 0.1f);
    rig.push(in.data());
    EXPECT_FALSE(rig.core.writer().pass());
    EXPECT_TRUE(rig.core.take().write_error());
    EXPECT_EQ(rig.core.take().samples_written(), 0u);
    // The recording goes on; the samples of the failed pass were let go.
    rig.push(in.data());
    EXPECT_EQ(rig.core.ring().captured_frames(), 2u * kPeriod);
    rig.core.take().finish();
}

#endif

}  // namespace
