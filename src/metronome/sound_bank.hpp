// The click sounds: six sounds, each a normal and an accent table of mono
// float samples, rendered ahead of time for one sample rate so that the audio
// thread only copies and scales. Built by rebuild() (allocates); read-only
// afterwards, so any number of readers may share a built bank.
#pragma once

#include <cstdint>
#include <vector>

namespace ws::metronome {

enum class Waveform : int { sine = 0, triangle = 1, square = 2 };

// The generators, exposed for tests. Each returns an end-faded table of
// floor(rate x ms / 1000) samples (empty when that is 0).
std::vector<float> tone(double rate, double hz, double ms, double decay_per_s, Waveform wave,
                        double amplitude);
std::vector<float> noise_burst(double rate, double ms, double decay_per_s, double amplitude);
// Scales the last min(n, 64) samples toward zero so a click never ends on a step.
void end_fade(std::vector<float>& table);
// Adds b into a over the shorter length; a keeps its length.
void add_into(std::vector<float>& a, const std::vector<float>& b);

// A rate that is NaN, infinite, below 8000 or above 384000 Hz becomes 48000.
double sanitise_rate(double rate);

struct ClickTable {
    const float* samples = nullptr;
    int32_t length = 0;
};

class SoundBank {
public:
    static constexpr int kSounds = 6;

    // Renders all twelve tables for the sanitised rate, replacing the old
    // ones (pointers handed out before are invalid afterwards).
    void rebuild(double rate);

    double rate() const { return rate_; }
    // Any sound outside 0..5 is sound 0. Empty before the first rebuild.
    ClickTable table(int32_t sound, bool accent) const;

private:
    std::vector<float> tables_[kSounds][2];
    double rate_ = 48000.0;
};

}  // namespace ws::metronome
