#include "files.hpp"

#include <algorithm>
#include <atomic>
#include <cmath>
#include <cstring>
#include <fstream>
#include <random>
#include <system_error>

#if defined(__linux__)
#  include <fcntl.h>
#  include <linux/fs.h>
#  include <sys/ioctl.h>
#  include <unistd.h>
#endif

namespace ws::test {

namespace fs = std::filesystem;

namespace {

void put_u16(std::vector<uint8_t>& b, size_t at, uint16_t v) {
    b[at] = static_cast<uint8_t>(v & 0xFF);
    b[at + 1] = static_cast<uint8_t>(v >> 8);
}

void put_u32(std::vector<uint8_t>& b, size_t at, uint32_t v) {
    for (int i = 0; i < 4; ++i) b[at + static_cast<size_t>(i)] = static_cast<uint8_t>((v >> (8 * i)) & 0xFF);
}

uint32_t get_u32(const uint8_t* p) {
    return uint32_t{p[0]} | (uint32_t{p[1]} << 8) | (uint32_t{p[2]} << 16) | (uint32_t{p[3]} << 24);
}

}  // namespace

fs::path native(const std::string& utf8) {
    return fs::path(std::u8string(utf8.begin(), utf8.end()));
}

WavBytes& WavBytes::riff() {
    raw({'R', 'I', 'F', 'F', 0, 0, 0, 0, 'W', 'A', 'V', 'E'});
    return *this;
}

WavBytes& WavBytes::chunk(const char id[4], const std::vector<uint8_t>& body, uint32_t declared) {
    std::vector<uint8_t> head(8);
    std::memcpy(head.data(), id, 4);
    put_u32(head, 4, declared);
    raw(head);
    raw(body);
    return *this;
}

WavBytes& WavBytes::chunk(const char id[4], const std::vector<uint8_t>& body) {
    chunk(id, body, static_cast<uint32_t>(body.size()));
    if (body.size() % 2 != 0) bytes.push_back(0);
    return *this;
}

WavBytes& WavBytes::raw(const std::vector<uint8_t>& b) {
    bytes.insert(bytes.end(), b.begin(), b.end());
    return *this;
}

WavBytes& WavBytes::finish() {
    if (bytes.size() >= 8) put_u32(bytes, 4, static_cast<uint32_t>(bytes.size() - 8));
    return *this;
}

std::vector<uint8_t> fmt_body(uint16_t tag, uint16_t channels, uint32_t rate, uint16_t bits,
                              size_t size, uint16_t sub_format) {
    std::vector<uint8_t> b(size, 0);
    put_u16(b, 0, tag);
    put_u16(b, 2, channels);
    put_u32(b, 4, rate);
    put_u32(b, 8, rate * channels * bits / 8);
    put_u16(b, 12, static_cast<uint16_t>(channels * bits / 8));
    put_u16(b, 14, bits);
    if (size >= 18) put_u16(b, 16, static_cast<uint16_t>(size - 18));
    if (size >= 40) {
        put_u16(b, 18, bits);
        put_u32(b, 20, channels == 1 ? 4u : 3u);
        // Sub-format GUID: tag in the first two bytes, then the fixed tail.
        const uint8_t tail[14] = {0x00, 0x00, 0x00, 0x00, 0x10, 0x00, 0x80, 0x00,
                                  0x00, 0xAA, 0x00, 0x38, 0x9B, 0x71};
        put_u16(b, 24, sub_format);
        std::memcpy(b.data() + 26, tail, 14);
    }
    return b;
}

std::vector<uint8_t> pcm16(const std::vector<int16_t>& values) {
    std::vector<uint8_t> b(values.size() * 2);
    for (size_t i = 0; i < values.size(); ++i) put_u16(b, 2 * i, static_cast<uint16_t>(values[i]));
    return b;
}

std::vector<uint8_t> wav16(const std::vector<float>& x, uint32_t rate, uint16_t channels) {
    std::vector<int16_t> v(x.size() * channels);
    for (size_t i = 0; i < x.size(); ++i) {
        const double s = std::clamp(std::nearbyint(static_cast<double>(x[i]) * 32767.0), -32768.0, 32767.0);
        for (size_t c = 0; c < channels; ++c) v[i * channels + c] = static_cast<int16_t>(s);
    }
    WavBytes w;
    w.riff().chunk("fmt ", fmt_body(1, channels, rate, 16)).chunk("data", pcm16(v)).finish();
    return w.bytes;
}

TempDir::TempDir() {
    static std::atomic<unsigned> counter{0};
    std::random_device rd;
    const fs::path base = fs::temp_directory_path();
    for (;;) {
        const std::string name = "woodshed-takes-" + std::to_string(rd()) + "-" +
                                 std::to_string(counter.fetch_add(1));
        std::error_code ec;
        if (fs::create_directory(base / name, ec)) {
            const std::u8string u8 = (base / name).generic_u8string();
            path_.assign(u8.begin(), u8.end());
            return;
        }
    }
}

TempDir::~TempDir() {
    std::error_code ec;
    fs::permissions(native(path_), fs::perms::owner_all, fs::perm_options::add, ec);
    fs::remove_all(native(path_), ec);
}

std::vector<std::string> TempDir::list() const {
    std::vector<std::string> names;
    std::error_code ec;
    for (const auto& e : fs::directory_iterator(native(path_), ec)) {
        const std::u8string u8 = e.path().filename().u8string();
        names.emplace_back(u8.begin(), u8.end());
    }
    std::sort(names.begin(), names.end());
    return names;
}

bool write_file(const std::string& path, const std::vector<uint8_t>& bytes) {
    std::ofstream f(native(path), std::ios::binary | std::ios::trunc);
    f.write(reinterpret_cast<const char*>(bytes.data()), static_cast<std::streamsize>(bytes.size()));
    return static_cast<bool>(f);
}

std::vector<uint8_t> read_file(const std::string& path) {
    std::ifstream f(native(path), std::ios::binary);
    return std::vector<uint8_t>(std::istreambuf_iterator<char>(f), std::istreambuf_iterator<char>());
}

bool exists(const std::string& path) {
    std::error_code ec;
    return fs::exists(native(path), ec);
}

bool set_immutable(const std::string& path, bool on) {
#if defined(__linux__)
    const int fd = ::open(path.c_str(), O_RDONLY);
    if (fd < 0) return false;
    int flags = 0;
    bool ok = ::ioctl(fd, FS_IOC_GETFLAGS, &flags) == 0;
    flags = on ? (flags | FS_IMMUTABLE_FL) : (flags & ~FS_IMMUTABLE_FL);
    ok = ok && ::ioctl(fd, FS_IOC_SETFLAGS, &flags) == 0;
    ::close(fd);
    return ok;
#else
    (void)path;
    (void)on;
    return false;
#endif
}

WavBytes& WavBytes::fmt(uint16_t tag, uint16_t channels, uint32_t rate, uint16_t bits, size_t size) {
    return chunk("fmt ", fmt_body(tag, channels, rate, bits, size));
}

WavBytes& WavBytes::data(const std::vector<int16_t>& samples) { return chunk("data", pcm16(samples)); }

std::vector<uint8_t> pcm16_wav(uint16_t channels, uint32_t rate, const std::vector<int16_t>& samples) {
    return WavBytes().riff().fmt(1, channels, rate, 16).data(samples).build();
}

Take read_take(const std::string& path) {
    Take t;
    const std::vector<uint8_t> b = read_file(path);
    t.file_size = b.size();
    if (b.size() < 44) return t;
    t.header.assign(b.begin(), b.begin() + 44);
    t.riff_size = get_u32(b.data() + 4);
    t.rate = get_u32(b.data() + 24);
    t.data_size = get_u32(b.data() + 40);
    t.ok = std::memcmp(b.data(), "RIFF", 4) == 0 && std::memcmp(b.data() + 8, "WAVE", 4) == 0 &&
           std::memcmp(b.data() + 12, "fmt ", 4) == 0 && std::memcmp(b.data() + 36, "data", 4) == 0;
    t.samples.resize((b.size() - 44) / 2);
    for (size_t i = 0; i < t.samples.size(); ++i) {
        t.samples[i] = static_cast<int16_t>(static_cast<uint16_t>(b[44 + 2 * i] | (b[45 + 2 * i] << 8)));
    }
    return t;
}

}  // namespace ws::test
