// woodshed tune: the tuner's readings of a recording over time.
//
// The offline call analyses one buffer from scratch and returns the reading
// after its last frame. To show how the reading develops, each report at time
// T analyses only the preceding --context seconds, long enough for note
// tracking and smoothing to settle, which keeps the total work linear in the
// file length. The closing line analyses the whole file in one call.
#include <algorithm>
#include <cinttypes>
#include <climits>
#include <cmath>
#include <cstdio>
#include <string>
#include <vector>

#include "cli.hpp"
#include "woodshed/tuner.h"

namespace cli {
namespace {

constexpr OptionSpec kSpecs[] = {
    {"a4", true},   {"note", true},  {"range", true},      {"tolerance", true},
    {"slow", false}, {"every", true}, {"context", true},   {"final-only", false},
};

constexpr uint32_t kMinRate = 8000;   // the tuner analyses other rates as 48 kHz,
constexpr uint32_t kMaxRate = 384000; // so such files are resampled to it first
constexpr uint32_t kFallbackRate = 48000;
constexpr int32_t kMaxChannels = 32;

const char* state_word(uint32_t state) {
    switch (state) {
        case tn_state_silent: return "silent";
        case tn_state_holding: return "holding";
        case tn_state_pitched: return "pitched";
        case tn_state_in_tune: return "in tune";
        default: return "unknown";
    }
}

std::string format_cents(double cents) {
    char buf[32];
    // Keep a tiny negative deviation from printing as "-0.0".
    std::snprintf(buf, sizeof buf, "%+.1f", std::fabs(cents) < 0.05 ? 0.0 : cents);
    return buf;
}

std::string describe(const TunerReading& r) {
    char buf[160];
    std::snprintf(buf, sizeof buf, "%-4s %9.2f Hz %7s cents  clarity %.2f  %s%s",
                  note_name(r.note).c_str(), r.frequency_hz, format_cents(r.cents).c_str(),
                  r.clarity, state_word(r.state), r.clipped ? "  (clipped)" : "");
    return buf;
}

TunerConfig config_from(const Options& opts) {
    TunerConfig cfg{440.0, 55.0, 1200.0, 5.0, -1, 0};
    if (auto v = opts.value("a4")) cfg.a4_hz = parse_number("a4", *v, 400, 480);
    if (auto v = opts.value("tolerance")) cfg.tolerance_cents = parse_number("tolerance", *v, 0.5, 25);
    if (auto v = opts.value("range")) {
        const auto [lo, hi] = parse_range("range", *v);
        if (lo < 20 || lo > 200) throw UsageError("--range: LOW must be from 20 to 200 Hz");
        if (hi < 200 || hi > 5000) throw UsageError("--range: HIGH must be from 200 to 5000 Hz");
        // The detector needs more than half an octave to work with.
        if (1.5 * lo >= hi) throw UsageError("--range: HIGH must be more than 1.5 x LOW");
        cfg.lowest_hz = lo;
        cfg.highest_hz = hi;
    }
    if (auto v = opts.value("note")) {
        const auto midi = note_from_text(*v);
        if (!midi) {
            throw UsageError("--note wants a note name like E2, F#3 or Bb3, or a MIDI number "
                             "0..127, not '" + *v + "'");
        }
        cfg.fixed_note = *midi;
    }
    cfg.slow_smoothing = opts.flag("slow") ? 1 : 0;
    return cfg;
}

// Analyses frames [begin, end) of the interleaved buffer; false when the span
// is shorter than one analysis window.
bool analyse(const TunerConfig& cfg, const std::vector<float>& audio, size_t channels,
             double rate, size_t begin, size_t end, TunerReading& out) {
    const size_t frames = end - begin;
    const int32_t result = tn_offline_process(&cfg, audio.data() + begin * channels,
                                              static_cast<int32_t>(frames),
                                              static_cast<int32_t>(channels), rate, &out);
    if (result < 0) throw Failure("the tuner rejected the audio (error " + std::to_string(result) + ")");
    return result == 1;
}

int run_tune(std::span<const std::string> args) {
    const Options opts("tune", args, kSpecs);
    if (opts.help()) {
        std::fputs(kTuneCommand.help, stdout);
        return kExitOk;
    }
    opts.expect_positionals(1, "an audio FILE");
    const TunerConfig cfg = config_from(opts);
    const double every = opts.value("every") ? parse_number("every", *opts.value("every"), 0.01, 3600) : 0.25;
    const double context = opts.value("context") ? parse_number("context", *opts.value("context"), 0.1, 60) : 2.0;
    const bool timeline = !opts.flag("final-only");
    const std::string& path = opts.positionals()[0];

    install_interrupt_handler();
    AudioReader reader(path, kMinRate, kMaxRate, kFallbackRate);
    const size_t channels = reader.channels();
    if (reader.channels() > static_cast<uint32_t>(kMaxChannels)) {
        throw Failure("'" + path + "' has " + std::to_string(channels) +
                      " channels; the tuner takes at most 32");
    }
    const double rate = reader.sample_rate();
    const auto context_frames = static_cast<size_t>(std::llround(context * rate));

    std::vector<float> audio;
    if (auto len = reader.length_frames()) audio.reserve(static_cast<size_t>(*len) * channels);

    {
        const std::string target =
            cfg.fixed_note >= 0 ? "target " + note_name(cfg.fixed_note) : "chromatic";
        const std::string resampled =
            reader.file_sample_rate() != reader.sample_rate()
                ? " (resampled from " + std::to_string(reader.file_sample_rate()) + " Hz)"
                : "";
        std::printf("%s: %u Hz%s, %zu channel%s; A4 %.2f Hz, %s, %g..%g Hz, tolerance %g cents%s\n",
                    path.c_str(), reader.sample_rate(), resampled.c_str(), channels,
                    channels == 1 ? "" : "s", cfg.a4_hz, target.c_str(), cfg.lowest_hz,
                    cfg.highest_hz, cfg.tolerance_cents, cfg.slow_smoothing ? ", slow" : "");
    }

    Progress progress;
    const double total_seconds = reader.length_frames() ? static_cast<double>(*reader.length_frames()) / rate : 0.0;
    const size_t block = 16384;
    size_t decoded = 0;
    uint64_t next_report = 1;
    bool at_end = false;
    while (!at_end) {
        const size_t got = reader.read(audio, block);
        decoded += got;
        at_end = got == 0;
        while (timeline) {
            const double t = static_cast<double>(next_report) * every;
            const auto end = static_cast<size_t>(std::llround(t * rate));
            if (end > decoded) break;
            TunerReading r{};
            if (analyse(cfg, audio, channels, rate, end > context_frames ? end - context_frames : 0, end, r)) {
                progress.clear();
                std::printf("%8.3fs  %s\n", t, describe(r).c_str());
            }
            ++next_report;
            if (interrupted()) break;
        }
        if (interrupted()) {
            progress.clear();
            std::fflush(stdout);
            std::fprintf(stderr, "woodshed: interrupted after %.3f s of '%s'\n",
                         static_cast<double>(decoded) / rate, path.c_str());
            return kExitInterrupted;
        }
        char status[96];
        if (total_seconds > 0) {
            std::snprintf(status, sizeof status, "tune: %.1f of %.1f s (%.0f%%)",
                          static_cast<double>(decoded) / rate, total_seconds,
                          100.0 * static_cast<double>(decoded) / rate / total_seconds);
        } else {
            std::snprintf(status, sizeof status, "tune: %.1f s", static_cast<double>(decoded) / rate);
        }
        progress.show(status);
    }
    if (decoded == 0) throw Failure("cannot decode '" + path + "': no audio in the file");

    progress.show("tune: analysing the whole file");
    // One call takes at most INT32_MAX frames; beyond that (hours of audio)
    // the closing reading covers the end of the file only.
    const size_t whole = std::min<size_t>(decoded, INT32_MAX);
    TunerReading r{};
    const bool have = analyse(cfg, audio, channels, rate, decoded - whole, decoded, r);
    progress.clear();
    const double seconds = static_cast<double>(decoded) / rate;
    if (!have) {
        std::printf("final: no reading (%.3f s is shorter than one analysis window)\n", seconds);
    } else if (whole < decoded) {
        std::printf("final: %s  (last %.3f s of %.3f s)\n", describe(r).c_str(),
                    static_cast<double>(whole) / rate, seconds);
    } else {
        std::printf("final: %s  (whole file, %.3f s)\n", describe(r).c_str(), seconds);
    }
    return kExitOk;
}

}  // namespace

const Command kTuneCommand = {
    "tune",
    "tune FILE [options]",
    "print the tuner's readings of a recording (WAV, FLAC, MP3) over time",
    "usage: woodshed tune FILE [options]\n"
    "\n"
    "Runs the tuner over a recording and prints what it shows every --every\n"
    "seconds: time, note, frequency, deviation in cents, clarity and state\n"
    "(silent, holding, pitched, in tune). Each of these reports looks at the\n"
    "preceding --context seconds. The last line, 'final:', is the reading after\n"
    "hearing the whole file.\n"
    "\n"
    "options:\n"
    "  --a4 HZ            reference pitch of A4, 400..480 (default 440)\n"
    "  --note NAME|MIDI   tune against this note only, e.g. E2, F#3, Bb3 or 40\n"
    "                     (default: the nearest note)\n"
    "  --range LOW..HIGH  frequencies to detect in Hz; LOW 20..200, HIGH\n"
    "                     200..5000 (default 55..1200)\n"
    "  --tolerance CENTS  deviation still shown as in tune, 0.5..25 (default 5)\n"
    "  --slow             steadier, slower smoothing of the cents\n"
    "  --every SECONDS    interval between reports (default 0.25)\n"
    "  --context SECONDS  audio each report looks back on, 0.1..60 (default 2)\n"
    "  --final-only       print only the header and the final reading\n"
    "  -h, --help         show this help\n"
    "\n"
    "Files at sample rates outside 8000..384000 Hz are resampled to 48000 Hz.\n"
    "Exit status: 0 done, 1 unreadable file, 2 bad usage, 130 interrupted.\n",
    run_tune,
};

}  // namespace cli
