#include "frame/wav_reader.hpp"

#include <algorithm>
#include <cstring>

#include "frame/platform.hpp"

namespace ws::frame {

namespace {

uint16_t get_u16(const uint8_t* p) { return static_cast<uint16_t>(p[0] | (p[1] << 8)); }

uint32_t get_u32(const uint8_t* p) {
    return static_cast<uint32_t>(p[0]) | (static_cast<uint32_t>(p[1]) << 8) |
           (static_cast<uint32_t>(p[2]) << 16) | (static_cast<uint32_t>(p[3]) << 24);
}

bool seek_to(std::FILE* f, uint64_t pos) {
    if (pos > static_cast<uint64_t>(INT64_MAX)) return false;
#if defined(_WIN32)
    return _fseeki64(f, static_cast<__int64>(pos), SEEK_SET) == 0;
#else
    return fseeko(f, static_cast<off_t>(pos), SEEK_SET) == 0;
#endif
}

int64_t tell(std::FILE* f) {
#if defined(_WIN32)
    return _ftelli64(f);
#else
    return static_cast<int64_t>(ftello(f));
#endif
}

constexpr uint16_t kFormatPcm = 1;
constexpr uint16_t kFormatExtensible = 0xFFFE;

}  // namespace

size_t MemorySource::read_at(uint64_t pos, uint8_t* dst, size_t n) {
    if (pos >= size_) return 0;
    const size_t got = static_cast<size_t>(std::min<uint64_t>(n, size_ - pos));
    std::memcpy(dst, bytes_ + pos, got);
    return got;
}

FileSource::~FileSource() {
    if (f_ != nullptr) std::fclose(f_);
}

bool FileSource::open(const char* utf8_path) {
    if (f_ != nullptr || utf8_path == nullptr) return false;
    f_ = platform::open_regular_for_reading(utf8_path);
    if (f_ == nullptr) return false;
    if (std::fseek(f_, 0, SEEK_END) == 0) {
        const int64_t end = tell(f_);
        if (end > 0) size_ = static_cast<uint64_t>(end);
    }
    return true;
}

size_t FileSource::read_at(uint64_t pos, uint8_t* dst, size_t n) {
    if (f_ == nullptr || pos >= size_) return 0;
    if (pos != pos_ && !seek_to(f_, pos)) {
        pos_ = UINT64_MAX;
        return 0;
    }
    const size_t got = std::fread(dst, 1, n, f_);
    pos_ = pos + got;
    return got;
}

bool read_wav_layout(ByteSource& src, const WavRules& rules, WavLayout& out) {
    uint8_t riff[12];
    if (src.read_at(0, riff, 12) != 12) return false;
    if (std::memcmp(riff, "RIFF", 4) != 0 || std::memcmp(riff + 8, "WAVE", 4) != 0) return false;
    uint16_t tag = 0, channels = 0, bits = 0;
    uint32_t rate = 0;
    bool have_data = false;
    uint64_t data_pos = 0, data_size = 0;
    uint64_t pos = 12;
    uint8_t head[8];
    while (src.read_at(pos, head, 8) == 8) {
        pos += 8;
        const uint32_t size = get_u32(head + 4);
        if (std::memcmp(head, "fmt ", 4) == 0) {
            const size_t want = !rules.fmt_size_trusted ? 16 : size >= 16 ? std::min<uint32_t>(size, 40) : 0;
            uint8_t body[40] = {};
            if (want != 0 && src.read_at(pos, body, want) == want) {
                tag = get_u16(body);
                channels = get_u16(body + 2);
                rate = get_u32(body + 4);
                bits = get_u16(body + 14);
                // Extensible: the sub-format's first two bytes carry the real tag.
                if (tag == kFormatExtensible && want >= 40) tag = get_u16(body + 24);
            } else if (want != 0 && rules.fmt_size_trusted) {
                break;
            }
        } else if (std::memcmp(head, "data", 4) == 0) {
            have_data = true;
            data_pos = pos;
            data_size = size;
        }
        pos += uint64_t{size} + (size & 1u);
    }
    if (!have_data || bits != 16 || (channels != 1 && channels != 2) || rate < rules.min_rate ||
        rate > rules.max_rate || (rules.pcm_tag_only && tag != kFormatPcm)) {
        return false;
    }
    const uint64_t held = src.size() > data_pos ? src.size() - data_pos : 0;
    out.channels = channels;
    out.rate = rate;
    out.data_pos = data_pos;
    out.frames = std::min(data_size, held) / (2u * channels);
    return true;
}

size_t read_wav_frames(ByteSource& src, const WavLayout& layout, uint64_t first, size_t count, int16_t* out) {
    if (first >= layout.frames) return 0;
    count = static_cast<size_t>(std::min<uint64_t>(count, layout.frames - first));
    const size_t frame_bytes = 2 * size_t{layout.channels};
    auto* raw = reinterpret_cast<uint8_t*>(out);
    const uint64_t at = layout.data_pos + first * frame_bytes;
    const size_t got = src.read_at(at, raw, count * frame_bytes) / frame_bytes;
    // Little-endian whatever the host's order, converted in place: sample i
    // is read from bytes 2i and 2i+1 before it is written over them.
    for (size_t i = 0; i < got * layout.channels; ++i) {
        out[i] = static_cast<int16_t>(get_u16(raw + 2 * i));
    }
    return got;
}

}  // namespace ws::frame
