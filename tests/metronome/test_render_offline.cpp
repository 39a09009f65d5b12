// mn_render_offline through the shared library, as a host calls it:
// argument checks, the click positions and values of a simple track, channel
// copies, range checks on the record, and independence between calls.
#include <gtest/gtest.h>

#include <cmath>
#include <cstring>
#include <limits>
#include <thread>
#include <vector>

#include "woodshed/metronome.h"

namespace {

constexpr double kPi = 3.14159265358979323846;

MetronomeConfig simple() {
    MetronomeConfig c{};
    c.tempo_ubpm = 120000000;
    c.beats_per_bar = 4;
    c.subdivisions = 1;
    c.beat_divisor = 1;
    c.beat_multiplier = 1;
    c.swing = 0.5;
    c.master_gain = 1.0;
    c.accent_gain = 1.0;
    c.beat_gain = 0.5;
    c.subdivision_gain = 0.25;
    c.ramp_target_ubpm = 120000000;
    c.ramp_interval_bars = 1;
    c.accent_pattern[0] = mn_level_accent;
    c.accent_pattern[1] = c.accent_pattern[2] = c.accent_pattern[3] = mn_level_normal;
    return c;
}

std::vector<float> render(const MetronomeConfig& c, double rate, int64_t frames, int32_t channels) {
    std::vector<float> out(static_cast<size_t>(frames * channels), 99.0f);
    EXPECT_EQ(mn_render_offline(&c, rate, frames, channels, out.data()), frames);
    return out;
}

TEST(RenderOffline, InvalidArgumentsAreRejectedAndNothingIsWritten) {
    const MetronomeConfig c = simple();
    std::vector<float> out(64 * 9, 7.0f);
    struct Row { const MetronomeConfig* config; int64_t frames; int32_t channels; bool out; };
    const Row rows[] = {{nullptr, 64, 2, true}, {&c, 64, 2, false}, {&c, 0, 2, true}, {&c, -1, 2, true},
                        {&c, std::numeric_limits<int64_t>::min(), 2, true}, {&c, 64, 0, true},
                        {&c, 64, -2, true}, {&c, 64, 9, true}};
    for (const auto& r : rows) {
        EXPECT_EQ(mn_render_offline(r.config, 48000, r.frames, r.channels, r.out ? out.data() : nullptr),
                  ws_invalid_argument);
    }
    for (float s : out) ASSERT_EQ(s, 7.0f);
    EXPECT_EQ(mn_render_offline(&c, 48000, 64, 8, out.data()), 64);
    EXPECT_EQ(mn_render_offline(&c, 48000, 1, 1, out.data()), 1);
}

TEST(RenderOffline, ClicksStartOnTheBeatWithTheirComputedValues) {
    const std::vector<float> out = render(simple(), 48000, 100000, 1);
    // Beat 0: the accent of sound 0, a triangle at 1150 Hz, 38 ms (1824 samples).
    auto accent = [](int i) {
        const double t = i / 48000.0;
        const double x = 2 * kPi * 1150 * t;  // below a quarter period: the triangle is a line
        return std::exp(-95 * t) * 0.9 * (x * 2 / kPi) * 1.0 * 0.85;
    };
    EXPECT_EQ(out[0], 0.0f);
    for (int i : {1, 2, 5, 10}) EXPECT_NEAR(out[static_cast<size_t>(i)], accent(i), 1e-6) << i;
    // Beat 1 at frame 24000: the normal 820 Hz triangle at beat gain 0.5.
    const double t = 3 / 48000.0;
    EXPECT_NEAR(out[24003], std::exp(-95 * t) * 0.9 * (4 * 820 * t) * 0.5 * 0.85, 1e-6);
    // Silence between the clicks, and a click on every beat.
    for (int64_t beat = 0; beat < 4; ++beat) {
        const size_t start = static_cast<size_t>(beat * 24000);
        EXPECT_NE(out[start + 1], 0.0f) << beat;
        EXPECT_EQ(out[start + 1823], 0.0f) << beat;  // the faded last sample
        for (size_t i = start + 1824; i < std::min<size_t>(start + 24000, out.size()); ++i) {
            ASSERT_EQ(out[i], 0.0f) << i;
        }
    }
}

TEST(RenderOffline, EveryChannelCarriesTheSameClick) {
    MetronomeConfig c = simple();
    c.subdivisions = 3;
    c.poly_pulses = 5;
    c.poly_gain = 0.7;
    const std::vector<float> mono = render(c, 44100, 50000, 1);
    for (int32_t channels = 2; channels <= 8; ++channels) {
        const std::vector<float> multi = render(c, 44100, 50000, channels);
        for (size_t f = 0; f < mono.size(); ++f) {
            for (size_t ch = 0; ch < static_cast<size_t>(channels); ++ch) {
                ASSERT_EQ(multi[f * static_cast<size_t>(channels) + ch], mono[f]) << channels << " " << f;
            }
        }
    }
}

TEST(RenderOffline, TheHostRecordIsCheckedButNotChanged) {
    MetronomeConfig wild = simple();
    wild.tempo_ubpm = -5;                    // 10 BPM
    wild.beats_per_bar = 1000;               // 32
    wild.swing = std::numeric_limits<double>::quiet_NaN();
    wild.master_gain = 7.0;                  // 1
    wild.beat_gain = -1.0;                   // 0
    wild.sound = 99;                         // 0
    wild.accent_pattern[0] = 200;            // normal
    MetronomeConfig clamped = simple();
    clamped.tempo_ubpm = 10000000;
    clamped.beats_per_bar = 32;
    clamped.swing = 0.5;
    clamped.master_gain = 1.0;
    clamped.beat_gain = 0.0;
    clamped.sound = 0;
    clamped.accent_pattern[0] = mn_level_normal;
    MetronomeConfig copy;
    std::memcpy(&copy, &wild, sizeof copy);
    const std::vector<float> a = render(wild, 48000, 400000, 2);
    EXPECT_EQ(std::memcmp(&copy, &wild, sizeof copy), 0);
    const std::vector<float> b = render(clamped, 48000, 400000, 2);
    EXPECT_EQ(a, b);
}

TEST(RenderOffline, BadRatesRenderAt48k) {
    const std::vector<float> good = render(simple(), 48000, 30000, 1);
    for (double rate : {0.0, -1.0, 7999.0, 384001.0, std::numeric_limits<double>::quiet_NaN(),
                        std::numeric_limits<double>::infinity()}) {
        EXPECT_EQ(render(simple(), rate, 30000, 1), good) << rate;
    }
}

TEST(RenderOffline, AnAllZeroRecordIsSilent) {
    const MetronomeConfig zero{};
    for (float s : render(zero, 48000, 20000, 2)) ASSERT_EQ(s, 0.0f);
}

TEST(RenderOffline, LoudTracksStayWithinFullScale) {
    MetronomeConfig c = simple();
    c.tempo_ubpm = 400000000;
    c.beat_divisor = 8;
    c.subdivisions = 12;
    c.sound = 4;
    c.accent_gain = c.beat_gain = c.subdivision_gain = 1.0;
    c.poly_pulses = 32;
    c.poly_gain = 1.0;
    const std::vector<float> out = render(c, 48000, 48000, 2);
    bool reached = false;
    for (float s : out) {
        ASSERT_TRUE(s >= -1.0f && s <= 1.0f) << s;
        reached |= s == 1.0f || s == -1.0f;
    }
    EXPECT_TRUE(reached);  // loud enough to clip, and clipped exactly at full scale
}

TEST(RenderOffline, CallsAreIndependentAndMayRunAtOnce) {
    MetronomeConfig c = simple();
    c.drop_probability = 0.4;
    c.random_seed = 31337;
    c.count_in_bars = 1;
    c.ramp_mode = mn_ramp_linear;
    c.ramp_target_ubpm = 180000000;
    c.ramp_interval_bars = 2;
    const std::vector<float> once = render(c, 44100, 300000, 2);
    std::vector<std::vector<float>> results(4);
    std::vector<std::thread> threads;
    for (auto& r : results) threads.emplace_back([&r, &c] { r = render(c, 44100, 300000, 2); });
    for (auto& t : threads) t.join();
    for (const auto& r : results) EXPECT_EQ(r, once);
    // A long render is the same as its own start rendered shorter.
    const std::vector<float> shorter = render(c, 44100, 123457, 2);
    EXPECT_TRUE(std::equal(shorter.begin(), shorter.end(), once.begin()));
    EXPECT_EQ(mn_abi_version(), 1);
}

}  // namespace
