// Expected click tracks built from arithmetic, and helpers that drive a core.
// A test lists the clicks it expects (frame, sound, accent, gain); the track
// those clicks make is compared with what the core renders, sample by
// sample, so a misplaced, missing, extra or wrongly weighted click fails.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "metronome/config.hpp"
#include "metronome/core.hpp"

namespace ws::test {

struct Click {
    int64_t frame;
    int32_t sound;
    bool accent;
    double gain;
};

// The plain 4/4 at 120 BPM with sound 2 (the shortest), every beat normal,
// and gains 1 / 0.9 / 0.6 / 0.3 for master / accent / beat / subdivision, so
// each kind of click has a level of its own.
MetronomeConfig base_config();

// Pulse k of a steady tempo without swing: floor(k x rate x 60 x multiplier /
// (BPM x divisor x subdivisions)), with the tempo in millionths of BPM
// (whole millibeats), all in exact integers.
int64_t pulse_frame(int64_t k, int64_t rate, int64_t ubpm, int64_t subdivisions, int64_t divisor = 1,
                    int64_t multiplier = 1);

// The mono track the clicks make through the bank at master gain `master`.
std::vector<float> expected_track(const std::vector<Click>& clicks, const metronome::SoundBank& bank,
                                  float master, size_t frames);

// Renders `frames` mono frames in blocks of irregular sizes 1..max_block
// drawn from `seed` (0: every block max_block).
std::vector<float> render_mono(metronome::MetronomeCore& core, size_t frames, uint32_t max_block,
                               uint32_t seed = 0);

// Empty when a and b agree within tol; else where and how they first differ.
std::string first_difference(const std::vector<float>& a, const std::vector<float>& b, float tol = 1e-6f);

// Deterministic block sizes 1..max.
class BlockSizes {
public:
    BlockSizes(uint32_t seed, uint32_t max) : state_(seed == 0 ? 1 : seed), max_(max), fixed_(seed == 0) {}
    uint32_t next();

private:
    uint32_t state_;
    uint32_t max_;
    bool fixed_;
};

MetronomeSnapshot snapshot(const metronome::MetronomeCore& core);

}  // namespace ws::test
