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

#include "seed_bytes.hpp"

namespace {

using seeds::Bytes;
using seeds::samples;

// Chunks as given; `declared` overrides the size field of the last one.
Bytes wav(const std::vector<std::pair<const char*, Bytes>>& chunks, int64_t declared = -1) {
    seeds::WavBytes w;
    w.riff();
    for (size_t i = 0; i < chunks.size(); ++i) {
        const auto& [id, body] = chunks[i];
        if (i + 1 == chunks.size() && declared >= 0) {
            w.chunk(id, body, static_cast<uint32_t>(declared));
        } else {
            w.chunk(id, body);
        }
    }
    return w.build();
}

Bytes fmt(uint16_t tag, uint16_t channels, uint32_t rate, uint16_t bits) {
    return seeds::fmt_body(tag, channels, rate, bits);
}

}  // namespace

int main(int argc, char** argv) {
    if (argc != 2) {
        std::fprintf(stderr, "usage: backing_reader_seeds DIR\n");
        return 2;
    }
    const std::vector<std::pair<const char*, Bytes>> corpus = {
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
    for (const auto& [name, bytes] : corpus) {
        if (!seeds::write_seed(argv[1], name, bytes)) return 1;
    }
    return 0;
}
