// SPDX-License-Identifier: MIT
#include "audio_files.hpp"

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <cstring>
#include <filesystem>
#include <vector>

#include "cli.hpp"
#include "wav_file.hpp"
#include "windows.hpp"

#if defined(_WIN32)
#  include <fcntl.h>
#  include <io.h>
#  include <process.h>
#  include <sys/stat.h>
#else
#  include <fcntl.h>
#  include <sys/stat.h>
#  include <unistd.h>
#endif

namespace cli {
namespace {

uint32_t le32(const unsigned char* p) {
    return uint32_t{p[0]} | uint32_t{p[1]} << 8 | uint32_t{p[2]} << 16 | uint32_t{p[3]} << 24;
}
uint16_t le16(const unsigned char* p) { return static_cast<uint16_t>(p[0] | p[1] << 8); }

std::string seconds_text(double s) {
    char buf[32];
    std::snprintf(buf, sizeof buf, "%.3f s", s);
    return buf;
}

std::string wav_encoding(uint16_t format, uint16_t bits) {
    switch (format) {
        case 1: return std::to_string(bits) + "-bit PCM WAV";
        case 3: return std::to_string(bits) + "-bit float WAV";
        case 6: return "A-law WAV";
        case 7: return "mu-law WAV";
        default: {
            char buf[40];
            std::snprintf(buf, sizeof buf, "WAV of format 0x%04x", format);
            return buf;
        }
    }
}

}  // namespace

std::string display_name(const std::string& path) { return path == "-" ? "stdin" : path; }

FileFacts inspect_bytes(const unsigned char* d, size_t n, uint64_t total) {
    FileFacts f;
    if (n >= 4 && std::memcmp(d, "fLaC", 4) == 0) {
        f.encoding = "FLAC";
        return f;
    }
    if ((n >= 3 && std::memcmp(d, "ID3", 3) == 0) || (n >= 2 && d[0] == 0xFF && (d[1] & 0xE0) == 0xE0)) {
        f.encoding = "MP3";
        return f;
    }
    if (n < 12 || std::memcmp(d, "RIFF", 4) != 0 || std::memcmp(d + 8, "WAVE", 4) != 0) return f;
    f.riff = true;
    size_t pos = 12;
    bool fmt = false;
    while (pos + 8 <= n) {
        const unsigned char* chunk = d + pos;
        const uint32_t size = le32(chunk + 4);
        if (std::memcmp(chunk, "fmt ", 4) == 0 && size >= 16 && pos + 8 + 16 <= n) {
            fmt = true;
            f.format = le16(chunk + 8);
            f.channels = le16(chunk + 10);
            f.rate = le32(chunk + 12);
            f.bits = le16(chunk + 22);
            if (f.format == 0xFFFE && size >= 26 && pos + 8 + 26 <= n) f.format = le16(chunk + 32);
        } else if (std::memcmp(chunk, "data", 4) == 0) {
            if (!fmt) break;
            f.wav = true;
            f.encoding = wav_encoding(f.format, f.bits);
            const uint64_t present = total - std::min<uint64_t>(total, pos + 8);
            const uint32_t frame = f.channels * ((f.bits + 7u) / 8u);
            const auto secs = [&](uint64_t bytes) {
                return frame > 0 && f.rate > 0 ? static_cast<double>(bytes / frame) / f.rate : 0.0;
            };
            // 0xFFFFFFFF is what writers that cannot seek leave: "until the end".
            // Less than the file holds is fine: other chunks may follow the audio.
            f.data_bytes = size;
            f.sizes_agree = size != 0 && size != 0xFFFFFFFFu && size <= present;
            if (size == 0xFFFFFFFFu) {
            } else if (size > present) {
                f.warning = "the header gives " + seconds_text(secs(size)) + " of audio, the file holds " +
                            seconds_text(secs(present)) + " (cut short?)";
            } else if (size == 0 && present > 0) {
                f.warning = "the header gives no audio, the file holds " + seconds_text(secs(present)) +
                            " (an unfinished recording?)";
            }
            return f;
        }
        pos += 8 + static_cast<size_t>(size) + (size & 1);
    }
    if (!fmt) f.warning = "a WAV file without a format chunk (damaged?)";
    return f;
}

FileFacts inspect_file(const std::string& path) {
    FileFacts f;
    std::error_code ec;
    const auto status = std::filesystem::status(fs_path(path), ec);
    if (!std::filesystem::exists(status)) {
        f.problem = "no such file";
        return f;
    }
    if (std::filesystem::is_directory(status)) {
        f.problem = "is a directory";
        return f;
    }
    if (!std::filesystem::is_regular_file(status)) {
        f.stream = true;  // a pipe or device: whatever arrives is read whole
        return f;
    }
    const uint64_t size = std::filesystem::file_size(fs_path(path), ec);
    if (size == 0 && !ec) {
        f.problem = "empty file";
        return f;
    }
    FILE* in = open_file(path, "rb");
    if (in == nullptr) {
        f.problem = errno == EACCES ? "permission denied" : std::strerror(errno);
        return f;
    }
    std::vector<unsigned char> head(static_cast<size_t>(std::min<uint64_t>(size, 1 << 20)));
    const size_t got = std::fread(head.data(), 1, head.size(), in);
    std::fclose(in);
    return inspect_bytes(head.data(), got, size);
}

bool documented_wav(const FileFacts& f) {
    return f.wav && ((f.format == 1 && (f.bits == 8 || f.bits == 16 || f.bits == 24 || f.bits == 32)) ||
                     (f.format == 3 && (f.bits == 32 || f.bits == 64)));
}

std::string refusal(const FileFacts& f) {
    if (f.encoding == "FLAC" || f.encoding == "MP3" || documented_wav(f)) return {};
    if (f.wav) return f.encoding + ", which is not read here";
    if (f.riff && !f.warning.empty()) return f.warning;
    if (f.riff) return "a WAV file whose audio was not found in its first MiB (damaged?)";
    return "not a WAV, FLAC or MP3 file, or damaged";
}

bool take_tools_read(const FileFacts& f) {
    return f.wav && f.format == 1 && f.bits == 16 && (f.channels == 1 || f.channels == 2) && f.sizes_agree &&
           f.warning.empty();
}

TempFile::TempFile(const std::string& beside) {
    static std::atomic<int> counter{0};
#if defined(_WIN32)
    const int pid = _getpid();
#else
    const int pid = static_cast<int>(getpid());
#endif
    std::error_code ec;
    std::filesystem::path dir;
    std::string stem = "woodshed";
    if (beside.empty() || beside == "-") {
        dir = std::filesystem::temp_directory_path(ec);
    } else {
        const auto p = fs_path(beside);
        dir = p.parent_path();
        if (dir.empty()) dir = ".";
        stem = utf8_text(p.filename());
        stem.insert(stem.begin(), '.');
    }
    for (int attempt = 0; attempt < 100; ++attempt) {
        char suffix[48];
        std::snprintf(suffix, sizeof suffix, ".%d-%d.wstmp", pid, counter++);
        std::string name = stem;
        name.append(suffix);
        path_ = utf8_text(dir / fs_path(name));
#if defined(_WIN32)
        const int fd = _wopen(widen(path_).c_str(), _O_CREAT | _O_EXCL | _O_WRONLY | _O_BINARY, _S_IREAD | _S_IWRITE);
        if (fd >= 0) file_ = _fdopen(fd, "wb");
#else
        const int fd = ::open(path_.c_str(), O_CREAT | O_EXCL | O_WRONLY | O_NOFOLLOW | O_CLOEXEC, 0600);
        if (fd >= 0) file_ = fdopen(fd, "wb");
#endif
        if (fd >= 0 && file_ != nullptr) return;
        if (errno != EEXIST) break;
    }
    const int e = errno;
    const std::string where = utf8_text(dir);
    path_.clear();
    output_error(where, "cannot create a temporary file there: " + std::string(std::strerror(e)));
}

TempFile::~TempFile() {
    if (file_ != nullptr) std::fclose(file_);
    if (!path_.empty()) remove_file(path_);
}

void TempFile::close(const std::string& what) {
    if (file_ == nullptr) return;
    FILE* f = file_;
    file_ = nullptr;
    const bool bad = std::ferror(f) != 0;
    if (std::fclose(f) != 0 || bad) output_error(what, "cannot write its temporary copy: " + std::string(std::strerror(errno)));
}

uint64_t convert_to_pcm16(AudioReader& reader, TempFile& out) {
    const uint32_t in_channels = reader.channels();
    const uint32_t channels = in_channels <= 2 ? in_channels : 1;
    // Header first with a size of 0, patched once the length is known.
    std::vector<unsigned char> bytes = wav16_header(reader.sample_rate(), channels, 0);
    std::fwrite(bytes.data(), 1, bytes.size(), out.file());
    std::vector<float> block;
    uint64_t frames = 0;
    constexpr uint64_t kMaxData = 0xFFFFFFFFull - 36;
    for (;;) {
        block.clear();
        const size_t got = reader.read(block, 65536);
        if (got == 0) break;
        if (channels != in_channels) {
            for (size_t i = 0; i < got; ++i) {
                float sum = 0;
                for (uint32_t c = 0; c < in_channels; ++c) sum += block[i * in_channels + c];
                block[i] = sum / static_cast<float>(in_channels);
            }
            block.resize(got);
        }
        frames += got;
        if (frames * channels * 2 > kMaxData) input_error(reader.path(), "too long to convert to one WAV file");
        bytes.clear();
        append_pcm16(bytes, block.data(), block.size());
        std::fwrite(bytes.data(), 1, bytes.size(), out.file());
    }
    bytes = wav16_header(reader.sample_rate(), channels, static_cast<uint32_t>(frames * channels * 2));
    std::fseek(out.file(), 0, SEEK_SET);
    std::fwrite(bytes.data(), 1, bytes.size(), out.file());
    out.close(reader.path());
    return frames;
}

}  // namespace cli
