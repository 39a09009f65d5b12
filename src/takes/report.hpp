// The practice report of a take: the notes played, where each began against
// a beat grid, and how far from the note it was in cents.
//
// Onsets come from the audio (spectral flux, placed to the millisecond by
// the rise of the short-time energy); notes come from the tuner's pitch track
// over the same audio (the tuner's offline core, the one pure piece of the
// tuner the take tools use). A note is a run of pitched track readings on one
// note, begun at the onset that lies under its first window; onsets without
// pitch (noise, a click) and pitch without an onset make no note.
#pragma once

#include <cstddef>
#include <cstdint>
#include <vector>

#include "woodshed/tuner.h"

namespace ws::takes {

struct ReportGrid {
    double tempo_bpm = 120.0;
    double first_beat_frame = 0.0;
    int beats_per_bar = 4;
    int subdivision = 1;  // grid steps per beat
};

struct ReportNote {
    int64_t onset_frame = 0;
    int64_t duration_frames = 0;
    int64_t grid_frame = 0;
    double deviation_ms = 0.0;  // onset - grid position; negative = early
    double frequency_hz = 0.0;  // median over the held part
    double cents = 0.0;         // median deviation from the note
    double cents_spread = 0.0;  // interquartile range of the same
    int note = -1;
    int64_t grid_index = 0;     // steps from the first beat
};

struct ReportSummary {
    double mean_abs_deviation_ms = 0.0;
    double share_within_20ms = 0.0;
    double mean_abs_cents = 0.0;
    double share_within_10_cents = 0.0;
};

// Onset frames found by spectral flux and placed by the energy rise, in
// order. Exposed for the known-answer tests.
std::vector<int64_t> detect_onsets(const float* x, size_t n, uint32_t rate);

// The notes of a mono take at `rate`, analysed with `tuner` (null: defaults;
// the fixed-note setting is ignored, notes are always the nearest ones).
// Throws std::bad_alloc.
std::vector<ReportNote> report_notes(const float* x, size_t n, uint32_t rate,
                                     const TunerConfig* tuner, const ReportGrid& grid);

ReportSummary summarise(const std::vector<ReportNote>& notes);

}  // namespace ws::takes
