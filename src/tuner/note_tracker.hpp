// Turns each frame's guarded pitch estimate into a TunerReading: names the
// target note, smooths the cents, takes a new note only on its second
// consecutive frame, holds the last note through short dropouts and advances
// the strobe phase.
#pragma once

#include <cstdint>

#include "woodshed/tuner.h"

namespace ws::tuner {

// What the analyser knows about the framing, for time stamps and the strobe.
struct FrameTiming {
    uint64_t hop = 0;          // samples at the decimated rate
    uint64_t window = 0;       // N
    uint32_t decimation = 1;   // d
    double sample_rate = 0.0;  // R, input rate
    double decimated_rate = 0.0;  // r = R / d
};

struct FrameInput {
    double frequency = 0.0;  // after the octave guard; 0 for none
    double clarity = 0.0;
    double peak = 0.0;
    double rms = 0.0;
    bool clipped = false;
};

class NoteTracker {
public:
    static constexpr int32_t kMaxHeldFrames = 6;

    void clear();
    // Updates `reading` (the previous frame's reading) in place.
    void update(TunerReading& reading, const FrameInput& in, const FrameTiming& timing,
                const TunerConfig& config);
    void reset_strobe() { strobe_ = 0.0; }

private:
    int32_t current_ = -1;
    int32_t candidate_ = -1;
    int32_t candidate_count_ = 0;
    int32_t misses_ = 0;
    double smoothed_ = 0.0;
    double strobe_ = 0.0;
};

// Nearest MIDI note to f at the given A4 (halves away from zero), and the
// frequency of a note.
int32_t note_of(double f, double a4);
double note_frequency(int32_t note, double a4);

}  // namespace ws::tuner
