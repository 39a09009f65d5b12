// SPDX-License-Identifier: MIT
// woodshed devices: the capture and playback devices the library sees, with
// the id texts that --device takes.
#include <algorithm>
#include <cstdio>
#include <cstring>
#include <set>
#include <string>
#include <vector>

#include "cli.hpp"
#include "json_out.hpp"
#include "live.hpp"
#include "woodshed/metronome.h"
#include "woodshed/recorder.h"
#include "woodshed/tuner.h"

namespace cli {
namespace {

// Each engine is the process's one instance of its family; destroyed however
// the command ends.
struct TunerEngine {
    TunerEngine() {
        const int32_t r = tn_engine_create(nullptr);
        if (r != ws_ok) throw DeviceError("cannot list the capture devices: " + result_text(r));
    }
    ~TunerEngine() { tn_engine_destroy(); }
    TunerEngine(const TunerEngine&) = delete;
    TunerEngine& operator=(const TunerEngine&) = delete;
};

struct Metronome {
    Metronome() {
        const int32_t r = mn_create();
        if (r != ws_ok) throw DeviceError("cannot list the playback devices: " + result_text(r));
    }
    ~Metronome() { mn_destroy(); }
    Metronome(const Metronome&) = delete;
    Metronome& operator=(const Metronome&) = delete;
};

// The inputs 'woodshed record --input NAME' reaches: the recorder looks a
// capture device up by its exact name and takes the first of that name, so
// a device counts when the lookup of its name gives back its own id. An
// empty id would mean the default input, so such a device counts only when
// it is the default. Without a recorder nothing is marked.
std::set<std::string> recordable_inputs(const DeviceList& capture) {
    std::set<std::string> ids;
    if (sd_create() != ws_ok) return ids;
    std::vector<char> id(1100);
    for (const DeviceRecord& d : capture.devices) {
        if (sd_find_input_by_name(d.name, id.data(), static_cast<int32_t>(id.size())) != 1) continue;
        // The record's id text is cut at 263 characters; compare what it holds.
        const size_t n = std::strlen(d.id_text);
        const bool same = std::strncmp(id.data(), d.id_text, n) == 0 && (id[n] == '\0' || n == sizeof d.id_text - 1);
        if (same && (n > 0 || d.is_default == 1)) ids.insert(d.id_text);
    }
    sd_destroy();
    return ids;
}

// Two mark columns: the first for the system default, the second for the
// inputs that 'woodshed record --input NAME' accepts.
std::string marks(const DeviceRecord& d, const std::set<std::string>* recordable) {
    return std::string(d.is_default == 1 ? "*" : " ") +
           (recordable != nullptr && recordable->count(d.id_text) ? "r" : " ");
}

void print_list(const char* title, const DeviceList& list, int name_width,
                const std::set<std::string>* recordable = nullptr) {
    std::printf("%s\n", title);
    if (list.devices.empty()) {
        std::printf("  (none)\n");
        return;
    }
    int index = 0;
    for (const DeviceRecord& d : list.devices) {
        std::printf("  %2d %s %-*s  %s\n", index++, marks(d, recordable).c_str(), name_width, d.name,
                    d.id_text);
    }
}

int run_devices(std::span<const std::string> args) {
    static constexpr OptionSpec kSpecs[] = {{"json", false}};
    const Options opts("devices", args, kSpecs);
    if (opts.help()) {
        std::fputs(kDevicesCommand.help, stdout);
        return kExitOk;
    }
    opts.expect_positionals(0, "no arguments");

    DeviceList capture, playback;
    {
        TunerEngine tuner;
        capture = read_devices("capture", tn_engine_refresh_devices, tn_engine_get_device);
    }
    {
        Metronome metronome;
        playback = read_devices("playback", mn_refresh_devices, mn_get_device);
    }

    if (capture.devices.empty() && playback.devices.empty()) throw DeviceError(no_sound_text());
    const std::set<std::string> recordable = recordable_inputs(capture);
    if (opts.flag("json")) {
        const auto entries = [&](const DeviceList& list, const std::set<std::string>* marks) {
            Json a = Json::array();
            int index = 0;
            for (const DeviceRecord& d : list.devices) {
                Json e = {{"index", index++}, {"id", d.id_text}, {"name", d.name}, {"default", d.is_default == 1}};
                if (marks != nullptr) e["recordable"] = marks->count(d.id_text) > 0;
                a.push_back(e);
            }
            return a;
        };
        print_json({{"capture", entries(capture, &recordable)}, {"playback", entries(playback, nullptr)}});
        return kExitOk;
    }
    // Names line up across both lists; an unusually long one just pushes its id.
    size_t widest = 4;
    for (const DeviceList* l : {&capture, &playback}) {
        for (const DeviceRecord& d : l->devices) widest = std::max(widest, std::strlen(d.name));
    }
    const int width = static_cast<int>(std::min<size_t>(widest, 40));
    print_list("capture devices (for 'woodshed tune --device' and 'woodshed record --input'):", capture, width,
               &recordable);
    print_list("playback devices (for 'woodshed click --device'):", playback, width);
    std::printf("* system default; r the recorder finds it by name; the last column is the ID\n");
    return kExitOk;
}

}  // namespace

const Command kDevicesCommand = {
    "devices",
    "devices [--json]",
    "list the capture and playback devices with their ids",
    "usage: woodshed devices [--json]\n"
    "\n"
    "Lists the audio devices the library can open: capture devices (inputs of\n"
    "the live tuner and the recorder) and playback devices (outputs of the\n"
    "click), each with its index, a '*' on the system default, its name and\n"
    "its ID. --device and --input take the ID, the index or the name. An 'r'\n"
    "marks the inputs the recorder finds by their name alone. A back end's\n"
    "plug-ins (rate converters, mixers) are not devices and are left out.\n"
    "\n"
    "options:\n"
    "  --json             one JSON object: capture and playback, lists of\n"
    "                     {index, id, name, default} (capture: recordable)\n"
    "  -h, --help         show this help\n"
    "\n"
    "Exit status: 0 listed (even when one list is empty), 2 bad usage, 4 no\n"
    "sound server or sound card, or the devices could not be listed, 5 stdout\n"
    "not written.\n",
    run_devices,
};

}  // namespace cli
