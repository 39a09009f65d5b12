// mn_render_offline through the shared library, as a host calls it:
// argument checks, channel copies, the rate check and independence between
// calls (what it renders is the core's, tested there).
#include <gtest/gtest.h>

#include <algorithm>
#include <limits>
#include <thread>
#include <vector>

#include "metronome/config.hpp"
#include "woodshed/metronome.h"

namespace {

using ws::metronome::plain_config;

std::vector<float> render(const MetronomeConfig& c, double rate, int64_t frames, int32_t channels) {
    std::vector<float> out(static_cast<size_t>(frames * channels), 99.0f);
    EXPECT_EQ(mn_render_offline(&c, rate, frames, channels, out.data()), frames);
    return out;
}

TEST(RenderOffline, InvalidArgumentsAreRejectedAndNothingIsWritten) {
    const MetronomeConfig c = plain_config();
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

TEST(RenderOffline, EveryChannelCarriesTheSameClick) {
    MetronomeConfig c = plain_config();
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

// The record is range-checked by the core's start (MetronomeCommandCheck);
// what is left here is the rate's check and the all-zero record.
TEST(RenderOffline, ABadRateRendersAt48kAndAnAllZeroRecordIsSilent) {
    const MetronomeConfig c = plain_config();
    for (double rate : {0.0, 7999.0, 384001.0, std::numeric_limits<double>::quiet_NaN(),
                        std::numeric_limits<double>::infinity()}) {
        EXPECT_EQ(render(c, rate, 30000, 1), render(c, 48000, 30000, 1)) << rate;
    }
    for (float s : render(MetronomeConfig{}, 48000, 20000, 2)) ASSERT_EQ(s, 0.0f);
}

TEST(RenderOffline, CallsAreIndependentAndMayRunAtOnce) {
    MetronomeConfig c = plain_config();
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
    const std::vector<float> shorter = render(c, 44100, 123457, 2);  // its own start
    EXPECT_TRUE(std::equal(shorter.begin(), shorter.end(), once.begin()));
}

}  // namespace
