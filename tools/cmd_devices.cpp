// woodshed devices: the capture and playback devices the library sees, with
// the id texts that --device takes.
#include <algorithm>
#include <cstdio>
#include <cstring>
#include <string>

#include "cli.hpp"
#include "live.hpp"
#include "woodshed/metronome.h"
#include "woodshed/tuner.h"

namespace cli {
namespace {

// Each engine is the process's one instance of its family; destroyed however
// the command ends.
struct TunerEngine {
    TunerEngine() {
        const int32_t r = tn_engine_create(nullptr);
        if (r != ws_ok) throw Failure("cannot list the capture devices: " + result_text(r));
    }
    ~TunerEngine() { tn_engine_destroy(); }
    TunerEngine(const TunerEngine&) = delete;
    TunerEngine& operator=(const TunerEngine&) = delete;
};

struct Metronome {
    Metronome() {
        const int32_t r = mn_create();
        if (r != ws_ok) throw Failure("cannot list the playback devices: " + result_text(r));
    }
    ~Metronome() { mn_destroy(); }
    Metronome(const Metronome&) = delete;
    Metronome& operator=(const Metronome&) = delete;
};

// Two mark columns: the first for the system default; the second is kept
// free for a per-command mark (e.g. inputs another command can use), so the
// layout need not change when one is added.
std::string marks(const DeviceRecord& d) { return std::string(d.is_default == 1 ? "*" : " ") + " "; }

void print_list(const char* title, const DeviceList& list, int name_width) {
    std::printf("%s\n", title);
    if (list.devices.empty()) {
        std::printf("  (none)\n");
        return;
    }
    int index = 0;
    for (const DeviceRecord& d : list.devices) {
        std::printf("  %2d %s %-*s  %s\n", index++, marks(d).c_str(), name_width, d.name,
                    d.id_text);
    }
}

int run_devices(std::span<const std::string> args) {
    const Options opts("devices", args, {});
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

    // Names line up across both lists; an unusually long one just pushes its id.
    size_t widest = 4;
    for (const DeviceList* l : {&capture, &playback}) {
        for (const DeviceRecord& d : l->devices) widest = std::max(widest, std::strlen(d.name));
    }
    const int width = static_cast<int>(std::min<size_t>(widest, 40));
    print_list("capture devices (for 'woodshed tune --device ID'):", capture, width);
    print_list("playback devices (for 'woodshed click --device ID'):", playback, width);
    std::printf("* system default; the last column is the ID\n");
    return kExitOk;
}

}  // namespace

const Command kDevicesCommand = {
    "devices",
    "devices",
    "list the capture and playback devices with their ids",
    "usage: woodshed devices\n"
    "\n"
    "Lists the audio devices the library can open: capture devices (inputs of\n"
    "the live tuner) and playback devices (outputs of the click), each with its\n"
    "index, a '*' on the system default, its name and its ID. Pass the ID to\n"
    "--device to choose that device.\n"
    "\n"
    "options:\n"
    "  -h, --help         show this help\n"
    "\n"
    "Exit status: 0 listed (even when a list is empty), 1 no audio back end or\n"
    "the devices could not be listed, 2 bad usage.\n",
    run_devices,
};

}  // namespace cli
