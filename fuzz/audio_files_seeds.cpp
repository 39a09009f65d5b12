// Writes the starting corpus of fuzz_audio_files into the directory given as
// the only argument: a mode byte (bit 0: the take commands' conversion; bit
// 1: through a pipe),
// then a file: WAVs in every encoding the program reads and some it refuses
// or warns about, a small FLAC (verbatim and constant blocks) and an MP3 of
// silent frames behind an ID3 tag.
#include <cstdint>
#include <string>
#include <vector>

#include "seed_bytes.hpp"

namespace {

using seeds::Bytes;

Bytes wav(uint16_t tag, uint16_t channels, uint32_t rate, uint16_t bits, size_t frames,
          int64_t declared = -1) {
    // Extensible: the real tag in the sub-format.
    const Bytes fmt = seeds::fmt_body(tag, channels, rate, bits, tag == 0xFFFE ? 40 : 16, bits == 32 ? 3 : 1);
    Bytes data = seeds::samples(frames * channels * bits / 16 + 1);
    data.resize(frames * channels * bits / 8);
    seeds::WavBytes w;
    w.riff().chunk("fmt ", fmt);
    if (declared >= 0) {
        w.chunk("data", data, static_cast<uint32_t>(declared));
    } else {
        w.chunk("data", data);
    }
    return w.build();
}

uint8_t crc8(const Bytes& b, size_t from) {
    uint8_t c = 0;
    for (size_t i = from; i < b.size(); ++i) {
        c ^= b[i];
        for (int k = 0; k < 8; ++k) c = static_cast<uint8_t>(c & 0x80 ? (c << 1) ^ 0x07 : c << 1);
    }
    return c;
}

uint16_t crc16(const Bytes& b, size_t from) {
    uint16_t c = 0;
    for (size_t i = from; i < b.size(); ++i) {
        c = static_cast<uint16_t>(c ^ (b[i] << 8));
        for (int k = 0; k < 8; ++k) c = static_cast<uint16_t>(c & 0x8000 ? (c << 1) ^ 0x8005 : c << 1);
    }
    return c;
}

void be16(Bytes& b, uint32_t v) { b.insert(b.end(), {static_cast<uint8_t>(v >> 8), static_cast<uint8_t>(v)}); }

// 16-bit FLAC at 44100 Hz, frames of 64 samples per channel: channel 0
// verbatim, channel 1 (when stereo) a constant.
Bytes flac(uint32_t channels, uint32_t frames) {
    constexpr uint32_t kBlock = 64;
    Bytes b = {'f', 'L', 'a', 'C', 0x80, 0, 0, 34};
    be16(b, kBlock);
    be16(b, kBlock);
    b.insert(b.end(), {0, 0, 0, 0, 0, 0});  // frame sizes unknown
    const uint64_t total = uint64_t{kBlock} * frames;
    // 20 bits of rate, 3 of channels - 1, 5 of bits - 1, 36 of total samples.
    const uint64_t packed = uint64_t{44100} << 44 | uint64_t{channels - 1} << 41 | uint64_t{15} << 36 | total;
    for (int shift = 56; shift >= 0; shift -= 8) b.push_back(static_cast<uint8_t>(packed >> shift));
    b.insert(b.end(), 16, 0);  // no MD5
    const Bytes pcm = seeds::samples(kBlock);
    for (uint32_t n = 0; n < frames; ++n) {
        const size_t start = b.size();
        // Sync; block size from an 8-bit field, 44.1 kHz; channels; 16 bits; frame number.
        b.insert(b.end(), {0xFF, 0xF8, 0x69, static_cast<uint8_t>((channels - 1) << 4 | 0x08),
                           static_cast<uint8_t>(n), kBlock - 1});
        b.push_back(crc8(b, start));
        b.push_back(0x02);  // verbatim
        for (uint32_t i = 0; i < kBlock; ++i) b.insert(b.end(), {pcm[2 * i + 1], pcm[2 * i]});
        if (channels == 2) b.insert(b.end(), {0x00, 0x12, 0x34});  // constant
        be16(b, crc16(b, start));
    }
    return b;
}

// MPEG-1 layer III at 128 kbit/s, 44100 Hz: 417-byte frames whose side
// information is all zero decode as silence.
Bytes mp3(uint32_t frames) {
    Bytes b = {'I', 'D', '3', 3, 0, 0, 0, 0, 0, 10};
    b.insert(b.end(), 10, 0);
    for (uint32_t n = 0; n < frames; ++n) {
        b.insert(b.end(), {0xFF, 0xFB, 0x90, 0x00});
        b.insert(b.end(), 413, 0);
    }
    return b;
}

}  // namespace

int main(int argc, char** argv) {
    if (argc != 2) return 2;
    const std::vector<std::pair<const char*, Bytes>> files = {
        {"pcm16_mono", wav(1, 1, 44100, 16, 300)},
        {"pcm16_stereo_8k", wav(1, 2, 8000, 16, 200)},
        {"pcm24", wav(1, 1, 48000, 24, 100)},
        {"pcm8_6k", wav(1, 1, 6000, 8, 100)},
        {"float32", wav(3, 1, 44100, 32, 100)},
        {"extensible_float_3ch", wav(0xFFFE, 3, 96000, 32, 50)},
        {"alaw", wav(6, 1, 8000, 8, 100)},
        {"cut_short", wav(1, 1, 44100, 16, 100, 100000)},
        {"until_end", wav(1, 1, 44100, 16, 100, 0xFFFFFFFF)},
        {"unfinished", wav(1, 1, 44100, 16, 100, 0)},
        {"one_hertz", wav(1, 1, 1, 16, 100)},
        {"flac_mono", flac(1, 3)},
        {"flac_stereo", flac(2, 2)},
        {"mp3", mp3(4)},
    };
    for (const auto& [name, file] : files) {
        for (uint8_t mode = 0; mode < 4; ++mode) {
            Bytes b = {mode};
            b.insert(b.end(), file.begin(), file.end());
            const std::string kind = std::string(mode & 1 ? "_take" : "_read") + (mode & 2 ? "_piped" : "");
            if (!seeds::write_seed(argv[1], name + kind, b)) return 1;
        }
    }
    return 0;
}
