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

Bytes fmt(uint16_t tag, uint16_t channels, uint32_t rate, uint16_t bits, bool extensible_size = false,
          uint16_t sub = 1) {
    return seeds::fmt_body(tag, channels, rate, bits, extensible_size ? 40 : 16, sub);
}

// A skip byte, then the file.
Bytes wav(uint8_t skip, const std::vector<std::pair<const char*, Bytes>>& chunks) {
    seeds::WavBytes w;
    w.riff();
    for (const auto& [id, body] : chunks) w.chunk(id, body);
    Bytes b = {skip};
    const Bytes file = w.build();
    b.insert(b.end(), file.begin(), file.end());
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
