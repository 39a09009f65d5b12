// The canonical 44-byte header of a mono 16-bit PCM WAV file: RIFF, a 16-byte
// "fmt " chunk and the "data" chunk header, nothing else. Both writers of the
// library (the streaming take writer and the take tools' safe replacement)
// produce exactly this header.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>

namespace ws::frame {

inline constexpr size_t kWavHeaderBytes = 44;

// The header for `data_bytes` bytes of samples at `sample_rate`. Sizes wrap
// in 32 bits (RIFF size = data_bytes + 36): no check against the format's
// 4 GiB limit, by design, so a very long take still has a header that
// players read up to the wrap.
std::array<uint8_t, kWavHeaderBytes> mono16_wav_header(uint32_t sample_rate, uint32_t data_bytes);

}  // namespace ws::frame
