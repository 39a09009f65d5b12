#include "takes/take_file.hpp"

#include <algorithm>
#include <cmath>
#include <cstring>
#include <new>

#include "frame/platform.hpp"
#include "frame/wav_header.hpp"

namespace ws::takes {

int64_t ms_to_frames(uint32_t rate, int32_t ms) {
    return static_cast<int64_t>(rate) * static_cast<int64_t>(ms) / 1000;
}

uint64_t skip_frames(uint32_t rate, int32_t ms) {
    return ms < 1 ? 0 : static_cast<uint64_t>(ms_to_frames(rate, ms));
}

namespace {

uint16_t get_u16(const uint8_t* p) { return static_cast<uint16_t>(p[0] | (p[1] << 8)); }

uint32_t get_u32(const uint8_t* p) {
    return static_cast<uint32_t>(p[0]) | (static_cast<uint32_t>(p[1]) << 8) |
           (static_cast<uint32_t>(p[2]) << 16) | (static_cast<uint32_t>(p[3]) << 24);
}

// Reads at absolute positions; reading past the end gives fewer bytes, never
// bytes from elsewhere. `size` is what the source really holds, so a chunk
// size that claims more never makes the loader allocate more.
class Source {
public:
    virtual ~Source() = default;
    virtual size_t read_at(uint64_t pos, uint8_t* dst, size_t n) = 0;
    virtual uint64_t size() const = 0;
};

class MemorySource final : public Source {
public:
    MemorySource(const uint8_t* bytes, size_t size) : bytes_(bytes), size_(size) {}
    size_t read_at(uint64_t pos, uint8_t* dst, size_t n) override {
        if (pos >= size_) return 0;
        const size_t got = static_cast<size_t>(std::min<uint64_t>(n, size_ - pos));
        std::memcpy(dst, bytes_ + pos, got);
        return got;
    }
    uint64_t size() const override { return size_; }

private:
    const uint8_t* bytes_;
    size_t size_;
};

bool seek_to(std::FILE* f, uint64_t pos) {
    if (pos > static_cast<uint64_t>(INT64_MAX)) return false;
#if defined(_WIN32)
    return _fseeki64(f, static_cast<__int64>(pos), SEEK_SET) == 0;
#else
    return fseeko(f, static_cast<off_t>(pos), SEEK_SET) == 0;
#endif
}

int64_t tell(std::FILE* f) {
#if defined(_WIN32)
    return _ftelli64(f);
#else
    return static_cast<int64_t>(ftello(f));
#endif
}

class FileSource final : public Source {
public:
    explicit FileSource(std::FILE* f) : f_(f) {
        if (std::fseek(f_, 0, SEEK_END) == 0) {
            const int64_t end = tell(f_);
            if (end > 0) size_ = static_cast<uint64_t>(end);
        }
        pos_ = UINT64_MAX;  // unknown: the first read seeks
    }
    ~FileSource() override { std::fclose(f_); }
    FileSource(const FileSource&) = delete;
    FileSource& operator=(const FileSource&) = delete;

    size_t read_at(uint64_t pos, uint8_t* dst, size_t n) override {
        if (pos >= size_) return 0;
        if (pos != pos_ && !seek_to(f_, pos)) {
            pos_ = UINT64_MAX;
            return 0;
        }
        const size_t got = std::fread(dst, 1, n, f_);
        pos_ = pos + got;
        return got;
    }
    uint64_t size() const override { return size_; }

private:
    std::FILE* f_;
    uint64_t size_ = 0;
    uint64_t pos_;
};

struct Format {
    uint16_t tag = 0;
    uint16_t channels = 0;
    uint32_t rate = 0;
    uint16_t bits = 0;
    bool have_data = false;
    uint64_t data_pos = 0;
    uint32_t data_size = 0;
};

constexpr uint16_t kFormatPcm = 1;
constexpr uint16_t kFormatExtensible = 0xFFFE;

// The RIFF chunk walk. Later "fmt " and "data" chunks replace earlier ones;
// the walk ends at the first incomplete chunk header.
bool read_format(Source& src, Format& fmt) {
    uint8_t riff[12];
    if (src.read_at(0, riff, 12) != 12) return false;
    if (std::memcmp(riff, "RIFF", 4) != 0 || std::memcmp(riff + 8, "WAVE", 4) != 0) return false;
    uint64_t pos = 12;
    uint8_t head[8];
    while (src.read_at(pos, head, 8) == 8) {
        pos += 8;
        const uint32_t size = get_u32(head + 4);
        if (std::memcmp(head, "fmt ", 4) == 0 && size >= 16) {
            uint8_t body[40] = {};
            const size_t want = std::min<uint32_t>(size, 40);
            if (src.read_at(pos, body, want) != want) break;
            fmt.tag = get_u16(body);
            fmt.channels = get_u16(body + 2);
            fmt.rate = get_u32(body + 4);
            fmt.bits = get_u16(body + 14);
            // Extensible: the sub-format's first two bytes carry the real tag.
            if (fmt.tag == kFormatExtensible && size >= 40) fmt.tag = get_u16(body + 24);
        } else if (std::memcmp(head, "data", 4) == 0) {
            fmt.have_data = true;
            fmt.data_pos = pos;
            fmt.data_size = size;
        }
        pos += size;
        if (size & 1u) ++pos;  // chunks are padded to an even length
    }
    return fmt.tag == kFormatPcm && fmt.bits == 16 && (fmt.channels == 1 || fmt.channels == 2) &&
           static_cast<int32_t>(fmt.rate) >= 1 && fmt.have_data;
}

bool load(Source& src, uint64_t skip, std::vector<float>& out, uint32_t& rate) {
    Format fmt;
    if (!read_format(src, fmt)) return false;
    const uint64_t ch = fmt.channels;
    const uint64_t frames = fmt.data_size / (ch * 2);
    if (skip >= frames) {
        out.clear();
        rate = fmt.rate;
        return true;
    }
    const uint64_t start = fmt.data_pos + skip * ch * 2;
    // What the data chunk claims, cut to what the source holds.
    const uint64_t held = src.size() > start ? (src.size() - start) / (2 * ch) : 0;
    const uint64_t wanted = std::min(frames - skip, held);
    out.resize(static_cast<size_t>(wanted));

    // Converted through a fixed buffer of whole frames; a short read ends the
    // stream (a lone left sample at the very end is dropped).
    constexpr size_t kBufferFrames = 4096;
    uint8_t buffer[kBufferFrames * 4];
    uint64_t done = 0;
    while (done < wanted) {
        const size_t n = static_cast<size_t>(std::min<uint64_t>(kBufferFrames, wanted - done));
        const size_t bytes = src.read_at(start + done * ch * 2, buffer, n * ch * 2);
        const size_t got = bytes / (ch * 2);
        float* dst = out.data() + done;
        if (ch == 1) {
            for (size_t i = 0; i < got; ++i) {
                dst[i] = static_cast<float>(static_cast<int16_t>(get_u16(buffer + 2 * i))) *
                         (1.0f / 32768.0f);
            }
        } else {
            for (size_t i = 0; i < got; ++i) {
                const int sum = static_cast<int16_t>(get_u16(buffer + 4 * i)) +
                                static_cast<int16_t>(get_u16(buffer + 4 * i + 2));
                dst[i] = static_cast<float>(sum) * (1.0f / 65536.0f);
            }
        }
        done += got;
        if (got < n) break;
    }
    out.resize(static_cast<size_t>(done));
    rate = fmt.rate;
    return true;
}

// Header and samples through the steps' write; false on any short write.
bool write_samples(const platform::ReplaceSteps& steps, std::FILE* f, const float* samples,
                   uint64_t count, int32_t rate) {
    const auto header = frame::mono16_wav_header(static_cast<uint32_t>(rate),
                                                 static_cast<uint32_t>(count) * 2u);
    if (!steps.write(f, header.data(), header.size())) return false;
    constexpr size_t kBlock = 4096;
    uint8_t block[kBlock * 2];
    for (uint64_t done = 0; done < count;) {
        const size_t n = static_cast<size_t>(std::min<uint64_t>(kBlock, count - done));
        for (size_t i = 0; i < n; ++i) {
            const auto v = static_cast<uint16_t>(to_pcm16(samples[done + i]));
            block[2 * i] = static_cast<uint8_t>(v & 0xFFu);
            block[2 * i + 1] = static_cast<uint8_t>(v >> 8);
        }
        if (!steps.write(f, block, n * 2)) return false;
        done += n;
    }
    return true;
}

// A temporary that an interrupted call of ours left: a plain file of this
// user, with one name, holding nothing or the start of a WAV file. It is
// removed; anything else at that name (a link someone planted, another
// user's file, a second name of some file, foreign content) is left alone
// and ends the replacement.
bool clear_stale_temp(const std::string& temp) {
    const platform::FileStatus st = platform::file_status(temp.c_str(), false);
    if (st.kind == platform::FileStatus::missing) return true;
    if (st.kind != platform::FileStatus::regular || !st.owned_by_me || st.links != 1) return false;
    std::FILE* f = platform::open_regular_for_reading(temp.c_str(), false);
    if (f == nullptr) return false;
    uint8_t head[12] = {};
    const size_t got = std::fread(head, 1, sizeof head, f);
    std::fclose(f);
    const bool riff = std::memcmp(head, "RIFF", std::min<size_t>(got, 4)) == 0 &&
                      (got < 12 || std::memcmp(head + 8, "WAVE", 4) == 0);
    return riff && platform::remove_file(temp.c_str());
}

}  // namespace

bool load_take_wav(const char* path, uint64_t skip, std::vector<float>& out, uint32_t& rate) {
    if (path == nullptr) return false;
    std::FILE* f = platform::open_regular_for_reading(path);
    if (f == nullptr) return false;
    FileSource src(f);  // closes the file on every way out
    return load(src, skip, out, rate);
}

bool load_take_wav_bytes(const uint8_t* bytes, size_t size, uint64_t skip, std::vector<float>& out,
                         uint32_t& rate) {
    if (bytes == nullptr && size != 0) return false;
    MemorySource src(bytes, size);
    return load(src, skip, out, rate);
}

int16_t to_pcm16(float x) {
    float v = x * 32767.0f;
    if (!(v < 32767.0f)) v = 32767.0f;  // also NaN
    v = std::max(v, -32768.0f);
    return static_cast<int16_t>(std::lrint(v));
}

bool store_take_wav_safely(const char* path, const float* samples, uint64_t count, int32_t rate,
                           const platform::ReplaceSteps& steps) {
    if (path == nullptr || samples == nullptr || rate < 1) return false;
    try {
        // A link is replaced at its target, so that it stays a link and the
        // temporary lies on the target's file system.
        std::string target;
        if (!platform::resolve_links(path, target)) return false;
        const auto kind = platform::file_status(target.c_str(), true).kind;
        if (kind != platform::FileStatus::regular && kind != platform::FileStatus::missing) return false;
        const bool existed = kind == platform::FileStatus::regular;

        // Renaming ignores the read-only attribute on Windows (and file modes
        // on POSIX): a take its owner protected must not be replaced behind
        // their back. A file another program holds fails the same check for
        // a while, hence the retries.
        bool writable = !existed;
        for (int attempt = 0; attempt < kAttempts && !writable; ++attempt) {
            writable = platform::can_write(target.c_str());
            if (!writable) steps.sleep_ms(kRetrySleepMs);
        }
        if (!writable) return false;

        const std::string temp = target + kTempSuffix;
        std::FILE* f = nullptr;
        for (int attempt = 0; attempt < kAttempts && f == nullptr; ++attempt) {
            if (!clear_stale_temp(temp)) return false;
            f = steps.create_new(temp.c_str());
            if (f == nullptr) steps.sleep_ms(kRetrySleepMs);
        }
        if (f == nullptr) return false;
        bool ok = write_samples(steps, f, samples, count, rate) && steps.flush(f) && steps.sync(f) &&
                  steps.copy_mode(f, target.c_str());
        if (std::fclose(f) != 0) ok = false;
        for (int attempt = 0; ok && attempt < kAttempts; ++attempt) {
            if (steps.replace(temp.c_str(), target.c_str())) {
                // The new take is in place; a folder that cannot be synced
                // cannot undo that, so its result does not change the answer.
                steps.sync_folder(target.c_str());
                return true;
            }
            steps.sleep_ms(kRetrySleepMs);
        }
        platform::remove_file(temp.c_str());
        return false;
    } catch (const std::bad_alloc&) {
        return false;
    }
}

bool restore_stranded_backup(const char* path) {
    if (path == nullptr || platform::file_status(path, false).kind != platform::FileStatus::missing) {
        return false;
    }
    try {
        const std::string backup = std::string(path) + kBackupSuffix;
        return platform::file_status(backup.c_str(), false).kind == platform::FileStatus::regular &&
               platform::rename_no_replace(backup.c_str(), path);
    } catch (const std::bad_alloc&) {
        return false;
    }
}

}  // namespace ws::takes
