// Reading 16-bit PCM WAV files: the one RIFF chunk walk behind both readers
// of the library (the recorder's backing track and the take tools' loader).
// What the two families accept differs, so those rules are parameters; what
// they agree on is fixed here:
// - 16 bits per sample, 1 or 2 channels, a "fmt " and a "data" chunk;
// - later "fmt " and "data" chunks replace earlier ones, and the walk ends
//   at the first incomplete chunk header;
// - an odd-sized chunk is followed by a pad byte (a file without it is read
//   one byte off, and what follows is not found);
// - a data chunk that claims more than the source holds is read up to the
//   end, in whole frames (half a frame at the end is dropped).
// Sizes are carried in 64 bits, so a declared size near 4 GiB cannot wrap
// a position back into the file.
#pragma once

#include <cstddef>
#include <cstdint>
#include <cstdio>

namespace ws::frame {

// Bytes at absolute positions: reading past the end gives fewer bytes, never
// bytes from elsewhere. `size` is what the source really holds, so a chunk
// that claims more never makes a reader allocate more.
class ByteSource {
public:
    virtual ~ByteSource() = default;
    virtual size_t read_at(uint64_t pos, uint8_t* dst, size_t n) = 0;
    virtual uint64_t size() const = 0;
};

class MemorySource final : public ByteSource {
public:
    MemorySource(const uint8_t* bytes, size_t size) : bytes_(bytes), size_(bytes != nullptr ? size : 0) {}
    size_t read_at(uint64_t pos, uint8_t* dst, size_t n) override;
    uint64_t size() const override { return size_; }

private:
    const uint8_t* bytes_;
    size_t size_;
};

// An open file, closed with the source. Its size is measured once, when it
// is opened (0 when it cannot be).
class FileSource final : public ByteSource {
public:
    FileSource() = default;
    ~FileSource() override;
    FileSource(const FileSource&) = delete;
    FileSource& operator=(const FileSource&) = delete;

    // Opens an existing regular file by UTF-8 path; anything else (a
    // directory, a FIFO, a device) is refused at once, never waited on.
    bool open(const char* utf8_path);
    size_t read_at(uint64_t pos, uint8_t* dst, size_t n) override;
    uint64_t size() const override { return size_; }

private:
    std::FILE* f_ = nullptr;
    uint64_t size_ = 0;
    uint64_t pos_ = UINT64_MAX;  // where the next fread reads; unknown: seek first
};

// What a family accepts.
struct WavRules {
    uint32_t min_rate = 1;
    uint32_t max_rate = INT32_MAX;
    // False: any format tag, the 16 bits are read as integer PCM whatever the
    // tag says. True: integer PCM only (also as the extensible format with
    // sub-format 1).
    bool pcm_tag_only = true;
    // How a "fmt " chunk is read. True: a chunk declaring fewer than 16 bytes
    // is no format, and one whose declared body (up to 40 bytes) is not all
    // there ends the walk. False: its first 16 bytes are read whenever the
    // source holds them, whatever size the chunk declares.
    bool fmt_size_trusted = true;
};

struct WavLayout {
    uint32_t channels = 0;  // 1 or 2
    uint32_t rate = 0;
    uint64_t data_pos = 0;  // of the first sample
    uint64_t frames = 0;    // whole frames the data chunk holds in the source
};

// Walks the chunks of `src`; false unless it is a RIFF WAVE file that the
// rules accept.
bool read_wav_layout(ByteSource& src, const WavRules& rules, WavLayout& out);

// Reads up to `count` frames from frame `first` on into `out` (count x
// channels samples, interleaved); answers the whole frames read, fewer only
// at the end of the source or on a read error.
size_t read_wav_frames(ByteSource& src, const WavLayout& layout, uint64_t first, size_t count, int16_t* out);

}  // namespace ws::frame
