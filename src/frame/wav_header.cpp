#include "frame/wav_header.hpp"

#include <cstring>

namespace ws::frame {

namespace {

// Little-endian whatever the host's byte order.
void put_u16(uint8_t* at, uint16_t v) {
    at[0] = static_cast<uint8_t>(v & 0xFFu);
    at[1] = static_cast<uint8_t>(v >> 8);
}

void put_u32(uint8_t* at, uint32_t v) {
    for (int i = 0; i < 4; ++i) at[i] = static_cast<uint8_t>((v >> (8 * i)) & 0xFFu);
}

}  // namespace

std::array<uint8_t, kWavHeaderBytes> mono16_wav_header(uint32_t sample_rate, uint32_t data_bytes) {
    std::array<uint8_t, kWavHeaderBytes> h{};
    uint8_t* p = h.data();
    std::memcpy(p + 0, "RIFF", 4);
    put_u32(p + 4, data_bytes + 36u);
    std::memcpy(p + 8, "WAVE", 4);
    std::memcpy(p + 12, "fmt ", 4);
    put_u32(p + 16, 16);
    put_u16(p + 20, 1);  // integer PCM
    put_u16(p + 22, 1);  // channels
    put_u32(p + 24, sample_rate);
    put_u32(p + 28, sample_rate * 2u);  // bytes per second
    put_u16(p + 32, 2);                 // bytes per frame
    put_u16(p + 34, 16);                // bits per sample
    std::memcpy(p + 36, "data", 4);
    put_u32(p + 40, data_bytes);
    return h;
}

}  // namespace ws::frame
