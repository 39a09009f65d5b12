#include "recorder/engine.hpp"

#include <cstring>
#include <filesystem>
#include <string>
#include <thread>

#include "frame/device_catalogue.hpp"
#include "frame/id_text.hpp"
#include "frame/realtime.hpp"
#include "frame/result_map.hpp"

namespace ws::recorder {

// The hints' values as the interface promises them to mobile back ends.
static_assert(kOpenSlStream == 4 && kOpenSlPreset == 1);
static_assert(kAAudioUsage == 1 && kAAudioContent == 2 && kAAudioInput == 6);
static_assert(ma_backend_wasapi == 0 && ma_backend_dsound == 1 && ma_backend_winmm == 2);

ma_device_config duplex_config(const ma_device_id* capture_id, ma_device_data_proc callback,
                               void* user_data, ma_backend backend) {
    ma_device_config cfg = ma_device_config_init(ma_device_type_duplex);
    // The device's own rate: neither the server nor the audio library
    // converts anything; the recorder does, with its own resampler.
    cfg.sampleRate = 0;
    // 10 ms periods over 40 ms of buffer: a busy machine must not starve the
    // backing track (the server would play silence and move the round trip),
    // and the round trip stays short (on a sound server both directions
    // buffer the whole 40 ms: about 150 ms in all).
    frame::apply_steady_buffer(cfg, backend, 10, 40);
    cfg.playback.pDeviceID = nullptr;
    cfg.playback.format = ma_format_f32;
    cfg.playback.channels = 2;
    cfg.capture.pDeviceID = capture_id;
    cfg.capture.format = ma_format_f32;
    cfg.capture.channels = 1;
    cfg.dataCallback = callback;
    cfg.pUserData = user_data;
    cfg.opensl.streamType = kOpenSlStream;
    cfg.opensl.recordingPreset = kOpenSlPreset;
    cfg.aaudio.usage = kAAudioUsage;
    cfg.aaudio.contentType = kAAudioContent;
    cfg.aaudio.inputPreset = kAAudioInput;
    return cfg;
}

RecorderEngine::RecorderEngine() = default;

RecorderEngine::~RecorderEngine() {
    stop();
}

int32_t RecorderEngine::backend() const {
    return context_.ready() ? static_cast<int32_t>(context_.backend()) : -1;
}

int32_t RecorderEngine::find_input(const char* name, char* buf, int32_t size) {
    std::lock_guard<std::mutex> guard(lock_);
    if (!context_.ready()) return ws_backend_init_failed;  // before the argument checks, by contract
    if (name == nullptr || buf == nullptr || size < 8) return ws_invalid_argument;
    return frame::find_capture_by_name(context_.get(), name, buf, size);
}

void RecorderEngine::close_device() {
    if (!device_open_) return;
    // Stopping first wakes the back end's loop even when its stream has died
    // underneath; uninit alone could wait for a callback that never comes.
    ma_device_stop(&device_);
    ma_device_uninit(&device_);
    device_open_ = false;
}

void RecorderEngine::finish_unstopped_take() {
    // A restart keeps the old take whole up to its last written sample but
    // does not wait for what is still in the ring (stop drains; this does not).
    if (!core_.writer().has_thread() && !core_.take().is_open()) return;
    core_.set_recording(false);
    core_.writer().stop();
    core_.take().finish();
}

namespace {
// A take path that names a directory, a FIFO or a socket: opening it would
// fail or block for ever. Checked without opening anything.
bool unusable_take_path(const char* utf8_path) {
    std::error_code ec;
    const std::string text(utf8_path);
    const std::filesystem::path p(std::u8string(text.begin(), text.end()));
    const std::filesystem::file_status st = std::filesystem::status(p, ec);
    return !ec && (std::filesystem::is_directory(st) || std::filesystem::is_fifo(st) ||
                   std::filesystem::is_socket(st));
}
}  // namespace

int32_t RecorderEngine::start(const char* source_path, const char* take_path, const char* input_id,
                              int32_t start_ms) {
    std::lock_guard<std::mutex> guard(lock_);
    if (!context_.ready()) return ws_backend_init_failed;
    if (take_path == nullptr) return ws_invalid_argument;
    close_device();
    finish_unstopped_take();
    core_.take().clear_write_error();
    if (unusable_take_path(take_path)) return ws_device_failure;

    // A well-formed id goes to the back end as it is; anything else means
    // the default input. If the device is gone, the open below fails.
    uint8_t id_bytes[frame::kDeviceIdBytes];
    ma_device_id id;
    const bool by_id = input_id != nullptr && frame::parse_id_text(input_id, id_bytes);
    if (by_id) std::memcpy(&id, id_bytes, sizeof id);

    // The device opens first: its rate decides the backing's conversion,
    // and a device that fails must leave an existing take untouched.
    const ma_device_config cfg =
        duplex_config(by_id ? &id : nullptr, &RecorderEngine::on_data, this, context_.backend());
    const ma_result r = context_.open(cfg, &device_);
    if (r != MA_SUCCESS) return frame::map_device_result_recorder(r);
    device_open_ = true;
    core_.set_device_rate(device_.sampleRate);

    const LoadResult loaded = core_.load_track(source_path);
    if (loaded != LoadResult::ok) {
        close_device();
        return loaded == LoadResult::too_large ? ws_unsupported_format : ws_invalid_argument;
    }
    // Only now is a take file created (or an old one truncated).
    if (!core_.take().create(take_path)) {
        close_device();
        core_.unload_track();
        return ws_device_failure;
    }
    device_rate_ = device_.sampleRate;

    core_.arm(start_ms);
    core_.writer().start();
    core_.set_recording(true);
    if (ma_device_start(&device_) != MA_SUCCESS) {
        core_.set_recording(false);
        core_.writer().stop();
        close_device();
        core_.take().close();
        return ws_device_failure;
    }
    return ws_ok;
}

int64_t RecorderEngine::stop() {
    std::lock_guard<std::mutex> guard(lock_);
    if (!device_open_ && !core_.take().is_open()) return ws_not_created;
    core_.set_recording(false);
    if (device_open_) {
        // The callback plays silence meanwhile, so the output does not stop
        // in the middle of the signal.
        core_.set_muted(true);
        std::this_thread::sleep_for(kStopMute);
        close_device();
    }
    core_.set_muted(false);
    core_.writer().stop();
    uint64_t samples = 0;
    if (core_.take().is_open()) {
        core_.writer().drain_rest();
        samples = core_.take().samples_written();
        core_.take().finish();
    }
    core_.unload_track();
    return static_cast<int64_t>(samples * 1000 / kRecorderRate);
}

void RecorderEngine::on_data(ma_device* device, void* output, const void* input, ma_uint32 frames) {
    rt::CallbackScope scope;
    auto* self = static_cast<RecorderEngine*>(device->pUserData);
    if (self == nullptr) return;
    self->core_.process(static_cast<float*>(output), static_cast<const float*>(input), frames);
}

}  // namespace ws::recorder
