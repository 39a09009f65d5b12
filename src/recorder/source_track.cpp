#include "recorder/source_track.hpp"

#include <algorithm>
#include <cstdio>
#include <cstring>
#include <new>
#include <stdexcept>

#include "frame/platform.hpp"

namespace ws::recorder {

namespace {

uint16_t get_u16(const uint8_t* p) { return static_cast<uint16_t>(p[0] | (p[1] << 8)); }

uint32_t get_u32(const uint8_t* p) {
    return static_cast<uint32_t>(p[0]) | (static_cast<uint32_t>(p[1]) << 8) |
           (static_cast<uint32_t>(p[2]) << 16) | (static_cast<uint32_t>(p[3]) << 24);
}

int16_t get_i16(const uint8_t* p) { return static_cast<int16_t>(get_u16(p)); }

struct WavLayout {
    uint32_t channels = 0;
    uint32_t rate = 0;
    uint32_t bits = 0;
    bool have_data = false;
    size_t data_offset = 0;
    size_t data_bytes = 0;
};

// Walks the chunks from offset 12. Offsets are carried in 64 bits so a
// declared size near 4 GiB cannot wrap them back into the file.
WavLayout walk_chunks(const uint8_t* bytes, size_t size) {
    WavLayout w;
    uint64_t off = 12;
    while (off + 8 <= size) {
        const uint8_t* chunk = bytes + off;
        const uint32_t chunk_size = get_u32(chunk + 4);
        if (std::memcmp(chunk, "fmt ", 4) == 0) {
            // Read only when the 16 bytes of the basic format fit.
            if (off + 24 <= size) {
                w.channels = get_u16(chunk + 10);
                w.rate = get_u32(chunk + 12);
                w.bits = get_u16(chunk + 22);
            }
        } else if (std::memcmp(chunk, "data", 4) == 0) {
            const uint64_t body = off + 8;
            w.have_data = true;
            w.data_offset = static_cast<size_t>(body);
            w.data_bytes = static_cast<size_t>(std::min<uint64_t>(chunk_size, size - body));
        }
        off += 8 + uint64_t{chunk_size} + (chunk_size & 1u);  // odd sizes carry a pad byte
    }
    return w;
}

}  // namespace

bool decode_source_wav(const uint8_t* bytes, size_t size, SourceTrack& track) {
    track.clear();
    if (bytes == nullptr || size < 44) return false;
    if (std::memcmp(bytes, "RIFF", 4) != 0 || std::memcmp(bytes + 8, "WAVE", 4) != 0) return false;
    const WavLayout w = walk_chunks(bytes, size);
    if (!w.have_data || w.bits != 16 || (w.channels != 1 && w.channels != 2) ||
        w.rate < kMinSourceRate) {
        return false;
    }

    const uint64_t n = (w.data_bytes / 2) / w.channels;
    const double r = static_cast<double>(kRecorderRate) / static_cast<double>(w.rate);
    const uint64_t m = static_cast<uint64_t>(static_cast<double>(n) * r);
    try {
        track.samples.assign(static_cast<size_t>(2 * m), 0.0f);
    } catch (const std::exception&) {  // bad_alloc, or length_error for absurd counts
        track.clear();
        return false;
    }

    const uint8_t* data = bytes + w.data_offset;
    const size_t stride = 2 * size_t{w.channels};
    auto sample = [&](uint64_t frame, uint32_t channel) {
        return static_cast<double>(get_i16(data + frame * stride + 2 * channel)) / 32768.0;
    };
    float* out = track.samples.data();
    for (uint64_t j = 0; j < m; ++j) {
        const double x = static_cast<double>(j) / r;
        // x < n in exact arithmetic; the clamp only guards the last frame
        // against rounding.
        const uint64_t i0 = std::min(static_cast<uint64_t>(x), n - 1);
        const double f = x - static_cast<double>(i0);
        const uint64_t i1 = std::min(i0 + 1, n - 1);
        for (uint32_t c = 0; c < 2; ++c) {
            const uint32_t src = w.channels == 2 ? c : 0;
            const double a = sample(i0, src);
            const double b = sample(i1, src);
            out[2 * j + c] = static_cast<float>(a + (b - a) * f);
        }
    }
    track.frames = static_cast<int64_t>(m);
    return true;
}

bool load_source_track(const char* utf8_path, SourceTrack& track) {
    track.clear();
    if (utf8_path == nullptr || *utf8_path == '\0') return true;
    std::FILE* f = platform::open_file(utf8_path, "rb");
    if (f == nullptr) return false;
    long size = -1;
    if (std::fseek(f, 0, SEEK_END) == 0) size = std::ftell(f);
    if (size < kMinSourceBytes || size > kMaxSourceBytes || std::fseek(f, 0, SEEK_SET) != 0) {
        std::fclose(f);
        return false;
    }
    std::vector<uint8_t> bytes;
    try {
        bytes.resize(static_cast<size_t>(size));
    } catch (const std::bad_alloc&) {
        std::fclose(f);
        return false;
    }
    bytes.resize(std::fread(bytes.data(), 1, bytes.size(), f));
    std::fclose(f);
    return decode_source_wav(bytes.data(), bytes.size(), track);
}

}  // namespace ws::recorder
