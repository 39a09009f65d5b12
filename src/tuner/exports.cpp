// The tn_engine_ exports: each one the same steps inside the family frame.
#include <memory>

#include "frame/family.hpp"
#include "tuner/config.hpp"
#include "tuner/engine.hpp"

namespace {
constinit ws::frame::Family<ws::tuner::TunerEngine> g_tuner;
using ws::tuner::TunerEngine;
}  // namespace

extern "C" {

WS_API int32_t tn_engine_create(const TunerConfig* config) WS_NOEXCEPT {
    return g_tuner.create([config] { return std::make_unique<TunerEngine>(config); });
}

WS_API int32_t tn_engine_destroy(void) WS_NOEXCEPT { return g_tuner.destroy(); }

WS_API int32_t tn_engine_configure(const TunerConfig* config) WS_NOEXCEPT {
    return g_tuner.call([config](TunerEngine& e) { e.configure(*config); return int32_t{ws_ok}; },
                        config);
}

WS_API int32_t tn_engine_start(const char* device_id) WS_NOEXCEPT {
    return g_tuner.call([device_id](TunerEngine& e) { return e.start(device_id); });
}

WS_API int32_t tn_engine_stop(void) WS_NOEXCEPT {
    return g_tuner.call([](TunerEngine& e) { return e.stop(); });
}

WS_API int32_t tn_engine_get_status(TunerStatus* out) WS_NOEXCEPT {
    return g_tuner.call([out](TunerEngine& e) { e.copy_status(out); return int32_t{ws_ok}; }, out);
}

WS_API int32_t tn_engine_get_reading(TunerReading* out) WS_NOEXCEPT {
    return g_tuner.call([out](TunerEngine& e) { return e.copy_reading(out); }, out);
}

WS_API int32_t tn_engine_get_device(int32_t index, DeviceRecord* out) WS_NOEXCEPT {
    return g_tuner.call([index, out](TunerEngine& e) { return e.get_device(index, out); }, out);
}

WS_API int32_t tn_engine_refresh_devices(void) WS_NOEXCEPT {
    return g_tuner.call([](TunerEngine& e) { return e.refresh_devices(); });
}

}  // extern "C"
