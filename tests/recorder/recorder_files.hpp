// Files for the recorder's tests: WAV files built byte by byte (so malformed
// ones are as easy as good ones), a scratch directory, and a take read back
// with its header fields.
#pragma once

#include <cstddef>
#include <cstdint>
#include <filesystem>
#include <string>
#include <vector>

namespace ws::test::recorder {

// A RIFF/WAVE file assembled chunk by chunk.
class WavBuilder {
public:
    WavBuilder();  // "RIFF" <size> "WAVE"
    // A "fmt " chunk; `size` lets a test declare a short or long body.
    WavBuilder& fmt(uint16_t tag, uint16_t channels, uint32_t rate, uint16_t bits, uint32_t size = 16);
    WavBuilder& data(const std::vector<int16_t>& samples);
    // Any chunk: the declared size may differ from the body's; an odd body
    // gets its pad byte unless `pad` is false.
    WavBuilder& chunk(const char id[4], const std::vector<uint8_t>& body, uint32_t declared, bool pad = true);
    WavBuilder& chunk(const char id[4], const std::vector<uint8_t>& body) {
        return chunk(id, body, static_cast<uint32_t>(body.size()));
    }
    // The bytes with the RIFF size patched.
    std::vector<uint8_t> bytes() const;

private:
    std::vector<uint8_t> b_;
};

// A plain 16-bit PCM file of interleaved samples.
std::vector<uint8_t> pcm16_wav(uint16_t channels, uint32_t rate, const std::vector<int16_t>& samples);

// Deterministic white noise as 16-bit samples in [-amp, amp].
std::vector<int16_t> noise16(size_t n, int amp, uint32_t seed);

// UTF-8 text to a path and back (wide on Windows).
std::filesystem::path u8path(const std::string& utf8);
std::string utf8(const std::filesystem::path& p);

// A fresh directory under the system's temporary directory, removed with
// everything in it when the object goes.
class ScratchDir {
public:
    explicit ScratchDir(const std::string& tag);
    ~ScratchDir();
    ScratchDir(const ScratchDir&) = delete;
    ScratchDir& operator=(const ScratchDir&) = delete;
    const std::filesystem::path& path() const { return dir_; }
    std::string file(const std::string& utf8_name) const;  // UTF-8 path of a file inside

private:
    std::filesystem::path dir_;
};

void write_bytes(const std::string& utf8_path, const std::vector<uint8_t>& bytes);
std::vector<uint8_t> read_bytes(const std::string& utf8_path);
bool file_exists(const std::string& utf8_path);

// A take file as read back.
struct Take {
    bool ok = false;                // at least 44 bytes, RIFF/WAVE, fmt at 12, data at 36
    uint32_t riff_size = 0;
    uint32_t data_size = 0;         // as the header states
    uint64_t file_size = 0;
    std::vector<uint8_t> header;    // the first 44 bytes
    std::vector<int16_t> samples;   // every whole sample after the header, whatever it states
};
Take read_take(const std::string& utf8_path);

}  // namespace ws::test::recorder
