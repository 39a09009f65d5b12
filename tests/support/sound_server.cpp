#include <thread>

#include "sound_server.hpp"

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <iterator>
#include <string>

namespace ws::test {

bool sound_server_expected() {
#if defined(_WIN32)
    // Under Wine the audio driver reaches the same server through the
    // environment the test command exported.
    return std::getenv("PULSE_SERVER") != nullptr || sound_server_required();
#else
    return std::getenv("PULSE_SERVER") != nullptr;
#endif
}

bool sound_server_required() {
    const char* v = std::getenv("WOODSHED_REQUIRE_SOUND_SERVER");
    return v != nullptr && std::string(v) == "1";
}

TonePlayer::~TonePlayer() { stop(); }

bool TonePlayer::start(double frequency, double amplitude) {
    stop();
    if (!context_.ready()) return false;
    frequency_ = frequency;
    amplitude_ = amplitude;
    phase_ = 0.0;
    ma_device_config cfg = ma_device_config_init(ma_device_type_playback);
    cfg.playback.format = ma_format_f32;
    cfg.playback.channels = 2;
    cfg.sampleRate = 0;
    // Buffered like the engines, so a loaded machine does not cut the tone.
    frame::apply_steady_buffer(cfg, context_.backend(), 10, 60);
    cfg.dataCallback = &TonePlayer::on_data;
    cfg.pUserData = this;
    if (ma_device_init(context_.get(), &cfg, &device_) != MA_SUCCESS) return false;
    open_ = true;
    return ma_device_start(&device_) == MA_SUCCESS;
}

void TonePlayer::stop() {
    if (!open_) return;
    ma_device_stop(&device_);
    ma_device_uninit(&device_);
    open_ = false;
}

void TonePlayer::on_data(ma_device* device, void* output, const void*, ma_uint32 frames) {
    auto* self = static_cast<TonePlayer*>(device->pUserData);
    auto* out = static_cast<float*>(output);
    const double step = 2.0 * 3.14159265358979323846 * self->frequency_ / device->sampleRate;
    for (ma_uint32 i = 0; i < frames; ++i) {
        const float v = static_cast<float>(self->amplitude_ * std::sin(self->phase_));
        out[2 * i] = v;
        out[2 * i + 1] = v;
        self->phase_ = std::fmod(self->phase_ + step, 2.0 * 3.14159265358979323846);
    }
}

MonitorRecorder::~MonitorRecorder() { stop(); }

bool MonitorRecorder::start(double max_seconds) {
    stop();
    if (!context_.ready()) return false;
    ma_device_config cfg = ma_device_config_init(ma_device_type_capture);
    cfg.capture.format = ma_format_f32;
    cfg.capture.channels = 1;
    cfg.sampleRate = 0;
    // Room for half a second unread: the recording must not lose samples.
    frame::apply_steady_buffer(cfg, context_.backend(), 10, 500);
    cfg.dataCallback = &MonitorRecorder::on_data;
    cfg.pUserData = this;
    if (ma_device_init(context_.get(), &cfg, &device_) != MA_SUCCESS) return false;
    open_ = true;
    rate_ = device_.sampleRate;
    samples_.assign(static_cast<size_t>(max_seconds * rate_), 0.0f);
    used_ = 0;
    return ma_device_start(&device_) == MA_SUCCESS;
}

void MonitorRecorder::stop() {
    if (!open_) return;
    ma_device_stop(&device_);
    ma_device_uninit(&device_);
    open_ = false;
    samples_.resize(used_.load());
}

void MonitorRecorder::on_data(ma_device* device, void*, const void* input, ma_uint32 frames) {
    auto* self = static_cast<MonitorRecorder*>(device->pUserData);
    if (input == nullptr) return;
    const size_t used = self->used_.load(std::memory_order_relaxed);
    const size_t n = std::min<size_t>(frames, self->samples_.size() - used);
    std::copy_n(static_cast<const float*>(input), n, self->samples_.data() + used);
    self->used_.store(used + n, std::memory_order_release);
}

// ---- the server's log ----------------------------------------------------

namespace {

std::string server_log_path() {
    const char* server = std::getenv("PULSE_SERVER");
    if (server == nullptr) return {};
    std::string path = server;
    const std::string prefix = "unix:", suffix = "/runtime/native";
    if (path.rfind(prefix, 0) == 0) path = path.substr(prefix.size());
    if (path.size() > suffix.size() && path.compare(path.size() - suffix.size(), suffix.size(), suffix) == 0) {
        path = path.substr(0, path.size() - suffix.size());
    }
#if defined(_WIN32)
    path = "Z:" + path;  // Wine's view of the Unix file system
#endif
    return path + "/pulse.log";
}

size_t log_size() {
    std::ifstream f(server_log_path(), std::ios::binary | std::ios::ate);
    return f ? static_cast<size_t>(f.tellg()) : 0;
}

}  // namespace

ServerLog::ServerLog() : start_(log_size()) {}

std::string ServerLog::since_start() const {
    std::ifstream f(server_log_path(), std::ios::binary);
    f.seekg(static_cast<std::streamoff>(start_));
    std::string text((std::istreambuf_iterator<char>(f)), std::istreambuf_iterator<char>());
    text.erase(std::remove(text.begin(), text.end(), '\0'), text.end());
    return text;
}

bool ServerLog::at_debug_level() const { return since_start().find("D: [") != std::string::npos; }

int ServerLog::playback_underruns() const {
    const std::string text = since_start();
    const std::string mark = "underrun of '";
    int n = 0;
    for (size_t at = text.find(mark); at != std::string::npos; at = text.find(mark, at + 1)) {
        if (text.compare(at + mark.size(), 6, "pacat'") != 0) ++n;
    }
    return n;
}

}  // namespace ws::test
