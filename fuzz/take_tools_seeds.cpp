// Writes the starting corpus of fuzz_take_tools into the directory given as
// the only argument: argument bytes, a flag byte, then a reference and a
// take (16-bit mono and stereo WAVs) split by "|||".
#include <string>

#include "seed_bytes.hpp"

namespace {
seeds::Bytes wav(uint16_t channels, uint32_t rate, size_t frames) {
    return seeds::WavBytes().riff().chunk("fmt ", seeds::fmt_body(1, channels, rate, 16))
        .chunk("data", seeds::samples(frames * channels)).build();
}
}  // namespace

int main(int argc, char** argv) {
    if (argc != 2) return 2;
    struct Args { int32_t offset, lo, hi; uint8_t shift, sign, flags; };
    const Args args[] = {{0, 0, 100, 4, 0, 0}, {-5, -50, 50, 10, 1, 0}, {2147483647, 0, 10, 41, 0, 0},
                         {0, 100, 0, 62, 1, 0}, {0, 0, 100, 4, 0, 1}};
    int i = 0;
    for (const auto& a : args) {
        seeds::Bytes b;
        seeds::u32(b, static_cast<uint32_t>(a.offset));
        seeds::u32(b, static_cast<uint32_t>(a.lo));
        seeds::u32(b, static_cast<uint32_t>(a.hi));
        b.insert(b.end(), {a.shift, 0, 0, a.sign, a.flags});
        const seeds::Bytes ref = wav(i % 2 == 0 ? 1 : 2, 8000, 600), take = wav(1, 8000, 500);
        b.insert(b.end(), ref.begin(), ref.end());
        b.insert(b.end(), {'|', '|', '|'});
        b.insert(b.end(), take.begin(), take.end());
        if (!seeds::write_seed(argv[1], "pair" + std::to_string(i++), b)) return 1;
    }
    return 0;
}
