// Writes the starting corpus of fuzz_backing_reader into the directory given
// as the only argument: WAV files in the layouts the backing reader takes
// (mono and stereo at, below and above 44100 Hz, odd chunks, a late fmt,
// data running past the end) and a few it refuses.
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <string>
#include <utility>
#include <vector>

namespace {

using Bytes = std::vector<uint8_t>;

void u16(Bytes& b, uint32_t v) {
    b.push_back(static_cast<uint8_t>(v & 0xFF));
    b.push_back(static_cast<uint8_t>((v >> 8) & 0xFF));
}

void u32(Bytes& b, uint32_t v) {
    u16(b, v & 0xFFFF);
    u16(b, v >> 16);
}

Bytes fmt(uint16_t tag, uint16_t channels, uint32_t rate, uint16_t bits) {
    Bytes b;
    u16(b, tag);
    u16(b, channels);
    u32(b, rate);
    u32(b, rate * channels * bits / 8);
    u16(b, static_cast<uint16_t>(channels * bits / 8));
    u16(b, bits);
    return b;
}

Bytes samples(size_t count) {
    Bytes b;
    for (size_t i = 0; i < count; ++i) u16(b, static_cast<uint16_t>(static_cast<int16_t>((i * 2654435761u) >> 16)));
    return b;
}

// Chunks as given; `declared` overrides the size field of the last one.
Bytes wav(const std::vector<std::pair<const char*, Bytes>>& chunks, int64_t declared = -1) {
    Bytes b = {'R', 'I', 'F', 'F', 0, 0, 0, 0, 'W', 'A', 'V', 'E'};
    for (size_t i = 0; i < chunks.size(); ++i) {
        const auto& [id, body] = chunks[i];
        b.insert(b.end(), id, id + 4);
        const bool last = i + 1 == chunks.size();
        u32(b, last && declared >= 0 ? static_cast<uint32_t>(declared) : static_cast<uint32_t>(body.size()));
        b.insert(b.end(), body.begin(), body.end());
        if (body.size() % 2 != 0) b.push_back(0);
    }
    const uint32_t riff = static_cast<uint32_t>(b.size() - 8);
    std::memcpy(b.data() + 4, &riff, 4);
    return b;
}

}  // namespace

int main(int argc, char** argv) {
    if (argc != 2) {
        std::fprintf(stderr, "usage: backing_reader_seeds DIR\n");
        return 2;
    }
    const std::vector<std::pair<const char*, Bytes>> seeds = {
        {"stereo_44100", wav({{"fmt ", fmt(1, 2, 44100, 16)}, {"data", samples(64)}})},
        {"mono_22050", wav({{"fmt ", fmt(1, 1, 22050, 16)}, {"data", samples(40)}})},
        {"stereo_48000", wav({{"fmt ", fmt(1, 2, 48000, 16)}, {"data", samples(96)}})},
        {"mono_8000", wav({{"fmt ", fmt(1, 1, 8000, 16)}, {"data", samples(16)}})},
        {"odd_chunks", wav({{"fmt ", fmt(1, 1, 44100, 16)}, {"LIST", Bytes(3, 'x')}, {"junk", Bytes(1, 0)},
                            {"data", samples(20)}})},
        {"fmt_after_data", wav({{"data", samples(24)}, {"fmt ", fmt(3, 2, 32000, 16)}})},
        {"data_past_end", wav({{"fmt ", fmt(1, 2, 44100, 16)}, {"data", samples(10)}}, 100000)},
        {"two_fmts", wav({{"fmt ", fmt(1, 1, 44100, 24)}, {"fmt ", fmt(1, 1, 11025, 16)}, {"data", samples(9)}})},
        {"24_bit", wav({{"fmt ", fmt(1, 1, 44100, 24)}, {"data", samples(12)}})},
        {"7999_hz", wav({{"fmt ", fmt(1, 1, 7999, 16)}, {"data", samples(12)}})},
        {"three_channels", wav({{"fmt ", fmt(1, 3, 44100, 16)}, {"data", samples(12)}})},
    };
    for (const auto& [name, bytes] : seeds) {
        const std::string path = std::string(argv[1]) + "/" + name;
        std::FILE* f = std::fopen(path.c_str(), "wb");
        if (f == nullptr || std::fwrite(bytes.data(), 1, bytes.size(), f) != bytes.size()) {
            std::fprintf(stderr, "backing_reader_seeds: cannot write %s\n", path.c_str());
            return 1;
        }
        std::fclose(f);
    }
    return 0;
}
