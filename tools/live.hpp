// SPDX-License-Identifier: MIT
// Pieces shared by the commands that run on audio devices (devices, the live
// tuner, the click): result codes as words, device lists, a display that
// redraws itself on a terminal, and plain timing helpers.
#pragma once

#include <chrono>
#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

#include "woodshed/common.h"
#include "woodshed/metronome.h"
#include "woodshed/tuner.h"

namespace cli {

// "device busy (error -12)", with the back end's own code when there is one.
std::string result_text(int32_t result, int32_t backend_result = 0);

// The process's one instance of a family with devices (the metronome, the
// recorder), destroyed however the command ends; the destroy also finishes
// a take still running. `what` names it in the failure to create it.
class FamilyInstance {
public:
    FamilyInstance(int32_t (*create)(), int32_t (*destroy)(), const char* what);
    ~FamilyInstance() { destroy_(); }
    FamilyInstance(const FamilyInstance&) = delete;
    FamilyInstance& operator=(const FamilyInstance&) = delete;

private:
    int32_t (*destroy_)();
};

// One device list as a family reports it.
struct DeviceList {
    std::vector<DeviceRecord> devices;
};

// Refreshes and copies one family's list through its refresh and get-device
// calls, leaving out what is no device (the ALSA plug-ins a back end without
// a server offers); a DeviceError naming `what` when the refresh fails.
DeviceList read_devices(const char* what, int32_t (*refresh)(),
                        int32_t (*get)(int32_t, DeviceRecord*));

// The device that `text` names: its id text (hex, case ignored), its index
// in the list as 'woodshed devices' shows it, or its name (whole, case
// ignored, or a part that only one name contains). A DeviceError naming
// `what` ("capture", "playback") when none or several match.
const DeviceRecord& resolve_device(const DeviceList& list, const std::string& text, const char* what);

// The one line for a machine without any: "no sound server or sound card
// found (tried: ...)".
std::string no_sound_text();

// The device marked as the system default, or nullptr.
const DeviceRecord* default_device(const DeviceList& list);

// Output that redraws a block of lines in place when stdout is a terminal
// that understands ANSI escapes; otherwise the command prints plain lines
// itself (see in_place()).
class LiveDisplay {
public:
    LiveDisplay();
    ~LiveDisplay();
    LiveDisplay(const LiveDisplay&) = delete;
    LiveDisplay& operator=(const LiveDisplay&) = delete;

    bool in_place() const { return in_place_; }
    // Replaces the block shown last. Lines are cut to the terminal's width:
    // a wrapped line would throw the cursor arithmetic off.
    void draw(const std::vector<std::string>& lines);
    // Leaves the last block on screen, shows the cursor, ends the line.
    void finish();

private:
    bool in_place_ = false;
    bool cursor_hidden_ = false;
    size_t shown_ = 0;
#if defined(_WIN32)
    unsigned long saved_mode_ = 0;
    bool mode_changed_ = false;
#endif
};

using Clock = std::chrono::steady_clock;

inline double seconds_between(Clock::time_point from, Clock::time_point to) {
    return std::chrono::duration<double>(to - from).count();
}

void sleep_ms(int ms);

// The live tuner on the capture device `device_id` (empty: the default
// input) until Ctrl-C, or for `seconds` when that is above 0; `json` prints
// JSON Lines instead of the display. Returns the exit status.
int run_live_tune(const TunerConfig& config, const std::string& device_id, double seconds, bool json);

// Where the click is: "count-in 1/2  beat 3/4" or "bar 7     beat 2/4", bars
// and beats counted from 1 as musicians do.
std::string metronome_position(const MetronomeSnapshot& s, int32_t count_in_bars, int32_t beats_per_bar);

// A whole number in [lo, hi]; otherwise a UsageError naming the option.
int64_t parse_integer(std::string_view option, std::string_view text, int64_t lo, int64_t hi);

}  // namespace cli
