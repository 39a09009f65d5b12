// Access to the private sound server the test command starts, and a tone
// player on its default output, for tests of the live engines.
#pragma once

#include <miniaudio.h>

#include <atomic>
#include <chrono>
#include <string>
#include <thread>
#include <vector>

#include "frame/audio_context.hpp"

namespace ws::test {

// True when a test server is expected. Without one, device tests skip,
// unless WOODSHED_REQUIRE_SOUND_SERVER=1 says they must run (the test
// command sets it), in which case they fail.
bool sound_server_expected();
bool sound_server_required();

#define WS_REQUIRE_SOUND_SERVER()                                                        \
    do {                                                                                 \
        if (!::ws::test::sound_server_expected()) {                                      \
            if (::ws::test::sound_server_required()) FAIL() << "no test sound server";   \
            GTEST_SKIP() << "no test sound server (scripts/pulse-server.sh)";            \
        }                                                                                \
    } while (0)

// What the server logs from the moment this object is made: it tells whether
// a late click or a latency step was the server's doing (a playback stream
// that ran dry) rather than the library's.
class ServerLog {
public:
    ServerLog();
    std::string since_start() const;
    // The log is at debug level (the ctest fixture server_log sets
    // it), where the server records playback underruns; at its default
    // level it does not.
    bool at_debug_level() const;
    // Underruns of any playback stream but the keep-alive ("pacat") that the
    // server script runs.
    int playback_underruns() const;

private:
    size_t start_;
};

// A sine played on the default output device through miniaudio.
class TonePlayer {
public:
    TonePlayer() = default;
    ~TonePlayer();
    bool start(double frequency, double amplitude = 0.5);
    void stop();
    double frequency() const { return frequency_; }

private:
    static void on_data(ma_device* device, void* output, const void* input, ma_uint32 frames);
    frame::AudioContext context_;
    ma_device device_{};
    bool open_ = false;
    double frequency_ = 0.0;
    double amplitude_ = 0.0;
    double phase_ = 0.0;
};

// Records the default input (the null sink's monitor) as mono floats at the
// device's rate into a buffer sized up front.
class MonitorRecorder {
public:
    MonitorRecorder() = default;
    ~MonitorRecorder();
    bool start(double max_seconds);
    void stop();
    // Valid after stop().
    const std::vector<float>& samples() const { return samples_; }
    uint32_t sample_rate() const { return rate_; }

private:
    static void on_data(ma_device* device, void* output, const void* input, ma_uint32 frames);
    frame::AudioContext context_;
    ma_device device_{};
    bool open_ = false;
    uint32_t rate_ = 0;
    std::vector<float> samples_;
    std::atomic<size_t> used_{0};
};

// Polls `condition` every millisecond until it holds or `limit` passes.
template <class Condition>
bool wait_for(Condition&& condition, std::chrono::milliseconds limit) {
    const auto end = std::chrono::steady_clock::now() + limit;
    while (std::chrono::steady_clock::now() < end) {
        if (condition()) return true;
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
    return condition();
}

}  // namespace ws::test
