#include "recorder_files.hpp"

#include <atomic>
#include <chrono>
#include <cstring>
#include <fstream>
#include <random>

namespace ws::test::recorder {

namespace {
void put_u16(std::vector<uint8_t>& b, uint16_t v) {
    b.push_back(static_cast<uint8_t>(v & 0xFF));
    b.push_back(static_cast<uint8_t>(v >> 8));
}
void put_u32(std::vector<uint8_t>& b, uint32_t v) {
    for (int i = 0; i < 4; ++i) b.push_back(static_cast<uint8_t>((v >> (8 * i)) & 0xFF));
}
uint32_t get_u32(const uint8_t* p) {
    return uint32_t{p[0]} | (uint32_t{p[1]} << 8) | (uint32_t{p[2]} << 16) | (uint32_t{p[3]} << 24);
}
}  // namespace

WavBuilder::WavBuilder() {
    b_ = {'R', 'I', 'F', 'F', 0, 0, 0, 0, 'W', 'A', 'V', 'E'};
}

WavBuilder& WavBuilder::fmt(uint16_t tag, uint16_t channels, uint32_t rate, uint16_t bits, uint32_t size) {
    std::vector<uint8_t> body;
    put_u16(body, tag);
    put_u16(body, channels);
    put_u32(body, rate);
    put_u32(body, rate * channels * (bits / 8u));
    put_u16(body, static_cast<uint16_t>(channels * (bits / 8u)));
    put_u16(body, bits);
    body.resize(size, 0);
    return chunk("fmt ", body);
}

WavBuilder& WavBuilder::data(const std::vector<int16_t>& samples) {
    std::vector<uint8_t> body;
    for (int16_t s : samples) put_u16(body, static_cast<uint16_t>(s));
    return chunk("data", body);
}

WavBuilder& WavBuilder::chunk(const char id[4], const std::vector<uint8_t>& body, uint32_t declared, bool pad) {
    b_.insert(b_.end(), id, id + 4);
    put_u32(b_, declared);
    b_.insert(b_.end(), body.begin(), body.end());
    if (pad && body.size() % 2 == 1) b_.push_back(0);
    return *this;
}

std::vector<uint8_t> WavBuilder::bytes() const {
    std::vector<uint8_t> out = b_;
    const uint32_t riff = static_cast<uint32_t>(out.size() - 8);
    for (int i = 0; i < 4; ++i) out[4 + i] = static_cast<uint8_t>((riff >> (8 * i)) & 0xFF);
    return out;
}

std::vector<uint8_t> pcm16_wav(uint16_t channels, uint32_t rate, const std::vector<int16_t>& samples) {
    return WavBuilder().fmt(1, channels, rate, 16).data(samples).bytes();
}

std::vector<int16_t> noise16(size_t n, int amp, uint32_t seed) {
    std::mt19937 gen(seed);
    std::uniform_int_distribution<int> dist(-amp, amp);
    std::vector<int16_t> out(n);
    for (auto& s : out) s = static_cast<int16_t>(dist(gen));
    return out;
}

std::filesystem::path u8path(const std::string& s) {
    return std::filesystem::path(std::u8string(reinterpret_cast<const char8_t*>(s.data()), s.size()));
}

std::string utf8(const std::filesystem::path& p) {
    const std::u8string s = p.u8string();
    return std::string(reinterpret_cast<const char*>(s.data()), s.size());
}

ScratchDir::ScratchDir(const std::string& tag) {
    static std::atomic<unsigned> counter{0};
    const auto stamp = std::chrono::steady_clock::now().time_since_epoch().count();
    dir_ = std::filesystem::temp_directory_path() /
           u8path("woodshed-" + tag + "-" + std::to_string(stamp) + "-" + std::to_string(counter++));
    std::filesystem::create_directories(dir_);
}

ScratchDir::~ScratchDir() {
    std::error_code ec;
    std::filesystem::remove_all(dir_, ec);
}

std::string ScratchDir::file(const std::string& name) const { return utf8(dir_ / u8path(name)); }

void write_bytes(const std::string& path, const std::vector<uint8_t>& bytes) {
    std::ofstream f(u8path(path), std::ios::binary | std::ios::trunc);
    f.write(reinterpret_cast<const char*>(bytes.data()), static_cast<std::streamsize>(bytes.size()));
}

std::vector<uint8_t> read_bytes(const std::string& path) {
    std::ifstream f(u8path(path), std::ios::binary);
    return std::vector<uint8_t>(std::istreambuf_iterator<char>(f), std::istreambuf_iterator<char>());
}

bool file_exists(const std::string& path) {
    std::error_code ec;
    return std::filesystem::exists(u8path(path), ec);
}

Take read_take(const std::string& path) {
    Take t;
    const std::vector<uint8_t> b = read_bytes(path);
    t.file_size = b.size();
    if (b.size() < 44) return t;
    t.header.assign(b.begin(), b.begin() + 44);
    t.riff_size = get_u32(b.data() + 4);
    t.data_size = get_u32(b.data() + 40);
    t.ok = std::memcmp(b.data(), "RIFF", 4) == 0 && std::memcmp(b.data() + 8, "WAVE", 4) == 0 &&
           std::memcmp(b.data() + 12, "fmt ", 4) == 0 && std::memcmp(b.data() + 36, "data", 4) == 0;
    const size_t n = (b.size() - 44) / 2;
    t.samples.resize(n);
    for (size_t i = 0; i < n; ++i) {
        t.samples[i] = static_cast<int16_t>(b[44 + 2 * i] | (b[45 + 2 * i] << 8));
    }
    return t;
}

}  // namespace ws::test::recorder
