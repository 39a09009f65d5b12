// SPDX-License-Identifier: MIT
// woodshed clean: remove the backing track that leaked into a take
// (ta_clean), finding the delay first unless it is given.
//
// A 16-bit WAV take is handed to the library, which replaces it safely. Any
// other take is cleaned in a private 16-bit copy beside the output, and the
// result written back in the take's own WAV encoding, or as 16-bit WAV next
// to it when the take is not a WAV (nothing here encodes FLAC or MP3).
#include <algorithm>
#include <chrono>
#include <cmath>
#include <cstdio>
#include <filesystem>
#include <string>

#include "cli.hpp"
#include "json_out.hpp"
#include "takes_cli.hpp"
#include "wav_file.hpp"
#include "woodshed/takes.h"

#if !defined(_WIN32)
#  include <unistd.h>
#endif

namespace cli {
namespace {

constexpr OptionSpec kSpecs[] = {{"delay", true}, {"from", true},   {"range", true},
                                 {"force", false}, {"output", true}, {"json", false}};

// The take's own encoding when a WAV can hold it, else 16-bit PCM.
WavEncoding encoding_of(const FileFacts& f) {
    return documented_wav(f) ? WavEncoding{f.format, f.bits} : WavEncoding{};
}

// "take.flac" -> "take.clean.wav".
std::string wav_beside(const std::string& path) {
    const auto dot = path.find_last_of('.');
    const auto slash = path.find_last_of("/\\");
    const bool has_ext = dot != std::string::npos && (slash == std::string::npos || dot > slash);
    return (has_ext ? path.substr(0, dot) : path) + ".clean.wav";
}

// Refuses a target that a rename could replace but the user protected.
void check_replaceable(const std::string& path) {
    if (path == "-") return;
    if (read_only(path)) output_error(path, std::string("read-only; not replaced"));
#if !defined(_WIN32)
    const std::filesystem::path parent = std::filesystem::path(path).parent_path();
    if (access(parent.empty() ? "." : parent.c_str(), W_OK) != 0) output_error(path, "its folder is not writable; not replaced");
#endif
}

// Writes the cleaned 16-bit copy to `output` in `encoding`.
void write_back(const std::string& cleaned, const std::string& output, WavEncoding encoding) {
    AudioReader reader(cleaned, 1, 0xFFFFFFFFu, 44100);
    std::vector<float> samples;
    while (reader.read(samples, 1 << 16) > 0) {
    }
    const uint64_t bytes = samples.size() * (encoding.bits / 8u);
    if (bytes > 0xFFFFFFFFull - 36) output_error(output, "too long for a WAV file in this encoding");
    WavFile out(output);
    std::vector<unsigned char> data = wav_header(reader.sample_rate(), reader.channels(), encoding,
                                                 static_cast<uint32_t>(bytes));
    append_samples(data, samples.data(), samples.size(), encoding);
    out.write(data.data(), data.size());
    out.commit();
}

int run_clean(std::span<const std::string> args) {
    const Options opts("clean", args, kSpecs);
    if (opts.help()) {
        std::fputs(kCleanCommand.help, stdout);
        return kExitOk;
    }
    opts.expect_positionals(2, "a backing track and a take (BACKING TAKE)");
    const std::string& take_path = opts.positionals()[1];
    const auto start = std::chrono::steady_clock::now();

    // Where the cleaned take goes, and whether the library can replace the
    // take itself.
    const FileFacts take_facts = take_path == "-" ? FileFacts{} : inspect_file(take_path);
    if (!take_facts.problem.empty()) input_error(take_path, take_facts.problem);
    std::string output = opts.value("output").value_or(take_path);
    if (output.empty()) throw UsageError("--output needs a file name, or '-' for stdout");
    const bool beside = !opts.value("output") && take_path != "-" && !take_facts.wav;
    if (beside) output = wav_beside(take_path);
    const bool in_place = output == take_path && take_path != "-";
    check_replaceable(output);
    const std::string temp_beside = output == "-" ? "" : output;
    const takes::Input backing = takes::prepare(opts.positionals()[0], temp_beside);
    const takes::Input take = takes::prepare(take_path, temp_beside, !in_place);
    takes::check_pair(backing, take);
    if (beside) {
        std::fprintf(stderr, "woodshed: %s: %s is not written here; the cleaned take goes to '%s' as 16-bit WAV\n",
                     take_path.c_str(), take.encoding.c_str(), output.c_str());
    }
    if (take.frames < 8192) {
        input_error(take_path, std::to_string(take.frames) + " frames of audio; cleaning needs 8192 at least");
    }
    const int32_t from_ms = takes::offset_ms(opts, backing);
    // Status lines go where the audio does not.
    const bool json = opts.flag("json");
    if (json && output == "-") throw UsageError("--json and --output - would both write to stdout");
    FILE* report = output == "-" || json ? stderr : stdout;

    int64_t delay = 0;
    if (const auto given = opts.value("delay")) {
        delay = static_cast<int64_t>(std::llround(parse_number("delay", *given, -1e12, 1e12)));
        if (static_cast<uint64_t>(std::llabs(delay)) >= take.frames) {
            throw UsageError("--delay " + *given + " frames is beyond the take '" + take_path + "' (" +
                             std::to_string(take.frames) + " frames)");
        }
    } else {
        const auto [lo_ms, hi_ms] = takes::range_ms(opts, take);
        TakeAnalysis a{};
        takes::check(ta_analyze(backing.library_path.c_str(), take.library_path.c_str(), from_ms, lo_ms, hi_ms, &a),
                     backing, take);
        if (report == stdout) takes::print_delay(a);
        if (a.valid != 1 && !opts.flag("force")) {
            throw Failure("no trustworthy delay found; nothing changed (give --delay, or --force to clean anyway)");
        }
        delay = a.delay_frames;
    }

    TakeCleaning c{};
    TakeCleaningDetail detail{};
    TakeCleaningStretch stretches[64]{};
    takes::check(ta_clean_detailed(backing.library_path.c_str(), take.library_path.c_str(), from_ms, delay, &c,
                                   &detail, stretches, 64),
                 backing, take);
    const bool cleaned = c.cleaned == 1;
    // An asked-for output gets the take either way; a take left alone is not rewritten.
    if (take.copy && (cleaned || output != take_path)) write_back(take.library_path, output, encoding_of(take_facts));
    const double rate = c.sample_rate > 0 ? c.sample_rate : 44100.0;
    const int32_t shown = std::min<int32_t>(detail.stretches, 64);
    if (json) {
        Json list = Json::array();
        for (int32_t i = 0; i < shown; ++i) {
            list.push_back({{"start_s", static_cast<double>(stretches[i].start_frame) / rate},
                            {"end_s", static_cast<double>(stretches[i].end_frame) / rate},
                            {"delay_frames", stretches[i].delay_frames},
                            {"cleaned", stretches[i].cleaned == 1}});
        }
        print_json({{"take", take_path},
                    {"output", output},
                    {"cleaned", cleaned},
                    {"reduction_db", c.reduction_db},
                    {"delay_frames", c.delay_frames},
                    {"sample_rate", c.sample_rate},
                    {"room_seconds", detail.room_seconds},
                    {"rt60_seconds", detail.rt60_seconds},
                    {"drift_ppm", detail.drift_ppm},
                    {"stretches", list}});
        return kExitOk;
    }
    // One line per finding.
    std::fprintf(report, "room: %.2f s of response covered (decay RT60 %.2f s)\n", detail.room_seconds,
                 detail.rt60_seconds);
    if (detail.drift_ppm != 0.0) std::fprintf(report, "clock drift corrected: %+.0f ppm\n", detail.drift_ppm);
    for (int32_t i = 0; i < shown; ++i) {
        std::fprintf(report, "stretch %d: %.2f-%.2f s, delay %lld frames, %s\n", static_cast<int>(i + 1),
                     static_cast<double>(stretches[i].start_frame) / rate,
                     static_cast<double>(stretches[i].end_frame) / rate,
                     static_cast<long long>(stretches[i].delay_frames),
                     stretches[i].cleaned == 1 ? "cleaned" : "left alone (subtraction would not help)");
    }
    if (cleaned) {
        std::fprintf(report, "cleaned %s: %.1f dB removed (delay %lld frames)\n", take_path.c_str(), c.reduction_db,
                     static_cast<long long>(c.delay_frames));
    } else {
        std::fprintf(report, "left %s as it was: subtracting the backing would not make it quieter (delay %lld frames)\n",
                     take_path.c_str(), static_cast<long long>(c.delay_frames));
    }
    if (output != take_path) std::fprintf(report, "written to %s\n", output == "-" ? "stdout" : output.c_str());
    takes::print_elapsed(start);
    return kExitOk;
}

}  // namespace

const Command kCleanCommand = {
    "clean",
    "clean BACKING TAKE [options]",
    "remove the backing track that leaked into a take (rewrites the take)",
    "usage: woodshed clean BACKING TAKE [options]\n"
    "\n"
    "Removes the backing track that the microphone picked up while the take\n"
    "was recorded, and rewrites the take in place, mono, in its own WAV\n"
    "encoding (the old file stays until the new one is complete). A take that\n"
    "is not a WAV (FLAC, MP3) is left alone and the cleaned take written as\n"
    "16-bit WAV to TAKE with '.clean.wav' for its extension. Both files: WAV\n"
    "(8, 16, 24 or 32-bit, float), FLAC or MP3 at one sample rate; '-' reads\n"
    "one from stdin. Without --delay the delay is found first, as 'woodshed\n"
    "align' does, and a take whose delay cannot be trusted is left alone\n"
    "unless --force is given.\n"
    "\n"
    "options:\n"
    "  --delay FRAMES     the delay of the backing in the take, from 'align'\n"
    "  --from SECONDS     where in the backing track the take began (default 0)\n"
    "  --range MIN..MAX   delays to search when --delay is not given, in ms\n"
    "                     (default 0..500)\n"
    "  --force            clean even when the delay found is not trustworthy\n"
    "  --output FILE      write the cleaned take here ('-': stdout) and leave\n"
    "                     the take as it is\n"
    "  --json             print what was found as one JSON object (room, drift,\n"
    "                     stretches of one delay each, dB removed)\n"
    "  -h, --help         show this help\n"
    "\n"
    "Exit status: 0 cleaned, 1 no trustworthy delay (nothing changed), 2 bad\n"
    "usage (also --from or --delay outside the files, or the take given as\n"
    "the backing), 3 a file unreadable or unusable (the message names it),\n"
    "5 the output not written (read-only take or folder, full disk).\n",
    run_clean,
};

}  // namespace cli
