// SPDX-License-Identifier: MIT
// WAV output of the command-line program: 16-bit PCM, written to a temporary
// file beside the target and moved over it in one step, so an existing file
// is either kept whole or replaced whole, never left half-written.
#pragma once

#include <cstdint>
#include <cstdio>
#include <string>
#include <vector>

namespace cli {

// A sample encoding a WAV file can hold: format tag 1 (PCM: 8-bit unsigned,
// 16, 24 or 32-bit signed) or 3 (32 or 64-bit float).
struct WavEncoding {
    uint16_t format = 1;
    uint16_t bits = 16;
};

// The canonical 44-byte header, little-endian whatever the host.
std::vector<unsigned char> wav_header(uint32_t rate, uint32_t channels, WavEncoding encoding,
                                      uint32_t data_bytes);
inline std::vector<unsigned char> wav16_header(uint32_t rate, uint32_t channels, uint32_t data_bytes) {
    return wav_header(rate, channels, {}, data_bytes);
}

// Appends samples in the encoding, little-endian, clamped to full scale.
void append_samples(std::vector<unsigned char>& out, const float* samples, size_t count, WavEncoding encoding);
inline void append_pcm16(std::vector<unsigned char>& out, const float* samples, size_t count) {
    append_samples(out, samples, count, {});
}

// True for an existing file that may not be written: a rename would replace
// it anyway, so callers refuse it first.
bool read_only(const std::string& path);

// Owns the temporary file until commit() has moved it into place; dropped
// without a commit, it removes the temporary and leaves the target alone.
// A target of "-" is standard output, written as it goes.
class WavFile {
public:
    explicit WavFile(const std::string& target);
    ~WavFile();
    WavFile(const WavFile&) = delete;
    WavFile& operator=(const WavFile&) = delete;

    void write(const void* data, size_t bytes);
    void commit();

private:
    [[noreturn]] void fail(int error);
    std::string target_;
    std::string temp_;
    FILE* file_ = nullptr;
    bool to_stdout_ = false;
    bool done_ = false;
};

// A whole file at once: interleaved samples, `channels` per frame.
void write_wav16(const std::string& path, const std::vector<float>& interleaved, uint32_t channels,
                 uint32_t rate);

}  // namespace cli
