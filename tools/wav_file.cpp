#include "wav_file.hpp"

#include <algorithm>
#include <cerrno>
#include <cmath>
#include <cstring>

#include "cli.hpp"

#include "windows.hpp"

#if defined(_WIN32)
#  include <process.h>
#else
#  include <unistd.h>
#endif

namespace cli {
namespace {

void put16(std::vector<unsigned char>& b, uint32_t v) {
    b.push_back(static_cast<unsigned char>(v & 0xff));
    b.push_back(static_cast<unsigned char>((v >> 8) & 0xff));
}

void put32(std::vector<unsigned char>& b, uint32_t v) {
    put16(b, v & 0xffff);
    put16(b, v >> 16);
}

void put_tag(std::vector<unsigned char>& b, const char* tag) { b.insert(b.end(), tag, tag + 4); }

// Moves the finished file over the target in one step. Empty on success,
// else why not.
std::string replace_file(const std::string& from, const std::string& to) {
#if defined(_WIN32)
    if (MoveFileExW(widen(from).c_str(), widen(to).c_str(),
                    MOVEFILE_REPLACE_EXISTING | MOVEFILE_WRITE_THROUGH) != 0) {
        return {};
    }
    const DWORD error = GetLastError();
    if (error == ERROR_ACCESS_DENIED) return "access denied";
    return "Windows error " + std::to_string(error);
#else
    if (std::rename(from.c_str(), to.c_str()) == 0) return {};
    return std::strerror(errno);
#endif
}

std::string temporary_name(const std::string& path) {
#if defined(_WIN32)
    const int pid = _getpid();
#else
    const int pid = static_cast<int>(getpid());
#endif
    return path + ".tmp" + std::to_string(pid);
}

}  // namespace

std::vector<unsigned char> wav16_header(uint32_t rate, uint32_t channels, uint32_t data_bytes) {
    std::vector<unsigned char> h;
    h.reserve(44);
    put_tag(h, "RIFF");
    put32(h, 36 + data_bytes);
    put_tag(h, "WAVE");
    put_tag(h, "fmt ");
    put32(h, 16);  // fmt chunk size
    put16(h, 1);   // PCM
    put16(h, channels);
    put32(h, rate);
    put32(h, rate * channels * 2);  // bytes per second
    put16(h, channels * 2);         // bytes per frame
    put16(h, 16);                   // bits per sample
    put_tag(h, "data");
    put32(h, data_bytes);
    return h;
}

void append_pcm16(std::vector<unsigned char>& out, const float* samples, size_t count) {
    out.reserve(out.size() + count * 2);
    for (size_t i = 0; i < count; ++i) {
        const long q = std::lround(std::clamp(samples[i], -1.0f, 1.0f) * 32767.0f);
        put16(out, static_cast<uint32_t>(q) & 0xffff);
    }
}

bool read_only(const std::string& path) {
#if defined(_WIN32)
    const DWORD attributes = GetFileAttributesW(widen(path).c_str());
    return attributes != INVALID_FILE_ATTRIBUTES && (attributes & FILE_ATTRIBUTE_DIRECTORY) == 0 &&
           (attributes & FILE_ATTRIBUTE_READONLY) != 0;
#else
    return access(path.c_str(), F_OK) == 0 && access(path.c_str(), W_OK) != 0;
#endif
}

WavFile::WavFile(const std::string& target) : target_(target), temp_(temporary_name(target)) {
    if (read_only(target_)) throw Failure("'" + target_ + "' is read-only; not replaced");
    file_ = open_file(temp_, "wb");
    if (file_ == nullptr) fail(errno);
}

WavFile::~WavFile() {
    if (file_ != nullptr) std::fclose(file_);
    if (!done_) remove_file(temp_);
}

void WavFile::write(const void* data, size_t bytes) {
    if (std::fwrite(data, 1, bytes, file_) != bytes) fail(errno);
}

void WavFile::commit() {
    FILE* f = file_;
    file_ = nullptr;
    if (std::fclose(f) != 0) fail(errno);
    const std::string why = replace_file(temp_, target_);
    if (!why.empty()) throw Failure("cannot write '" + target_ + "': " + why);
    done_ = true;
}

void WavFile::fail(int error) {
    throw Failure("cannot write '" + target_ + "': " + (error != 0 ? std::strerror(error) : "write failed"));
}

void write_wav16(const std::string& path, const std::vector<float>& interleaved, uint32_t channels,
                 uint32_t rate) {
    WavFile out(path);
    std::vector<unsigned char> bytes =
        wav16_header(rate, channels, static_cast<uint32_t>(interleaved.size() * 2));
    append_pcm16(bytes, interleaved.data(), interleaved.size());
    out.write(bytes.data(), bytes.size());
    out.commit();
}

}  // namespace cli
