#include "frame/result_map.hpp"

#include <miniaudio.h>

#include "woodshed/common.h"

namespace ws::frame {

static_assert(ma_code::success == MA_SUCCESS);
static_assert(ma_code::access_denied == MA_ACCESS_DENIED);
static_assert(ma_code::busy == MA_BUSY);
static_assert(ma_code::unavailable == MA_UNAVAILABLE);
static_assert(ma_code::invalid_data == MA_INVALID_DATA);
static_assert(ma_code::format_not_supported == MA_FORMAT_NOT_SUPPORTED);
static_assert(ma_code::device_type_not_supported == MA_DEVICE_TYPE_NOT_SUPPORTED);
static_assert(ma_code::no_device == MA_NO_DEVICE);
static_assert(ma_code::device_not_initialized == MA_DEVICE_NOT_INITIALIZED);
static_assert(ma_code::device_not_started == MA_DEVICE_NOT_STARTED);

int32_t map_device_result(int r) {
    switch (r) {
        case ma_code::success: return ws_ok;
        case ma_code::access_denied: return ws_access_denied;
        case ma_code::busy:
        case ma_code::unavailable:
        case ma_code::device_not_initialized:
        case ma_code::device_not_started: return ws_device_busy;
        case ma_code::invalid_data:
        case ma_code::format_not_supported: return ws_unsupported_format;
        case ma_code::device_type_not_supported:
        case ma_code::no_device: return ws_no_device;
        default: return ws_device_failure;
    }
}

int32_t map_device_result_metronome(int r) {
    if (r == ma_code::invalid_data) return ws_device_failure;
    return map_device_result(r);
}

int32_t map_device_result_recorder(int r) {
    if (r == ma_code::success) return ws_ok;
    return r == ma_code::access_denied ? ws_access_denied : ws_device_failure;
}

}  // namespace ws::frame
