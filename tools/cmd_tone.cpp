// woodshed tone: writes a plucked-string tone of known pitch, so the tuner
// can be tried (and checked) without an instrument at hand.
#include <algorithm>
#include <cerrno>
#include <cmath>
#include <cstdio>
#include <cstring>
#include <numbers>
#include <string>
#include <vector>

#include "cli.hpp"

namespace cli {
namespace {

constexpr OptionSpec kSpecs[] = {
    {"note", true}, {"seconds", true}, {"rate", true}, {"a4", true}, {"cents", true},
};

// Harmonics of a string plucked near one end: amplitude sin(k pi p) / k for a
// pluck at p of the length, each harmonic dying faster than the one below, as
// on a real string. Phases are fixed so the output is reproducible.
std::vector<float> pluck(double f0, double seconds, uint32_t rate) {
    const auto n = static_cast<size_t>(std::llround(seconds * rate));
    std::vector<double> mix(n, 0.0);
    constexpr double kPluckAt = 0.18;
    // Long tones decay more slowly so the note is still clearly there at the end.
    const double tau1 = std::max(1.0, 0.6 * seconds);
    const double top = std::min(0.45 * rate, 10000.0);
    for (int k = 1; k * f0 < top; ++k) {
        const double amp = std::fabs(std::sin(k * std::numbers::pi * kPluckAt)) / k;
        const double tau = tau1 / (1.0 + 0.35 * (k - 1));
        const double w = 2.0 * std::numbers::pi * k * f0 / rate;
        const double phase = 0.7 * k * k;
        const double decay = std::exp(-1.0 / (tau * rate));
        // A rotating phasor, re-anchored to exact values every block so the
        // rounding of the recursion cannot build up over long tones.
        const double cw = std::cos(w), sw = std::sin(w);
        constexpr size_t kBlock = 4096;
        for (size_t start = 0; start < n; start += kBlock) {
            const double at = w * static_cast<double>(start) + phase;
            double re = std::cos(at), im = std::sin(at);
            double env = amp * std::exp(-static_cast<double>(start) / (tau * rate));
            for (size_t i = start; i < std::min(n, start + kBlock); ++i) {
                mix[i] += env * im;
                const double next_re = re * cw - im * sw;
                im = im * cw + re * sw;
                re = next_re;
                env *= decay;
            }
        }
    }
    // 2 ms ramps keep the ends free of clicks; longer fades would bend the
    // pitch the tuner sees in the last analysis window.
    const size_t attack = std::min(n, static_cast<size_t>(0.002 * rate) + 1);
    const size_t release = attack;
    for (size_t i = 0; i < attack; ++i) {
        mix[i] *= static_cast<double>(i) / static_cast<double>(attack);
    }
    for (size_t i = 0; i < release; ++i) {
        mix[n - 1 - i] *= static_cast<double>(i) / static_cast<double>(release);
    }

    double peak = 0.0;
    for (double v : mix) peak = std::max(peak, std::fabs(v));
    const double gain = peak > 0.0 ? 0.5 / peak : 0.0;  // peak at -6 dBFS
    std::vector<float> out(n);
    for (size_t i = 0; i < n; ++i) out[i] = static_cast<float>(mix[i] * gain);
    return out;
}

void put_u16(std::vector<unsigned char>& b, uint32_t v) {
    b.push_back(static_cast<unsigned char>(v & 0xff));
    b.push_back(static_cast<unsigned char>((v >> 8) & 0xff));
}

void put_u32(std::vector<unsigned char>& b, uint32_t v) {
    put_u16(b, v & 0xffff);
    put_u16(b, v >> 16);
}

void put_tag(std::vector<unsigned char>& b, const char* tag) { b.insert(b.end(), tag, tag + 4); }

// Canonical 44-byte header, 16-bit PCM mono, then the samples, little-endian
// whatever the host's byte order.
std::vector<unsigned char> wav_bytes(const std::vector<float>& samples, uint32_t rate) {
    const auto data_bytes = static_cast<uint32_t>(samples.size() * 2);
    std::vector<unsigned char> b;
    b.reserve(44 + data_bytes);
    put_tag(b, "RIFF");
    put_u32(b, 36 + data_bytes);
    put_tag(b, "WAVE");
    put_tag(b, "fmt ");
    put_u32(b, 16);        // fmt chunk size
    put_u16(b, 1);         // PCM
    put_u16(b, 1);         // channels
    put_u32(b, rate);
    put_u32(b, rate * 2);  // bytes per second
    put_u16(b, 2);         // bytes per frame
    put_u16(b, 16);        // bits per sample
    put_tag(b, "data");
    put_u32(b, data_bytes);
    for (float s : samples) {
        const long q = std::lround(std::clamp(s, -1.0f, 1.0f) * 32767.0f);
        put_u16(b, static_cast<uint32_t>(q) & 0xffff);
    }
    return b;
}

void write_file(const std::string& path, const std::vector<unsigned char>& bytes) {
    FILE* f = open_file(path, "wb");
    if (f == nullptr) throw Failure("cannot write '" + path + "': " + std::strerror(errno));
    const bool written = std::fwrite(bytes.data(), 1, bytes.size(), f) == bytes.size();
    const int saved = errno;
    const bool closed = std::fclose(f) == 0;
    if (!written || !closed) {
        remove_file(path);
        throw Failure("cannot write '" + path + "': " + std::strerror(written ? errno : saved));
    }
}

int run_tone(std::span<const std::string> args) {
    const Options opts("tone", args, kSpecs);
    if (opts.help()) {
        std::fputs(kToneCommand.help, stdout);
        return kExitOk;
    }
    opts.expect_positionals(1, "an output file OUT.wav");
    int midi = 45;  // A2
    if (auto v = opts.value("note")) midi = parse_note("note", *v);
    const auto number = [&](const char* name, double lo, double hi, double fallback) {
        const auto v = opts.value(name);
        return v ? parse_number(name, *v, lo, hi) : fallback;
    };
    const double seconds = number("seconds", 0.05, 600, 3.0);
    const auto rate = static_cast<uint32_t>(std::lround(number("rate", 8000, 192000, 48000)));
    const double a4 = number("a4", 400, 480, 440);
    const double cents = number("cents", -100, 100, 0);
    const double f0 = note_frequency(midi, a4) * std::exp2(cents / 1200.0);
    if (f0 >= 0.45 * rate) {
        throw UsageError(note_name(midi) + " is too high for a sample rate of " +
                         std::to_string(rate) + " Hz");
    }

    const std::string& path = opts.positionals()[0];
    write_file(path, wav_bytes(pluck(f0, seconds, rate), rate));
    char detune[32] = "";
    if (cents != 0.0) std::snprintf(detune, sizeof detune, " %+.1f cents", cents);
    std::printf("wrote %s: %s%s (%.2f Hz), %.3f s, %u Hz, 16-bit mono\n", path.c_str(),
                note_name(midi).c_str(), detune, f0, seconds, rate);
    return kExitOk;
}

}  // namespace

const Command kToneCommand = {
    "tone",
    "tone OUT.wav [options]",
    "write a plucked-string test tone of known pitch (to try the tuner)",
    "usage: woodshed tone OUT.wav [options]\n"
    "\n"
    "Helper for trying the tuner: writes a plucked-string tone (decaying\n"
    "harmonics) of a known pitch as a 16-bit mono WAV file.\n"
    "\n"
    "options:\n"
    "  --note NAME|MIDI   pitch, e.g. E2, F#3, Bb3 or 45 (default A2, 110 Hz)\n"
    "  --cents CENTS      detune by -100..100 cents (default 0)\n"
    "  --a4 HZ            reference pitch of A4, 400..480 (default 440)\n"
    "  --seconds S        length, 0.05..600 (default 3)\n"
    "  --rate HZ          sample rate, 8000..192000 (default 48000)\n"
    "  -h, --help         show this help\n",
    run_tone,
};

}  // namespace cli
