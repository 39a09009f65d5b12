// The duplex recorder against a real sound server: the backing track is
// played into the null sink and its monitor is recorded as the input, so a
// take must hold the backing itself, delayed by the server's round trip, at
// one delay from start to end whatever rate the sink runs at. Also the
// frame rules of the sd_ exports and what a failed start leaves, which need
// an audio context. What the cores prove without a device is not repeated.
#include <gtest/gtest.h>

#include <algorithm>
#include <chrono>
#include <cmath>
#include <cstdlib>
#include <cstring>
#include <string>
#include <thread>
#include <vector>

#if !defined(_WIN32)
#  include <sys/stat.h>
#endif

#if defined(__SANITIZE_ADDRESS__)
#  include <sanitizer/lsan_interface.h>
#  define WS_TEST_LSAN 1
#elif defined(__has_feature)
#  if __has_feature(address_sanitizer)
#    include <sanitizer/lsan_interface.h>
#    define WS_TEST_LSAN 1
#  endif
#endif

#include "files.hpp"
#include "signals.hpp"
#include "sound_server.hpp"
#include "woodshed/recorder.h"
#include "woodshed/tuner.h"

namespace {

using namespace std::chrono_literals;
using namespace ws::test;

constexpr int kRate = 44100;

RecorderState state() {
    RecorderState s{};
    EXPECT_EQ(sd_get_state(&s), ws_ok);
    return s;
}

// Waits until the take has captured `frames` frames (real time: the
// server's clock drives the device).
bool record_for(int64_t frames, std::chrono::milliseconds limit = 20000ms) {
    return wait_for([&] { return state().captured_frames >= frames; }, limit);
}

// The capture device the tests record from: the null sink's monitor, named
// as the back end names it. Found through the tuner's list, a family of
// its own that shares nothing with the recorder.
std::string monitor_name() {
    if (tn_engine_create(nullptr) != ws_ok) return {};
    std::string name;
    const int32_t n = tn_engine_refresh_devices();
    for (int32_t i = 0; i < n && name.empty(); ++i) {
        DeviceRecord d{};
        if (tn_engine_get_device(i, &d) == 1 && std::strstr(d.name, "Woodshed_null_sink")) name = d.name;
    }
    tn_engine_destroy();
    return name;
}

// The lag (take frame minus backing frame from the start position, 0 ..
// max_lag) at which take[from .. from + n) best matches the backing, or -1
// when no lag's normalised correlation passes 0.6.
int find_lag(const std::vector<int16_t>& take, const std::vector<int16_t>& backing, int64_t start,
             size_t from, size_t n, int max_lag) {
    int best = -1;
    double best_score = 0.6;
    if (from + n > take.size()) return best;
    double tt = 0.0;
    for (size_t i = 0; i < n; ++i) tt += double(take[from + i]) * take[from + i];
    for (int lag = 0; lag <= max_lag; ++lag) {
        const int64_t b0 = start + static_cast<int64_t>(from) - lag;
        if (b0 < 0 || b0 + static_cast<int64_t>(n) > static_cast<int64_t>(backing.size())) continue;
        double tb = 0.0, bb = 0.0;
        for (size_t i = 0; i < n; ++i) {
            const double b = backing[static_cast<size_t>(b0) + i];
            tb += take[from + i] * b;
            bb += b * b;
        }
        const double score = tt > 0 && bb > 0 ? tb / std::sqrt(tt * bb) : 0.0;
        if (score > best_score) {
            best_score = score;
            best = lag;
        }
    }
    return best;
}

// The audio library's PulseAudio back end (0.11.22) leaks its connection
// when a capture device id names no source: the failure path returns
// without freeing what it just set up. Allocations inside this scope, on
// this thread, are not reported as leaks.
#if defined(WS_TEST_LSAN)
struct ThirdPartyLeaks {
    ThirdPartyLeaks() { __lsan_disable(); }
    ~ThirdPartyLeaks() { __lsan_enable(); }
};
#else
struct ThirdPartyLeaks {};
#endif

class RecorderLive : public ::testing::Test {
protected:
    void SetUp() override {
        WS_REQUIRE_SOUND_SERVER();
        ASSERT_EQ(sd_create(), ws_ok);
    }
    void TearDown() override { sd_destroy(); }

    // A mono 16-bit backing track of white noise at 44100 Hz.
    std::string backing(const std::vector<int16_t>& samples, const std::string& name = "backing.wav") {
        const std::string path = dir_.file(name);
        write_file(path, pcm16_wav(1, kRate, samples));
        return path;
    }

    std::string monitor_id() {
        const std::string name = monitor_name();
        char buf[600];
        if (name.empty() || sd_find_input_by_name(name.c_str(), buf, sizeof buf) != 1) return {};
        return buf;
    }

    TempDir dir_;
};

TEST(RecorderFrame, CallsWithoutAnInstanceAnswerNotCreated) {
    char buf[64];
    RecorderState s;
    EXPECT_EQ(sd_destroy(), ws_not_created);
    EXPECT_EQ(sd_backend(), -1);
    EXPECT_EQ(sd_find_input_by_name("x", buf, sizeof buf), ws_not_created);
    EXPECT_EQ(sd_start(nullptr, "take.wav", nullptr, 0), ws_not_created);
    EXPECT_EQ(sd_stop(), int64_t{ws_not_created});
    EXPECT_EQ(sd_get_state(nullptr), ws_not_created);
    EXPECT_EQ(sd_get_state(&s), ws_not_created);
    EXPECT_EQ(sd_device_rate(), ws_not_created);
    EXPECT_EQ(sd_repair_count(), ws_not_created);
    EXPECT_EQ(sd_output_latency_ms(), -1.0);
}

// With an instance (a second create and a new life after destroy are the
// family frame's, tested on its own).
TEST_F(RecorderLive, FrameRulesWithAnInstance) {
#if !defined(_WIN32)
    EXPECT_EQ(sd_backend(), 7);  // PulseAudio
#endif
    EXPECT_EQ(sd_stop(), int64_t{ws_not_created});  // idle: nothing to stop
    EXPECT_EQ(sd_get_state(nullptr), ws_invalid_argument);
    EXPECT_EQ(sd_device_rate(), 0);  // no take yet
    // 36 bytes written, the 4 bytes of padding after them left alone.
    unsigned char raw[sizeof(RecorderState)];
    std::memset(raw, 0xA5, sizeof raw);
    ASSERT_EQ(sd_get_state(reinterpret_cast<RecorderState*>(raw)), ws_ok);
    for (size_t i = SD_STATE_BYTES; i < sizeof raw; ++i) EXPECT_EQ(raw[i], 0xA5) << i;
}

TEST_F(RecorderLive, FindsTheMonitorByItsExactName) {
    const std::string name = monitor_name();
    ASSERT_FALSE(name.empty());
    char buf[600];
    ASSERT_EQ(sd_find_input_by_name(name.c_str(), buf, sizeof buf), 1);
    for (const char* c = buf; *c != '\0'; ++c) EXPECT_TRUE(std::strchr("0123456789abcdef", *c)) << buf;
    const std::string prefix = name.substr(0, name.size() - 1);
    struct Row { const char* name; char* buf; int32_t size; int32_t want; };
    const Row rows[] = {{nullptr, buf, 600, ws_invalid_argument}, {name.c_str(), nullptr, 600, ws_invalid_argument},
                        {name.c_str(), buf, 7, ws_invalid_argument}, {"no such device", buf, 600, 0},
                        {prefix.c_str(), buf, 600, 0}};
    for (const Row& r : rows) EXPECT_EQ(sd_find_input_by_name(r.name, r.buf, r.size), r.want) << (r.name ? r.name : "null");
}

// A start that fails leaves an existing take byte for byte, and makes none.
TEST_F(RecorderLive, AFailedStartLeavesTheTakePathAsItWas) {
    const std::string take = dir_.file("take.wav");
    const std::vector<uint8_t> old = pcm16_wav(1, kRate, noise16(1000, 9000, 4));
    write_file(take, old);
    const std::string bad24 = dir_.file("24bit.wav");
    write_file(bad24, WavBytes().riff().fmt(1, 1, 44100, 24).data({1, 2, 3, 4}).build());
    EXPECT_EQ(sd_start(dir_.file("missing.wav").c_str(), take.c_str(), nullptr, 0), ws_invalid_argument);
    EXPECT_EQ(sd_start(bad24.c_str(), take.c_str(), nullptr, 0), ws_invalid_argument);
    const std::string fresh = dir_.file("fresh.wav");
    int32_t r;
    {
        [[maybe_unused]] ThirdPartyLeaks not_ours;
        r = sd_start(nullptr, take.c_str(), "0123456789abcdef", 0);  // no such input
        sd_start(nullptr, fresh.c_str(), "0123456789abcdef", 0);
    }
    EXPECT_TRUE(r == ws_device_failure || r == ws_access_denied) << r;
    EXPECT_EQ(read_file(take), old);
    EXPECT_FALSE(exists(fresh));
    // Paths that cannot be a take: -15 at once, nothing blocks.
    EXPECT_EQ(sd_start(nullptr, nullptr, nullptr, 0), ws_invalid_argument);
    EXPECT_EQ(sd_start(nullptr, dir_.path().c_str(), nullptr, 0), ws_device_failure);
    EXPECT_EQ(sd_start(nullptr, dir_.file("no/such/dir/take.wav").c_str(), nullptr, 0), ws_device_failure);
#if !defined(_WIN32)
    const std::string fifo = dir_.file("fifo");
    ASSERT_EQ(mkfifo(fifo.c_str(), 0600), 0);
    EXPECT_EQ(sd_start(nullptr, fifo.c_str(), nullptr, 0), ws_device_failure);
#endif
    EXPECT_EQ(sd_stop(), int64_t{ws_not_created});  // none of these started anything
}

// One take per sink rate (the test command's server runs at 48000 Hz, a
// server of its own at 44100): the device opens at the sink's rate, and
// the backing is found in the take at one delay from start to end.
TEST_F(RecorderLive, ATwentySecondTakeKeepsOneRoundTrip) {
    const char* sink = std::getenv("WOODSHED_SINK_RATE");
    const std::string id = monitor_id();
    ASSERT_FALSE(id.empty());
    const std::vector<int16_t> noise = noise16(22 * kRate, 12000, 7);
    const std::string src = backing(noise);
    const std::string take = dir_.file("take.wav");
    const int32_t start_ms = 500;
    const int64_t start = int64_t{start_ms} * kRate / 1000;
    ASSERT_EQ(sd_start(src.c_str(), take.c_str(), id.c_str(), start_ms), ws_ok);
    const int32_t rate = sd_device_rate();
    if (sink != nullptr) {
        EXPECT_EQ(rate, std::atoi(sink));
    }
    // The header is checkpointed while the take runs.
    Take t;
    EXPECT_TRUE(wait_for([&] { return (t = read_take(take)).data_size >= 441000; }, 30000ms));
    EXPECT_GE(t.file_size, 44u + t.data_size);
    ASSERT_TRUE(record_for(20 * kRate, 40000ms));
    const int64_t ms = sd_stop();
    t = read_take(take);
    ASSERT_TRUE(t.ok);
    EXPECT_EQ(t.file_size, 44u + t.data_size);
    EXPECT_EQ(ms, static_cast<int64_t>(t.samples.size()) * 1000 / kRate);
    ASSERT_GE(t.samples.size(), size_t{19 * kRate});  // repairs may have dropped a few frames

    // A window may straddle a seam the writer repaired (a server that fell
    // behind) and match no single lag; every window that matches one must
    // match the same.
    std::vector<int> found;
    std::string text;
    for (int sec = 1; sec <= 19; sec += 2) {
        const int lag = find_lag(t.samples, noise, start, static_cast<size_t>(sec) * kRate, 4410, kRate / 4);
        text += " " + std::to_string(lag);
        if (lag > 0) found.push_back(lag);
    }
    EXPECT_GE(found.size(), 7u) << "the take does not hold the backing:" << text;
    if (!found.empty()) {
        const auto [lo, hi] = std::minmax_element(found.begin(), found.end());
        EXPECT_LE(*hi - *lo, 1) << "the round trip moved:" << text;
    }
}

TEST_F(RecorderLive, StartingTwiceFinishesTheFirstTake) {
    const std::string first = dir_.file("first.wav");
    const std::string second = dir_.file("Aufnahme \xc3\xa4\xc3\xb6\xc3\xbc \xe6\x97\xa5\xe6\x9c\xac.wav");
    ASSERT_EQ(sd_start(nullptr, first.c_str(), nullptr, 0), ws_ok);
    ASSERT_TRUE(record_for(kRate / 2));
    ASSERT_EQ(sd_start(nullptr, second.c_str(), nullptr, 0), ws_ok);
    const Take a = read_take(first);
    EXPECT_TRUE(a.ok);
    EXPECT_GT(a.data_size, 0u);
    EXPECT_EQ(a.file_size, 44u + a.data_size);
    ASSERT_TRUE(record_for(kRate / 5));
    const int64_t ms = sd_stop();
    const Take b = read_take(second);  // found under its own name
    EXPECT_EQ(b.file_size, 44u + b.data_size);
    EXPECT_EQ(ms, static_cast<int64_t>(b.data_size / 2) * 1000 / kRate);
    EXPECT_GE(ms, 200);
    EXPECT_EQ(sd_stop(), int64_t{ws_not_created});
}

}  // namespace
