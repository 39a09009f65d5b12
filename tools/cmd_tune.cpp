// SPDX-License-Identifier: MIT
// woodshed tune: the tuner's readings of a recording over time; without a
// file, the live tuner (cmd_tune_live.cpp).
//
// The offline call analyses one buffer from scratch and returns the reading
// after its last frame. To show how the reading develops, each report at time
// T analyses only the preceding --context seconds, long enough for note
// tracking and smoothing to settle, which keeps the total work linear in the
// file length. The closing line analyses the whole file in one call.
#include <algorithm>
#include <climits>
#include <cmath>
#include <cstdio>
#include <optional>
#include <string>
#include <vector>

#include "cli.hpp"
#include "audio_files.hpp"
#include "json_out.hpp"
#include "live.hpp"
#include "woodshed/tuner.h"

namespace cli {
namespace {

constexpr OptionSpec kSpecs[] = {
    {"a4", true},    {"note", true},  {"range", true},   {"tolerance", true},
    {"slow", false}, {"every", true}, {"context", true}, {"final-only", false},
    {"device", true}, {"seconds", true}, {"json", false},
};

// The tuner analyses any rate outside these as if it were 48 kHz, so such
// files are resampled to 48 kHz on the way in.
constexpr uint32_t kMinRate = 8000;
constexpr uint32_t kMaxRate = 384000;
constexpr uint32_t kFallbackRate = 48000;
constexpr int32_t kMaxChannels = 32;

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
    // Out-of-range settings are refused here rather than left to the library,
    // which would quietly replace them with its defaults.
    if (auto v = opts.value("a4")) cfg.a4_hz = parse_number("a4", *v, 400, 480);
    if (auto v = opts.value("tolerance")) {
        cfg.tolerance_cents = parse_number("tolerance", *v, 0.5, 25);
    }
    if (auto v = opts.value("range")) {
        const auto [lo, hi] = parse_range("range", *v);
        if (lo < 20 || lo > 200) throw UsageError("--range: LOW must be from 20 to 200 Hz");
        if (hi < 200 || hi > 5000) throw UsageError("--range: HIGH must be from 200 to 5000 Hz");
        if (1.5 * lo >= hi) throw UsageError("--range: HIGH must be more than 1.5 x LOW");
        cfg.lowest_hz = lo;
        cfg.highest_hz = hi;
    }
    if (auto v = opts.value("note")) cfg.fixed_note = parse_note("note", *v);
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
    if (result < 0) {
        throw Failure("the tuner rejected the audio (error " + std::to_string(result) + ")");
    }
    return result == 1;
}

// One reading as a JSON object: the fields of the text lines, by name.
Json reading_json(const TunerReading& r) {
    return {{"note", r.note >= 0 ? Json(note_name(r.note)) : Json(nullptr)},
            {"frequency_hz", r.frequency_hz},
            {"cents", r.cents},
            {"clarity", r.clarity},
            {"state", state_word(r.state)},
            {"clipped", r.clipped != 0}};
}

void print_header(const std::string& path, const AudioReader& reader, const TunerConfig& cfg) {
    const std::string target =
        cfg.fixed_note >= 0 ? "target " + note_name(cfg.fixed_note) : "chromatic";
    const std::string resampled =
        reader.file_sample_rate() != reader.sample_rate()
            ? " (resampled from " + std::to_string(reader.file_sample_rate()) + " Hz)"
            : "";
    char length[32] = "";
    if (auto len = reader.length_frames()) {
        std::snprintf(length, sizeof length, "%.3f s, ",
                      static_cast<double>(*len) / reader.sample_rate());
    }
    const uint32_t channels = reader.channels();
    std::fprintf(stderr, "%s: %s%u Hz%s, %u channel%s; A4 %.2f Hz, %s, %g..%g Hz, "
                "tolerance %g cents%s\n",
                display_name(path).c_str(), length, reader.sample_rate(), resampled.c_str(), channels,
                channels == 1 ? "" : "s", cfg.a4_hz, target.c_str(), cfg.lowest_hz,
                cfg.highest_hz, cfg.tolerance_cents, cfg.slow_smoothing ? ", slow" : "");
}

// Live mode: the reading options apply as they do to a file.
int run_live(const Options& opts) {
    for (const char* file_only : {"every", "context"}) {
        if (opts.value(file_only)) {
            throw UsageError("--" + std::string(file_only) + " needs a FILE to read");
        }
    }
    if (opts.flag("final-only")) throw UsageError("--final-only needs a FILE to read");
    const TunerConfig cfg = config_from(opts);
    const auto seconds = opts.value("seconds");
    return run_live_tune(cfg, opts.value("device").value_or(""),
                         seconds ? parse_number("seconds", *seconds, 0.1, 1e6) : 0.0, opts.flag("json"));
}

int run_tune(std::span<const std::string> args) {
    const Options opts("tune", args, kSpecs);
    if (opts.help()) {
        std::fputs(kTuneCommand.help, stdout);
        return kExitOk;
    }
    if (opts.positionals().empty()) return run_live(opts);
    for (const char* live_only : {"device", "seconds"}) {
        if (opts.value(live_only)) {
            throw UsageError("--" + std::string(live_only) +
                             " is for the live tuner, 'woodshed tune' without a FILE");
        }
    }
    opts.expect_positionals(1, "an audio FILE");
    const TunerConfig cfg = config_from(opts);
    const auto number = [&](const char* name, double lo, double hi, double fallback) {
        const auto v = opts.value(name);
        return v ? parse_number(name, *v, lo, hi) : fallback;
    };
    const double every = number("every", 0.01, 3600, 0.25);
    const double context = number("context", 0.1, 60, 2.0);
    const bool timeline = !opts.flag("final-only");
    const bool json = opts.flag("json");
    const std::string& path = opts.positionals()[0];

    install_interrupt_handler();
    AudioReader reader(path, kMinRate, kMaxRate, kFallbackRate);
    const size_t channels = reader.channels();
    if (channels > static_cast<size_t>(kMaxChannels)) {
        input_error(path, std::to_string(channels) + " channels; the tuner takes at most 32");
    }
    const double rate = reader.sample_rate();
    const auto context_frames = static_cast<size_t>(std::llround(context * rate));
    const auto seconds_of = [rate](size_t frames) { return static_cast<double>(frames) / rate; };

    std::vector<float> audio;
    // Trust the declared length for the allocation only within reason: a
    // damaged header may claim anything.
    const std::optional<uint64_t> declared = reader.length_frames();
    if (declared && *declared * channels <= (uint64_t{1} << 28)) {
        audio.reserve(static_cast<size_t>(*declared) * channels);
    }

    // Read before printing anything, so a file without audio fails cleanly.
    const size_t block = 16384;
    size_t got = reader.read(audio, block);
    if (got == 0) input_error(path, "no audio in the file");
    print_header(path, reader, cfg);

    Progress progress;
    size_t decoded = 0;
    uint64_t next_report = 1;
    for (;;) {
        decoded += got;
        // Every report whose moment has been decoded by now.
        while (timeline && !interrupted()) {
            const double t = static_cast<double>(next_report) * every;
            const auto end = static_cast<size_t>(std::llround(t * rate));
            if (end > decoded) break;
            TunerReading r{};
            const size_t begin = end > context_frames ? end - context_frames : 0;
            if (analyse(cfg, audio, channels, rate, begin, end, r)) {
                progress.make_room();
                if (json) {
                    Json j = {{"time", t}};
                    j.update(reading_json(r));
                    print_json(j);
                } else {
                    std::printf("%7.3fs  %s\n", t, describe(r).c_str());
                }
            }
            ++next_report;
        }
        if (interrupted()) {
            progress.clear();
            std::fflush(stdout);
            std::fprintf(stderr, "woodshed: interrupted after %.3f s of '%s'\n",
                         seconds_of(decoded), display_name(path).c_str());
            return kExitInterrupted;
        }
        if (got == 0) break;
        char status[96];
        if (declared) {
            const double total = seconds_of(static_cast<size_t>(*declared));
            std::snprintf(status, sizeof status, "tune: %.1f of %.1f s (%.0f%%)",
                          seconds_of(decoded), total, 100.0 * seconds_of(decoded) / total);
        } else {
            std::snprintf(status, sizeof status, "tune: %.1f s", seconds_of(decoded));
        }
        progress.show(status);
        got = reader.read(audio, block);
    }

    progress.show("tune: analysing the whole file", true);
    // One call takes at most INT32_MAX frames; beyond that (hours of audio)
    // the closing reading covers the end of the file only.
    const size_t whole = std::min<size_t>(decoded, INT32_MAX);
    TunerReading r{};
    const bool have = analyse(cfg, audio, channels, rate, decoded - whole, decoded, r);
    progress.clear();
    const double seconds = seconds_of(decoded);
    if (json) {
        Json j = {{"final", true}, {"seconds", seconds}, {"analysed_seconds", seconds_of(whole)}};
        if (have) {
            j.update(reading_json(r));
        } else {
            j["note"] = nullptr;  // shorter than one analysis window
        }
        print_json(j);
    } else if (!have) {
        std::printf("final: no reading (%.3f s is shorter than one analysis window)\n", seconds);
    } else if (whole < decoded) {
        std::printf("final: %s  (last %.3f s of %.3f s)\n", describe(r).c_str(),
                    seconds_of(whole), seconds);
    } else {
        std::printf("final: %s  (whole file, %.3f s)\n", describe(r).c_str(), seconds);
    }
    // A Ctrl-C during that one long call still counts, though its result is in.
    return interrupted() ? kExitInterrupted : kExitOk;
}

}  // namespace

const Command kTuneCommand = {
    "tune",
    "tune [FILE] [options]",
    "live tuner, or the tuner's readings of a recording over time",
    "usage: woodshed tune [options]             live, from an input device\n"
    "       woodshed tune FILE [options]        a recording (WAV, FLAC, MP3; '-': stdin)\n"
    "\n"
    "Without a FILE the tuner listens to the default input (or --device) and\n"
    "shows, redrawn in place: note, frequency, deviation in cents on a needle\n"
    "from -50 to +50 (the '=' zone is the tolerance), state (silent, holding,\n"
    "pitched, in tune), input level in dBFS and CLIP when the input clips.\n"
    "When the output is not a terminal it prints a line at every change and\n"
    "every half second instead. Ctrl-C stops.\n"
    "\n"
    "With a FILE it runs the tuner over the recording and prints what it shows\n"
    "every --every seconds: time, note, frequency, deviation in cents, clarity\n"
    "and state. Each of these reports looks at the preceding --context seconds.\n"
    "The last line, 'final:', is the reading after hearing the whole file. A\n"
    "header describing the file and the settings goes to stderr.\n"
    "\n"
    "options:\n"
    "  --a4 HZ            reference pitch of A4, 400..480 (default 440)\n"
    "  --note NAME|MIDI   tune against this note only, e.g. E2, F#3, Bb3 or 40\n"
    "                     (default: the nearest note)\n"
    "  --range LOW..HIGH  frequencies to detect in Hz; LOW 20..200, HIGH\n"
    "                     200..5000 (default 55..1200)\n"
    "  --tolerance CENTS  deviation still shown as in tune, 0.5..25 (default 5)\n"
    "  --slow             steadier, slower smoothing of the cents\n"
    "  --json             JSON Lines instead of text: one object per reading\n"
    "                     with note (null when none), frequency_hz, cents,\n"
    "                     clarity, state, clipped, and time (s) or, on the last\n"
    "                     line, final: true, seconds, analysed_seconds\n"
    "live only:\n"
    "  --device DEVICE    input to listen to: an ID, an index or a name from\n"
    "                     'woodshed devices'\n"
    "                     (default: the system's default input)\n"
    "  --seconds S        stop by itself after S seconds\n"
    "with a FILE only:\n"
    "  --every SECONDS    interval between reports (default 0.25)\n"
    "  --context SECONDS  audio each report looks back on, 0.1..60 (default 2)\n"
    "  --final-only       print only the header and the final reading\n"
    "  -h, --help         show this help\n"
    "\n"
    "Files at sample rates outside 8000..384000 Hz are resampled to 48000 Hz.\n"
    "Exit status: 0 done, 1 the tuner refused the audio, 2 bad usage, 3 the file\n"
    "unreadable or unusable, 4 no usable input device, 5 stdout not written,\n"
    "130 interrupted (Ctrl-C, SIGTERM, SIGHUP).\n",
    run_tune,
};

}  // namespace cli
