// The tuner's analysis chain: sanitise and meter samples, decimate high
// rates, band-limit to 58..1800 Hz, cut into half-overlapping windows and run
// each through detector, octave guard and note tracker. Single-threaded, no
// locks; every buffer is sized in reset(), so push() never allocates.
#pragma once

#include <cstddef>
#include <cstdint>
#include <vector>

#include "tuner/detector.hpp"
#include "tuner/note_tracker.hpp"
#include "woodshed/tuner.h"

namespace ws::tuner {

struct Biquad {
    double b0 = 0, b1 = 0, b2 = 0, a1 = 0, a2 = 0;
    double s1 = 0, s2 = 0;
    void run(float* x, size_t n);
};

class PitchAnalyser {
public:
    static constexpr size_t kChunk = 4096;

    explicit PitchAnalyser(const TunerConfig* config);

    // Drops all buffered audio and the current reading; a non-finite rate or
    // one outside 8000..384000 Hz is taken as 48000.
    void reset(double sample_rate);
    // Applies new settings: a changed frequency range resets, a changed
    // target note or A4 only zeroes the strobe phase.
    void configure(const TunerConfig* config);
    void push(const float* samples, size_t count);
    // Copies the current reading without consuming it; false before the
    // first frame.
    bool current_reading(TunerReading* out) const;

    // Scratch for callers that mix channels down before push (kChunk floats).
    float* mix_buffer() { return mix_.data(); }

    // Every frame's reading is also copied here, up to `capacity` of them
    // (nullptr: none).
    void set_track(TunerReading* track, size_t capacity) {
        track_ = track;
        track_capacity_ = capacity;
        track_written_ = 0;
    }
    bool track_full() const { return track_ != nullptr && track_written_ == track_capacity_; }

    const TunerConfig& config() const { return config_; }
    double sample_rate() const { return timing_.sample_rate; }
    double decimated_rate() const { return timing_.decimated_rate; }
    uint32_t decimation() const { return timing_.decimation; }
    uint64_t window() const { return timing_.window; }
    uint64_t hop() const { return timing_.hop; }
    const PitchDetector& detector() const { return detector_; }
    const Biquad* filters() const { return filters_; }

private:
    void design_filters(double rate);
    void analyse_frame();

    TunerConfig config_;
    FrameTiming timing_;
    Biquad filters_[3];
    PitchDetector detector_;
    OctaveGuard guard_;
    NoteTracker tracker_;

    std::vector<float> analysis_;  // N + kChunk
    size_t fill_ = 0;
    std::vector<float> decimated_;  // kChunk
    std::vector<float> mix_;        // kChunk

    float dec_sum_ = 0.0f;
    uint32_t dec_count_ = 0;

    double peak_ = 0.0;
    double sum_squares_ = 0.0;
    uint64_t level_count_ = 0;
    bool clip_ = false;
    uint64_t total_ = 0;

    TunerReading reading_;
    bool has_reading_ = false;

    TunerReading* track_ = nullptr;
    size_t track_capacity_ = 0;
    size_t track_written_ = 0;
};

// Window length for a decimated rate and lowest frequency: the power of two
// covering 2.2 periods of the lowest note, kept within 1024..8192.
uint64_t window_length(double decimated_rate, double lowest_hz);
// Decimation factor for an input rate: 1 up to 55 kHz, else R/48000 rounded, 1..8.
uint32_t decimation_factor(double sample_rate);
// The rate actually used for a requested one.
double usable_rate(double sample_rate);

}  // namespace ws::tuner
