#include "tuner/engine.hpp"

#include <chrono>
#include <cstring>

#include "frame/platform.hpp"
#include "frame/realtime.hpp"
#include "frame/reopen.hpp"
#include "frame/result_map.hpp"
#include "tuner/config.hpp"

namespace ws::tuner {

bool StallWatch::lost(uint64_t callbacks, bool capturing, clock::time_point now) {
    if (!armed_ || callbacks != last_ || !capturing) {
        rearm(callbacks, now);
        return false;
    }
    if (now - since_ <= limit_) return false;
    since_ = now;
    return true;
}

void StallWatch::rearm(uint64_t callbacks, clock::time_point now) {
    armed_ = true;
    last_ = callbacks;
    since_ = now;
}

TunerEngine::TunerEngine(const TunerConfig* config, bool thread)
    : analyser_(config), scratch_(new float[kScratch]()) {
    status_.change_count = 1;
    if (!context_.ready()) {
        status_.state = tn_engine_failed;
        status_.result = ws_backend_init_failed;
        status_.backend_result = context_.result();
        return;
    }
    running_ = true;
    if (thread) thread_ = platform::start_thread([this] { worker(); });
}

TunerEngine::~TunerEngine() {
    running_ = false;
    if (thread_.joinable()) thread_.join();
    {
        std::lock_guard<std::mutex> guard(device_lock_);
        capturing_ = false;
        close_device();
    }
}

void TunerEngine::configure(const TunerConfig& config) {
    std::lock_guard<std::mutex> guard(analyser_lock_);
    analyser_.configure(&config);
}

int32_t TunerEngine::start(const char* id_text) {
    std::lock_guard<std::mutex> guard(device_lock_);
    selected_id_ = id_text != nullptr ? id_text : "";
    return open_device(selected_id_);
}

int32_t TunerEngine::stop() {
    std::lock_guard<std::mutex> guard(device_lock_);
    capturing_ = false;
    close_device();
    {
        // What the device delivered before it closed is not analysed after
        // the stop: the reading at the stop stays the last one.
        std::lock_guard<std::mutex> pass(pass_lock_);
        ring_.reset();
    }
    std::lock_guard<std::mutex> status(status_lock_);
    status_.state = tn_engine_stopped;
    status_.sample_rate = 0;
    status_.device_channels = 0;
    ++status_.change_count;
    return ws_ok;
}

void TunerEngine::copy_status(TunerStatus* out) {
    std::lock_guard<std::mutex> guard(status_lock_);
    *out = status_;
}

int32_t TunerEngine::copy_reading(TunerReading* out) const { return reading_.read(out) ? 1 : 0; }

int32_t TunerEngine::refresh_devices() {
    return catalogue_.refresh(context_.get(), frame::map_device_result);
}

int32_t TunerEngine::get_device(int32_t index, DeviceRecord* out) const {
    return catalogue_.get(index, out);
}

void TunerEngine::set_status(uint32_t state, int32_t result, int32_t backend) {
    std::lock_guard<std::mutex> guard(status_lock_);
    status_.state = state;
    status_.result = result;
    status_.backend_result = backend;
    ++status_.change_count;
}

void TunerEngine::close_device() {
    if (!device_open_) return;
    // Stopping first wakes the back end's loop even when its stream has died
    // silently; uninit alone would wait for a callback that never comes.
    ma_device_stop(&device_);
    ma_device_uninit(&device_);
    device_open_ = false;
}

int32_t TunerEngine::open_device(const std::string& id_text) {
    capturing_ = false;
    close_device();

    ma_device_id id;
    const bool found = frame::resolve_listed_device(catalogue_, context_.get(), frame::map_device_result,
                                                    id_text.c_str(), id);

    ma_device_config cfg = ma_device_config_init(ma_device_type_capture);
    cfg.capture.pDeviceID = found ? &id : nullptr;
    cfg.capture.format = ma_format_f32;
    cfg.capture.channels = 1;
    cfg.sampleRate = 0;
    frame::apply_steady_buffer(cfg, context_.backend(), kPeriodMs, kCaptureBufferMs);
    cfg.dataCallback = &TunerEngine::on_data;
    cfg.notificationCallback = &TunerEngine::on_notification;
    cfg.pUserData = this;

    ma_result r = context_.open(cfg, &device_);
    if (r == MA_SUCCESS) {
        device_open_ = true;
        {
            std::lock_guard<std::mutex> pass(pass_lock_);
            {
                std::lock_guard<std::mutex> guard(analyser_lock_);
                analyser_.reset(device_.sampleRate);
            }
            ring_.reset();
            reading_.clear();
            callbacks_ = 0;
        }
        capturing_ = true;
        r = ma_device_start(&device_);
        if (r != MA_SUCCESS) {
            capturing_ = false;
            ma_device_uninit(&device_);
            device_open_ = false;
        }
    }
    if (r != MA_SUCCESS) {
        const int32_t code = frame::map_device_result(r);
        set_status(tn_engine_failed, code, r);
        return code;
    }
    std::lock_guard<std::mutex> guard(status_lock_);
    status_.state = tn_engine_running;
    status_.result = ws_ok;
    status_.backend_result = 0;
    status_.sample_rate = device_.sampleRate;
    status_.device_channels = device_.capture.internalChannels;
    status_.default_used = found ? 0u : 1u;
    ++status_.change_count;
    return ws_ok;
}

void TunerEngine::on_data(ma_device* device, void*, const void* input, ma_uint32 frames) {
    rt::CallbackScope scope;
    auto* self = static_cast<TunerEngine*>(device->pUserData);
    if (self == nullptr || input == nullptr) return;
    if (!self->capturing_.load(std::memory_order_acquire)) return;
    self->callbacks_.fetch_add(1, std::memory_order_relaxed);
    self->ring_.try_push(static_cast<const float*>(input), frames);
}

void TunerEngine::on_notification(const ma_device_notification* note) {
    auto* self = static_cast<TunerEngine*>(note->pDevice->pUserData);
    if (self == nullptr) return;
    // The engine clears capturing before closing its own device, so its own
    // close never reads as a loss.
    if (frame::ends_stream(note->type) && self->capturing_.load(std::memory_order_acquire)) {
        self->reopen_request_ = true;
    }
}

void TunerEngine::worker() {
    using clock = std::chrono::steady_clock;
    while (running_.load(std::memory_order_acquire)) {
        step(clock::now());
        std::this_thread::sleep_until(clock::now() + kWorkerPeriod);
    }
}

void TunerEngine::step(std::chrono::steady_clock::time_point now) {
    if (stall_.lost(callbacks_.load(std::memory_order_relaxed), capturing_.load(std::memory_order_acquire),
                    now)) {
        reopen_request_ = true;
    }
    if (reopen_request_.exchange(false)) reopen(now);

    std::lock_guard<std::mutex> pass(pass_lock_);
    if (ring_.take_overflow()) {
        std::lock_guard<std::mutex> guard(analyser_lock_);
        analyser_.reset(analyser_.sample_rate());
    }
    ring_.drain(scratch_.get(), kScratch, [this](const float* run, size_t n) {
        std::lock_guard<std::mutex> guard(analyser_lock_);
        analyser_.push(run, n);
        TunerReading reading;
        if (analyser_.current_reading(&reading)) reading_.publish(reading);
    });
}

void TunerEngine::reopen(std::chrono::steady_clock::time_point now) {
    std::lock_guard<std::mutex> guard(device_lock_);
    // Checked again under the lock: a stop that came after the request
    // (between the request and this lock) must not be undone.
    if (!capturing_.load(std::memory_order_acquire)) return;
    {
        std::lock_guard<std::mutex> status(status_lock_);
        status_.state = tn_engine_reopening;
        status_.result = ws_ok;
        status_.backend_result = 0;
        ++status_.change_count;
    }
    frame::reopen_chosen_or_default(
        [this](bool fallback) { return open_device(fallback ? std::string() : selected_id_); });
    stall_.rearm(callbacks_.load(std::memory_order_relaxed), now);
}

}  // namespace ws::tuner
