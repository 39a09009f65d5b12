// Pitch of one analysis window by the normalised square-difference function
// with key-maximum picking, a check of the octave below for the odd harmonics
// that only a lower note has (src/tuner/NOTES.md), and the guard that replaces
// octave jumps by the median of recent estimates. Both are plain single-threaded objects; all
// allocation happens in configure().
#pragma once

#include <cstddef>
#include <cstdint>
#include <vector>

namespace ws::tuner {

struct PitchEstimate {
    double frequency = 0.0;  // Hz, 0 for no pitch
    double clarity = 0.0;    // NSDF value at the chosen lag
};

class PitchDetector {
public:
    static constexpr double kClarityThreshold = 0.6;
    static constexpr double kSilenceThreshold = 0.0025;
    // A window with at least this share of its power at the odd harmonics of
    // the octave below the chosen period is that lower note (-30 dB).
    static constexpr double kLowerOctaveShare = 0.001;
    // ...provided the second strongest of those odd harmonics alone holds at
    // least this share (-40 dB).
    static constexpr double kLowerOctaveSecond = 0.0001;
    // A key maximum at a half or a third of the chosen period with at least
    // this share of the best value is taken instead, the octave below it then
    // weighed as above.
    static constexpr double kShorterClarity = 0.7;

    // rate is the (decimated) rate the windows arrive at; n the window length.
    void configure(double rate, double lowest_hz, double highest_hz, uint64_t n);
    PitchEstimate detect(const float* x, size_t n);

    int32_t max_lag() const { return max_lag_; }
    uint64_t window() const { return n_; }
    // NSDF values of the last detect(), index = lag (0 and 1 unused).
    const std::vector<double>& values() const { return values_; }
    // The first lower octave the last detect() weighed (0 Hz if none) and
    // its odd-harmonic share.
    double lower_octave_hz() const { return lower_hz_; }
    double lower_octave_share() const { return share_; }
    double lower_octave_second() const { return second_; }

private:
    void compute_nsdf(size_t n);

    double rate_ = 0.0;
    uint64_t n_ = 0;
    int32_t min_lag_ = 0;
    int32_t max_lag_ = 0;
    std::vector<double> centred_;  // mean-removed window
    std::vector<double> energy_;   // prefix sums of squares of centred_, n + 1 entries
    std::vector<double> values_;
    std::vector<int32_t> maxima_;
    double lower_hz_ = 0.0;
    double share_ = 0.0;
    double second_ = 0.0;
};

// What x[0..n) holds at the odd harmonics 1, 3, 5 and 7 of a period of
// `period` samples (those below 0.45 cycles per sample), from a Hann-windowed
// DFT over the largest whole number m of periods in the middle of x, as
// shares of the window's power: each harmonic counts by what it stands above
// kFloorFactor times its floor (the mean of the bins half way between
// harmonics, two on each side; no floor when m < 4). `share` sums them,
// `second` is the second largest. Zero when fewer than two periods fit or x
// is silent.
struct OddHarmonics {
    double share = 0.0;
    double second = 0.0;
};
constexpr double kFloorFactor = 10.0;
OddHarmonics odd_harmonics(const double* x, size_t n, double period);

// Replaces a single estimate more than 80 cents away from the median of the
// last five by that median; three misses in a row forget the history.
class OctaveGuard {
public:
    PitchEstimate apply(PitchEstimate in);
    void clear() { count_ = 0; misses_ = 0; }
    int32_t count() const { return count_; }

private:
    double history_[5] = {};
    int32_t count_ = 0;
    int32_t misses_ = 0;
};

// Ways of computing the function's cross sums. All give the same values up to
// summation order and rounding; which ones exist depends on the build target
// and the CPU.
enum class NsdfKernel : int32_t { scalar = 0, sse2 = 1, avx2 = 2 };

bool nsdf_kernel_supported(NsdfKernel kernel);
// The kernel detect() uses: the fastest supported one unless pinned.
NsdfKernel nsdf_kernel();
// Makes detect() use `kernel` process-wide (benchmarks and tests compare
// them); false, and no change, if this build or CPU lacks it.
bool pin_nsdf_kernel(NsdfKernel kernel);
// values[tau] = 2 sum x[i]x[i+tau] / sum (x[i]^2 + x[i+tau]^2), i < n - tau,
// for tau = 2..top (top < n), with `prefix` the n + 1 prefix sums of x^2.
// `kernel` must be supported.
void nsdf_values(NsdfKernel kernel, const double* x, const double* prefix, size_t n, size_t top,
                 double* values);

// 1200 * log2(f / ref), 0 when either is not positive.
double cents_between(double f, double ref);

}  // namespace ws::tuner
