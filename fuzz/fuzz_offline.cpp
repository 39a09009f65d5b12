// Drives tn_offline_process with arbitrary configurations, rates, channel
// counts and samples (layout in offline_input.hpp) and aborts on any result
// or reading that breaks what the interface promises.
#include <algorithm>
#include <cmath>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <vector>

#include "offline_input.hpp"
#include "tuner/analyser.hpp"
#include "tuner/config.hpp"
#include "woodshed/tuner.h"

namespace {

using namespace fuzz_offline;

void check(bool ok, const char* what) {
    if (ok) return;
    std::fprintf(stderr, "fuzz_offline: broken invariant: %s\n", what);
    std::abort();
}

template <typename T>
T read_at(const uint8_t* data, size_t at) {
    T v;
    std::memcpy(&v, data + at, sizeof v);
    return v;
}

void check_reading(const TunerReading& r, const TunerConfig& cfg, uint64_t frames, double rate,
                   uint32_t d, uint64_t n) {
    // Frame count and time follow from the buffer length alone: one frame per
    // hop once the first window is full, the time being the end of the last
    // window, which lies within the last hop (plus a partial decimation step).
    const uint64_t hop = n / 2;
    const uint64_t decimated = frames / d;
    check(r.frame_count == 1 + (decimated - n) / hop, "frame_count");
    const double end_us = static_cast<double>((hop * (r.frame_count - 1) + n) * d) * 1e6 / rate;
    check(static_cast<double>(r.time_us) <= static_cast<double>(frames) * 1e6 / rate + 1.0,
          "time_us beyond the buffer");
    check(std::fabs(static_cast<double>(r.time_us) - end_us) <= 1.0, "time_us is not the window end");

    check(r.state <= tn_state_in_tune, "state");
    check(r.clipped <= 1, "clipped");
    check(r.note >= -1 && r.note <= 127, "note outside -1..127");
    check(r.octave == (r.note >= 0 ? r.note / 12 - 1 : 0), "octave");
    check((r.state == tn_state_silent) == (r.note == -1), "note -1 exactly when silent");

    check(r.peak >= 0.0 && r.peak <= 1.0, "peak outside 0..1");
    check(std::isfinite(r.level_db) && r.level_db >= -120.0, "level below -120 dB");
    // Samples are clamped to +-4, and an RMS never exceeds the peak.
    check(r.level_db <= 20.0 * std::log10(4.0) + 1e-9, "level above +12 dB");
    if (r.peak < 1.0) {
        check(r.level_db <= 20.0 * std::log10(std::max(r.peak, 1e-6)) + 1e-6, "level above peak");
    }
    check((r.clipped == 1) == (r.peak >= 0.999), "clipped disagrees with peak");

    check(std::isfinite(r.frequency_hz) && std::isfinite(r.target_hz) && std::isfinite(r.cents) &&
              std::isfinite(r.clarity) && std::isfinite(r.strobe_phase),
          "non-finite field");
    check(std::fabs(r.strobe_phase) <= 6283185.307179586, "strobe phase not folded");

    if (r.state == tn_state_silent) {
        check(r.frequency_hz == 0.0 && r.target_hz == 0.0 && r.cents == 0.0 && r.clarity == 0.0,
              "silent reading with pitch fields");
        return;
    }
    check(r.frequency_hz > 0.0, "pitched reading without frequency");
    // The chosen lag's value is at least 0.9 of the best one, which passed 0.6;
    // the normalised function itself never exceeds 1 beyond rounding.
    check(r.clarity >= 0.54 - 1e-12 && r.clarity <= 1.0 + 1e-9, "clarity outside 0.54..1");
    // The target is the note's equal-tempered frequency at the configured A4.
    const double semis = 12.0 * std::log2(r.target_hz / cfg.a4_hz) + 69.0;
    check(r.target_hz > 0.0 && std::fabs(semis - r.note) < 1e-9, "target is not the note's frequency");
    if (cfg.fixed_note >= 0) {
        check(r.note == cfg.fixed_note, "fixed note not kept");
    } else {
        // Nearest note: every raw deviation is within half a semitone, and the
        // smoothed value is a running blend of those.
        check(std::fabs(r.cents) <= 50.0 + 1e-6, "chromatic cents beyond 50");
    }
    if (r.state == tn_state_in_tune) check(std::fabs(r.cents) <= cfg.tolerance_cents, "in tune beyond tolerance");
    if (r.state == tn_state_pitched) check(std::fabs(r.cents) > cfg.tolerance_cents, "pitched within tolerance");
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    if (size < kHeaderBytes) return -1;  // not worth keeping in the corpus

    TunerConfig raw_config;
    std::memcpy(&raw_config, data, kConfigBytes);
    const uint8_t flags = data[kFlagsAt];
    const size_t repeats = size_t{read_at<uint16_t>(data, kRepeatAt)} + 1;
    const double rate = read_at<double>(data, kRateAt);
    const int32_t channels = read_at<int32_t>(data, kChannelsAt);

    const size_t given = (size - kHeaderBytes) / sizeof(float);
    const size_t count = given == 0 ? 0 : std::min(given * repeats, kMaxSamples);
    std::vector<float> samples(count);
    if (given > 0) {
        for (size_t at = 0; at < count; at += given) {
            std::memcpy(samples.data() + at, data + kHeaderBytes, std::min(given, count - at) * sizeof(float));
        }
    }
    const int64_t frames = channels >= 1 ? static_cast<int64_t>(count) / channels : static_cast<int64_t>(count);

    const TunerConfig* config = (flags & kNullConfig) ? nullptr : &raw_config;
    const float* in = (flags & kNullSamples) || count == 0 ? nullptr : samples.data();
    TunerReading reading;
    std::memset(&reading, 0xA5, sizeof reading);
    TunerReading* out = (flags & kNullOut) ? nullptr : &reading;

    const int32_t rc = tn_offline_process(config, in, static_cast<int32_t>(frames), channels, rate, out);

    const bool invalid = in == nullptr || out == nullptr || frames < 1 || channels < 1 || channels > 32;
    if (invalid) {
        check(rc == ws_invalid_argument, "invalid arguments not refused with -3");
    } else {
        // A reading exists exactly when the decimated input fills one window.
        const TunerConfig cfg = ws::tuner::sanitise(config);
        const double used_rate = ws::tuner::usable_rate(rate);
        const uint32_t d = ws::tuner::decimation_factor(used_rate);
        const uint64_t n = ws::tuner::window_length(used_rate / d, cfg.lowest_hz);
        const uint64_t f = static_cast<uint64_t>(frames);
        check(rc == (f / d >= n ? 1 : 0), "result does not match the buffer length");
        if (rc == 1) check_reading(reading, cfg, f, used_rate, d, n);
    }
    if (rc != 1) {
        TunerReading untouched;
        std::memset(&untouched, 0xA5, sizeof untouched);
        check(std::memcmp(&reading, &untouched, sizeof reading) == 0, "reading written without a result");
    }
    return 0;
}
