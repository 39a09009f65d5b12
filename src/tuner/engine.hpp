// The live tuner: one capture device, a ring from its callback to a worker
// thread that runs the analyser and publishes readings, and a status record.
//
// What callers may assume: every public method except copy_reading runs on
// a host thread with the tuner family's mutex held; pointers are non-null
// (the export layer checks them). Lock order below the family mutex: device
// lock, then the pass lock, then one of catalogue, analyser or status lock,
// never two of those.
#pragma once

#include <miniaudio.h>

#include <atomic>
#include <chrono>
#include <cstdint>
#include <memory>
#include <mutex>
#include <string>
#include <thread>

#include "frame/audio_context.hpp"
#include "frame/device_catalogue.hpp"
#include "frame/sample_ring.hpp"
#include "frame/seqlock.hpp"
#include "tuner/analyser.hpp"
#include "woodshed/tuner.h"

namespace ws::tuner {

// The rule that a capture stream which should be running but has delivered
// no callback for longer than `limit` is lost (some back ends kill a stream
// without telling anyone). Driven by the caller's clock.
class StallWatch {
public:
    using clock = std::chrono::steady_clock;
    explicit StallWatch(clock::duration limit) : limit_(limit) {}
    // Once a pass: true when the stream counts as lost, after which the
    // count starts anew.
    bool lost(uint64_t callbacks, bool capturing, clock::time_point now);
    // A fresh stream: counting starts now.
    void rearm(uint64_t callbacks, clock::time_point now);

private:
    clock::duration limit_;
    uint64_t last_ = 0;
    clock::time_point since_{};
    bool armed_ = false;
};

class TunerEngine {
public:
    static constexpr size_t kRingCapacity = 32768;
    static constexpr size_t kScratch = 8192;
    static constexpr auto kWorkerPeriod = std::chrono::milliseconds(3);
    // Samples arrive 10 ms at a time (that is the capture delay); the back
    // end may hold up to 80 ms more while the process is not scheduled,
    // instead of dropping them.
    static constexpr uint32_t kPeriodMs = 10;
    static constexpr uint32_t kCaptureBufferMs = 80;
    // A capture stream that delivers nothing for this long while it should
    // be running is treated as lost: some back ends kill a stream without
    // telling anyone.
    static constexpr auto kStallLimit = std::chrono::milliseconds(2000);

    // `thread` false leaves the worker's passes to the caller (step), for
    // tests that drive its clock.
    explicit TunerEngine(const TunerConfig* config, bool thread = true);
    ~TunerEngine();
    TunerEngine(const TunerEngine&) = delete;
    TunerEngine& operator=(const TunerEngine&) = delete;

    bool context_ready() const { return context_.ready(); }

    void configure(const TunerConfig& config);
    int32_t start(const char* id_text);
    int32_t stop();
    void copy_status(TunerStatus* out);
    // Lock-free; any thread. 1 copied, 0 nothing published or no stable copy.
    int32_t copy_reading(TunerReading* out) const;
    int32_t refresh_devices();
    int32_t get_device(int32_t index, DeviceRecord* out) const;

    // One pass of the worker at time `now`: the stall rule, a requested
    // reopen, then the ring drained into the analyser.
    void step(std::chrono::steady_clock::time_point now);

private:
    // Audio thread: no locks, no allocation, no blocking.
    static void on_data(ma_device* device, void* output, const void* input, ma_uint32 frames);
    static void on_notification(const ma_device_notification* note);

    int32_t open_device(const std::string& id_text);  // device lock held
    void close_device();                               // device lock held
    void worker();
    void reopen(std::chrono::steady_clock::time_point now);
    void set_status(uint32_t state, int32_t result, int32_t backend);

    frame::AudioContext context_;
    ma_device device_{};
    bool device_open_ = false;
    std::string selected_id_;

    frame::DeviceCatalogue catalogue_{ma_device_type_capture};
    frame::SampleRing<kRingCapacity> ring_;

    std::mutex analyser_lock_;
    PitchAnalyser analyser_;

    frame::SeqLock<TunerReading> reading_;

    std::mutex status_lock_;
    TunerStatus status_{};

    std::mutex device_lock_;
    // Held by the worker for each drain, and by open_device while it resets
    // the ring, the analyser and the reading: the worker is then known to be
    // between passes, and the new device has not started yet.
    std::mutex pass_lock_;
    StallWatch stall_{kStallLimit};
    std::thread thread_;
    std::atomic<bool> running_{false};
    std::atomic<bool> capturing_{false};
    std::atomic<bool> reopen_request_{false};
    std::atomic<uint64_t> callbacks_{0};  // data callbacks seen, for stall detection

    std::unique_ptr<float[]> scratch_;
};

}  // namespace ws::tuner
