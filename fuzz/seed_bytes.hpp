// What the seed generators share: little-endian byte building, sample
// bytes and writing one seed file. WAV files come from the tests' own
// builder (tests/support/files.hpp).
#pragma once

#include <cstdint>
#include <cstdio>
#include <string>
#include <vector>

#include "files.hpp"

namespace seeds {

using Bytes = std::vector<uint8_t>;
using ws::test::fmt_body;
using ws::test::WavBytes;

inline void u16(Bytes& b, uint32_t v) {
    b.push_back(static_cast<uint8_t>(v & 0xFF));
    b.push_back(static_cast<uint8_t>((v >> 8) & 0xFF));
}

inline void u32(Bytes& b, uint32_t v) {
    u16(b, v & 0xFFFF);
    u16(b, v >> 16);
}

// `count` 16-bit samples of a fixed pseudo-random pattern.
inline Bytes samples(size_t count) {
    Bytes b;
    for (size_t i = 0; i < count; ++i) u16(b, static_cast<uint16_t>(static_cast<int16_t>((i * 2654435761u) >> 16)));
    return b;
}


// Writes dir/name; false (with a message) when it cannot.
inline bool write_seed(const std::string& dir, const std::string& name, const Bytes& bytes) {
    const std::string path = dir + "/" + name;
    std::FILE* f = std::fopen(path.c_str(), "wb");
    bool ok = f != nullptr && std::fwrite(bytes.data(), 1, bytes.size(), f) == bytes.size();
    if (f != nullptr && std::fclose(f) != 0) ok = false;
    if (!ok) std::fprintf(stderr, "cannot write seed %s\n", path.c_str());
    return ok;
}

}  // namespace seeds
