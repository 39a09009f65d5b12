// Signals and files with known answers for the take tools' tests: a
// music-like reference, delays (whole and fractional), a short room-like
// leak path, and WAV files written byte by byte. Whole takes through long
// rooms, with a player and noise: bench/take_scenes.hpp.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

// Long single-threaded signal tests add nothing under ThreadSanitizer, which
// slows them twenty-fold; the other builds (plain, ASan, Wine) run them.
#if defined(__SANITIZE_THREAD__)
#  define WS_SKIP_UNDER_TSAN() GTEST_SKIP() << "single-threaded signal processing"
#elif defined(__has_feature)
#  if __has_feature(thread_sanitizer)
#    define WS_SKIP_UNDER_TSAN() GTEST_SKIP() << "single-threaded signal processing"
#  endif
#endif
#ifndef WS_SKIP_UNDER_TSAN
#  define WS_SKIP_UNDER_TSAN() static_cast<void>(0)
#endif

namespace ws::test::takes {

// Three voices of harmonic notes with attack/decay envelopes, changing
// every 0.1 to 0.4 s, over steeply low-passed noise (brushes, room): music-like,
// band-limited (nothing above a quarter of the rate), peak around 0.5.
std::vector<float> music(size_t n, double rate, unsigned seed);

// Uniform white noise in [-amp, amp].
std::vector<float> white(size_t n, double amp, unsigned seed);

// y[t] = x(t - d), length n, zeros outside x. Whole delays copy samples;
// fractional ones interpolate with a 64-tap windowed sinc, exact for
// signals below a quarter of the rate to better than -80 dB.
std::vector<float> delayed(const std::vector<float>& x, double d, size_t n);

// A short room: direct sound, a few reflections and a decaying tail, all
// within the first 700 taps.
std::vector<float> room_response(unsigned seed);

// Direct convolution, same length as x.
std::vector<float> convolve(const std::vector<float>& x, const std::vector<float>& h);

// a + gain * b, elementwise (b may be shorter).
std::vector<float> mix(const std::vector<float>& a, const std::vector<float>& b, float gain = 1.0f);

// ---- files ----

// A WAV file's bytes, chunk by chunk.
struct WavBytes {
    std::vector<uint8_t> bytes;
    WavBytes& riff();                                          // "RIFF" size "WAVE" (size patched by finish)
    WavBytes& chunk(const char id[4], const std::vector<uint8_t>& body, uint32_t declared_size);
    WavBytes& chunk(const char id[4], const std::vector<uint8_t>& body);  // true size, padded
    WavBytes& raw(const std::vector<uint8_t>& b);
    WavBytes& finish();  // patches the RIFF size
};

std::vector<uint8_t> fmt_body(uint16_t tag, uint16_t channels, uint32_t rate, uint16_t bits,
                              size_t size = 16, uint16_t sub_format = 1);
std::vector<uint8_t> pcm16(const std::vector<int16_t>& values);

// A canonical mono or stereo 16-bit file from floats (rounded, clamped).
std::vector<uint8_t> wav16(const std::vector<float>& x, uint32_t rate, uint16_t channels = 1);

// A directory of its own under the system's temporary directory, removed
// with everything in it at destruction. Paths are UTF-8.
class TempDir {
public:
    TempDir();
    ~TempDir();
    TempDir(const TempDir&) = delete;
    TempDir& operator=(const TempDir&) = delete;
    const std::string& path() const { return path_; }
    std::string file(const std::string& name) const { return path_ + "/" + name; }
    // Names of the entries, sorted.
    std::vector<std::string> list() const;

private:
    std::string path_;
};

bool write_file(const std::string& path, const std::vector<uint8_t>& bytes);
std::vector<uint8_t> read_file(const std::string& path);
bool exists(const std::string& path);

// Sets or clears the immutable attribute (Linux); false where the file
// system or the process's privileges do not allow it, and elsewhere.
bool set_immutable(const std::string& path, bool on);

// Decodes a mono 16-bit canonical file (as the safe writer makes them).
std::vector<int16_t> read_mono16(const std::string& path, uint32_t* rate = nullptr);

}  // namespace ws::test::takes
