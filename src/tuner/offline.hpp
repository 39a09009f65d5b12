// Offline analysis of a buffer, shared by tn_offline_process, tn_offline_track
// and the take tools' report: a private analyser fed exactly as the live
// tuner would be, so a track's last reading is the single reading bit for bit.
// Pure: no device, no lock, nothing kept between calls.
#pragma once

#include <cstddef>
#include <cstdint>

#include "woodshed/tuner.h"

namespace ws::tuner {

// Runs the analysis over `frames` interleaved frames of `channels` (1..32)
// channels. Every frame's reading goes to `track` (up to `capacity`; the
// analysis stops once it is full) and the last one to `last` (either may be
// null). Returns the number of readings produced. Throws std::bad_alloc.
size_t analyse_offline(const TunerConfig* config, const float* samples, size_t frames,
                       size_t channels, double sample_rate, TunerReading* track, size_t capacity,
                       TunerReading* last);

// The number of readings analyse_offline gives for `frames` frames, without
// analysing: one per hop once a window is full.
size_t offline_reading_count(const TunerConfig* config, size_t frames, double sample_rate);

// Where a track's readings lie in the input: reading k's window covers input
// frames [k * hop, k * hop + window) (both in input frames, decimation
// included).
struct OfflineFrames {
    uint64_t window = 0;
    uint64_t hop = 0;
};
OfflineFrames offline_frames(const TunerConfig* config, double sample_rate);

}  // namespace ws::tuner
