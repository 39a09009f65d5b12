// SPDX-License-Identifier: MIT
// woodshed record: a take recorded against a backing track on the default
// duplex device, with the elapsed time, the backing position and an input
// level meter redrawn in place (plain lines now and then when the output is
// not a terminal). Ctrl-C ends the take cleanly.
#include <algorithm>
#include <cmath>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <optional>
#include <string>
#include <system_error>
#include <vector>

#include "cli.hpp"
#include "audio_files.hpp"
#include "json_out.hpp"
#include "live.hpp"
#include "woodshed/recorder.h"

namespace cli {
namespace {

constexpr OptionSpec kSpecs[] = {
    {"backing", true}, {"take", true}, {"input", true}, {"from", true}, {"seconds", true}, {"json", false},
};

constexpr int kPollMs = 50;
constexpr double kPlainEvery = 2.0;  // seconds between plain lines
constexpr double kTail = 1.0;        // recorded past the backing's end, for the last notes' ring
constexpr double kClipHold = 1.0;    // a clip stays marked this long (s)
constexpr double kMaxFromSeconds = 2147483.0;  // the library takes the start in int32 ms

// "1:05.3"; hours when needed.
std::string clock_text(double seconds) {
    if (!(seconds >= 0)) seconds = 0;
    const long tenths = std::lround(seconds * 10);
    const long h = tenths / 36000, m = tenths / 600 % 60, s = tenths / 10 % 60, t = tenths % 10;
    char buf[32];
    if (h > 0) {
        std::snprintf(buf, sizeof buf, "%ld:%02ld:%02ld.%ld", h, m, s, t);
    } else {
        std::snprintf(buf, sizeof buf, "%ld:%02ld.%ld", m, s, t);
    }
    return buf;
}

double peak_db(double peak) { return peak > 1e-6 ? 20.0 * std::log10(peak) : -120.0; }

// -60..0 dBFS in 20 cells of 3 dB.
std::string meter(double peak, bool clip) {
    const double db = peak_db(peak);
    const long cells = std::clamp<long>(std::lround((db + 60.0) / 3.0), 0, 20);
    std::string bar(static_cast<size_t>(cells), '#');
    bar.resize(20, ' ');
    char buf[80];
    std::snprintf(buf, sizeof buf, "input %6.1f dBFS [%s]%s", std::max(db, -99.9), bar.c_str(),
                  clip ? "  CLIP" : "");
    return buf;
}

// The backing's length in seconds, for the display; nullopt when the
// decoder cannot tell (the library alone decides whether it plays it).
std::optional<double> backing_seconds(const std::string& path) {
    try {
        AudioReader reader(path, 1, 0xFFFFFFFFu, 44100);
        if (auto frames = reader.length_frames()) {
            return static_cast<double>(*frames) / reader.sample_rate();
        }
    } catch (const std::exception&) {
    }
    return std::nullopt;
}

// Why sd_start failed, as the error of its kind. `take_existed`: whether the
// take's path held a file before the start, which must then be left alone.
[[noreturn]] void start_failure(int32_t r, const std::string& backing, const std::string& take,
                                bool take_existed) {
    switch (r) {
        case ws_invalid_argument:
        case ws_unsupported_format: {
            const FileFacts facts = inspect_file(backing);
            if (!facts.problem.empty()) input_error(backing, facts.problem);
            input_error(backing, (facts.encoding.empty() ? std::string("not a WAV file") : facts.encoding) +
                                     "; the backing track must be a 16-bit PCM WAV file, mono or stereo, "
                                     "8000 Hz or more, at most 700 MiB");
        }
        case ws_access_denied: throw DeviceError("access to the audio device was denied");
        case ws_backend_init_failed: throw DeviceError(no_sound_text());
        case ws_device_failure: {
            // The library answers -15 both for a take it cannot create and for
            // a device that fails. It opens the device first, so with no take
            // there and a folder open to us, the device is what failed.
            std::error_code ec;
            const bool exists = std::filesystem::exists(fs_path(take), ec);
            if (!exists && !folder_writable(take)) output_error(take, "cannot be created");
            if (!take_existed) remove_file(take);  // nothing but a header: not worth keeping
            throw DeviceError("cannot open the duplex audio device: " + result_text(r));
        }
        default: throw DeviceError("cannot start the take: " + result_text(r));
    }
}

// The input the recorder should use: a name the recorder knows itself, else
// an id, an index or a name from the capture list 'woodshed devices' shows.
std::string input_id(const std::string& input) {
    std::vector<char> id(1100);  // room for the longest id text the library can write
    const int32_t r = sd_find_input_by_name(input.c_str(), id.data(), static_cast<int32_t>(id.size()));
    if (r == 1) return id.data();
    if (r != 0) throw DeviceError("cannot list the inputs: " + result_text(r));
    const FamilyInstance tuner([] { return tn_engine_create(nullptr); }, tn_engine_destroy, "input list");
    const DeviceList inputs = read_devices("capture", tn_engine_refresh_devices, tn_engine_get_device);
    return resolve_device(inputs, input, "capture").id_text;
}

int run_record(std::span<const std::string> args) {
    const Options opts("record", args, kSpecs);
    if (opts.help()) {
        std::fputs(kRecordCommand.help, stdout);
        return kExitOk;
    }
    opts.expect_positionals(0, "no arguments besides the options");
    const auto backing = opts.value("backing");
    const auto take = opts.value("take");
    if (!backing || backing->empty()) throw UsageError("record: --backing FILE is required");
    if (!take || take->empty()) throw UsageError("record: --take FILE is required");
    const auto from_text = opts.value("from");
    const double from = from_text ? parse_number("from", *from_text, 0, kMaxFromSeconds) : 0.0;
    const auto seconds_text = opts.value("seconds");
    const double seconds = seconds_text ? parse_number("seconds", *seconds_text, 0.1, 1e6) : 0.0;
    {
        // Recording over the backing itself would destroy it.
        std::error_code ec;
        if (*backing == *take || std::filesystem::equivalent(fs_path(*backing), fs_path(*take), ec)) {
            throw UsageError("record: the take must not be the backing file");
        }
    }

    {
        // Caught here, a take that cannot be written is not mistaken for a device failure.
        std::error_code ec;
        const auto take_path = fs_path(*take);
        if (std::filesystem::is_directory(take_path, ec)) output_error(*take, "is a directory");
        const auto folder = take_path.parent_path();
        if (!folder.empty() && !std::filesystem::is_directory(folder, ec)) output_error(*take, "no such folder");
    }
    const bool json = opts.flag("json");

    const FamilyInstance recorder(sd_create, sd_destroy, "recorder");
    std::string input_id;
    if (const auto input = opts.value("input")) input_id = cli::input_id(*input);

    const std::optional<double> length = backing_seconds(*backing);
    install_interrupt_handler();
    const int32_t start_ms = static_cast<int32_t>(std::llround(from * 1000.0));
    std::error_code exists_ec;
    const bool take_existed = std::filesystem::exists(fs_path(*take), exists_ec);
    const int32_t started = sd_start(backing->c_str(), take->c_str(), input_id.empty() ? nullptr : input_id.c_str(),
                                     start_ms);
    if (started != ws_ok) start_failure(started, *backing, *take, take_existed);
    // With --json the display and the lines go to stderr; stdout gets the summary.
    FILE* lines = json ? stderr : stdout;

    std::fprintf(lines, "record: '%s'%s from %s into '%s', input %s\n", backing->c_str(),
                length ? (" (" + clock_text(*length) + ")").c_str() : "", clock_text(from).c_str(),
                take->c_str(), opts.value("input") ? ("\"" + *opts.value("input") + "\"").c_str() : "the default");
    std::fprintf(lines, "device at %d Hz (the take is written at %d Hz)\n", sd_device_rate(), SD_SAMPLE_RATE);
    std::fprintf(lines, "%s\n", seconds > 0 ? "stops by itself (Ctrl-C stops sooner)"
                                    : "stops after the backing ends (Ctrl-C stops sooner)");
    if (length && from >= *length) std::fprintf(lines, "note: the start is past the end of the backing: silence plays\n");
    std::fflush(lines);

    LiveDisplay display;
    if (json) display.finish();  // stdout is for the summary alone
    RecorderState st{};
    double done_at = -1.0;  // take time at which the backing was heard to end
    double clip_until = -1.0;
    double last_plain = -1e9;
    for (;;) {
        sd_get_state(&st);
        const double elapsed = static_cast<double>(st.captured_frames) / SD_SAMPLE_RATE;
        const double position = static_cast<double>(st.play_position) / SD_SAMPLE_RATE;
        if (st.playback_done && done_at < 0) done_at = elapsed;
        if (interrupted() || (seconds > 0 && elapsed >= seconds) ||
            (seconds <= 0 && done_at >= 0 && elapsed >= done_at + kTail)) {
            break;
        }
        if (st.input_peak >= 0.999) clip_until = elapsed + kClipHold;
        const bool clip = elapsed < clip_until;
        const std::string where =
            "backing " + clock_text(position) + (length ? " / " + clock_text(*length) : "") +
            (st.playback_done ? "  (ended)" : "");
        if (display.in_place()) {
            display.draw({"  elapsed " + clock_text(elapsed) + "   " + where, "  " + meter(st.input_peak, clip)});
        } else if (elapsed - last_plain >= kPlainEvery) {
            std::fprintf(lines, "%8.1fs  %s  input %.1f dBFS%s\n", elapsed, where.c_str(),
                        std::max(peak_db(st.input_peak), -99.9), clip ? "  CLIP" : "");
            std::fflush(lines);
            last_plain = elapsed;
        }
        sleep_ms(kPollMs);
    }
    const int64_t ms = sd_stop();
    display.finish();
    sd_get_state(&st);
    if (ms < 0) throw Failure("the take did not end cleanly: " + result_text(static_cast<int32_t>(ms)));
    std::fprintf(lines, "take: '%s', %.3f s\n", take->c_str(), static_cast<double>(ms) / 1000.0);
    std::fprintf(lines, "alignment repairs: %d\n", sd_repair_count());
    // The library keeps recording when the disk refuses more; say so.
    const double captured = static_cast<double>(st.captured_frames) / SD_SAMPLE_RATE;
    if (captured - static_cast<double>(ms) / 1000.0 > 0.05) {
        std::fprintf(stderr, "woodshed: warning: only %.3f s of the %.3f s recorded reached the file (disk full?)\n",
                     static_cast<double>(ms) / 1000.0, captured);
    }
    if (json) {
        print_json({{"take", *take},
                    {"backing", *backing},
                    {"from_seconds", from},
                    {"seconds", static_cast<double>(ms) / 1000.0},
                    {"captured_seconds", captured},
                    {"device_rate", sd_device_rate()},
                    {"alignment_repairs", sd_repair_count()},
                    {"interrupted", interrupted()}});
    }
    if (interrupted()) {
        std::fputs("woodshed: interrupted; the take is complete\n", stderr);
        return kExitInterrupted;
    }
    return kExitOk;
}

}  // namespace

const Command kRecordCommand = {
    "record",
    "record --backing F --take F",
    "record a take against a backing track",
    "usage: woodshed record --backing FILE --take FILE [--input DEVICE] [--from SECONDS]\n"
    "                       [--seconds N] [--json]\n"
    "\n"
    "Plays the backing track on the default output and records the input into\n"
    "a new take file at the same time, on one duplex device at the device's own\n"
    "rate, so the take lines up with the track frame for frame (apart from the\n"
    "device's own latency, which 'woodshed align' measures); where the sound\n"
    "server falls behind, the take is re-aligned and the repairs are counted.\n"
    "Shows the elapsed time, the backing position and an input level meter.\n"
    "The take is written while it\n"
    "is recorded and is a complete WAV file however the command ends; Ctrl-C,\n"
    "SIGTERM or SIGHUP stop early and finish the take.\n"
    "\n"
    "options:\n"
    "  --backing FILE     the backing track: 16-bit PCM WAV, mono or stereo,\n"
    "                     8000 Hz or more (converted to the device's rate)\n"
    "  --take FILE        the take to write (mono 16-bit WAV, 44100 Hz); an\n"
    "                     existing file is replaced\n"
    "  --input DEVICE     the input: an ID, an index or a name from 'woodshed\n"
    "                     devices'; default: the system's default input\n"
    "  --from SECONDS     start this far into the backing (default 0)\n"
    "  --seconds N        stop after N seconds of take; default: one second\n"
    "                     after the backing ends\n"
    "  --json             the summary as one JSON object on stdout (take,\n"
    "                     backing, from_seconds, seconds, captured_seconds,\n"
    "                     interrupted); everything else goes to stderr\n"
    "  -h, --help         show this help\n"
    "\n"
    "Prints the take's path and length when it ends. Exit status: 0 recorded,\n"
    "1 the take did not end cleanly, 2 bad usage, 3 the backing unreadable or\n"
    "unusable, 4 no usable audio device, 5 the take cannot be written, 130\n"
    "stopped by Ctrl-C, SIGTERM or SIGHUP (the take is complete).\n",
    run_record,
};

}  // namespace cli
