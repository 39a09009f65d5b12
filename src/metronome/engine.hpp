// The live metronome: one playback device whose callback renders the core,
// and a watchdog thread that reopens the device after the system stops or
// reroutes it.
//
// What callers may assume: every public method runs on a host thread with
// the metronome family's mutex held; pointers are non-null (the export layer
// checks them). Lock order below the family mutex: control mutex, then the
// catalogue or status lock (never both). The watchdog takes the control
// mutex without the family mutex.
#pragma once

#include <miniaudio.h>

#include <atomic>
#include <chrono>
#include <cstdint>
#include <mutex>
#include <string>
#include <thread>

#include "frame/audio_context.hpp"
#include "frame/device_catalogue.hpp"
#include "metronome/core.hpp"
#include "metronome/watchdog.hpp"
#include "woodshed/metronome.h"

namespace ws::metronome {

class MetronomeEngine {
public:
    // Clicks are rendered 6 ms at a time; the back end holds 100 ms of them,
    // which a sound server keeps fed through the hiccups of a busy machine
    // (with less, a starved stream plays silence and shifts the clicks:
    // 60 ms still let a loaded 2-core machine move one click in six).
    static constexpr uint32_t kPeriodMs = 6;
    static constexpr uint32_t kPlaybackBufferMs = 100;

    MetronomeEngine();
    ~MetronomeEngine();
    MetronomeEngine(const MetronomeEngine&) = delete;
    MetronomeEngine& operator=(const MetronomeEngine&) = delete;

    bool context_ready() const { return context_.ready(); }

    int32_t configure(const MetronomeConfig& config);
    int32_t start(const MetronomeConfig& config, const char* id_text);
    int32_t stop();
    int32_t pause();
    int32_t resume();
    int32_t set_tempo(int64_t ubpm);
    int32_t set_master_gain(double gain);
    int32_t select_device(const char* id_text);
    int32_t refresh_devices();
    int32_t get_device(int32_t index, DeviceRecord* out) const;
    void copy_status(MetronomeStatus* out);
    int32_t copy_snapshot(MetronomeSnapshot* out) const;

private:
    // Audio thread: no locks, no allocation, no blocking.
    static void on_data(ma_device* device, void* output, const void* input, ma_uint32 frames);
    static void on_notification(const ma_device_notification* note);

    int32_t open_device();  // control mutex held
    void close_device();    // control mutex held
    void queue_start_without_count_in();

    // The watchdog's view of the engine (Watchdog::step documents it).
    struct WatchdogHost {
        MetronomeEngine& e;
        std::unique_lock<std::mutex> lock() { return std::unique_lock<std::mutex>(e.control_); }
        bool device_open() const { return e.device_open_; }
        bool started() const { return e.started_; }
        void mark_reopening();
        int32_t open(bool default_device);
        void restart_without_count_in() { e.queue_start_without_count_in(); }
    };

    MetronomeCore core_;
    frame::AudioContext context_;
    ma_device device_{};
    bool device_open_ = false;
    std::string selected_id_;
    MetronomeConfig stored_;
    std::atomic<bool> started_{false};

    std::mutex control_;
    frame::DeviceCatalogue catalogue_{ma_device_type_playback};
    std::mutex status_lock_;
    MetronomeStatus status_{};

    std::thread thread_;
    std::atomic<bool> worker_running_{false};
    Watchdog watchdog_;
    // Set while the engine closes its own device: the back end reports that
    // as "stopped" too, and it must not read as a lost device.
    std::atomic<bool> closing_{false};
};

}  // namespace ws::metronome
