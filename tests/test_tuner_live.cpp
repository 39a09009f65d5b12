// The live tuner against a real sound server: a tone played into the null
// sink is heard through its monitor. Also the frame rules of the tn_engine_
// exports, which need an engine and so an audio context.
#include <gtest/gtest.h>

#include <algorithm>
#include <chrono>
#include <cmath>
#include <vector>
#include <cstring>
#include <string>
#include <thread>

#include "sound_server.hpp"
#include "woodshed/tuner.h"

namespace {

using namespace std::chrono_literals;
using ws::test::TonePlayer;
using ws::test::wait_for;

// Median of a field over the readings of `span`: a loaded server can drop a
// few milliseconds of the tone now and then, and one frame over such a gap
// reads a little off.
template <class Field>
double median_of(Field field, std::chrono::milliseconds span) {
    std::vector<double> values;
    uint64_t last_frame = 0;
    const auto end = std::chrono::steady_clock::now() + span;
    while (std::chrono::steady_clock::now() < end) {
        TunerReading r{};
        if (tn_engine_get_reading(&r) == 1 && r.frame_count != last_frame) {
            last_frame = r.frame_count;
            values.push_back(field(r));
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(5));
    }
    if (values.empty()) return std::nan("");
    std::sort(values.begin(), values.end());
    return values[values.size() / 2];
}

// A gap in the tone (the server ran dry) pulls the level down and, since the
// cents are smoothed, several readings in a row off; under a sanitizer such
// gaps come often enough to move a median. A clean half second within a few
// tries is what a user would see.
template <class Field>
::testing::AssertionResult settles_near(Field field, double expected, double tolerance) {
    double m = 0.0;
    for (int attempt = 0; attempt < 6; ++attempt) {
        m = median_of(field, 500ms);
        if (std::fabs(m - expected) <= tolerance) return ::testing::AssertionSuccess();
    }
    return ::testing::AssertionFailure() << "median " << m << ", expected " << expected << " +- " << tolerance;
}

TunerStatus status() {
    TunerStatus s{};
    EXPECT_EQ(tn_engine_get_status(&s), ws_ok);
    return s;
}

class TunerLive : public ::testing::Test {
protected:
    void SetUp() override {
        WS_REQUIRE_SOUND_SERVER();
        ASSERT_EQ(tn_engine_create(nullptr), ws_ok);
    }
    void TearDown() override { tn_engine_destroy(); }

    // Waits for a reading of `note` in tune; returns the time it took.
    std::chrono::milliseconds time_to_in_tune(int note, std::chrono::milliseconds limit = 4000ms) {
        const auto t0 = std::chrono::steady_clock::now();
        TunerReading r{};
        const bool ok = wait_for([&] {
            return tn_engine_get_reading(&r) == 1 && r.note == note && r.state == tn_state_in_tune;
        }, limit);
        EXPECT_TRUE(ok) << "last reading: note " << r.note << " state " << r.state << " f " << r.frequency_hz;
        return std::chrono::duration_cast<std::chrono::milliseconds>(std::chrono::steady_clock::now() - t0);
    }

    std::string monitor_id() {
        const int32_t n = tn_engine_refresh_devices();
        DeviceRecord d{};
        for (int32_t i = 0; i < n; ++i) {
            if (tn_engine_get_device(i, &d) == 1 && std::strstr(d.name, "Woodshed_null_sink")) return d.id_text;
        }
        return {};
    }
};

TEST(TunerFrame, CallsWithoutAnInstanceAnswerNotCreatedEvenWithNullPointers) {
    TunerStatus s;
    TunerReading r;
    DeviceRecord d;
    TunerConfig c{440, 55, 1200, 5, -1, 0};
    EXPECT_EQ(tn_engine_destroy(), ws_not_created);
    EXPECT_EQ(tn_engine_configure(nullptr), ws_not_created);
    EXPECT_EQ(tn_engine_configure(&c), ws_not_created);
    EXPECT_EQ(tn_engine_start(nullptr), ws_not_created);
    EXPECT_EQ(tn_engine_stop(), ws_not_created);
    EXPECT_EQ(tn_engine_get_status(nullptr), ws_not_created);
    EXPECT_EQ(tn_engine_get_status(&s), ws_not_created);
    EXPECT_EQ(tn_engine_get_reading(nullptr), ws_not_created);
    EXPECT_EQ(tn_engine_get_reading(&r), ws_not_created);
    EXPECT_EQ(tn_engine_get_device(0, nullptr), ws_not_created);
    EXPECT_EQ(tn_engine_get_device(-1, &d), ws_not_created);
    EXPECT_EQ(tn_engine_refresh_devices(), ws_not_created);
}

TEST_F(TunerLive, FrameRulesWithAnInstance) {
    EXPECT_EQ(tn_engine_create(nullptr), ws_already_created);
    EXPECT_EQ(tn_engine_configure(nullptr), ws_invalid_argument);
    EXPECT_EQ(tn_engine_get_status(nullptr), ws_invalid_argument);
    EXPECT_EQ(tn_engine_get_reading(nullptr), ws_invalid_argument);
    EXPECT_EQ(tn_engine_get_device(0, nullptr), ws_invalid_argument);
    DeviceRecord d;
    EXPECT_EQ(tn_engine_get_device(-1, &d), 0);
    EXPECT_EQ(tn_engine_get_device(0, &d), 0);  // nothing listed before a refresh
    TunerReading r;
    EXPECT_EQ(tn_engine_get_reading(&r), 0);
    const TunerStatus s = status();
    EXPECT_EQ(s.change_count, 1u);
    EXPECT_EQ(s.state, uint32_t(tn_engine_stopped));
    EXPECT_EQ(tn_engine_destroy(), ws_ok);
    EXPECT_EQ(tn_engine_destroy(), ws_not_created);
    EXPECT_EQ(tn_engine_create(nullptr), ws_ok);  // a new life after destroy
}

TEST_F(TunerLive, ListsTheMonitorWithALowerCaseHexId) {
    const int32_t n = tn_engine_refresh_devices();
    ASSERT_GE(n, 1);
    bool found = false, one_default = false;
    for (int32_t i = 0; i < n; ++i) {
        DeviceRecord d;
        std::memset(&d, 0x5A, sizeof d);
        ASSERT_EQ(tn_engine_get_device(i, &d), 1);
        const size_t len = strnlen(d.id_text, sizeof d.id_text);
        ASSERT_LT(len, sizeof d.id_text);
        for (size_t k = len; k < sizeof d.id_text; ++k) ASSERT_EQ(d.id_text[k], 0);  // zero padded
        for (size_t k = 0; k < len; ++k) EXPECT_TRUE(std::strchr("0123456789abcdef", d.id_text[k]));
        EXPECT_EQ(d.reserved, 0u);
        found = found || std::strstr(d.name, "Woodshed_null_sink") != nullptr;
        one_default = one_default || d.is_default == 1;
    }
    EXPECT_TRUE(found);
    EXPECT_TRUE(one_default);
    DeviceRecord d;
    EXPECT_EQ(tn_engine_get_device(n, &d), 0);
}

TEST_F(TunerLive, AToneInTheSinkReadsAsItsNoteInTune) {
    TonePlayer tone;
    ASSERT_TRUE(tone.start(196.0));  // G3
    ASSERT_EQ(tn_engine_start(nullptr), ws_ok);
    const TunerStatus s = status();
    EXPECT_EQ(s.state, uint32_t(tn_engine_running));
    EXPECT_GT(s.sample_rate, 0u);
    EXPECT_GE(s.device_channels, 1u);
    EXPECT_EQ(s.default_used, 1u);
    time_to_in_tune(55);
    EXPECT_TRUE(settles_near([](const TunerReading& r) { return r.frequency_hz; }, 196.0, 0.2));
    EXPECT_TRUE(settles_near([](const TunerReading& r) { return r.cents; }, 0.0, 2.0));
    EXPECT_TRUE(settles_near([](const TunerReading& r) { return r.level_db; }, -9.03, 1.0));  // 0.5 sine
}

TEST_F(TunerLive, IdTextsChooseTheListedDeviceOrFallBackToTheDefault) {
    const std::string id = monitor_id();
    ASSERT_FALSE(id.empty());
    std::string upper = id;
    for (char& c : upper) c = static_cast<char>(std::toupper(static_cast<unsigned char>(c)));
    const std::string longest(514, 'a');
    struct Row { std::string label; const char* text; uint32_t default_used; };
    const Row rows[] = {
        {"null", nullptr, 1},          {"empty", "", 1},
        {"odd length", "abc", 1},      {"not hex", "zz", 1},
        {"over 512", longest.c_str(), 1}, {"unknown", "0123456789", 1},
        {"listed", id.c_str(), 0},     {"listed, upper case", upper.c_str(), 0},
    };
    for (const auto& r : rows) {
        SCOPED_TRACE(r.label);
        ASSERT_EQ(tn_engine_start(r.text), ws_ok);
        const TunerStatus s = status();
        EXPECT_EQ(s.state, uint32_t(tn_engine_running));
        EXPECT_EQ(s.default_used, r.default_used);
        EXPECT_EQ(s.result, 0);
    }
}

TEST_F(TunerLive, RestartForgetsTheReadingAndStopKeepsIt) {
    TonePlayer tone;
    ASSERT_TRUE(tone.start(440.0));
    ASSERT_EQ(tn_engine_start(nullptr), ws_ok);
    time_to_in_tune(69);
    TunerReading before{};
    ASSERT_EQ(tn_engine_stop(), ws_ok);
    ASSERT_EQ(tn_engine_get_reading(&before), 1);
    std::this_thread::sleep_for(50ms);
    TunerReading after{};
    ASSERT_EQ(tn_engine_get_reading(&after), 1);
    EXPECT_EQ(std::memcmp(&before, &after, sizeof before), 0);
    EXPECT_EQ(before.note, 69);

    // A new device start forgets the old reading until the first new frame
    // (one window is about 43 ms away).
    ASSERT_EQ(tn_engine_start(nullptr), ws_ok);
    TunerReading fresh{};
    EXPECT_EQ(tn_engine_get_reading(&fresh), 0);
    time_to_in_tune(69);
}

TEST_F(TunerLive, EveryStatusChangeMovesTheCounter) {
    const uint64_t c0 = status().change_count;
    EXPECT_EQ(tn_engine_stop(), ws_ok);
    EXPECT_EQ(tn_engine_stop(), ws_ok);
    EXPECT_EQ(status().change_count, c0 + 2);
    ASSERT_EQ(tn_engine_start(nullptr), ws_ok);
    TunerStatus s = status();
    EXPECT_EQ(s.change_count, c0 + 3);
    EXPECT_EQ(tn_engine_stop(), ws_ok);
    s = status();
    EXPECT_EQ(s.state, uint32_t(tn_engine_stopped));
    EXPECT_EQ(s.sample_rate, 0u);
    EXPECT_EQ(s.device_channels, 0u);
    EXPECT_EQ(s.change_count, c0 + 4);
}

TEST_F(TunerLive, ConfigureChangesTheTargetWhileRunning) {
    TonePlayer tone;
    ASSERT_TRUE(tone.start(440.0));
    ASSERT_EQ(tn_engine_start(nullptr), ws_ok);
    time_to_in_tune(69);
    const TunerConfig fixed{440, 55, 1200, 5, 64, 0};  // E4: A4 is 500 cents above it
    ASSERT_EQ(tn_engine_configure(&fixed), ws_ok);
    TunerReading r{};
    EXPECT_TRUE(wait_for([&] { return tn_engine_get_reading(&r) == 1 && r.note == 64; }, 2000ms));
    EXPECT_EQ(r.state, uint32_t(tn_state_pitched));
    EXPECT_TRUE(settles_near([](const TunerReading& x) { return x.cents; }, 500.0, 3.0));
}

TEST_F(TunerLive, DestroyWhileRunningReturnsPromptly) {
    ASSERT_EQ(tn_engine_start(nullptr), ws_ok);
    std::this_thread::sleep_for(100ms);
    const auto t0 = std::chrono::steady_clock::now();
    EXPECT_EQ(tn_engine_destroy(), ws_ok);
    EXPECT_LT(std::chrono::steady_clock::now() - t0, 2s);
    EXPECT_EQ(tn_engine_create(nullptr), ws_ok);
}

#if !defined(_WIN32)
// Removing the sink moves the default input to the stand-in sink: the
// engine reopens (state 2) and runs again (state 1); putting the sink back
// moves it home, and a tone is heard there again.
TEST_F(TunerLive, SurvivesLosingTheDefaultDevice) {
    ASSERT_EQ(tn_engine_start(nullptr), ws_ok);
    const uint64_t c0 = status().change_count;
    ws::test::unload_null_sink();
    EXPECT_TRUE(wait_for([&] {
        const TunerStatus s = status();
        return s.change_count >= c0 + 2 && s.state == tn_engine_running;
    }, 5000ms)) << "state " << status().state;
    const uint64_t c1 = status().change_count;
    ws::test::restore_null_sink();
    EXPECT_TRUE(wait_for([&] { return status().change_count >= c1 + 2; }, 5000ms));
    EXPECT_EQ(status().state, uint32_t(tn_engine_running));
    TonePlayer tone;
    ASSERT_TRUE(tone.start(220.0));
    time_to_in_tune(57);
}

// A device opened by id cannot be moved: the server kills its stream and no
// notification comes. The engine notices the silence, closes the dead device
// without hanging and falls back to the default input.
TEST_F(TunerLive, ADeviceKilledUnderneathIsReplacedByTheDefault) {
    const std::string id = monitor_id();
    ASSERT_FALSE(id.empty());
    ASSERT_EQ(tn_engine_start(id.c_str()), ws_ok);
    ASSERT_EQ(status().default_used, 0u);
    ws::test::unload_null_sink();
    EXPECT_TRUE(wait_for([&] {
        const TunerStatus s = status();
        return s.state == tn_engine_running && s.default_used == 1;
    }, 8000ms)) << "state " << status().state;
    ws::test::restore_null_sink();
    const auto t0 = std::chrono::steady_clock::now();
    EXPECT_EQ(tn_engine_stop(), ws_ok);
    EXPECT_LT(std::chrono::steady_clock::now() - t0, 2s);
}

TEST_F(TunerLive, FailsWhenNothingCanOpen) {
    ASSERT_EQ(tn_engine_start(nullptr), ws_ok);
    ws::test::unload_all_sinks();
    EXPECT_TRUE(wait_for([&] { return status().state == tn_engine_failed; }, 8000ms))
        << "state " << status().state;
    const TunerStatus s = status();
    EXPECT_LT(s.result, 0);
    // A start with nothing to open fails the same way and says why.
    EXPECT_LT(tn_engine_start(nullptr), 0);
    ws::test::restore_null_sink();
    EXPECT_EQ(tn_engine_start(nullptr), ws_ok);
    EXPECT_EQ(status().state, uint32_t(tn_engine_running));
}
#endif

}  // namespace
