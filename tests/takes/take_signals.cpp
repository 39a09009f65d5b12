#include "take_signals.hpp"

#include <algorithm>
#include <atomic>
#include <cmath>
#include <complex>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <random>
#include <system_error>

#if defined(__linux__)
#  include <fcntl.h>
#  include <linux/fs.h>
#  include <sys/ioctl.h>
#  include <unistd.h>
#endif

namespace ws::test::takes {

namespace fs = std::filesystem;

namespace {

constexpr double kPi = 3.14159265358979323846;
constexpr int kSincHalf = 32;
constexpr int kPhases = 4096;

// Blackman-windowed sinc, kPhases fractional offsets x 2 * kSincHalf taps:
// row f holds the taps for positions f / kPhases past a sample.
const std::vector<float>& sinc_table() {
    static const std::vector<float> table = [] {
        std::vector<float> t(static_cast<size_t>(kPhases + 1) * 2 * kSincHalf);
        for (int f = 0; f <= kPhases; ++f) {
            const double frac = static_cast<double>(f) / kPhases;
            for (int j = 0; j < 2 * kSincHalf; ++j) {
                const double u = frac + kSincHalf - 1 - j;  // distance from tap to position
                const double w = 0.42 + 0.5 * std::cos(kPi * u / kSincHalf) +
                                 0.08 * std::cos(2 * kPi * u / kSincHalf);
                const double v = std::fabs(u) >= kSincHalf ? 0.0
                                 : u == 0.0                ? 1.0
                                                           : w * std::sin(kPi * u) / (kPi * u);
                t[static_cast<size_t>(f) * 2 * kSincHalf + static_cast<size_t>(j)] = static_cast<float>(v);
            }
        }
        return t;
    }();
    return table;
}

// x at fractional position p.
double interpolate(const std::vector<float>& x, double p) {
    const double fl = std::floor(p);
    const long long i0 = static_cast<long long>(fl);
    const int f = static_cast<int>(std::lround((p - fl) * kPhases));
    const float* taps = sinc_table().data() + static_cast<size_t>(f) * 2 * kSincHalf;
    const long long first = i0 - kSincHalf + 1;
    double v = 0.0;
    for (int j = 0; j < 2 * kSincHalf; ++j) {
        const long long k = first + j;
        if (k < 0 || k >= static_cast<long long>(x.size())) continue;
        v += static_cast<double>(x[static_cast<size_t>(k)]) * taps[j];
    }
    return v;
}

fs::path native(const std::string& utf8) {
    return fs::path(std::u8string(utf8.begin(), utf8.end()));
}

void put_u16(std::vector<uint8_t>& b, size_t at, uint16_t v) {
    b[at] = static_cast<uint8_t>(v & 0xFF);
    b[at + 1] = static_cast<uint8_t>(v >> 8);
}

void put_u32(std::vector<uint8_t>& b, size_t at, uint32_t v) {
    for (int i = 0; i < 4; ++i) b[at + static_cast<size_t>(i)] = static_cast<uint8_t>((v >> (8 * i)) & 0xFF);
}

}  // namespace

std::vector<float> music(size_t n, double rate, unsigned seed) {
    std::mt19937 rng(seed);
    std::uniform_real_distribution<double> uni(0.0, 1.0);
    std::vector<double> out(n, 0.0);
    const int scale[] = {0, 2, 4, 5, 7, 9, 11};
    for (int voice = 0; voice < 3; ++voice) {
        for (size_t t = 0; t < n;) {
            const size_t len = static_cast<size_t>(rate * (0.1 + 0.3 * uni(rng)));
            const int midi = 40 + 12 * voice + scale[rng() % 7] + 12 * static_cast<int>(rng() % 2);
            const double f = 440.0 * std::pow(2.0, (midi - 69) / 12.0);
            const double amp = 0.12 * (0.5 + uni(rng));
            // Harmonics as rotating phasors, the decay as a running factor.
            std::complex<double> z[6], step[6];
            int harmonics = 0;
            for (int h = 1; h <= 6 && f * h < rate * 0.25; ++h, ++harmonics) {
                z[h - 1] = std::polar(1.0 / h, 2 * kPi * uni(rng));
                step[h - 1] = std::polar(1.0, 2 * kPi * f * h / rate);
            }
            const double decay = std::exp(-4.0 / rate);
            const double attack = rate * 0.01;
            double env = 1.0;
            for (size_t i = 0; i < len && t + i < n; ++i) {
                double v = 0.0;
                for (int h = 0; h < harmonics; ++h) {
                    v += z[h].imag();
                    z[h] *= step[h];
                }
                out[t + i] += amp * std::min(1.0, static_cast<double>(i) / attack) * env * v;
                env *= decay;
            }
            t += len;
        }
    }
    // Noise through four one-pole low-passes (corner near 1 kHz at 44.1 kHz):
    // broadband enough for a clear correlation peak, steep enough that the
    // peak stays sharp under a small drift.
    std::normal_distribution<double> gauss(0.0, 0.1);
    double lp[4] = {};
    for (size_t i = 0; i < n; ++i) {
        double x = gauss(rng);
        for (double& state : lp) x = state += 0.15 * (x - state);
        out[i] += x;
    }
    std::vector<float> f(n);
    for (size_t i = 0; i < n; ++i) f[i] = static_cast<float>(out[i]);
    return f;
}

std::vector<float> white(size_t n, double amp, unsigned seed) {
    std::mt19937 rng(seed);
    std::uniform_real_distribution<double> dist(-amp, amp);
    std::vector<float> out(n);
    for (auto& v : out) v = static_cast<float>(dist(rng));
    return out;
}

std::vector<float> delayed(const std::vector<float>& x, double d, size_t n) {
    std::vector<float> out(n, 0.0f);
    const bool whole = d == std::floor(d);
    for (size_t t = 0; t < n; ++t) {
        const double p = static_cast<double>(t) - d;
        if (whole) {
            const long long i = static_cast<long long>(p);
            if (i >= 0 && i < static_cast<long long>(x.size())) out[t] = x[static_cast<size_t>(i)];
        } else {
            out[t] = static_cast<float>(interpolate(x, p));
        }
    }
    return out;
}

std::vector<float> room_response(unsigned seed) {
    std::mt19937 rng(seed);
    std::normal_distribution<double> gauss(0.0, 1.0);
    std::vector<float> h(700, 0.0f);
    h[0] = 0.5f;
    h[37] = 0.2f;
    h[113] = -0.12f;
    h[290] = 0.07f;
    // A diffuse tail, every third tap (cheap to convolve, still dense in time
    // against the filter's resolution).
    for (size_t k = 300; k < h.size(); k += 3) {
        h[k] += static_cast<float>(0.017 * gauss(rng) * std::exp(-static_cast<double>(k - 300) / 120.0));
    }
    return h;
}

std::vector<float> convolve(const std::vector<float>& x, const std::vector<float>& h) {
    std::vector<float> out(x.size(), 0.0f);
    for (size_t k = 0; k < h.size(); ++k) {
        if (h[k] == 0.0f) continue;
        for (size_t t = k; t < x.size(); ++t) out[t] += h[k] * x[t - k];
    }
    return out;
}

std::vector<float> mix(const std::vector<float>& a, const std::vector<float>& b, float gain) {
    std::vector<float> out(a);
    for (size_t i = 0; i < std::min(a.size(), b.size()); ++i) out[i] += gain * b[i];
    return out;
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

std::vector<int16_t> read_mono16(const std::string& path, uint32_t* rate) {
    const std::vector<uint8_t> b = read_file(path);
    if (b.size() < 44) return {};
    if (rate != nullptr) *rate = static_cast<uint32_t>(b[24] | (b[25] << 8) | (b[26] << 16) | (b[27] << 24));
    std::vector<int16_t> v((b.size() - 44) / 2);
    for (size_t i = 0; i < v.size(); ++i) {
        v[i] = static_cast<int16_t>(static_cast<uint16_t>(b[44 + 2 * i] | (b[45 + 2 * i] << 8)));
    }
    return v;
}

}  // namespace ws::test::takes
