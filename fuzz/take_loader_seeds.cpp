// Writes the starting corpus of fuzz_take_loader into the directory given as
// the only argument: one skip byte followed by a WAV file, for the layouts
// the loader accepts (mono, stereo, extensible, extra and odd chunks) and a
// few it refuses.
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <string>
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

void chunk(Bytes& b, const char* id, const Bytes& body, bool pad = true) {
    b.insert(b.end(), id, id + 4);
    u32(b, static_cast<uint32_t>(body.size()));
    b.insert(b.end(), body.begin(), body.end());
    if (pad && body.size() % 2 != 0) b.push_back(0);
}

Bytes fmt(uint16_t tag, uint16_t channels, uint32_t rate, uint16_t bits, bool extensible_size = false,
          uint16_t sub = 1) {
    Bytes b;
    u16(b, tag);
    u16(b, channels);
    u32(b, rate);
    u32(b, rate * channels * bits / 8);
    u16(b, static_cast<uint16_t>(channels * bits / 8));
    u16(b, bits);
    if (extensible_size) {
        u16(b, 22);
        u16(b, bits);
        u32(b, channels == 1 ? 4 : 3);
        u16(b, sub);
        const uint8_t tail[14] = {0, 0, 0, 0, 0x10, 0, 0x80, 0, 0, 0xAA, 0, 0x38, 0x9B, 0x71};
        b.insert(b.end(), tail, tail + 14);
    }
    return b;
}

Bytes samples(size_t count) {
    Bytes b;
    for (size_t i = 0; i < count; ++i) u16(b, static_cast<uint16_t>(static_cast<int16_t>((i * 2654435761u) >> 16)));
    return b;
}

Bytes wav(uint8_t skip, const std::vector<std::pair<const char*, Bytes>>& chunks) {
    Bytes b = {skip, 'R', 'I', 'F', 'F', 0, 0, 0, 0, 'W', 'A', 'V', 'E'};
    for (const auto& [id, body] : chunks) chunk(b, id, body);
    const uint32_t riff = static_cast<uint32_t>(b.size() - 9);
    std::memcpy(b.data() + 5, &riff, 4);
    return b;
}

}  // namespace

int main(int argc, char** argv) {
    if (argc != 2) {
        std::fprintf(stderr, "usage: take_loader_seeds DIR\n");
        return 2;
    }
    const std::vector<std::pair<const char*, Bytes>> seeds = {
        {"mono", wav(0, {{"fmt ", fmt(1, 1, 44100, 16)}, {"data", samples(64)}})},
        {"mono_skip", wav(10, {{"fmt ", fmt(1, 1, 48000, 16)}, {"data", samples(64)}})},
        {"stereo", wav(3, {{"fmt ", fmt(1, 2, 44100, 16)}, {"data", samples(65)}})},
        {"extensible", wav(0, {{"fmt ", fmt(0xFFFE, 2, 96000, 16, true)}, {"data", samples(32)}})},
        {"extensible_float", wav(0, {{"fmt ", fmt(0xFFFE, 1, 44100, 32, true, 3)}, {"data", samples(32)}})},
        {"odd_chunk_then_list", wav(1, {{"fmt ", fmt(1, 1, 8000, 16)}, {"junk", Bytes(3, 7)},
                                         {"data", samples(20)}, {"LIST", Bytes(9, 'a')}})},
        {"data_first", wav(0, {{"data", samples(16)}, {"fmt ", fmt(1, 1, 22050, 16)}})},
        {"eight_bit", wav(0, {{"fmt ", fmt(1, 1, 44100, 8)}, {"data", samples(16)}})},
        {"no_data", wav(0, {{"fmt ", fmt(1, 1, 44100, 16)}})},
    };
    for (const auto& [name, bytes] : seeds) {
        const std::string path = std::string(argv[1]) + "/" + name;
        std::FILE* f = std::fopen(path.c_str(), "wb");
        if (f == nullptr || std::fwrite(bytes.data(), 1, bytes.size(), f) != bytes.size()) {
            std::fprintf(stderr, "take_loader_seeds: cannot write %s\n", path.c_str());
            return 1;
        }
        std::fclose(f);
    }
    return 0;
}
