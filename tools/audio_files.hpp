// SPDX-License-Identifier: MIT
// What the program learns about an audio file before decoding it (its kind,
// a WAV header's encoding and whether the header tells the truth), and the
// private temporary files that the take commands convert into.
#pragma once

#include <cstdint>
#include <cstdio>
#include <string>

namespace cli {

struct FileFacts {
    std::string problem;   // set when the file cannot be read at all: "no such file", ...
    std::string encoding;  // "16-bit PCM WAV", "32-bit float WAV", "FLAC", "MP3"; empty if unknown
    std::string warning;   // a header that does not match the file, said with what was read
    bool stream = false;   // not a regular file (a pipe, /dev/stdin): read it whole
    bool riff = false;     // starts as a RIFF/WAVE file does
    bool wav = false;      // RIFF/WAVE with a format chunk
    uint16_t format = 0;   // WAV format tag, extensible resolved: 1 PCM, 3 float
    uint16_t channels = 0;
    uint16_t bits = 0;
    uint32_t rate = 0;
    uint64_t data_bytes = 0;   // the data chunk's size as declared
    bool sizes_agree = false;  // the data chunk's size is what the file holds
};

// "stdin" for "-", else the path itself: how messages name an input.
std::string display_name(const std::string& path);

// Never throws and never blocks on a regular file; a pipe is only looked at.
FileFacts inspect_file(const std::string& path);

// The same from the first `size` bytes of something `total` bytes long.
FileFacts inspect_bytes(const unsigned char* data, size_t size, uint64_t total);

// PCM of 8, 16, 24 or 32 bits or float of 32 or 64: the WAV encodings the
// program reads and writes. Others (ADPCM, A-law, ...) are refused before
// any decoder sees them.
bool documented_wav(const FileFacts& facts);

// Why the decoder is not asked to read these bytes at all, or empty: only
// FLAC, MP3 and documented WAVs go to it.
std::string refusal(const FileFacts& facts);

// 16-bit PCM WAV, mono or stereo, whose header is truthful: what the take
// tools read directly.
bool take_tools_read(const FileFacts& facts);

// A file only this process uses: created exclusively (never through a link
// someone planted), removed when dropped unless kept.
class TempFile {
public:
    // In the folder of `beside` (its parent; "." when it has none), or in the
    // system's temporary folder when `beside` is empty.
    explicit TempFile(const std::string& beside);
    ~TempFile();
    TempFile(const TempFile&) = delete;
    TempFile& operator=(const TempFile&) = delete;

    const std::string& path() const { return path_; }
    FILE* file() { return file_; }
    // Closes the stream; an OutputError naming `what` if the data did not land.
    void close(const std::string& what);

private:
    std::string path_;
    FILE* file_ = nullptr;
};

class AudioReader;

// Decodes all of `reader` into `out` as 16-bit PCM WAV at the reader's rate,
// keeping mono and stereo and mixing more channels to mono. Returns frames.
uint64_t convert_to_pcm16(AudioReader& reader, TempFile& out);

}  // namespace cli
