#include "recorder/source_track.hpp"

#include <algorithm>
#include <cstdio>
#include <cstring>
#include <new>
#include <stdexcept>

#include "frame/platform.hpp"
#include "frame/resampler.hpp"

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

LoadResult decode_source_wav(const uint8_t* bytes, size_t size, uint32_t rate, SourceTrack& track) {
    track.clear();
    if (bytes == nullptr || size < 44) return LoadResult::unreadable;
    if (std::memcmp(bytes, "RIFF", 4) != 0 || std::memcmp(bytes + 8, "WAVE", 4) != 0) return LoadResult::unreadable;
    const WavLayout w = walk_chunks(bytes, size);
    if (!w.have_data || w.bits != 16 || (w.channels != 1 && w.channels != 2) ||
        w.rate < kMinSourceRate || w.rate > kMaxSourceRate || rate == 0) {
        return LoadResult::unreadable;
    }

    const uint64_t n = (w.data_bytes / 2) / w.channels;
    const uint64_t m = frame::Resampler::output_frames(n, w.rate, rate);
    if (m > kMaxTrackBytes / (2 * sizeof(float))) return LoadResult::too_large;
    try {
        track.samples.assign(static_cast<size_t>(2 * m), 0.0f);
        const uint8_t* data = bytes + w.data_offset;
        const size_t stride = 2 * size_t{w.channels};
        constexpr size_t kBlock = 8192;
        std::vector<float> in(kBlock);
        for (uint32_t c = 0; c < w.channels; ++c) {
            frame::Resampler r(w.rate, rate);
            std::vector<float> out(std::max(r.max_output(kBlock), r.max_output(0)));
            uint64_t at = 0;  // output frame
            auto put = [&](size_t k) {
                for (size_t i = 0; i < k && at < m; ++i, ++at) track.samples[2 * at + c] = out[i];
            };
            for (uint64_t f = 0; f < n; f += kBlock) {
                const size_t k = static_cast<size_t>(std::min<uint64_t>(kBlock, n - f));
                for (size_t i = 0; i < k; ++i) {
                    in[i] = static_cast<float>(get_i16(data + (f + i) * stride + 2 * c) / 32768.0);
                }
                put(r.process(in.data(), k, out.data()));
            }
            put(r.flush(out.data()));
        }
    } catch (const std::exception&) {  // bad_alloc
        track.clear();
        return LoadResult::unreadable;
    }
    if (w.channels == 1) {
        for (uint64_t j = 0; j < m; ++j) track.samples[2 * j + 1] = track.samples[2 * j];
    }
    track.frames = static_cast<int64_t>(m);
    return LoadResult::ok;
}

LoadResult load_source_track(const char* utf8_path, uint32_t rate, SourceTrack& track) {
    track.clear();
    if (utf8_path == nullptr || *utf8_path == '\0') return LoadResult::ok;
    std::FILE* f = platform::open_file(utf8_path, "rb");
    if (f == nullptr) return LoadResult::unreadable;
    long size = -1;
    if (std::fseek(f, 0, SEEK_END) == 0) size = std::ftell(f);
    if (size < kMinSourceBytes || size > kMaxSourceBytes || std::fseek(f, 0, SEEK_SET) != 0) {
        std::fclose(f);
        return LoadResult::unreadable;
    }
    std::vector<uint8_t> bytes;
    try {
        bytes.resize(static_cast<size_t>(size));
    } catch (const std::bad_alloc&) {
        std::fclose(f);
        return LoadResult::unreadable;
    }
    bytes.resize(std::fread(bytes.data(), 1, bytes.size(), f));
    std::fclose(f);
    return decode_source_wav(bytes.data(), bytes.size(), rate, track);
}

}  // namespace ws::recorder
