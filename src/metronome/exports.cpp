// The mn_ exports: each one the same steps inside the family frame.
#include <memory>

#include "frame/family.hpp"
#include "metronome/engine.hpp"

namespace {
constinit ws::frame::Family<ws::metronome::MetronomeEngine> g_metronome;
using ws::metronome::MetronomeEngine;
}  // namespace

extern "C" {

WS_API int32_t mn_create(void) WS_NOEXCEPT {
    return g_metronome.create([] { return std::make_unique<MetronomeEngine>(); });
}

WS_API int32_t mn_destroy(void) WS_NOEXCEPT { return g_metronome.destroy(); }

WS_API int32_t mn_configure(const MetronomeConfig* config) WS_NOEXCEPT {
    return g_metronome.call([config](MetronomeEngine& e) { return e.configure(*config); }, config);
}

WS_API int32_t mn_start(const MetronomeConfig* config, const char* device_id) WS_NOEXCEPT {
    return g_metronome.call([=](MetronomeEngine& e) { return e.start(*config, device_id); }, config);
}

WS_API int32_t mn_stop(void) WS_NOEXCEPT {
    return g_metronome.call([](MetronomeEngine& e) { return e.stop(); });
}

WS_API int32_t mn_pause(void) WS_NOEXCEPT {
    return g_metronome.call([](MetronomeEngine& e) { return e.pause(); });
}

WS_API int32_t mn_resume(void) WS_NOEXCEPT {
    return g_metronome.call([](MetronomeEngine& e) { return e.resume(); });
}

WS_API int32_t mn_set_tempo(int64_t tempo_ubpm) WS_NOEXCEPT {
    return g_metronome.call([=](MetronomeEngine& e) { return e.set_tempo(tempo_ubpm); });
}

WS_API int32_t mn_set_master_gain(double gain) WS_NOEXCEPT {
    return g_metronome.call([=](MetronomeEngine& e) { return e.set_master_gain(gain); });
}

WS_API int32_t mn_select_device(const char* device_id) WS_NOEXCEPT {
    return g_metronome.call([=](MetronomeEngine& e) { return e.select_device(device_id); });
}

WS_API int32_t mn_refresh_devices(void) WS_NOEXCEPT {
    return g_metronome.call([](MetronomeEngine& e) { return e.refresh_devices(); });
}

WS_API int32_t mn_get_device(int32_t index, DeviceRecord* out) WS_NOEXCEPT {
    return g_metronome.call([=](MetronomeEngine& e) { return e.get_device(index, out); }, out);
}

WS_API int32_t mn_get_status(MetronomeStatus* out) WS_NOEXCEPT {
    return g_metronome.call([=](MetronomeEngine& e) { e.copy_status(out); return int32_t{ws_ok}; }, out);
}

WS_API int32_t mn_get_snapshot(MetronomeSnapshot* out) WS_NOEXCEPT {
    return g_metronome.call([=](MetronomeEngine& e) { return e.copy_snapshot(out); }, out);
}

}  // extern "C"
