// SPDX-License-Identifier: MIT
#include "takes_cli.hpp"

#include <cmath>
#include <cstdio>
#include <filesystem>

namespace cli::takes {
namespace {

std::string seconds_text(double s) {
    char buf[32];
    std::snprintf(buf, sizeof buf, "%.3f s", s);
    return buf;
}

}  // namespace

Input prepare(const std::string& path, const std::string& temp_beside, bool convert) {
    Input in;
    in.path = path;
    if (path != "-") {
        in.facts = inspect_file(path);
        if (!in.facts.problem.empty()) input_error(path, in.facts.problem);
    }
    if (!convert && path != "-" && take_tools_read(in.facts)) {
        in.library_path = path;
        in.encoding = in.facts.encoding;
        in.rate = in.facts.rate;
        in.channels = in.facts.channels;
        in.frames = in.facts.data_bytes / (2u * in.facts.channels);
    } else {
        AudioReader reader(path, 1, 0xFFFFFFFFu, 44100);
        in.encoding = reader.encoding().empty() ? "audio" : reader.encoding();
        in.copy = std::make_unique<TempFile>(temp_beside);
        in.frames = convert_to_pcm16(reader, *in.copy);
        in.library_path = in.copy->path();
        in.rate = reader.sample_rate();
        in.channels = reader.channels() <= 2 ? reader.channels() : 1;
        if (path == "-") in.facts.encoding = in.encoding;
    }
    if (in.frames == 0) input_error(path, "no audio in the file");
    return in;
}

void check_pair(const Input& backing, const Input& take) {
    if (backing.path == "-" && take.path == "-") throw UsageError("only one of the files can be '-' (stdin)");
    std::error_code ec;
    if (backing.path != "-" && take.path != "-" &&
        (backing.path == take.path || std::filesystem::equivalent(fs_path(backing.path), fs_path(take.path), ec))) {
        throw UsageError("the take and the backing are the same file, '" + take.path + "'");
    }
    if (backing.rate != take.rate) {
        input_error(take.path, std::to_string(take.rate) + " Hz, the backing " + std::to_string(backing.rate) +
                                   " Hz; both must be at one sample rate");
    }
}

int32_t offset_ms(const Options& opts, const Input& backing) {
    const auto v = opts.value("from");
    if (!v) return 0;
    const double from = parse_number("from", *v, 0.0, 2e6);
    const double length = static_cast<double>(backing.frames) / backing.rate;
    if (from >= length) {
        throw UsageError("--from " + *v + " is past the end of the backing '" + display_name(backing.path) +
                         "' (" + seconds_text(length) + ")");
    }
    return static_cast<int32_t>(std::lround(from * 1000.0));
}

std::pair<int32_t, int32_t> range_ms(const Options& opts, const Input& take) {
    const auto v = opts.value("range");
    if (!v) return {0, 500};
    const auto [lo, hi] = parse_range("range", *v);
    if (!(std::fabs(lo) <= 2e6 && std::fabs(hi) <= 2e6) || lo > hi) {
        throw UsageError("--range must be MIN..MAX in ms, MIN <= MAX, within +-2000000");
    }
    const double length_ms = 1000.0 * static_cast<double>(take.frames) / take.rate;
    if (lo >= length_ms || hi <= -length_ms) {
        throw UsageError("--range " + *v + " lies outside the take '" + display_name(take.path) + "' (" +
                         seconds_text(length_ms / 1000.0) + ")");
    }
    return {static_cast<int32_t>(std::lround(lo)), static_cast<int32_t>(std::lround(hi))};
}

void check(int32_t rc, const Input& backing, const Input& take) {
    if (rc == ws_ok) return;
    if (rc == ws_invalid_argument) {
        input_error(take.path, "too short for the take tools (8192 frames at least), or nothing of the backing "
                               "left after --from");
    }
    throw InputError(display_name(backing.path) + ", " + display_name(take.path) +
                     ": the take tools refused them (error " + std::to_string(rc) + ")");
}

void print_delay(const TakeAnalysis& a) {
    const double ms = a.sample_rate > 0 ? 1000.0 * static_cast<double>(a.delay_frames) / a.sample_rate : 0.0;
    std::printf("delay: %lld frames (%.2f ms at %u Hz)\nscore: %.1f\nvalid: %s\n",
                static_cast<long long>(a.delay_frames), ms, a.sample_rate, a.score, a.valid ? "yes" : "no");
}

void print_elapsed(std::chrono::steady_clock::time_point start) {
    const double s = std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
    if (s >= 1.0) std::fprintf(stderr, "elapsed: %.1f s\n", s);
}

}  // namespace cli::takes
