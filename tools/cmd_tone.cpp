// SPDX-License-Identifier: MIT
// woodshed tone: writes a plucked-string tone of known pitch, so the tuner
// can be tried (and checked) without an instrument at hand.
#include <cmath>
#include <cstdio>
#include <string>
#include <vector>

#include "cli.hpp"
#include "synth.hpp"
#include "wav_file.hpp"

namespace cli {
namespace {

constexpr OptionSpec kSpecs[] = {
    {"note", true}, {"seconds", true}, {"rate", true}, {"a4", true}, {"cents", true},
};

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
    // The tone's fundamental must lie below the highest harmonic it renders.
    const double top = pluck_top(rate);
    if (f0 >= top) {
        char buf[160];
        std::snprintf(buf, sizeof buf, "%s (%.1f Hz) cannot be sounded at %u Hz: tones reach %.0f Hz at most",
                      note_name(midi).c_str(), f0, rate, top);
        throw UsageError(buf);
    }

    const std::string& path = opts.positionals()[0];
    write_wav16(path, pluck(f0, seconds, rate), 1, rate);  // peak at -6 dBFS
    char detune[32] = "";
    if (cents != 0.0) std::snprintf(detune, sizeof detune, " %+.1f cents", cents);
    // With the audio on stdout, the report goes to stderr.
    std::fprintf(path == "-" ? stderr : stdout, "wrote %s: %s%s (%.2f Hz), %.3f s, %u Hz, 16-bit mono\n", path == "-" ? "stdout" : path.c_str(),
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
    "harmonics) of a known pitch as a 16-bit mono WAV file ('-': stdout).\n"
    "Notes above 10 kHz (or 0.45 x the rate) cannot be sounded and are refused.\n"
    "\n"
    "options:\n"
    "  --note NAME|MIDI   pitch, e.g. E2, F#3, Bb3 or 45 (default A2, 110 Hz)\n"
    "  --cents CENTS      detune by -100..100 cents (default 0)\n"
    "  --a4 HZ            reference pitch of A4, 400..480 (default 440)\n"
    "  --seconds S        length, 0.05..600 (default 3)\n"
    "  --rate HZ          sample rate, 8000..192000 (default 48000)\n"
    "  -h, --help         show this help\n"
    "\n"
    "Exit status: 0 written, 2 bad usage (also a note it cannot sound), 5 the\n"
    "file not written.\n",
    run_tone,
};

}  // namespace cli
