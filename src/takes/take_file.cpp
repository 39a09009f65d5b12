#include "takes/take_file.hpp"

#include <algorithm>
#include <cmath>
#include <cstring>
#include <new>

#include "frame/platform.hpp"
#include "frame/wav_header.hpp"
#include "frame/wav_reader.hpp"

namespace ws::takes {

int64_t ms_to_frames(uint32_t rate, int32_t ms) {
    return static_cast<int64_t>(rate) * static_cast<int64_t>(ms) / 1000;
}

uint64_t skip_frames(uint32_t rate, int32_t ms) {
    return ms < 1 ? 0 : static_cast<uint64_t>(ms_to_frames(rate, ms));
}

namespace {

// The take tools' rules: integer PCM by its tag, a "fmt " chunk as large as
// it says, any rate a signed 32-bit field can hold.
constexpr frame::WavRules kRules{.min_rate = 1, .max_rate = INT32_MAX, .pcm_tag_only = true, .fmt_size_trusted = true};

bool load(frame::ByteSource& src, uint64_t skip, std::vector<float>& out, uint32_t& rate) {
    frame::WavLayout w;
    if (!frame::read_wav_layout(src, kRules, w)) return false;
    rate = w.rate;
    const uint64_t wanted = skip < w.frames ? w.frames - skip : 0;
    out.resize(static_cast<size_t>(wanted));

    // Converted through a fixed buffer of whole frames; a short read ends the
    // stream.
    constexpr size_t kBufferFrames = 4096;
    int16_t buffer[kBufferFrames * 2];
    uint64_t done = 0;
    while (done < wanted) {
        const size_t n = static_cast<size_t>(std::min<uint64_t>(kBufferFrames, wanted - done));
        const size_t got = frame::read_wav_frames(src, w, skip + done, n, buffer);
        float* dst = out.data() + done;
        if (w.channels == 1) {
            for (size_t i = 0; i < got; ++i) dst[i] = static_cast<float>(buffer[i]) * (1.0f / 32768.0f);
        } else {
            for (size_t i = 0; i < got; ++i) {
                dst[i] = static_cast<float>(buffer[2 * i] + buffer[2 * i + 1]) * (1.0f / 65536.0f);
            }
        }
        done += got;
        if (got < n) break;
    }
    out.resize(static_cast<size_t>(done));
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
    frame::FileSource src;
    return src.open(path) && load(src, skip, out, rate);
}

bool load_take_wav_bytes(const uint8_t* bytes, size_t size, uint64_t skip, std::vector<float>& out,
                         uint32_t& rate) {
    if (bytes == nullptr && size != 0) return false;
    frame::MemorySource src(bytes, size);
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
