// The sd_ exports: each one the same steps inside the family frame.
#include <cstring>
#include <memory>

#include "frame/family.hpp"
#include "recorder/engine.hpp"

namespace {
constinit ws::frame::Family<ws::recorder::RecorderEngine> g_recorder;
using ws::recorder::RecorderEngine;

// Nothing may unwind into the host. The only exceptions possible here are
// fatal by design (memory exhausted while building the engine, a mutex or
// the writer thread refused by the system): they end the process on the
// spot instead of crossing the C boundary.
template <class Fn>
auto fatal_on_throw(Fn&& fn) noexcept -> decltype(fn()) {
    return fn();
}
}  // namespace

extern "C" {

WS_API int32_t sd_create(void) {
    return fatal_on_throw([] { return g_recorder.create([] { return std::make_unique<RecorderEngine>(); }); });
}

WS_API int32_t sd_destroy(void) {
    return fatal_on_throw([] { return g_recorder.destroy(); });
}

WS_API int32_t sd_backend(void) {
    const int32_t r = fatal_on_throw([] { return g_recorder.call([](RecorderEngine& e) { return e.backend(); }); });
    // Back end numbers are never negative, so the frame's -2 is the only one to translate.
    return r == ws_not_created ? -1 : r;
}

WS_API int32_t sd_find_input_by_name(const char* name, char* buf, int32_t size) {
    // The engine checks the pointers: a missing context answers before them.
    return fatal_on_throw(
        [=] { return g_recorder.call([=](RecorderEngine& e) { return e.find_input(name, buf, size); }); });
}

WS_API int32_t sd_start(const char* source_path, const char* take_path, const char* input_id,
                        int32_t start_ms) {
    return fatal_on_throw([=] {
        return g_recorder.call(
            [=](RecorderEngine& e) { return e.start(source_path, take_path, input_id, start_ms); });
    });
}

WS_API int64_t sd_stop(void) {
    return fatal_on_throw([] { return g_recorder.call([](RecorderEngine& e) { return e.stop(); }); });
}

WS_API int32_t sd_get_state(RecorderState* out) {
    return fatal_on_throw([out] {
        return g_recorder.call(
            [out](RecorderEngine& e) {
                RecorderState s{};
                e.fill_state(s);
                std::memcpy(out, &s, SD_STATE_BYTES);  // never the padding a host may not have
                return int32_t{ws_ok};
            },
            out);
    });
}

WS_API double sd_output_latency_ms(void) { return -1.0; }

WS_API int32_t sd_device_rate(void) {
    return fatal_on_throw(
        [] { return g_recorder.call([](RecorderEngine& e) { return static_cast<int32_t>(e.device_rate()); }); });
}

WS_API int32_t sd_repair_count(void) {
    return fatal_on_throw([] { return g_recorder.call([](RecorderEngine& e) { return e.repairs(); }); });
}

}  // extern "C"
