// SPDX-License-Identifier: MIT
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

std::vector<unsigned char> wav_header(uint32_t rate, uint32_t channels, WavEncoding encoding,
                                      uint32_t data_bytes) {
    const uint32_t width = encoding.bits / 8u;
    std::vector<unsigned char> h;
    h.reserve(44);
    put_tag(h, "RIFF");
    put32(h, 36 + data_bytes);
    put_tag(h, "WAVE");
    put_tag(h, "fmt ");
    put32(h, 16);  // fmt chunk size
    put16(h, encoding.format);
    put16(h, channels);
    put32(h, rate);
    put32(h, rate * channels * width);  // bytes per second
    put16(h, channels * width);         // bytes per frame
    put16(h, encoding.bits);
    put_tag(h, "data");
    put32(h, data_bytes);
    return h;
}

void append_samples(std::vector<unsigned char>& out, const float* samples, size_t count, WavEncoding e) {
    out.reserve(out.size() + count * (e.bits / 8u));
    for (size_t i = 0; i < count; ++i) {
        const float v = std::clamp(samples[i], -1.0f, 1.0f);
        if (e.format == 3 && e.bits == 64) {
            const double d = v;
            unsigned char b[8];
            std::memcpy(b, &d, 8);  // the hosts built for are little-endian
            out.insert(out.end(), b, b + 8);
        } else if (e.format == 3) {
            uint32_t u;
            std::memcpy(&u, &v, 4);
            put32(out, u);
        } else if (e.bits == 8) {
            out.push_back(static_cast<unsigned char>(std::lround(v * 127.0f) + 128));
        } else if (e.bits == 24) {
            const auto q = static_cast<uint32_t>(std::lround(static_cast<double>(v) * 8388607.0));
            put16(out, q & 0xffff);
            out.push_back(static_cast<unsigned char>((q >> 16) & 0xff));
        } else if (e.bits == 32) {
            put32(out, static_cast<uint32_t>(std::llround(static_cast<double>(v) * 2147483647.0)));
        } else {
            put16(out, static_cast<uint32_t>(std::lround(v * 32767.0f)) & 0xffff);
        }
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
    if (target_ == "-") {
        to_stdout_ = true;
        file_ = stdout;
        binary_mode(stdout);
        return;
    }
    if (read_only(target_)) output_error(target_, "read-only; not replaced");
    file_ = open_file(temp_, "wb");
    if (file_ == nullptr) fail(errno);
}

WavFile::~WavFile() {
    if (to_stdout_) return;
    if (file_ != nullptr) std::fclose(file_);
    if (!done_) remove_file(temp_);
}

void WavFile::write(const void* data, size_t bytes) {
    if (std::fwrite(data, 1, bytes, file_) != bytes) fail(errno);
}

void WavFile::commit() {
    if (to_stdout_) {
        check_stdout();
        done_ = true;
        return;
    }
    FILE* f = file_;
    file_ = nullptr;
    if (std::fclose(f) != 0) fail(errno);
    const std::string why = replace_file(temp_, target_);
    if (!why.empty()) output_error(target_, why);
    done_ = true;
}

void WavFile::fail(int error) {
    output_error(target_, error != 0 ? std::strerror(error) : "write failed");
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
