// Files for the tests: WAV files built byte by byte (so malformed ones are
// as easy as good ones), a scratch directory, and a WAV read back with its
// header fields. Paths are UTF-8.
#pragma once

#include <cstddef>
#include <cstdint>
#include <filesystem>
#include <string>
#include <vector>

namespace ws::test {

// UTF-8 text to a path (wide on Windows).
std::filesystem::path native(const std::string& utf8);

// A WAV file's bytes, chunk by chunk.
struct WavBytes {
    std::vector<uint8_t> bytes;
    WavBytes& riff();  // "RIFF" size "WAVE" (size patched by finish)
    // Any chunk as declared, with no pad byte; the second form declares the
    // true size and pads an odd body.
    WavBytes& chunk(const char id[4], const std::vector<uint8_t>& body, uint32_t declared_size);
    WavBytes& chunk(const char id[4], const std::vector<uint8_t>& body);
    WavBytes& fmt(uint16_t tag, uint16_t channels, uint32_t rate, uint16_t bits, size_t size = 16);
    WavBytes& data(const std::vector<int16_t>& samples);
    WavBytes& raw(const std::vector<uint8_t>& b);
    WavBytes& finish();  // patches the RIFF size
    std::vector<uint8_t> build() { return finish().bytes; }
};

std::vector<uint8_t> fmt_body(uint16_t tag, uint16_t channels, uint32_t rate, uint16_t bits,
                              size_t size = 16, uint16_t sub_format = 1);
std::vector<uint8_t> pcm16(const std::vector<int16_t>& values);

// A canonical 16-bit file of interleaved samples.
std::vector<uint8_t> pcm16_wav(uint16_t channels, uint32_t rate, const std::vector<int16_t>& samples);
// The same from floats (rounded, clamped), each value on every channel.
std::vector<uint8_t> wav16(const std::vector<float>& x, uint32_t rate, uint16_t channels = 1);

// A directory of its own under the system's temporary directory, removed
// with everything in it at destruction.
class TempDir {
public:
    TempDir();
    ~TempDir();
    TempDir(const TempDir&) = delete;
    TempDir& operator=(const TempDir&) = delete;
    const std::string& path() const { return path_; }
    std::string file(const std::string& name) const { return path_ + "/" + name; }
    // Names of the entries, sorted.
    std::vector<std::string> list() const;

private:
    std::string path_;
};

bool write_file(const std::string& path, const std::vector<uint8_t>& bytes);
std::vector<uint8_t> read_file(const std::string& path);
bool exists(const std::string& path);

// Sets or clears the immutable attribute (Linux); false where the file
// system or the process's privileges do not allow it, and elsewhere.
bool set_immutable(const std::string& path, bool on);

// A canonical 16-bit WAV (as the take writers make them) read back.
struct Take {
    bool ok = false;                // at least 44 bytes, RIFF/WAVE, fmt at 12, data at 36
    uint32_t riff_size = 0;
    uint32_t data_size = 0;         // as the header states
    uint32_t rate = 0;
    uint64_t file_size = 0;
    std::vector<uint8_t> header;    // the first 44 bytes
    std::vector<int16_t> samples;   // every whole sample after the header, whatever it states
};
Take read_take(const std::string& path);

}  // namespace ws::test
