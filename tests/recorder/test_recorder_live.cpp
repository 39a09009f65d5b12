// The duplex recorder against a real sound server: the backing track is
// played into the null sink and its monitor is recorded as the input, so a
// take must hold the backing itself, delayed by the server's round trip.
// Also the frame rules of the sd_ exports, which need an audio context.
#include <gtest/gtest.h>

#include <algorithm>
#include <chrono>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <string>
#include <thread>
#include <vector>

#if defined(__SANITIZE_ADDRESS__)
#  include <sanitizer/lsan_interface.h>
#  define WS_TEST_LSAN 1
#elif defined(__has_feature)
#  if __has_feature(address_sanitizer)
#    include <sanitizer/lsan_interface.h>
#    define WS_TEST_LSAN 1
#  endif
#endif

#include "recorder_files.hpp"
#include "sound_server.hpp"
#include "woodshed/recorder.h"
#include "woodshed/tuner.h"

namespace {

using namespace std::chrono_literals;
using namespace ws::test::recorder;
using ws::test::wait_for;
using ws::test::ServerLog;

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

struct Lag {
    int lag = -1;         // take frame minus backing frame (relative to the start position)
    double score = 0.0;   // normalised correlation at that lag
};

// Where take[from .. from + n) best matches the backing from the start
// position, searching lags 0 .. max_lag.
Lag find_lag(const std::vector<int16_t>& take, const std::vector<int16_t>& backing, int64_t start,
             size_t from, size_t n, int max_lag) {
    Lag best;
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
        if (score > best.score) best = {lag, score};
    }
    return best;
}

// Under Wine the Windows audio layer keeps buffers of its own on both sides
// and lets them run over or dry unseen by the server: its latency steps are
// reported, not judged.
#if defined(_WIN32)
constexpr bool kServerSeesEveryStep = false;
#else
constexpr bool kServerSeesEveryStep = true;
#endif

// The latency over the first clear window from `from` on, stepping by
// 0.1 s in `direction` (+1 forward, -1 backward): a window that straddles a
// latency step scores low and is passed over.
Lag latency_near(const std::vector<int16_t>& take, const std::vector<int16_t>& backing, int64_t start,
                 size_t from, int direction) {
    constexpr size_t kWindow = 2205;
    for (int k = 0; k < 8; ++k) {
        const int64_t at = static_cast<int64_t>(from) + direction * k * 4410;
        if (at < 0) break;
        const Lag lag = find_lag(take, backing, start, static_cast<size_t>(at), kWindow, 11025);
        if (lag.score > 0.6) return lag;  // resampled twice on the way; a wrong position scores near 0
    }
    return {};
}

// The audio library's PulseAudio back end (0.11.22) leaks its connection
// when a capture device id names no source: the failure path returns
// without freeing what it just set up. Allocations inside this scope, on
// this thread, are not reported as leaks.
class ThirdPartyLeaks {
public:
#if defined(WS_TEST_LSAN)
    ThirdPartyLeaks() { __lsan_disable(); }
    ~ThirdPartyLeaks() { __lsan_enable(); }
#else
    ThirdPartyLeaks() {}
    ~ThirdPartyLeaks() {}
#endif
    ThirdPartyLeaks(const ThirdPartyLeaks&) = delete;
    ThirdPartyLeaks& operator=(const ThirdPartyLeaks&) = delete;
};

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
        write_bytes(path, pcm16_wav(1, kRate, samples));
        return path;
    }

    std::string monitor_id() {
        const std::string name = monitor_name();
        char buf[600];
        if (name.empty() || sd_find_input_by_name(name.c_str(), buf, sizeof buf) != 1) return {};
        return buf;
    }

    ScratchDir dir_{"live"};
};

TEST(RecorderFrame, CallsWithoutAnInstanceAnswerNotCreated) {
    char buf[64];
    RecorderState s;
    EXPECT_EQ(sd_destroy(), ws_not_created);
    EXPECT_EQ(sd_backend(), -1);
    EXPECT_EQ(sd_find_input_by_name(nullptr, nullptr, 0), ws_not_created);
    EXPECT_EQ(sd_find_input_by_name("x", buf, sizeof buf), ws_not_created);
    EXPECT_EQ(sd_start(nullptr, nullptr, nullptr, 0), ws_not_created);
    EXPECT_EQ(sd_start(nullptr, "take.wav", nullptr, 0), ws_not_created);
    EXPECT_EQ(sd_stop(), int64_t{ws_not_created});
    EXPECT_EQ(sd_get_state(nullptr), ws_not_created);
    EXPECT_EQ(sd_get_state(&s), ws_not_created);
    EXPECT_EQ(sd_output_latency_ms(), -1.0);
    EXPECT_EQ(sd_abi_version(), 1);
    EXPECT_EQ(sd_abi_version(), tn_abi_version());
}

TEST_F(RecorderLive, FrameRulesWithAnInstance) {
    EXPECT_EQ(sd_create(), ws_already_created);
    EXPECT_EQ(sd_output_latency_ms(), -1.0);
    EXPECT_GE(sd_backend(), 0);
#if !defined(_WIN32)
    EXPECT_EQ(sd_backend(), 7);  // PulseAudio
#endif
    EXPECT_EQ(sd_stop(), int64_t{ws_not_created});  // idle: nothing to stop
    EXPECT_EQ(sd_get_state(nullptr), ws_invalid_argument);

    // 36 bytes written, the 4 bytes of padding after them left alone.
    unsigned char raw[sizeof(RecorderState)];
    std::memset(raw, 0xA5, sizeof raw);
    ASSERT_EQ(sd_get_state(reinterpret_cast<RecorderState*>(raw)), ws_ok);
    for (size_t i = SD_STATE_BYTES; i < sizeof raw; ++i) EXPECT_EQ(raw[i], 0xA5) << i;
    RecorderState s;
    std::memcpy(&s, raw, sizeof s);
    EXPECT_EQ(s.sample_rate, 44100u);
    EXPECT_EQ(s.recording, 0u);
    EXPECT_EQ(s.playback_done, 0u);

    EXPECT_EQ(sd_destroy(), ws_ok);
    EXPECT_EQ(sd_destroy(), ws_not_created);
    EXPECT_EQ(sd_create(), ws_ok);  // a new life after destroy
}

TEST_F(RecorderLive, FindsTheMonitorByItsExactName) {
    const std::string name = monitor_name();
    ASSERT_FALSE(name.empty());
    char buf[600];
    ASSERT_EQ(sd_find_input_by_name(name.c_str(), buf, sizeof buf), 1);
    const size_t len = std::strlen(buf);
    EXPECT_EQ(len % 2, 0u);
    for (size_t i = 0; i < len; ++i) EXPECT_TRUE(std::strchr("0123456789abcdef", buf[i])) << buf;

    // The buffer must hold the text and its terminator, else 0 and untouched.
    if (len + 1 >= 8) {
        std::vector<char> small(len + 1, 'Z');
        EXPECT_EQ(sd_find_input_by_name(name.c_str(), small.data(), static_cast<int32_t>(len + 1)), 1);
        EXPECT_EQ(std::string(small.data()), std::string(buf));
    }
    if (len >= 8) {
        std::vector<char> small(len, 'Z');
        EXPECT_EQ(sd_find_input_by_name(name.c_str(), small.data(), static_cast<int32_t>(len)), 0);
        EXPECT_EQ(small, std::vector<char>(len, 'Z'));
    }

    std::string other_case = name;
    for (char& c : other_case) c = static_cast<char>(std::toupper(static_cast<unsigned char>(c)));
    const std::string prefix = name.substr(0, name.size() - 1);
    struct Row { const char* label; const char* name; char* buf; int32_t size; int32_t want; };
    const Row rows[] = {
        {"null name", nullptr, buf, 600, ws_invalid_argument},
        {"null buffer", name.c_str(), nullptr, 600, ws_invalid_argument},
        {"size 7", name.c_str(), buf, 7, ws_invalid_argument},
        {"negative size", name.c_str(), buf, -1, ws_invalid_argument},
        {"unknown name", "no such device", buf, 600, 0},
        {"other letter case", other_case.c_str(), buf, 600, other_case == name ? 1 : 0},
        {"a prefix of the name", prefix.c_str(), buf, 600, 0},
    };
    for (const Row& r : rows) EXPECT_EQ(sd_find_input_by_name(r.name, r.buf, r.size), r.want) << r.label;
}

TEST_F(RecorderLive, BadArgumentsAndFilesFailWithoutATake) {
    const std::string take = dir_.file("take.wav");
    // A backing file that cannot be read or is not in the subset: -3, no take.
    const std::string bad24 = dir_.file("24bit.wav");
    write_bytes(bad24, WavBuilder().fmt(1, 1, 44100, 24).data({1, 2, 3, 4}).bytes());
    const std::string missing = dir_.file("missing.wav");
    for (const std::string& src : {missing, bad24}) {
        EXPECT_EQ(sd_start(src.c_str(), take.c_str(), nullptr, 0), ws_invalid_argument) << src;
        EXPECT_FALSE(file_exists(take)) << src;
    }
    EXPECT_EQ(sd_start(nullptr, nullptr, nullptr, 0), ws_invalid_argument);
    // A take that cannot be created: -15.
    EXPECT_EQ(sd_start(nullptr, dir_.file("no/such/dir/take.wav").c_str(), nullptr, 0), ws_device_failure);
    EXPECT_EQ(sd_stop(), int64_t{ws_not_created});  // none of these started anything
    EXPECT_EQ(state().recording, 0u);
}

TEST_F(RecorderLive, AnUnknownWellFormedIdFailsAndLeavesAHeaderOnlyTake) {
    const std::string take = dir_.file("take.wav");
    int32_t r;
    {
        const ThirdPartyLeaks not_ours;
        r = sd_start(nullptr, take.c_str(), "0123456789abcdef", 0);
    }
    EXPECT_TRUE(r == ws_device_failure || r == ws_access_denied) << r;
    const Take t = read_take(take);
    EXPECT_EQ(t.file_size, 44u);
    EXPECT_TRUE(t.ok);
    EXPECT_EQ(t.data_size, 0u);
    EXPECT_EQ(sd_stop(), int64_t{ws_not_created});
    // A malformed id is the default input.
    ASSERT_EQ(sd_start(nullptr, take.c_str(), "not hex!", 0), ws_ok);
    EXPECT_GE(sd_stop(), 0);
}

TEST_F(RecorderLive, TheTakeHoldsTheBackingFromTheStartPositionAtASteadyLatency) {
    const std::string id = monitor_id();
    ASSERT_FALSE(id.empty());
    const std::vector<int16_t> noise = noise16(6 * kRate, 16000, 7);
    const std::string src = backing(noise);
    const std::string take = dir_.file("take.wav");
    const int32_t start_ms = 1500;
    const int64_t start = int64_t{start_ms} * kRate / 1000;
    const ServerLog log;
    ASSERT_EQ(sd_start(src.c_str(), take.c_str(), id.c_str(), start_ms), ws_ok);
    RecorderState s = state();
    EXPECT_EQ(s.recording, 1u);
    EXPECT_GE(s.play_position, start);
    ASSERT_TRUE(record_for(3 * kRate));
    s = state();
    EXPECT_GT(s.input_peak, 0.1);  // the monitor hears the noise
    EXPECT_EQ(s.playback_done, 0u);
    const int64_t ms = sd_stop();
    s = state();
    EXPECT_EQ(s.recording, 0u);

    const Take t = read_take(take);
    ASSERT_TRUE(t.ok);
    EXPECT_EQ(t.data_size, 2 * t.samples.size());
    EXPECT_EQ(ms, static_cast<int64_t>(t.samples.size()) * 1000 / kRate);
    ASSERT_GE(t.samples.size(), size_t{3 * kRate});
    // Every frame the callback was handed is in the file, in its place: the
    // library lost and added nothing, whatever the latency does below.
    EXPECT_EQ(static_cast<int64_t>(t.samples.size()), s.captured_frames);

    const Lag first = latency_near(t.samples, noise, start, kRate / 5, +1);
    const Lag last = latency_near(t.samples, noise, start, t.samples.size() - kRate / 5 - 2205, -1);
    const int underruns = log.playback_underruns();
    std::printf("latency near the start %d frames (%.1f ms, score %.2f), near the end %d (score %.2f); "
                "%d playback underruns logged\n",
                first.lag, first.lag * 1000.0 / kRate, first.score, last.lag, last.score, underruns);
    ASSERT_GT(first.lag, 0) << "the backing from the start position is not in the take";
    ASSERT_GT(last.lag, 0) << "the backing from the start position is not in the take";
    EXPECT_LT(first.lag, kRate / 5);  // about 35 ms through the server
    // Without an underrun the latency holds (the resampling on the way may
    // move the peak by a frame). An underrun makes the server play silence
    // and the rest later, so the latency steps up; the rewind with which the
    // server then catches up can also take some of that back, or more, in
    // what its monitor hands on. Either way a step needs an underrun in the
    // server's log (the count above shows the library kept every frame).
    if (std::abs(last.lag - first.lag) > 1) {
        if (!kServerSeesEveryStep) {
            std::printf("note: latency stepped by %d frames in the Windows audio layer\n", last.lag - first.lag);
        } else if (log.at_debug_level()) {
            EXPECT_GT(underruns, 0) << "latency stepped from " << first.lag << " to " << last.lag
                                    << " frames with no playback underrun in the server's log";
        } else {
            std::printf("note: the server log is not at debug level, so underruns cannot be checked "
                        "(run through ctest, or tests/server_debug_log.py)\n");
        }
    }
}

TEST_F(RecorderLive, AStartPastTheEndPlaysSilenceAndIsDoneAtOnce) {
    const std::string src = backing(noise16(kRate, 16000, 3));
    const std::string take = dir_.file("take.wav");
    ASSERT_EQ(sd_start(src.c_str(), take.c_str(), nullptr, 2500), ws_ok);
    RecorderState s = state();
    EXPECT_GE(s.play_position, 110250);
    EXPECT_EQ(s.playback_done, 1u);
    EXPECT_EQ(s.recording, 1u);
    ASSERT_TRUE(record_for(kRate / 2));
    EXPECT_GE(sd_stop(), 0);
    // Without a track, playback is never done.
    ASSERT_EQ(sd_start(nullptr, take.c_str(), nullptr, 0), ws_ok);
    ASSERT_TRUE(record_for(kRate / 10));
    s = state();
    EXPECT_EQ(s.playback_done, 0u);
    EXPECT_GT(s.play_position, 0);
    EXPECT_GE(sd_stop(), 0);
}

TEST_F(RecorderLive, TheHeaderIsOnDiskAfterFiveSecondsWhileRecording) {
    const std::string take = dir_.file("take.wav");
    ASSERT_EQ(sd_start(nullptr, take.c_str(), nullptr, 0), ws_ok);
    Take t;
    EXPECT_TRUE(wait_for([&] {
        t = read_take(take);
        return t.data_size >= 441000;
    }, 30000ms)) << "header states " << t.data_size << " bytes";
    const RecorderState s = state();
    EXPECT_EQ(s.recording, 1u);
    EXPECT_GE(s.captured_frames, 220500);
    // A checkpoint never claims more than the file holds.
    EXPECT_GE(t.file_size, 44u + t.data_size);
    EXPECT_EQ(t.riff_size, t.data_size + 36);
    const int64_t ms = sd_stop();
    t = read_take(take);
    EXPECT_EQ(t.file_size, 44u + t.data_size);
    EXPECT_EQ(static_cast<int64_t>(t.data_size / 2), state().captured_frames);
    EXPECT_EQ(ms, static_cast<int64_t>(t.data_size / 2) * 1000 / kRate);
    EXPECT_GE(ms, 5000);
}

TEST_F(RecorderLive, StartingTwiceFinishesTheFirstTake) {
    const std::string first = dir_.file("first.wav");
    const std::string second = dir_.file("second.wav");
    ASSERT_EQ(sd_start(nullptr, first.c_str(), nullptr, 0), ws_ok);
    ASSERT_TRUE(record_for(kRate / 2));
    ASSERT_EQ(sd_start(nullptr, second.c_str(), nullptr, 0), ws_ok);
    const Take a = read_take(first);
    EXPECT_TRUE(a.ok);
    EXPECT_GT(a.data_size, 0u);
    EXPECT_EQ(a.file_size, 44u + a.data_size);
    EXPECT_EQ(state().recording, 1u);
    ASSERT_TRUE(record_for(kRate / 5));
    const int64_t ms = sd_stop();
    const Take b = read_take(second);
    EXPECT_EQ(b.file_size, 44u + b.data_size);
    EXPECT_EQ(static_cast<int64_t>(b.data_size / 2), state().captured_frames);  // the second take's count
    EXPECT_EQ(ms, static_cast<int64_t>(b.data_size / 2) * 1000 / kRate);
    EXPECT_GE(ms, 200);
    EXPECT_EQ(sd_stop(), int64_t{ws_not_created});
}

TEST_F(RecorderLive, ANonAsciiTakePathCreatesTheFileUnderItsName) {
    const std::string take = dir_.file("Aufnahme \xc3\xa4\xc3\xb6\xc3\xbc \xe6\x97\xa5\xe6\x9c\xac \xf0\x9f\x8e\xb8.wav");
    ASSERT_EQ(sd_start(nullptr, take.c_str(), nullptr, 0), ws_ok);
    ASSERT_TRUE(record_for(kRate / 10));
    EXPECT_GE(sd_stop(), 100);
    ASSERT_TRUE(file_exists(take));
    const Take t = read_take(take);
    EXPECT_TRUE(t.ok);
    EXPECT_EQ(t.file_size, 44u + t.data_size);
}

#if !defined(_WIN32)
// /dev/full takes the open but refuses every write: the writer ends at
// once, the recording runs on, and stop reports what reached the file.
TEST_F(RecorderLive, AFailingWriteDoesNotHarmTheRecording) {
    ASSERT_EQ(sd_start(nullptr, "/dev/full", nullptr, 0), ws_ok);
    ASSERT_TRUE(record_for(kRate / 2));
    const RecorderState s = state();
    EXPECT_EQ(s.recording, 1u);
    ASSERT_TRUE(record_for(s.captured_frames + kRate / 10));
    EXPECT_EQ(sd_stop(), 0);
}

TEST_F(RecorderLive, AFullDiskStopsTheWritingNotTheRecording) {
    ScratchDir mount_point("full");
    const std::string where = utf8(mount_point.path());
    if (std::system(("mount -t tmpfs -o size=128k woodshed-test " + where + " 2>/dev/null").c_str()) != 0) {
        GTEST_SKIP() << "cannot mount a tmpfs here";
    }
    const std::string take = mount_point.file("take.wav");
    const int32_t started = sd_start(nullptr, take.c_str(), nullptr, 0);
    EXPECT_EQ(started, ws_ok);
    // 128 KiB hold about 1.5 s; record on for twice that.
    if (started == ws_ok) {
        EXPECT_TRUE(record_for(3 * kRate));
        EXPECT_EQ(state().recording, 1u);
    }
    const int64_t ms = sd_stop();
    const Take t = read_take(take);
    std::system(("umount " + where).c_str());
    EXPECT_TRUE(t.ok);
    EXPECT_EQ(t.file_size, 131072u);
    EXPECT_EQ(t.data_size, t.file_size - 44);
    EXPECT_EQ(t.riff_size, t.data_size + 36);
    EXPECT_EQ(ms, static_cast<int64_t>(t.data_size / 2) * 1000 / kRate);
}
#endif

// Run by the ctest entry that starts a server whose sink runs at 44100 Hz
// (WOODSHED_SINK_RATE tells): nothing is resampled on the way, so the take
// holds the backing's own values, s / 32768 written as trunc(x * 32767),
// that is s - 1 above zero and s + 1 below.
TEST_F(RecorderLive, BitExactThroughASinkAt44100) {
    const char* rate = std::getenv("WOODSHED_SINK_RATE");
    if (rate == nullptr || std::string(rate) != "44100") GTEST_SKIP() << "needs the server at 44100 Hz";
    const std::string id = monitor_id();
    ASSERT_FALSE(id.empty());
    const std::vector<int16_t> noise = noise16(4 * kRate, 20000, 11);
    const std::string src = backing(noise);
    const std::string take = dir_.file("take.wav");
    const int32_t start_ms = 250;
    const int64_t start = int64_t{start_ms} * kRate / 1000;
    const ServerLog log;
    ASSERT_EQ(sd_start(src.c_str(), take.c_str(), id.c_str(), start_ms), ws_ok);
    ASSERT_TRUE(record_for(2 * kRate));
    sd_stop();
    const Take t = read_take(take);
    ASSERT_GE(t.samples.size(), size_t{2 * kRate});
    EXPECT_EQ(static_cast<int64_t>(t.samples.size()), state().captured_frames);

    // Each 10 ms block of the take either equals, sample for sample, the
    // backing at some lag, or straddles a latency step (or the silence
    // before the backing arrives).
    auto exact_at = [&](size_t from, int lag) {
        bool heard = false;
        for (size_t k = from; k < from + 441; ++k) {
            const int64_t b = start + static_cast<int64_t>(k) - lag;
            if (b < 0 || b >= static_cast<int64_t>(noise.size())) return false;
            const int v = noise[static_cast<size_t>(b)];
            if (t.samples[k] != (v > 0 ? v - 1 : (v < 0 ? v + 1 : 0))) return false;
            heard = heard || v != 0;
        }
        return heard;
    };
    std::vector<int> lags;  // per block: the lag it is exact at, or -1
    int current = 0;
    for (size_t from = 0; from + 441 <= t.samples.size(); from += 441) {
        int found = -1;
        if (current > 0 && exact_at(from, current)) found = current;
        for (int lag = 1; lag <= kRate / 4 && found < 0; ++lag) {
            if (exact_at(from, lag)) found = lag;
        }
        if (found > 0) current = found;
        lags.push_back(found);
    }
    const auto first = std::find_if(lags.begin(), lags.end(), [](int l) { return l > 0; });
    ASSERT_NE(first, lags.end()) << "no 10 ms of the take are the backing's own samples";
    const int underruns = log.playback_underruns();
    int exact = 0, blocks = 0, steps = 0, previous = *first;
    for (auto it = first; it != lags.end(); ++it) {
        ++blocks;
        if (*it < 0) continue;
        ++exact;
        if (*it != previous) ++steps;
        previous = *it;
    }
    std::printf("latency %d frames (%.1f ms) at first, %d at the end; %d of %d blocks exact; "
                "%d steps, %d playback underruns logged\n",
                *first, *first * 1000.0 / kRate, previous, exact, blocks, steps, underruns);
    EXPECT_LT(*first, kRate / 5);  // about 35 ms through the server
    if (steps == 0) {
        EXPECT_EQ(exact, blocks) << "without a step every block must be exact";
    } else if (log.at_debug_level() && kServerSeesEveryStep) {
        EXPECT_GT(underruns, 0) << "the latency stepped with no playback underrun in the server's log";
    }
    EXPECT_GT(exact, blocks / 2);
}

}  // namespace
