// SPDX-License-Identifier: MIT
// woodshed click: the metronome, live on a playback device or rendered to a
// WAV file.
#include <algorithm>
#include <cerrno>
#include <cmath>
#include <cstdio>
#include <cstring>
#include <string>
#include <vector>

#include "cli.hpp"
#include "json_out.hpp"
#include "live.hpp"
#include "wav_file.hpp"
#include "woodshed/metronome.h"


namespace cli {
namespace {

constexpr OptionSpec kSpecs[] = {
    {"bpm", true},         {"beats", true},       {"sub", true},        {"swing", true},
    {"accents", true},     {"sound", true},       {"count-in", true},   {"gap", true},
    {"drop", true},        {"seed", true},        {"poly", true},       {"poly-sound", true},
    {"ramp-to", true},     {"ramp-every", true},  {"ramp-step", true},  {"linear", false},
    {"gain", true},        {"accent-gain", true}, {"beat-gain", true},  {"sub-gain", true},
    {"poly-gain", true},   {"device", true},      {"seconds", true},    {"render", true},
    {"bars", true},        {"rate", true},        {"channels", true},   {"json", false},
};

constexpr int kPollMs = 33;
constexpr int64_t kDefaultRampEvery = 4;
// One render holds the whole track as floats (the library renders a track
// from its start in one call): 2 GiB at most.
constexpr int64_t kMaxRenderFrames = int64_t{1} << 29;
// The RIFF size fields are 32-bit.
constexpr uint64_t kMaxWavData = 0xFFFFFFFFull - 36;

// The click sounds by number, as the library numbers them.
constexpr const char* kSoundNames[] = {"woodblock", "beep", "tick", "hihat", "cowbell", "clave"};

// A sound by name or by number 0..5.
int32_t parse_sound(std::string_view option, const std::string& text) {
    for (int32_t i = 0; i < 6; ++i) {
        if (text == kSoundNames[i] || text == std::to_string(i)) return i;
    }
    throw UsageError("--" + std::string(option) +
                     " wants woodblock, beep, tick, hihat, cowbell or clave (or 0..5), not '" + text + "'");
}

int64_t to_ubpm(double bpm) { return std::llround(bpm * 1e6); }

std::string bpm_text(int64_t ubpm) {
    char buf[32];
    std::snprintf(buf, sizeof buf, "%.3f", static_cast<double>(ubpm) / 1e6);
    std::string s = buf;
    // 120.000 reads as 120, 92.500 as 92.5.
    s.erase(s.find_last_not_of('0') + 1);
    if (s.back() == '.') s.pop_back();
    return s;
}

std::vector<std::string> split(const std::string& text, char sep) {
    std::vector<std::string> parts;
    size_t from = 0;
    for (;;) {
        const size_t at = text.find(sep, from);
        parts.push_back(text.substr(from, at == std::string::npos ? std::string::npos : at - from));
        if (at == std::string::npos) return parts;
        from = at + 1;
    }
}

// Everything the options say, checked here so that a mistake is reported
// instead of being clamped quietly by the library.
MetronomeConfig config_from(const Options& opts) {
    const auto number = [&](const char* name, double lo, double hi, double fallback) {
        const auto v = opts.value(name);
        return v ? parse_number(name, *v, lo, hi) : fallback;
    };
    const auto integer = [&](const char* name, int64_t lo, int64_t hi, int64_t fallback) {
        const auto v = opts.value(name);
        return v ? parse_integer(name, *v, lo, hi) : fallback;
    };
    const auto needs = [&](const char* option, const char* other) {
        if (opts.value(option) || opts.flag(option)) {
            throw UsageError("--" + std::string(option) + " needs --" + other);
        }
    };

    MetronomeConfig c{};
    c.tempo_ubpm = to_ubpm(number("bpm", 10, 400, 120));
    c.beats_per_bar = static_cast<int32_t>(integer("beats", 1, 32, 4));
    c.subdivisions = static_cast<int32_t>(integer("sub", 1, 12, 1));
    c.beat_divisor = 1;
    c.beat_multiplier = 1;
    c.swing = number("swing", 0.5, 0.75, 0.5);
    if (opts.value("swing") && c.subdivisions % 2 != 0) {
        throw UsageError("--swing needs an even --sub (2, 4, ...): it shifts every second pulse");
    }
    c.master_gain = number("gain", 0, 1, 0.8);
    c.accent_gain = number("accent-gain", 0, 1, 1.0);
    c.beat_gain = number("beat-gain", 0, 1, 0.75);
    c.subdivision_gain = number("sub-gain", 0, 1, 0.5);
    c.sound = opts.value("sound") ? parse_sound("sound", *opts.value("sound")) : 0;
    c.count_in_bars = static_cast<int32_t>(integer("count-in", 0, 8, 0));

    if (auto v = opts.value("gap")) {
        const auto parts = split(*v, ',');
        if (parts.size() != 2) throw UsageError("--gap wants PLAY,MUTE bars, e.g. 3,1, not '" + *v + "'");
        c.play_bars = static_cast<int32_t>(parse_integer("gap", parts[0], 1, 64));
        c.mute_bars = static_cast<int32_t>(parse_integer("gap", parts[1], 1, 64));
    }

    c.drop_probability = number("drop", 0, 1, 0);
    c.random_seed = static_cast<uint32_t>(integer("seed", 0, 4294967295LL, 0));

    c.poly_pulses = static_cast<int32_t>(integer("poly", 0, 32, 0));
    c.poly_sound = opts.value("poly-sound") ? parse_sound("poly-sound", *opts.value("poly-sound")) : 5;
    c.poly_gain = number("poly-gain", 0, 1, 0.7);
    if (c.poly_pulses == 0) {
        needs("poly-sound", "poly");
        needs("poly-gain", "poly");
    }

    if (auto v = opts.value("ramp-to")) {
        c.ramp_target_ubpm = to_ubpm(parse_number("ramp-to", *v, 10, 400));
        c.ramp_mode = opts.flag("linear") ? mn_ramp_linear : mn_ramp_stepwise;
        c.ramp_interval_bars = static_cast<int32_t>(integer("ramp-every", 1, 128, kDefaultRampEvery));
        if (c.ramp_mode == mn_ramp_linear) {
            if (opts.value("ramp-step")) throw UsageError("--ramp-step is for steps, not with --linear");
        } else {
            c.ramp_step_ubpm = to_ubpm(number("ramp-step", 0.001, 100, 4));
        }
    } else {
        needs("ramp-every", "ramp-to");
        needs("ramp-step", "ramp-to");
        needs("linear", "ramp-to");
        c.ramp_target_ubpm = c.tempo_ubpm;
    }

    // Levels given for the first beats repeat over the bar: "4,2" in 6/8
    // gives 4,2,4,2,4,2. The default accents the first beat.
    std::vector<uint8_t> levels;
    if (auto v = opts.value("accents")) {
        for (const std::string& part : split(*v, ',')) {
            levels.push_back(static_cast<uint8_t>(parse_integer("accents", part, 0, 4)));
        }
        if (levels.size() > static_cast<size_t>(c.beats_per_bar)) {
            throw UsageError("--accents gives " + std::to_string(levels.size()) +
                             " levels for a bar of " + std::to_string(c.beats_per_bar) + " beats");
        }
    } else {
        levels.assign(static_cast<size_t>(c.beats_per_bar), mn_level_normal);
        levels[0] = mn_level_accent;
    }
    for (size_t i = 0; i < sizeof c.accent_pattern; ++i) c.accent_pattern[i] = levels[i % levels.size()];
    return c;
}

std::string accents_text(const MetronomeConfig& c) {
    std::string s;
    for (int32_t i = 0; i < c.beats_per_bar; ++i) {
        if (i > 0) s += ',';
        s += static_cast<char>('0' + c.accent_pattern[i]);
    }
    return s;
}

std::string describe(const MetronomeConfig& c) {
    char buf[160];
    std::string s = bpm_text(c.tempo_ubpm) + " BPM, " + std::to_string(c.beats_per_bar) +
                    (c.beats_per_bar == 1 ? " beat" : " beats") + " a bar (accents " +
                    accents_text(c) + "), " + kSoundNames[c.sound];
    if (c.subdivisions > 1) {
        s += ", " + std::to_string(c.subdivisions) + " pulses a beat";
        if (c.swing > 0.5) {
            std::snprintf(buf, sizeof buf, " swung %g", c.swing);
            s += buf;
        }
    }
    if (c.count_in_bars > 0) {
        s += ", count-in " + std::to_string(c.count_in_bars) + (c.count_in_bars == 1 ? " bar" : " bars");
    }
    if (c.mute_bars > 0) {
        s += ", gap: play " + std::to_string(c.play_bars) + " mute " + std::to_string(c.mute_bars);
    }
    if (c.drop_probability > 0) {
        std::snprintf(buf, sizeof buf, ", drop %g (seed %u)", c.drop_probability, c.random_seed);
        s += buf;
    }
    if (c.poly_pulses > 0) {
        s += ", second rhythm " + std::to_string(c.poly_pulses) + " a bar (" + kSoundNames[c.poly_sound] + ")";
    }
    if (c.ramp_mode == mn_ramp_stepwise) {
        s += ", ramp to " + bpm_text(c.ramp_target_ubpm) + " BPM by " + bpm_text(c.ramp_step_ubpm) +
             " BPM every " +
             (c.ramp_interval_bars == 1 ? "bar" : std::to_string(c.ramp_interval_bars) + " bars");
    } else if (c.ramp_mode == mn_ramp_linear) {
        s += ", ramp to " + bpm_text(c.ramp_target_ubpm) + " BPM over " +
             std::to_string(c.ramp_interval_bars) + (c.ramp_interval_bars == 1 ? " bar" : " bars");
    }
    return s;
}

// Breaks a description at its commas to fit 79 columns, later lines indented.
std::string wrap(const std::string& text, size_t first_column, size_t indent) {
    std::string out;
    size_t column = first_column;
    size_t from = 0;
    while (from < text.size()) {
        size_t to = text.find(", ", from);
        to = to == std::string::npos ? text.size() : to + 1;  // keep the comma
        const std::string piece = text.substr(from, to - from);
        if (column + piece.size() > 79 && column > indent) {
            out += '\n';
            out.append(indent, ' ');
            column = indent;
        } else if (from > 0) {
            out += ' ';
            ++column;
        }
        out += piece;
        column += piece.size();
        from = to < text.size() ? to + 1 : to;  // skip the space after the comma
    }
    return out;
}

// Frames from the start of the track to the bar line after `bars` bars (the
// count-in comes first), on the metronome's own grid: each pulse sits on its
// exact rational frame position rounded down, the fraction carried from pulse
// to pulse, and a ramp changes the tempo at bar lines from the second bar on.
// Swing moves pulses within a pair but never a bar line, so it plays no part.
int64_t track_frames(const MetronomeConfig& c, int64_t rate, int64_t bars) {
    int64_t tempo = c.tempo_ubpm;
    const int64_t ramp_from = tempo;
    int64_t numerator = 0, denominator = 1, remainder = 0, frames = 0;
    const auto retime = [&] {
        const int64_t millibeats = std::max<int64_t>(tempo / 1000, 1);
        numerator = int64_t{c.beat_multiplier} * rate * 60000 * 1000;
        denominator = millibeats * c.beat_divisor * c.subdivisions * 1000;
        if (remainder >= denominator) remainder = 0;
    };
    retime();
    const int64_t pulses_per_bar = int64_t{c.beats_per_bar} * c.subdivisions;
    for (int64_t bar = -c.count_in_bars; bar < bars; ++bar) {
        if (bar > 0 && c.ramp_mode == mn_ramp_linear) {
            const double share = std::min(static_cast<double>(bar) / c.ramp_interval_bars, 1.0);
            tempo = static_cast<int64_t>(static_cast<double>(ramp_from) +
                                         share * static_cast<double>(c.ramp_target_ubpm - ramp_from));
            retime();
        } else if (bar > 0 && c.ramp_mode == mn_ramp_stepwise && bar % c.ramp_interval_bars == 0 &&
                   tempo != c.ramp_target_ubpm) {
            const int64_t step = c.ramp_step_ubpm != 0 ? c.ramp_step_ubpm : 4000000;
            tempo = tempo < c.ramp_target_ubpm ? std::min(tempo + step, c.ramp_target_ubpm)
                                               : std::max(tempo - step, c.ramp_target_ubpm);
            retime();
        }
        const int64_t exact = remainder + pulses_per_bar * numerator;
        frames += exact / denominator;
        remainder = exact % denominator;
    }
    return frames;
}

int run_render(const Options& opts, const MetronomeConfig& cfg, const std::string& path) {
    const auto bars_text = opts.value("bars");
    if (!bars_text) throw UsageError("--render needs --bars N, the number of bars to write");
    const int64_t bars = parse_integer("bars", *bars_text, 1, 100000);
    const auto rate_text = opts.value("rate");
    const int64_t rate = rate_text ? parse_integer("rate", *rate_text, 8000, 384000) : 48000;
    const auto channels_text = opts.value("channels");
    const int64_t channels = channels_text ? parse_integer("channels", *channels_text, 1, 8) : 1;

    const int64_t frames = track_frames(cfg, rate, bars);
    const uint64_t data_bytes = static_cast<uint64_t>(frames) * static_cast<uint64_t>(channels) * 2;
    if (frames > kMaxRenderFrames || data_bytes > kMaxWavData) {
        char buf[200];
        std::snprintf(buf, sizeof buf,
                      "%lld bars make %.1f minutes at %lld Hz, too long for one file "
                      "(at most %lld frames and 4 GiB)",
                      static_cast<long long>(bars), static_cast<double>(frames) / static_cast<double>(rate) / 60.0,
                      static_cast<long long>(rate), static_cast<long long>(kMaxRenderFrames));
        throw UsageError(buf);
    }
    install_interrupt_handler();
    // Open the output before the work, so an unwritable place fails at once.
    WavFile out(path);
    Progress progress;
    const double seconds = static_cast<double>(frames) / static_cast<double>(rate);
    char status[96];
    std::snprintf(status, sizeof status, "click: rendering %.1f s of audio", seconds);
    // The library renders the whole track in one call; a long one announces itself.
    if (seconds > 600) progress.show(status, true);

    // Every channel carries the same click: render one and copy it.
    std::vector<float> mono(static_cast<size_t>(frames));
    const int64_t got = mn_render_offline(&cfg, static_cast<double>(rate), frames, 1, mono.data());
    if (got != frames) {
        throw Failure("the metronome could not render the track (error " + std::to_string(got) + ")");
    }
    if (interrupted()) {
        progress.clear();
        std::fprintf(stderr, "woodshed: interrupted; '%s' not written\n", path == "-" ? "stdout" : path.c_str());
        return kExitInterrupted;
    }

    const auto header = wav16_header(static_cast<uint32_t>(rate), static_cast<uint32_t>(channels),
                                     static_cast<uint32_t>(data_bytes));
    out.write(header.data(), header.size());
    constexpr size_t kChunk = 65536;
    std::vector<float> frames_out;
    std::vector<unsigned char> bytes;
    const auto ch = static_cast<size_t>(channels);
    for (size_t at = 0; at < mono.size(); at += kChunk) {
        const size_t n = std::min(kChunk, mono.size() - at);
        frames_out.clear();
        for (size_t i = 0; i < n; ++i) frames_out.insert(frames_out.end(), ch, mono[at + i]);
        bytes.clear();
        append_pcm16(bytes, frames_out.data(), frames_out.size());
        out.write(bytes.data(), bytes.size());
        if (interrupted()) {
            progress.clear();
            std::fprintf(stderr, "woodshed: interrupted; '%s' not written\n", path == "-" ? "stdout" : path.c_str());
            return kExitInterrupted;
        }
        std::snprintf(status, sizeof status, "click: writing %.0f%%",
                      100.0 * static_cast<double>(at + n) / static_cast<double>(mono.size()));
        progress.show(status);
    }
    out.commit();
    progress.clear();
    if (opts.flag("json")) {
        print_json({{"file", path},
                    {"bars", bars},
                    {"count_in_bars", cfg.count_in_bars},
                    {"frames", frames},
                    {"seconds", seconds},
                    {"sample_rate", rate},
                    {"channels", channels},
                    {"bpm", static_cast<double>(cfg.tempo_ubpm) / 1e6},
                    {"beats_per_bar", cfg.beats_per_bar},
                    {"sound", kSoundNames[cfg.sound]}});
        return kExitOk;
    }
    // With the audio on stdout, the report goes to stderr.
    std::fprintf(path == "-" ? stderr : stdout,
                 "wrote %s: %lld bar%s at %s; %.3f s, %lld frames, %lld Hz, 16-bit, %lld channel%s\n",
                 path == "-" ? "stdout" : path.c_str(), static_cast<long long>(bars), bars == 1 ? "" : "s",
                 describe(cfg).c_str(), seconds, static_cast<long long>(frames), static_cast<long long>(rate),
                 static_cast<long long>(channels), channels == 1 ? "" : "s");
    return kExitOk;
}

// ---- playing live --------------------------------------------------------

std::string device_trouble(const MetronomeStatus& st) {
    switch (st.device_state) {
        case mn_device_reopening: return "output lost: reopening the device";
        case mn_device_failed: return "output failed: " + result_text(st.last_result, st.backend_result);
        default: return {};
    }
}

// One character a beat, '#' on the current one.
std::string beat_marks(const MetronomeSnapshot& s, const MetronomeConfig& c) {
    std::string marks(static_cast<size_t>(c.beats_per_bar), '.');
    if (s.beat >= 0 && s.beat < c.beats_per_bar) marks[static_cast<size_t>(s.beat)] = '#';
    return "[" + marks + "]";
}

int run_live(const MetronomeConfig& cfg, const std::string& device_id, double seconds) {
    install_interrupt_handler();
    const FamilyInstance metronome(mn_create, mn_destroy, "metronome");
    const DeviceList outputs = read_devices("playback", mn_refresh_devices, mn_get_device);
    // The library would quietly play on the default output instead.
    const DeviceRecord* chosen =
        device_id.empty() ? default_device(outputs) : &resolve_device(outputs, device_id, "playback");
    const int32_t started = mn_start(&cfg, device_id.empty() ? "" : chosen->id_text);
    MetronomeStatus st{};
    mn_get_status(&st);
    if (started != ws_ok) {
        if (outputs.devices.empty()) throw DeviceError(no_sound_text());
        throw DeviceError(std::string("cannot open the ") + (device_id.empty() ? "default output" : "output") +
                          ": " + result_text(started, st.backend_result));
    }
    std::printf("click: %s\n", wrap(describe(cfg), 7, 7).c_str());
    std::printf("playing on \"%s\", %u Hz; %s\n", chosen != nullptr ? chosen->name : "the default output",
                st.sample_rate,
                seconds > 0 ? "stops by itself (Ctrl-C stops sooner)" : "Ctrl-C stops");
    std::fflush(stdout);

    LiveDisplay display;
    const Clock::time_point start = Clock::now();
    MetronomeSnapshot snap{};
    bool have = false;
    std::string last_plain;
    for (;;) {
        const double now = seconds_between(start, Clock::now());
        if (interrupted() || (seconds > 0 && now >= seconds)) break;
        MetronomeSnapshot s{};
        // 0: no block played yet, or a copy that raced the audio thread. The
        // device plays (silent) blocks before the start reaches the click;
        // their snapshots, of run 0, show the idle metronome.
        if (mn_get_snapshot(&s) == 1 && s.run_id >= 1 && s.state != mn_state_stopped) {
            snap = s;
            have = true;
        }
        mn_get_status(&st);
        const std::string trouble = device_trouble(st);
        std::string line;
        if (!trouble.empty()) {
            line = trouble;
        } else if (have) {
            line = metronome_position(snap, cfg.count_in_bars, cfg.beats_per_bar) + "  " + bpm_text(snap.tempo_ubpm) + " BPM";
            if (snap.bar_muted) line += "  (muted)";
        }
        if (display.in_place()) {
            const int whole = static_cast<int>(now);
            char clock[32];
            std::snprintf(clock, sizeof clock, "%d:%02d  ", whole / 60, whole % 60);
            const std::string marks = have && trouble.empty() ? beat_marks(snap, cfg) + "  " : "";
            display.draw({"  " + std::string(clock) + marks + line});
        } else if (!line.empty() && line != last_plain) {
            // Plain output: one line a beat (the tempo is part of the line, so
            // a ramp shows as it moves).
            std::printf("%7.2fs  %s\n", now, line.c_str());
            std::fflush(stdout);
            last_plain = line;
        }
        sleep_ms(kPollMs);
    }

    // Let the click fade over its next block, then give the device time to
    // play what it already holds before it is closed.
    mn_stop();
    for (int i = 0; i < 20; ++i) {
        MetronomeSnapshot s{};
        if (mn_get_snapshot(&s) == 1 && s.state == mn_state_stopped) break;
        sleep_ms(10);
    }
    sleep_ms(50);
    display.finish();
    return interrupted() ? kExitInterrupted : kExitOk;
}

int run_click(std::span<const std::string> args) {
    const Options opts("click", args, kSpecs);
    if (opts.help()) {
        std::fputs(kClickCommand.help, stdout);
        return kExitOk;
    }
    opts.expect_positionals(0, "no arguments");
    const MetronomeConfig cfg = config_from(opts);
    if (auto path = opts.value("render")) {
        for (const char* live_only : {"device", "seconds"}) {
            if (opts.value(live_only)) {
                throw UsageError("--" + std::string(live_only) + " is for playing, not with --render");
            }
        }
        if (path->empty()) throw UsageError("--render needs a file name");
        if (*path == "-" && opts.flag("json")) {
            throw UsageError("--json and --render - would both write to stdout; give --render a file");
        }
        return run_render(opts, cfg, *path);
    }
    if (opts.flag("json")) throw UsageError("--json needs --render FILE");
    for (const char* file_only : {"bars", "rate", "channels"}) {
        if (opts.value(file_only)) throw UsageError("--" + std::string(file_only) + " needs --render FILE");
    }
    const auto seconds = opts.value("seconds");
    return run_live(cfg, opts.value("device").value_or(""),
                    seconds ? parse_number("seconds", *seconds, 0.1, 1e6) : 0.0);
}

}  // namespace

const Command kClickCommand = {
    "click",
    "click [options]",
    "metronome on an output device, or a click track written to a WAV file",
    "usage: woodshed click [options]                          play\n"
    "       woodshed click --render OUT.wav --bars N [options]   write a WAV file\n"
    "\n"
    "Plays the metronome on the default output (or --device) and shows bar,\n"
    "beat and tempo as it goes; Ctrl-C stops with a short fade. With --render\n"
    "it writes the click track instead: the count-in, then N bars, ending\n"
    "exactly on the next bar line, as 16-bit PCM. Pulses fall on their exact\n"
    "frames: however long the track, the click never drifts.\n"
    "\n"
    "rhythm:\n"
    "  --bpm BPM            tempo, 10..400, fractions allowed (default 120)\n"
    "  --beats N            beats a bar, 1..32 (default 4)\n"
    "  --sub N              pulses a beat, 1..12 (default 1)\n"
    "  --swing S            share of each pulse pair taken by its first pulse,\n"
    "                       0.5 (straight)..0.75; needs an even --sub\n"
    "  --accents L,L,...    level of each beat: 0 silent, 1 soft, 2 normal,\n"
    "                       3 medium accent, 4 accent. Fewer levels than beats\n"
    "                       repeat over the bar ('4,2' in 6 gives 4,2,4,2,4,2)\n"
    "                       (default: 4 on the first beat, 2 on the others)\n"
    "  --sound NAME         click sound: woodblock, beep, tick, hihat, cowbell\n"
    "                       or clave (or 0..5 in that order; default woodblock)\n"
    "  --count-in N         bars of count-in, accent on every beat, 0..8\n"
    "  --gap PLAY,MUTE      gap trainer: PLAY bars sound, MUTE bars silent,\n"
    "                       repeating, each 1..64\n"
    "  --drop P             chance 0..1 that a beat is left out\n"
    "  --seed N             seed of the drops, 0..4294967295 (0: the default)\n"
    "  --poly N             second rhythm: N even pulses a bar, 0..32\n"
    "  --poly-sound NAME    its sound, as --sound (default clave)\n"
    "  --ramp-to BPM        change the tempo towards BPM, bar by bar\n"
    "  --ramp-every BARS    by --ramp-step every BARS bars, 1..128 (default 4);\n"
    "                       with --linear: reach BPM after BARS bars\n"
    "  --ramp-step BPM      tempo change of one step, 0.001..100 (default 4)\n"
    "  --linear             move the tempo every bar along a straight line\n"
    "levels, 0..1:\n"
    "  --gain G             the whole click (default 0.8)\n"
    "  --accent-gain G      accents and count-in (default 1)\n"
    "  --beat-gain G        normal beats (default 0.75)\n"
    "  --sub-gain G         pulses between beats and soft beats (default 0.5)\n"
    "  --poly-gain G        second rhythm (default 0.7)\n"
    "playing:\n"
    "  --device DEVICE      output: an ID, an index or a name from 'woodshed\n"
    "                       devices'\n"
    "  --seconds S          stop by itself after S seconds\n"
    "writing:\n"
    "  --json               with --render: one JSON object on stdout (file, bars,\n"
    "                       count_in_bars, frames, seconds, sample_rate,\n"
    "                       channels, bpm, beats_per_bar, sound)\n"
    "  --render OUT.wav     write the click track to this file ('-': stdout;\n"
    "                       a file is replaced whole,\n"
    "                       only once the new one is complete)\n"
    "  --bars N             bars after the count-in, 1..100000, as long as the\n"
    "                       track stays within 2^29 frames (3.1 hours at 48 kHz)\n"
    "  --rate HZ            sample rate, 8000..384000 (default 48000)\n"
    "  --channels C         1..8, each the same click (default 1)\n"
    "  -h, --help           show this help\n"
    "\n"
    "With a ramp the file follows the tempo changes bar by bar, so its length\n"
    "is that of the N bars as they are actually played.\n"
    "Exit status: 0 done, 1 the track could not be rendered, 2 bad usage, 4 no\n"
    "usable output device, 5 the file not written, 130 interrupted (Ctrl-C,\n"
    "SIGTERM, SIGHUP).\n",
    run_click,
};

}  // namespace cli
