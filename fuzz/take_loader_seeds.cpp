// Writes the starting corpus of fuzz_take_loader into the directory given as
// the only argument: one skip byte followed by a WAV file, for the layouts
// the loader accepts (mono, stereo, extensible, extra and odd chunks) and a
// few it refuses.
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <string>
#include <vector>

#include "seed_bytes.hpp"

namespace {

using seeds::Bytes;
using seeds::samples;
using seeds::u16;
using seeds::u32;

void chunk(Bytes& b, const char* id, const Bytes& body, bool pad = true) {
    b.insert(b.end(), id, id + 4);
    u32(b, static_cast<uint32_t>(body.size()));
    b.insert(b.end(), body.begin(), body.end());
    if (pad && body.size() % 2 != 0) b.push_back(0);
}

Bytes fmt(uint16_t tag, uint16_t channels, uint32_t rate, uint16_t bits, bool extensible_size = false,
          uint16_t sub = 1) {
    Bytes b = seeds::fmt(tag, channels, rate, bits);
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
    const std::vector<std::pair<const char*, Bytes>> corpus = {
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
    for (const auto& [name, bytes] : corpus) {
        if (!seeds::write_seed(argv[1], name, bytes)) return 1;
    }
    return 0;
}
