// Layout of a fuzz_offline input, shared by the fuzz target and the seed
// writer so both agree on it:
//   [0, 40)   TunerConfig, raw bytes
//   [40]      flags: bit 0 null config, bit 1 null samples, bit 2 null out
//   [41, 43)  repeat count - 1 (u16): the sample bytes are played this many
//             times over, so a short input can hold a long periodic signal
//   [43, 51)  sample rate (f64, any bit pattern)
//   [51, 55)  channel count (i32, any value)
//   [55, ...) 32-bit float samples, interleaved
// The repeated samples are cut at kMaxSamples floats to keep runs short.
#pragma once

#include <cstddef>
#include <cstdint>

namespace fuzz_offline {

inline constexpr size_t kConfigBytes = 40;
inline constexpr size_t kFlagsAt = 40;
inline constexpr size_t kRepeatAt = 41;
inline constexpr size_t kRateAt = 43;
inline constexpr size_t kChannelsAt = 51;
inline constexpr size_t kHeaderBytes = 55;
inline constexpr size_t kMaxSamples = size_t{1} << 15;

inline constexpr uint8_t kNullConfig = 1;
inline constexpr uint8_t kNullSamples = 2;
inline constexpr uint8_t kNullOut = 4;

}  // namespace fuzz_offline
