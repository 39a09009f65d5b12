// Removal of a leaked reference from a take. The leak is modelled as a
// 2048-tap filter on the reference, starting 256 frames before the delay
// that the analysis found; the filter is the least-squares fit over the whole
// take (normal equations from accumulated correlations, solved by conjugate
// gradients with a circulant operator), and the filtered reference is
// subtracted block by block. A small clock drift between the two recordings
// is measured first and, when plausible, corrected by resampling the
// reference. NOTES.md has the derivations.
//
// Plain functions on caller-owned arrays; every buffer is local to the call.
// They may throw std::bad_alloc (the exports catch it).
#pragma once

#include <cstddef>
#include <cstdint>
#include <vector>

#include "takes/fft.hpp"

namespace ws::takes {

inline constexpr size_t kTaps = 2048;
inline constexpr int64_t kTapsBeforeDelay = 256;
inline constexpr size_t kMinCleanFrames = 8192;
inline constexpr size_t kMinDriftFrames = 393216;

// Cubic (Catmull-Rom) value of a[0 .. n) at fractional position x; samples
// outside the array count as 0.
float catmull_rom(const float* a, size_t n, double x);

// The reference as the cleaning passes see it, by reference index q (the
// take position q + base lines up with it at the filter's first tap): the
// samples themselves, or, when a drift is corrected, the resampler at
// (q + base) * scale - base.
class ReferenceReader {
public:
    ReferenceReader(const float* a, size_t n, int64_t base, double scale, bool resample)
        : a_(a), n_(n), base_(base), scale_(scale), resample_(resample) {}
    float at(int64_t q) const {
        if (resample_) {
            return catmull_rom(a_, n_, static_cast<double>(q + base_) * scale_ -
                                           static_cast<double>(base_));
        }
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
};

struct DriftPoint {
    double position;  // take frame at the middle of the segment
    double residual;  // measured delay minus the given one, in frames
};

// Residual delays of up to eight 131072-frame segments spread over the take
// (none for takes shorter than 393216 frames). ratio 0 reads the reference
// directly, otherwise through the resampler at position * ratio.
std::vector<DriftPoint> drift_points(const float* a, size_t na, const float* b, size_t nb,
                                     int64_t lag, double ratio, const FftTable& big);

// Median of the pairwise slopes (upper median); 0 for fewer than 3 points.
double robust_slope(const std::vector<DriftPoint>& points);

// Relative clock drift of the take against the reference (1e-4: the take
// runs 100 ppm long), or 0 when none is found or it is implausible.
double estimate_drift(const float* a, size_t na, const float* b, size_t nb, int64_t lag,
                      const FftTable& big);

// cross[k] += sum over the take of b[t] * ref(t - base - k), autoc[k] +=
// sum of ref(q) * ref(q + k), k < kTaps, in 131072-frame blocks.
void accumulate_correlations(const ReferenceReader& ref, const float* b, size_t nb,
                             const FftTable& big, double* cross, double* autoc);

// h with (Toeplitz(autoc) + 2e-5 * autoc[0] * I) h = cross, kTaps entries.
std::vector<double> solve_leak_filter(const double* autoc, const double* cross);

// b[t] -= sum_k h[k] ref(t - base - k) wherever the reference carries signal;
// before and after accumulate the take's energy over the blocks changed.
void subtract_leak(const ReferenceReader& ref, float* b, size_t nb, const double* h,
                   double& before, double& after);

struct CleanReport {
    double reduction_db = 0.0;
    double drift = 0.0;  // the correction applied, 0 for none
};

// Cleans take b in place against reference a with the leak at `lag` frames.
// False (b untouched) when the take is shorter than 8192 frames or the
// reference is empty. A silent reference is success with b unchanged.
bool clean_take(const float* a, size_t na, std::vector<float>& b, int64_t lag, CleanReport& report);

}  // namespace ws::takes
