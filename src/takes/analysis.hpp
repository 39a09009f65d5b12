// Where a reference recording lies inside a take: a coarse delay search by
// phase-transform cross-correlation on block-averaged signals over the whole
// allowed range, then a fine search at the full rate around the coarse peak.
// See NOTES.md for the reasoning behind the numbers.
//
// Plain functions on caller-owned arrays; every buffer is local to the call.
// They may throw std::bad_alloc (the exports catch it).
#pragma once

#include <complex>
#include <cstddef>
#include <cstdint>
#include <vector>

namespace ws::takes {

struct DelayEstimate {
    bool valid = false;
    int64_t delay_frames = 0;  // take position of the reference's first frame
    double score = 0.0;        // peak over background, in standard deviations
};

// A correlation peak counts as clear when it stands this many standard
// deviations above the background (the lags away from it).
inline constexpr double kValidScore = 8.0;

struct Peak {
    bool found = false;  // enough background to judge
    int64_t lag = 0;     // first of the highest values
    double value = 0.0;
    double score = 0.0;  // (value - background mean) / background deviation
};

// The highest real part of r over lags lo .. hi (a negative lag d reads
// r[n + d]) and its score against the lags more than `guard` away; not
// found when fewer than `min_background` lags are left for the background.
Peak find_peak(const std::complex<float>* r, size_t n, int64_t lo, int64_t hi, int64_t guard,
               int64_t min_background);

// Means of `factor` consecutive samples (summed in float); the incomplete
// last block is dropped.
std::vector<float> block_average(const float* x, size_t count, size_t factor);

// x[i] = x[i] * conj(y[i]), then scaled to unit magnitude (0 where the
// magnitude is at most 1e-12): the phase transform, which weights every
// frequency alike so the correlation peak is sharp whatever the spectrum.
void phase_transform_product(std::complex<float>* x, const std::complex<float>* y, size_t n);

// The delay of reference a (na frames) in take b (nb frames) at `rate`,
// searched in [min_delay, max_delay] frames (negative: the take leads).
// Gives up (all zero) when either signal is shorter than a quarter second,
// the range is empty or there is too little correlation background.
DelayEstimate find_delay(const float* a, size_t na, const float* b, size_t nb, int64_t rate,
                         int64_t min_delay, int64_t max_delay);

}  // namespace ws::takes
