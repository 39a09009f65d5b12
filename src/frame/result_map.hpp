// Translation of audio back-end results into the library's result codes.
// The raw values are miniaudio's; they are pinned against its header in
// result_map.cpp so this file needs no miniaudio include.
#pragma once

#include <cstdint>

namespace ws::frame {

namespace ma_code {
inline constexpr int success = 0;
inline constexpr int access_denied = -6;
inline constexpr int busy = -19;
inline constexpr int unavailable = -22;
inline constexpr int invalid_data = -33;
inline constexpr int format_not_supported = -200;
inline constexpr int device_type_not_supported = -201;
inline constexpr int no_device = -204;
inline constexpr int device_not_initialized = -300;
inline constexpr int device_not_started = -302;
}  // namespace ma_code

// Tuner table: enumeration, open and start failures.
int32_t map_device_result(int ma_result);

// Metronome: the same table except that invalid data is not singled out
// (it falls through to device_failure).
int32_t map_device_result_metronome(int ma_result);

// Duplex recorder, device init only: access denied or a generic failure.
int32_t map_device_result_recorder(int ma_result);

}  // namespace ws::frame
