// The recorder's hand-off from the audio callback to the take writer: the
// frame's sample ring at 262144 floats (about 5.9 s at 44100 Hz, enough to
// ride out the writer's pauses and a slow disk) plus what a take needs on
// top of it: the count of frames captured, the frames dropped since the
// writer last looked, and the decaying input peak.
//
// Producer (audio thread): push_period only.
// Consumer (the writer thread, later stop): take_dropped, drain.
// reset() only while no device runs.
#pragma once

#include <atomic>
#include <cmath>
#include <cstddef>
#include <cstdint>

#include "frame/sample_ring.hpp"

namespace ws::recorder {

inline constexpr size_t kRingSamples = 262144;
// Per 10 ms period the peak falls to 0.9 of itself unless a louder sample comes.
inline constexpr double kPeakDecay = 0.9;

class CaptureRing {
public:
    CaptureRing() = default;
    CaptureRing(const CaptureRing&) = delete;
    CaptureRing& operator=(const CaptureRing&) = delete;

    // Audio thread: no locks, no allocation, no system calls. A period that
    // does not fit whole is dropped whole and owed to the writer as silence,
    // so the take keeps its length in step with the backing track.
    void push_period(const float* samples, uint32_t frames) {
        if (!ring_.try_push(samples, frames)) {
            dropped_.fetch_add(frames);
            captured_.fetch_add(frames);
            return;
        }
        double peak = peak_.load(std::memory_order_relaxed) * kPeakDecay;
        for (uint32_t i = 0; i < frames; ++i) {
            const double a = std::fabs(static_cast<double>(samples[i]));
            if (a > peak) peak = a;
        }
        peak_.store(peak, std::memory_order_relaxed);
        captured_.fetch_add(frames);
    }

    // Consumer. Frames dropped since the last call; each drop is handed
    // over exactly once.
    uint64_t take_dropped() { return dropped_.exchange(0); }

    // Consumer. See frame::SampleRing::drain.
    template <class Sink>
    uint64_t drain(float* scratch, size_t scratch_size, Sink&& sink) {
        return ring_.drain(scratch, scratch_size, static_cast<Sink&&>(sink));
    }

    // Host thread, producer idle: a new recording begins.
    void reset() {
        ring_.reset();
        captured_.store(0);
        dropped_.store(0);
        peak_.store(0.0);
    }

    // Any thread; values as they stand.
    uint64_t captured_frames() const { return captured_.load(); }
    uint64_t dropped_pending() const { return dropped_.load(); }
    double input_peak() const { return peak_.load(std::memory_order_relaxed); }
    uint64_t pending() const { return ring_.pending(); }
    // For diagnosis and tests: whether a period was dropped (clears the flag).
    bool take_overflow() { return ring_.take_overflow(); }

private:
    frame::SampleRing<kRingSamples> ring_;
    std::atomic<uint64_t> captured_{0};
    std::atomic<uint64_t> dropped_{0};
    std::atomic<double> peak_{0.0};
    static_assert(std::atomic<double>::is_always_lock_free, "the callback must not lock for the peak");
    static_assert(std::atomic<uint64_t>::is_always_lock_free, "the callback must not lock for counters");
};

}  // namespace ws::recorder
