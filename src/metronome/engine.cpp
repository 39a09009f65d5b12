#include "metronome/engine.hpp"

#include "frame/platform.hpp"
#include "frame/realtime.hpp"
#include "frame/result_map.hpp"
#include "metronome/config.hpp"

namespace ws::metronome {

MetronomeEngine::MetronomeEngine() : stored_(initial_config()) {
    status_.update_count = 1;
    if (!context_.ready()) {
        status_.device_state = mn_device_failed;
        status_.last_result = ws_backend_init_failed;
        status_.backend_result = context_.result();
        return;
    }
    worker_running_ = true;
    thread_ = platform::start_thread([this] {
        WatchdogHost host{*this};
        watchdog_.run(host, worker_running_);
    });
}

MetronomeEngine::~MetronomeEngine() {
    worker_running_ = false;
    if (thread_.joinable()) thread_.join();
    {
        std::lock_guard<std::mutex> guard(control_);
        close_device();
    }
}

int32_t MetronomeEngine::configure(const MetronomeConfig& config) {
    std::lock_guard<std::mutex> guard(control_);
    stored_ = sanitise(config);
    core_.configure(stored_);
    return ws_ok;
}

int32_t MetronomeEngine::start(const MetronomeConfig& config, const char* id_text) {
    std::lock_guard<std::mutex> guard(control_);
    // A new id while the device plays is kept for the next reopen, on purpose.
    if (id_text != nullptr) selected_id_ = id_text;
    stored_ = sanitise(config);
    if (!device_open_) {
        const int32_t r = open_device();
        if (r != ws_ok) return r;
    }
    core_.start(stored_);
    started_ = true;
    return ws_ok;
}

int32_t MetronomeEngine::stop() {
    std::lock_guard<std::mutex> guard(control_);
    core_.stop();
    started_ = false;
    return ws_ok;
}

// Every command producer holds the control mutex, the watchdog included, so
// the core's queue always has a single producer.
int32_t MetronomeEngine::pause() {
    std::lock_guard<std::mutex> guard(control_);
    core_.pause();
    return ws_ok;
}

int32_t MetronomeEngine::resume() {
    std::lock_guard<std::mutex> guard(control_);
    core_.resume();
    return ws_ok;
}

int32_t MetronomeEngine::set_tempo(int64_t ubpm) {
    std::lock_guard<std::mutex> guard(control_);
    stored_.tempo_ubpm = ubpm;  // the core clamps what it applies
    core_.set_tempo(ubpm);
    return ws_ok;
}

int32_t MetronomeEngine::set_master_gain(double gain) {
    std::lock_guard<std::mutex> guard(control_);
    stored_.master_gain = gain;
    core_.set_master_gain(gain);
    return ws_ok;
}

int32_t MetronomeEngine::select_device(const char* id_text) {
    std::lock_guard<std::mutex> guard(control_);
    selected_id_ = id_text != nullptr ? id_text : "";
    const int32_t r = open_device();
    if (r == ws_ok && started_) queue_start_without_count_in();
    return r;
}

int32_t MetronomeEngine::refresh_devices() {
    return catalogue_.refresh(context_.get(), frame::map_device_result_metronome);
}

int32_t MetronomeEngine::get_device(int32_t index, DeviceRecord* out) const {
    return catalogue_.get(index, out);
}

void MetronomeEngine::copy_status(MetronomeStatus* out) {
    std::lock_guard<std::mutex> guard(status_lock_);
    *out = status_;
}

int32_t MetronomeEngine::copy_snapshot(MetronomeSnapshot* out) const {
    return core_.read_snapshot(out) ? 1 : 0;
}

void MetronomeEngine::queue_start_without_count_in() {
    MetronomeConfig resume = stored_;
    resume.count_in_bars = 0;
    core_.start(resume);
}

void MetronomeEngine::close_device() {
    if (!device_open_) return;
    closing_ = true;
    // Stop first: it wakes the back end's loop even when its stream died
    // silently, where uninit alone could wait for ever.
    ma_device_stop(&device_);
    ma_device_uninit(&device_);
    device_open_ = false;
    closing_ = false;
}

int32_t MetronomeEngine::open_device() {
    close_device();

    ma_device_id id;
    const bool found = frame::resolve_listed_device(catalogue_, context_.get(), frame::map_device_result_metronome,
                                                    selected_id_.c_str(), id);
    ma_device_config cfg = ma_device_config_init(ma_device_type_playback);
    cfg.playback.format = ma_format_f32;
    cfg.playback.channels = 2;
    cfg.playback.pDeviceID = found ? &id : nullptr;
    cfg.sampleRate = 0;
    frame::apply_steady_buffer(cfg, context_.backend(), kPeriodMs, kPlaybackBufferMs);
    cfg.dataCallback = &MetronomeEngine::on_data;
    cfg.notificationCallback = &MetronomeEngine::on_notification;
    cfg.pUserData = this;

    ma_result r = context_.open(cfg, &device_);
    if (r == MA_SUCCESS) {
        device_open_ = true;
        // The click tables follow the device's rate; built before the
        // callback can run, so it never sees them change.
        core_.prepare(device_.sampleRate);
        r = ma_device_start(&device_);
        if (r != MA_SUCCESS) close_device();
    }
    std::lock_guard<std::mutex> guard(status_lock_);
    ++status_.update_count;
    if (r != MA_SUCCESS) {
        const int32_t code = frame::map_device_result_metronome(r);
        status_.device_state = mn_device_failed;
        status_.last_result = code;
        status_.backend_result = r;
        return code;
    }
    status_.device_state = mn_device_running;
    status_.last_result = ws_ok;
    status_.backend_result = 0;
    status_.sample_rate = device_.sampleRate;
    status_.channels = device_.playback.channels;
    status_.used_default = found ? 0u : 1u;
    return ws_ok;
}

void MetronomeEngine::on_data(ma_device* device, void* output, const void*, ma_uint32 frames) {
    rt::CallbackScope scope;
    auto* self = static_cast<MetronomeEngine*>(device->pUserData);
    if (self == nullptr || output == nullptr) return;
    self->core_.render(static_cast<float*>(output), frames, device->playback.channels);
}

void MetronomeEngine::on_notification(const ma_device_notification* note) {
    auto* self = static_cast<MetronomeEngine*>(note->pDevice->pUserData);
    if (self == nullptr) return;
    if (frame::ends_stream(note->type) && self->worker_running_.load() && !self->closing_.load()) {
        self->watchdog_.report_lost();
    }
}

void MetronomeEngine::WatchdogHost::mark_reopening() {
    std::lock_guard<std::mutex> status(e.status_lock_);
    e.status_.device_state = mn_device_reopening;
    e.status_.last_result = ws_ok;
    e.status_.backend_result = 0;
    ++e.status_.update_count;
}

int32_t MetronomeEngine::WatchdogHost::open(bool default_device) {
    if (!default_device) return e.open_device();
    const std::string keep = e.selected_id_;
    e.selected_id_.clear();
    const int32_t r = e.open_device();
    e.selected_id_ = keep;
    return r;
}

}  // namespace ws::metronome
