// Everything of a recording except the audio device: the backing track and
// its play position, the capture ring, the take file and its writer, and the
// flags the callback reads. The engine wraps it around a duplex device; tests
// and benchmarks drive process() directly, at any speed.
//
// Threads: process() runs on the audio thread (no locks, no allocation, no
// system calls); the writer thread moves the ring into the take; every other
// method runs on the host thread, and those marked "device idle" only while
// no callback can run.
#pragma once

#include <atomic>
#include <cstdint>

#include "recorder/capture_ring.hpp"
#include "recorder/source_track.hpp"
#include "recorder/take_writer.hpp"
#include "woodshed/recorder.h"

namespace ws::recorder {

// Play position for a start in milliseconds at `rate`: trunc(ms * rate /
// 1000) in 64-bit arithmetic; 0 for 0 or negative.
int64_t start_frame(int32_t start_ms, uint32_t rate = kRecorderRate);

class RecorderCore {
public:
    RecorderCore() = default;
    RecorderCore(const RecorderCore&) = delete;
    RecorderCore& operator=(const RecorderCore&) = delete;

    // Audio thread. Plays the next frames of the track into `out` (stereo;
    // silence past the end or without a track), then hands the period's
    // mono input to the ring while recording. While muted: silence out,
    // nothing captured, the position stands still.
    void process(float* out, const float* in, uint32_t frames);

    // Device idle. The rate the device runs at: the backing is converted
    // to it, the capture from it; the host sees everything at 44100 Hz.
    void set_device_rate(uint32_t rate) { device_rate_ = rate; }
    uint32_t device_rate() const { return device_rate_; }
    LoadResult load_track(const char* utf8_path) { return load_source_track(utf8_path, device_rate_, track_); }
    void unload_track() { track_.clear(); }
    // A new recording: position at the start, ring and counters at zero.
    void arm(int32_t start_ms);

    TakeFile& take() { return take_; }
    TakeWriter& writer() { return writer_; }
    CaptureRing& ring() { return ring_; }
    const SourceTrack& track() const { return track_; }

    void set_recording(bool on) { recording_.store(on); }
    bool recording() const { return recording_.load(); }
    void set_muted(bool on) { muted_.store(on); }

    // Any thread; the counters as they stand.
    void fill_state(RecorderState& out) const;
    int64_t play_position() const { return play_position_.load(std::memory_order_relaxed); }  // device frames
    int32_t repairs() const { return writer_.repairs(); }

private:
    uint32_t device_rate_ = kRecorderRate;
    SourceTrack track_;
    std::atomic<int64_t> play_position_{0};
    CaptureRing ring_;
    TakeFile take_;
    TakeWriter writer_{ring_, take_};
    std::atomic<bool> recording_{false};
    std::atomic<bool> muted_{false};
};

}  // namespace ws::recorder
