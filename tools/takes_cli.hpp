// What the align and clean commands share: their options, the messages for
// the take tools' result codes, and the report lines.
#pragma once

#include <chrono>
#include <cmath>
#include <cstdio>
#include <string>
#include <utility>

#include "cli.hpp"
#include "woodshed/takes.h"

namespace cli::takes {

// --from SECONDS as whole milliseconds.
inline int32_t offset_ms(const Options& opts) {
    const auto v = opts.value("from");
    return v ? static_cast<int32_t>(std::lround(parse_number("from", *v, 0.0, 2e6) * 1000.0)) : 0;
}

// --range MIN..MAX in ms (default 0..500).
inline std::pair<int32_t, int32_t> range_ms(const Options& opts) {
    const auto v = opts.value("range");
    if (!v) return {0, 500};
    const auto [lo, hi] = parse_range("range", *v);
    if (!(std::fabs(lo) <= 2e6 && std::fabs(hi) <= 2e6) || lo > hi) {
        throw UsageError("--range must be MIN..MAX in ms, MIN <= MAX, within +-2000000");
    }
    return {static_cast<int32_t>(std::lround(lo)), static_cast<int32_t>(std::lround(hi))};
}

// Turns a failing result code into the command's one-line failure.
inline void check(int32_t rc, const std::string& backing, const std::string& take) {
    if (rc == ws_ok) return;
    if (rc == ws_unsupported_format) {
        throw Failure("cannot use '" + backing + "' and '" + take +
                      "': both must be readable 16-bit PCM WAV files at one sample rate, and a cleaned "
                      "take must be replaceable (not read-only)");
    }
    if (rc == ws_invalid_argument) {
        throw Failure("take too short to clean (8192 frames at least), or nothing of the backing left "
                      "after --from");
    }
    throw Failure("take tools failed with code " + std::to_string(rc));
}

inline void print_delay(const TakeAnalysis& a) {
    const double ms = a.sample_rate > 0 ? 1000.0 * static_cast<double>(a.delay_frames) / a.sample_rate : 0.0;
    std::printf("delay: %lld frames (%.2f ms at %u Hz)\nscore: %.1f\nvalid: %s\n",
                static_cast<long long>(a.delay_frames), ms, a.sample_rate, a.score, a.valid ? "yes" : "no");
}

// Long files take a noticeable while; say how long.
inline void print_elapsed(std::chrono::steady_clock::time_point start) {
    const double s = std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
    if (s >= 1.0) std::printf("elapsed: %.1f s\n", s);
}

}  // namespace cli::takes
