// SPDX-License-Identifier: MIT
// woodshed tune without a file: the live tuner on a capture device, shown as
// a small display redrawn in place (or as plain lines when the output is not
// a terminal).
#include <algorithm>
#include <cmath>
#include <cstdio>
#include <string>
#include <vector>

#include "cli.hpp"
#include "json_out.hpp"
#include "live.hpp"
#include "woodshed/tuner.h"

namespace cli {
namespace {

constexpr int kPollMs = 33;              // about 30 updates a second
constexpr double kPlainEvery = 0.5;      // a plain line at least this often (s)
constexpr double kPlainMinGap = 0.1;     // and changes no more often than this
constexpr double kClipHold = 1.0;        // a clip stays marked this long (s)

// The engine is the process's one tuner; stopped and destroyed however the
// command ends, so the device is always released.
struct Engine {
    explicit Engine(const TunerConfig& cfg) {
        const int32_t r = tn_engine_create(&cfg);
        if (r != ws_ok) throw DeviceError("cannot start the tuner: " + result_text(r));
    }
    ~Engine() {
        tn_engine_stop();
        tn_engine_destroy();
    }
    Engine(const Engine&) = delete;
    Engine& operator=(const Engine&) = delete;
};

// Empty while the engine runs; otherwise what the input is doing.
std::string engine_trouble(const TunerStatus& st) {
    switch (st.state) {
        case tn_engine_running: return {};
        case tn_engine_reopening: return "input lost: reopening the device";
        case tn_engine_failed:
            return "input failed: " + result_text(st.result, st.backend_result);
        case tn_engine_stopped: return "input stopped";
        default: return "input state " + std::to_string(st.state);
    }
}

// Note, frequency, deviation and state, or dashes before the first reading.
std::string reading_text(const TunerReading* r) {
    char buf[96];
    if (r == nullptr) {
        std::snprintf(buf, sizeof buf, "%-4s %8s Hz %6s cents  %s", "--", "--", "--", "waiting");
        return buf;
    }
    const bool note = r->note >= 0;
    char hz[16] = "--", cents[16] = "--";
    if (r->frequency_hz > 0) std::snprintf(hz, sizeof hz, "%.2f", r->frequency_hz);
    // A tiny negative deviation must not read "-0.0".
    if (note) std::snprintf(cents, sizeof cents, "%+.1f", std::fabs(r->cents) < 0.05 ? 0.0 : r->cents);
    std::snprintf(buf, sizeof buf, "%-4s %8s Hz %6s cents  %s", note_name(note ? r->note : -1).c_str(),
                  hz, cents, state_word(r->state));
    return buf;
}

// -50..+50 cents in 41 cells of 2.5 cents: '=' marks the tolerance, '|' the
// target, 'O' the needle ('<' or '>' when it is off the scale).
std::string needle(const TunerReading* r, double tolerance) {
    constexpr int kCells = 41;
    constexpr int kMiddle = kCells / 2;
    std::string track(kCells, '-');
    for (int i = 0; i < kCells; ++i) {
        if (std::fabs((i - kMiddle) * 2.5) <= tolerance + 1e-9) track[static_cast<size_t>(i)] = '=';
    }
    track[kMiddle] = '|';
    if (r != nullptr && r->note >= 0 && r->state != tn_state_silent) {
        if (r->cents < -50) {
            track.front() = '<';
        } else if (r->cents > 50) {
            track.back() = '>';
        } else {
            const long cell = std::lround(r->cents / 2.5) + kMiddle;
            track[static_cast<size_t>(std::clamp<long>(cell, 0, kCells - 1))] = 'O';
        }
    }
    return "-50 [" + track + "] +50";
}

// Input level: -60..0 dBFS in 20 cells of 3 dB.
std::string level_text(const TunerReading* r, bool clip) {
    const double db = r != nullptr ? r->level_db : -120.0;
    const long cells = std::clamp<long>(std::lround((db + 60.0) / 3.0), 0, 20);
    std::string bar(static_cast<size_t>(cells), '#');
    bar.resize(20, ' ');
    char buf[80];
    std::snprintf(buf, sizeof buf, "input %6.1f dBFS [%s]%s", db, bar.c_str(), clip ? "  CLIP" : "");
    return buf;
}

}  // namespace

int run_live_tune(const TunerConfig& config, const std::string& device_id, double seconds, bool json) {
    install_interrupt_handler();
    Engine engine(config);
    const DeviceList inputs =
        read_devices("capture", tn_engine_refresh_devices, tn_engine_get_device);
    // The library would quietly fall back to the default input; a typed
    // device that matches nothing is more likely a mistake.
    const DeviceRecord* chosen =
        device_id.empty() ? default_device(inputs) : &resolve_device(inputs, device_id, "capture");
    const int32_t started = tn_engine_start(device_id.empty() ? nullptr : chosen->id_text);
    TunerStatus st{};
    tn_engine_get_status(&st);
    if (started != ws_ok) {
        if (inputs.devices.empty()) throw DeviceError(no_sound_text());
        throw DeviceError(std::string("cannot open the ") + (device_id.empty() ? "default input" : "input") +
                          ": " + result_text(started, st.backend_result));
    }

    const std::string target =
        config.fixed_note >= 0 ? "target " + note_name(config.fixed_note) : "chromatic";
    std::fprintf(stderr, "tune: listening to \"%s\" at %u Hz\n",
                chosen != nullptr ? chosen->name : "the default input", st.sample_rate);
    std::fprintf(stderr, "A4 %g Hz, %s, tolerance %g cents%s; %s\n", config.a4_hz, target.c_str(),
                config.tolerance_cents, config.slow_smoothing ? ", slow" : "",
                seconds > 0 ? "stops by itself (Ctrl-C stops sooner)" : "Ctrl-C stops");
    std::fflush(stdout);

    LiveDisplay display;
    if (json) display.finish();  // lines only
    const Clock::time_point start = Clock::now();
    TunerReading last{};
    bool have = false;
    uint64_t seen_change = st.change_count;
    double clip_until = -1.0;
    double last_plain = -1e9;
    std::string last_key;
    for (;;) {
        const double now = seconds_between(start, Clock::now());
        if (interrupted() || (seconds > 0 && now >= seconds)) break;

        tn_engine_get_status(&st);
        // A reopened device starts a fresh analysis: forget the old reading.
        if (st.change_count != seen_change) {
            seen_change = st.change_count;
            have = false;
        }
        TunerReading r{};
        // 0 means nothing yet or a copy that raced the analysis: keep the last.
        if (tn_engine_get_reading(&r) == 1) {
            last = r;
            have = true;
            if (r.clipped) clip_until = now + kClipHold;
        }
        const TunerReading* shown = have ? &last : nullptr;
        const bool clip = now < clip_until;
        const std::string trouble = engine_trouble(st);

        if (display.in_place()) {
            if (!trouble.empty()) {
                display.draw({"  " + trouble, "", ""});
            } else {
                display.draw({"  " + reading_text(shown),
                              "  " + needle(shown, config.tolerance_cents),
                              "  " + level_text(shown, clip)});
            }
        } else {
            // Plain lines: at every change of note, state or input, and
            // regularly in between, so a log shows the cents moving too.
            const std::string key = !trouble.empty()
                                        ? trouble
                                        : (shown ? note_name(shown->note) + state_word(shown->state)
                                                 : std::string("-")) +
                                              (clip ? "c" : "");
            const double since = now - last_plain;
            if ((key != last_key && since >= kPlainMinGap) || since >= kPlainEvery) {
                if (json) {
                    Json j = {{"time", now}};
                    if (!trouble.empty()) j["trouble"] = trouble;
                    if (shown) {
                        j.update({{"note", shown->note >= 0 ? Json(note_name(shown->note)) : Json(nullptr)},
                                  {"frequency_hz", shown->frequency_hz},
                                  {"cents", shown->cents},
                                  {"state", state_word(shown->state)},
                                  {"level_db", shown->level_db},
                                  {"clipped", clip}});
                    }
                    print_json(j);
                    std::fflush(stdout);
                    last_plain = now;
                    last_key = key;
                    sleep_ms(kPollMs);
                    continue;
                }
                char level[32] = "";
                if (shown) std::snprintf(level, sizeof level, "  %6.1f dBFS", shown->level_db);
                const std::string body =
                    !trouble.empty() ? trouble : reading_text(shown) + level + (clip ? "  CLIP" : "");
                std::printf("%7.2fs  %s\n", now, body.c_str());
                std::fflush(stdout);
                last_plain = now;
                last_key = key;
            }
        }
        sleep_ms(kPollMs);
    }
    display.finish();
    return interrupted() ? kExitInterrupted : kExitOk;
}

}  // namespace cli
