// Removal of a leaked reference from a take. The leak is modelled as one
// room (a filter of up to 0.8 s on the reference) heard through one or more
// alignments: the round trip may jump mid-take, and the take's clock may
// drift. Segments along the take measure the delay (jumps and drift come
// from them); the filter is estimated from accumulated correlations in two
// passes (a plain fit that shows how fast the room decays, then a fit under
// a prior that the room's energy decays exponentially), solved by conjugate
// gradients with a circulant operator, then refitted under the same prior on
// the player's rests alone; the filtered reference is subtracted stretch by
// stretch, and only where it lowers the energy by more than chance would.
// NOTES.md has the maths.
//
// Plain functions on caller-owned arrays; every buffer is local to the call.
// They may throw std::bad_alloc (the exports catch it).
#pragma once

#include <cstddef>
#include <cstdint>
#include <vector>

#include "takes/fft.hpp"

namespace ws::takes {

inline constexpr size_t kMinCleanFrames = 8192;
inline constexpr size_t kMinDriftFrames = 393216;
inline constexpr size_t kSegment = 131072;      // take frames per delay measurement
inline constexpr int64_t kJumpSearch = 16384;   // +- frames around the given delay

// Filter taps before the given delay (the analysis may have locked onto an
// early reflection rather than the direct sound) and in all, at `rate`.
int64_t taps_before_delay(double rate);
size_t max_taps(double rate);

// Cubic (Catmull-Rom) value of a[0 .. n) at fractional position x; samples
// outside the array count as 0.
float catmull_rom(const float* a, size_t n, double x);

// The reference as the cleaning passes see it, by reference index q (the
// take position q + base lines up with it at the filter's first tap): the
// samples themselves, or, when a drift is corrected, the resampler at
// (q + base) * scale - base.
class ReferenceReader {
public:
    // shift: the direct reading of index q takes a[q - shift].
    ReferenceReader(const float* a, size_t n, int64_t base, double scale, bool resample,
                    int64_t shift = 0)
        : a_(a), n_(n), base_(base), scale_(scale), resample_(resample), shift_(shift) {}
    float at(int64_t q) const {
        if (resample_) {
            return catmull_rom(a_, n_, static_cast<double>(q + base_) * scale_ -
                                           static_cast<double>(base_));
        }
        q -= shift_;
        return q >= 0 && static_cast<uint64_t>(q) < n_ ? a_[q] : 0.0f;
    }
    // out[j] = at(first + j), j < count.
    void read(int64_t first, size_t count, float* out) const;
    int64_t base() const { return base_; }

private:
    const float* a_;
    size_t n_;
    int64_t base_;
    double scale_;
    bool resample_;
    int64_t shift_;
};

// a read at positions i / stretch, i < count: a 32-tap windowed sinc, for a
// whole reference brought onto the take's clock once.
std::vector<float> resample(const float* a, size_t na, double stretch, size_t count);

// A stretch of the take heard through one alignment.
struct Stretch {
    int64_t start = 0;   // first take frame
    int64_t end = 0;     // one past the last
    int64_t delay = 0;   // the round trip in this stretch, frames
    bool cleaned = false;
};

// Where the leak lies along the take: the stretches between jumps (one when
// there is none) and the clock drift (1e-4: the take runs 100 ppm long; 0
// when none is found or it is implausible). Stretch boundaries here are
// the middle of the uncertain zones; cleaning places them to the frame.
struct Alignment {
    std::vector<Stretch> stretches;
    std::vector<int64_t> zone_start, zone_end;  // around each boundary
    double drift = 0.0;
};

Alignment find_alignment(const float* a, size_t na, const float* b, size_t nb, int64_t lag,
                         const FftTable& big);

// h = D g with (D T D + mu I) g = D cross, T the symmetric Toeplitz matrix
// of autoc, D = diag(prior_sd); at most `iterations` conjugate-gradient
// steps. Taps: autoc.size().
std::vector<double> solve_leak_filter(const std::vector<double>& autoc,
                                      const std::vector<double>& cross,
                                      const std::vector<double>& prior_sd, double mu,
                                      int iterations);

struct CleanReport {
    double reduction_db = 0.0;  // over the frames changed
    double drift = 0.0;         // the correction applied, 0 for none
    size_t taps = 0;            // room length used, frames
    double rt60 = 0.0;          // decay the prior assumed, s
    std::vector<Stretch> stretches;
    bool changed = false;       // false: the take is as it came in
};

// Cleans take b in place against reference a with the leak at `lag` frames
// (where the search starts) at `rate`. False (b untouched) when the take is
// shorter than 8192 frames or the reference is empty. A silent reference,
// or a take that no subtraction makes quieter, is success with b unchanged.
bool clean_take(const float* a, size_t na, std::vector<float>& b, int64_t lag, double rate,
                CleanReport& report);

}  // namespace ws::takes
