// Writes the starting corpus of fuzz_metronome into the directory given as
// the only argument: a few musical configurations (count-in, swing, gap
// trainer, drop, second rhythm, ramps) followed by blocks and commands.
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <string>
#include <vector>

#include "seed_bytes.hpp"

#include "woodshed/metronome.h"

namespace {

MetronomeConfig base() {
    MetronomeConfig c{};
    c.tempo_ubpm = 120000000;
    c.beats_per_bar = 4;
    c.subdivisions = 2;
    c.beat_divisor = 1;
    c.beat_multiplier = 1;
    c.swing = 0.5;
    c.master_gain = c.accent_gain = c.beat_gain = 1.0;
    c.subdivision_gain = 0.5;
    c.poly_sound = 5;
    c.poly_gain = 0.8;
    c.ramp_target_ubpm = 120000000;
    c.ramp_interval_bars = 1;
    c.accent_pattern[0] = 4;
    for (int i = 1; i < 32; ++i) c.accent_pattern[i] = static_cast<uint8_t>(1 + i % 4);
    return c;
}

void write(const std::string& dir, const char* name, uint8_t rate, uint8_t channels, const MetronomeConfig& c,
           const std::vector<uint8_t>& commands) {
    std::vector<uint8_t> bytes{rate, channels};
    const auto* p = reinterpret_cast<const uint8_t*>(&c);
    bytes.insert(bytes.end(), p, p + sizeof c);
    bytes.insert(bytes.end(), commands.begin(), commands.end());
    seeds::write_seed(dir, name, bytes);
}

}  // namespace

int main(int argc, char** argv) {
    if (argc != 2) return 2;
    const std::string dir = argv[1];
    // Blocks of 2047 + 1 frames (op 3 with operand 0x07FF), repeated.
    std::vector<uint8_t> blocks;
    for (int i = 0; i < 40; ++i) blocks.insert(blocks.end(), {0, 0xFF, 0x07});
    std::vector<uint8_t> commands = blocks;
    commands.insert(commands.end(), {6, 0, 0x10, 0x00, 7, 0, 0x10, 0x00, 5, 0, 0x10, 0x00});  // pause, resume, stop
    commands.insert(commands.end(), {11, 40, 0, 0x10, 0x00});                                 // a full queue

    MetronomeConfig c = base();
    write(dir, "plain", 0, 2, c, blocks);
    c.count_in_bars = 2;
    c.swing = 0.66;
    write(dir, "count_in_swing", 1, 1, c, commands);
    c = base();
    c.play_bars = 2;
    c.mute_bars = 1;
    c.drop_probability = 0.3;
    c.random_seed = 1234;
    c.poly_pulses = 5;
    write(dir, "gap_drop_poly", 0, 2, c, blocks);
    c = base();
    c.ramp_mode = 2;
    c.ramp_target_ubpm = 240000000;
    c.ramp_interval_bars = 2;
    c.tempo_ubpm = 200000000;
    write(dir, "linear_ramp", 4, 8, c, blocks);
    c.ramp_mode = 1;
    c.ramp_step_ubpm = 0;
    c.ramp_target_ubpm = 10000000;
    write(dir, "stepwise_ramp_down", 2, 3, c, blocks);
    c = base();
    c.tempo_ubpm = 400000000;
    c.beat_divisor = 8;
    c.subdivisions = 12;
    c.sound = 4;
    c.poly_pulses = 32;
    write(dir, "all_voices", 3, 2, c, blocks);
    return 0;
}
