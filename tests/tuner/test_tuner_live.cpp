// The live tuner against a real sound server: a tone played into the null
// sink is heard through its monitor. The analysis is proven without a device;
// this proves the device path feeds it, on time.
#include <gtest/gtest.h>

#include <algorithm>
#include <chrono>
#include <cmath>
#include <cstdio>
#include <cstring>
#include <thread>
#include <vector>

#include "sound_server.hpp"
#include "woodshed/tuner.h"

namespace {

using namespace std::chrono_literals;
using ws::test::wait_for;

// The median of a field over half a second of readings settles near its
// value within a few tries: a loaded server can run dry for a few
// milliseconds, which pulls the level down and, since the cents are
// smoothed, puts several readings in a row off; a clean half second is what
// a user would see.
template <class Field>
::testing::AssertionResult settles_near(Field field, double expected, double tolerance) {
    double m = std::nan("");
    for (int attempt = 0; attempt < 6; ++attempt) {
        std::vector<double> values;
        uint64_t last_frame = 0;
        const auto end = std::chrono::steady_clock::now() + 500ms;
        while (std::chrono::steady_clock::now() < end) {
            TunerReading r{};
            if (tn_engine_get_reading(&r) == 1 && r.frame_count != last_frame) {
                last_frame = r.frame_count;
                values.push_back(field(r));
            }
            std::this_thread::sleep_for(5ms);
        }
        if (values.empty()) continue;
        std::nth_element(values.begin(), values.begin() + values.size() / 2, values.end());
        m = values[values.size() / 2];
        if (std::fabs(m - expected) <= tolerance) return ::testing::AssertionSuccess();
        std::printf("half a second's median %.2f, wanted %.2f +- %.2f: another half second\n", m, expected,
                    tolerance);
    }
    return ::testing::AssertionFailure() << "median " << m << ", expected " << expected << " +- "
                                         << tolerance;
}

// Waits for a reading of G3 in tune; returns the time it took.
int ms_to_g3_in_tune() {
    const auto t0 = std::chrono::steady_clock::now();
    TunerReading r{};
    const auto g3 = [&] {
        return tn_engine_get_reading(&r) == 1 && r.note == 55 && r.state == tn_state_in_tune;
    };
    EXPECT_TRUE(wait_for(g3, 4000ms)) << "last reading: note " << r.note << " state " << r.state << " f "
                                      << r.frequency_hz;
    const auto took = std::chrono::steady_clock::now() - t0;
    return int(std::chrono::duration_cast<std::chrono::milliseconds>(took).count());
}

TEST(TunerFrame, CallsWithoutAnInstanceAnswerNotCreatedEvenWithNullPointers) {
    const TunerConfig c{440, 55, 1200, 5, -1, 0};
    for (const int32_t r : {tn_engine_destroy(), tn_engine_configure(nullptr), tn_engine_configure(&c),
                            tn_engine_start(nullptr), tn_engine_stop(), tn_engine_get_status(nullptr),
                            tn_engine_get_reading(nullptr), tn_engine_get_device(0, nullptr),
                            tn_engine_refresh_devices()}) {
        EXPECT_EQ(r, ws_not_created);
    }
}

// The whole device path: a tone played into the sink is read, through its
// monitor, as its note in tune within the bound, at its frequency and level;
// stop keeps the last reading, a new start forgets it and reads again.
TEST(TunerLive, AToneInTheSinkReadsAsItsNoteInTuneAcrossAStopAndRestart) {
    WS_REQUIRE_SOUND_SERVER();
    ws::test::TonePlayer tone;
    ASSERT_TRUE(tone.start(196.0));  // G3
    ASSERT_EQ(tn_engine_create(nullptr), ws_ok);
    struct Destroy { ~Destroy() { tn_engine_destroy(); } } destroy;
    ASSERT_EQ(tn_engine_start(nullptr), ws_ok);
    TunerStatus s{};
    ASSERT_EQ(tn_engine_get_status(&s), ws_ok);
    EXPECT_EQ(s.state, uint32_t(tn_engine_running));
    EXPECT_GT(s.sample_rate, 0u);
    EXPECT_EQ(s.default_used, 1u);
    RecordProperty("first_in_tune_ms", ms_to_g3_in_tune());
    // 0.2 Hz at 196 Hz is under 2 cents.
    EXPECT_TRUE(settles_near([](const TunerReading& r) { return r.frequency_hz; }, 196.0, 0.2));
    EXPECT_TRUE(settles_near([](const TunerReading& r) { return r.level_db; }, -9.03, 1.0));  // 0.5 sine

    ASSERT_EQ(tn_engine_stop(), ws_ok);
    TunerReading before{}, after{};
    ASSERT_EQ(tn_engine_get_reading(&before), 1);
    std::this_thread::sleep_for(50ms);
    ASSERT_EQ(tn_engine_get_reading(&after), 1);
    EXPECT_EQ(std::memcmp(&before, &after, sizeof before), 0);
    EXPECT_EQ(before.note, 55);

    // The first new reading is a window (about 43 ms) away.
    ASSERT_EQ(tn_engine_start(nullptr), ws_ok);
    TunerReading fresh{};
    EXPECT_EQ(tn_engine_get_reading(&fresh), 0);
    ms_to_g3_in_tune();
}

}  // namespace
