#include "tuner/detector.hpp"

#include <algorithm>
#include <atomic>
#include <cmath>
#include <cstdlib>

// SSE2 is part of every x86-64 target. The AVX2+FMA kernel is compiled for
// its own target and chosen at run time, which needs the GCC/clang function
// attributes and CPU query; MSVC builds keep to SSE2.
#if defined(__SSE2__) || defined(_M_X64) || (defined(_M_IX86_FP) && _M_IX86_FP >= 2)
#  include <emmintrin.h>
#  define WS_NSDF_SSE2 1
#else
#  define WS_NSDF_SSE2 0
#endif
#if (defined(__x86_64__) || defined(__i386__)) && defined(__GNUC__) && !defined(_MSC_VER)
#  include <immintrin.h>
#  define WS_NSDF_AVX2 1
#else
#  define WS_NSDF_AVX2 0
#endif

namespace ws::tuner {

double cents_between(double f, double ref) {
    if (!(f > 0.0) || !(ref > 0.0)) return 0.0;
    return 1200.0 * std::log2(f / ref);
}

void PitchDetector::configure(double rate, double lowest_hz, double highest_hz, uint64_t n) {
    rate_ = rate;
    n_ = n;
    const int64_t last = n > 1 ? static_cast<int64_t>(n) - 1 : 1;
    int64_t lo = static_cast<int64_t>(rate / highest_hz);  // truncation toward zero
    lo = std::clamp<int64_t>(lo, 2, std::max<int64_t>(2, last));
    const int64_t reach = std::min(static_cast<int64_t>(std::ceil(rate / lowest_hz)), last);
    min_lag_ = static_cast<int32_t>(lo);
    max_lag_ = static_cast<int32_t>(std::max(lo + 1, reach));
    centred_.assign(n, 0.0);
    energy_.assign(n + 1, 0.0);
    values_.assign(static_cast<size_t>(max_lag_) + 1, 0.0);
    maxima_.clear();
    maxima_.reserve(static_cast<size_t>(max_lag_) / 2 + 2);
}

namespace {

// The cross sums c(tau) = sum_{i < n - tau} x[i] * x[i + tau] are computed
// for a block of consecutive lags at a time, so each load of x[i] serves the
// whole block. Lag tau + k at step i and lag tau + k + W at step i - W read
// the same W-wide y-vector, so a block wider than W can also hand y-vectors
// on from one step to the next in registers (the scalar and AVX2 kernels do).
// Every kernel differs from the plain loop only in the order of the additions
// (and, with FMA, in the rounding of the products).

// Adds, for each lag of the block, the terms from `from` up to that lag's own
// end, which the vector loop (running only while all L lags are valid) left out.
template <size_t L>
inline void finish_block(const double* x, size_t n, size_t tau, size_t from, double* acc) {
    const double* y = x + tau;
    for (size_t k = 0; k < L; ++k) {
        const size_t end = n - tau - k;
        double s = acc[k];
        for (size_t i = from; i < end; ++i) s += x[i] * y[i + k];
        acc[k] = s;
    }
}

double cross_one(const double* x, size_t n, size_t tau) {
    double a = 0.0, b = 0.0;
    const size_t len = n - tau;
    size_t i = 0;
    for (; i + 2 <= len; i += 2) {
        a += x[i] * x[i + tau];
        b += x[i + 1] * x[i + 1 + tau];
    }
    if (i < len) a += x[i] * x[i + tau];
    return a + b;
}

// Eight lags, one scalar step at a time: two loads per eight multiply-adds
// and eight independent sums, which suits targets without the vector paths.
constexpr size_t kScalarLags = 8;
void cross_block_scalar(const double* x, size_t n, size_t tau, double* out) {
    const double* y = x + tau;
    const size_t common = n - tau - (kScalarLags - 1);
    double s0 = 0, s1 = 0, s2 = 0, s3 = 0, s4 = 0, s5 = 0, s6 = 0, s7 = 0;
    size_t i = 0;
    if (common > 0) {
        double y0 = y[0], y1 = y[1], y2 = y[2], y3 = y[3], y4 = y[4], y5 = y[5], y6 = y[6];
        for (; i < common; ++i) {
            const double xi = x[i];
            const double y7 = y[i + 7];
            s0 += xi * y0;
            s1 += xi * y1;
            s2 += xi * y2;
            s3 += xi * y3;
            s4 += xi * y4;
            s5 += xi * y5;
            s6 += xi * y6;
            s7 += xi * y7;
            y0 = y1; y1 = y2; y2 = y3; y3 = y4; y4 = y5; y5 = y6; y6 = y7;
        }
    }
    out[0] = s0; out[1] = s1; out[2] = s2; out[3] = s3;
    out[4] = s4; out[5] = s5; out[6] = s6; out[7] = s7;
    finish_block<kScalarLags>(x, n, tau, i, out);
}

#if WS_NSDF_SSE2
// Four lags, two steps of two-wide vectors per iteration with a sum set for
// each step: eight loads, multiplies and adds per sixteen products. SSE2's
// two-operand forms need a copy or a load for every product, so this is
// about as close to the multiply and add throughput as it gets; carrying
// more y-vectors only adds register copies.
constexpr size_t kSse2Lags = 4;
void cross_block_sse2(const double* x, size_t n, size_t tau, double* out) {
    const double* y = x + tau;
    const size_t common = n - tau - (kSse2Lags - 1);
    __m128d a0 = _mm_setzero_pd(), a1 = a0, a2 = a0, a3 = a0;
    __m128d b0 = a0, b1 = a0, b2 = a0, b3 = a0;
    size_t i = 0;
    for (; i + 4 <= common; i += 4) {
        const __m128d x0 = _mm_loadu_pd(x + i);
        const __m128d x1 = _mm_loadu_pd(x + i + 2);
        const __m128d y0 = _mm_loadu_pd(y + i);
        const __m128d y1 = _mm_loadu_pd(y + i + 1);
        const __m128d y2 = _mm_loadu_pd(y + i + 2);
        const __m128d y3 = _mm_loadu_pd(y + i + 3);
        const __m128d y4 = _mm_loadu_pd(y + i + 4);
        const __m128d y5 = _mm_loadu_pd(y + i + 5);
        a0 = _mm_add_pd(a0, _mm_mul_pd(x0, y0));
        b0 = _mm_add_pd(b0, _mm_mul_pd(x1, y2));
        a1 = _mm_add_pd(a1, _mm_mul_pd(x0, y1));
        b1 = _mm_add_pd(b1, _mm_mul_pd(x1, y3));
        a2 = _mm_add_pd(a2, _mm_mul_pd(x0, y2));
        b2 = _mm_add_pd(b2, _mm_mul_pd(x1, y4));
        a3 = _mm_add_pd(a3, _mm_mul_pd(x0, y3));
        b3 = _mm_add_pd(b3, _mm_mul_pd(x1, y5));
    }
    const __m128d sums[kSse2Lags] = {_mm_add_pd(a0, b0), _mm_add_pd(a1, b1), _mm_add_pd(a2, b2),
                                     _mm_add_pd(a3, b3)};
    for (size_t k = 0; k < kSse2Lags; ++k) {
        out[k] = _mm_cvtsd_f64(sums[k]) + _mm_cvtsd_f64(_mm_unpackhi_pd(sums[k], sums[k]));
    }
    finish_block<kSse2Lags>(x, n, tau, i, out);
}
#endif

#if WS_NSDF_AVX2
// Eight lags in four-wide vectors with FMA: five loads per eight FMAs keeps
// both FMA pipes busy, and eight independent sums cover the FMA latency.
// Eight sums, four carried y-vectors, the x-vector and one fresh load fit the
// sixteen registers without spilling.
constexpr size_t kAvx2Lags = 8;
__attribute__((target("avx2,fma"))) void cross_block_avx2(const double* x, size_t n, size_t tau,
                                                          double* out) {
    const double* y = x + tau;
    const size_t common = n - tau - (kAvx2Lags - 1);
    __m256d s0 = _mm256_setzero_pd(), s1 = s0, s2 = s0, s3 = s0, s4 = s0, s5 = s0, s6 = s0,
            s7 = s0;
    size_t i = 0;
    if (common >= 4) {
        __m256d c0 = _mm256_loadu_pd(y), c1 = _mm256_loadu_pd(y + 1);
        __m256d c2 = _mm256_loadu_pd(y + 2), c3 = _mm256_loadu_pd(y + 3);
        for (; i + 4 <= common; i += 4) {
            const __m256d xv = _mm256_loadu_pd(x + i);
            s0 = _mm256_fmadd_pd(xv, c0, s0);
            s1 = _mm256_fmadd_pd(xv, c1, s1);
            s2 = _mm256_fmadd_pd(xv, c2, s2);
            s3 = _mm256_fmadd_pd(xv, c3, s3);
            c0 = _mm256_loadu_pd(y + i + 4);
            s4 = _mm256_fmadd_pd(xv, c0, s4);
            c1 = _mm256_loadu_pd(y + i + 5);
            s5 = _mm256_fmadd_pd(xv, c1, s5);
            c2 = _mm256_loadu_pd(y + i + 6);
            s6 = _mm256_fmadd_pd(xv, c2, s6);
            c3 = _mm256_loadu_pd(y + i + 7);
            s7 = _mm256_fmadd_pd(xv, c3, s7);
        }
    }
    // Horizontal sums, two lags per hadd.
    const __m256d h01 = _mm256_hadd_pd(s0, s1), h23 = _mm256_hadd_pd(s2, s3);
    const __m256d h45 = _mm256_hadd_pd(s4, s5), h67 = _mm256_hadd_pd(s6, s7);
    _mm256_storeu_pd(out, _mm256_add_pd(_mm256_permute2f128_pd(h01, h23, 0x20),
                                        _mm256_permute2f128_pd(h01, h23, 0x31)));
    _mm256_storeu_pd(out + 4, _mm256_add_pd(_mm256_permute2f128_pd(h45, h67, 0x20),
                                            _mm256_permute2f128_pd(h45, h67, 0x31)));
    finish_block<kAvx2Lags>(x, n, tau, i, out);
}
#endif

using CrossBlock = void (*)(const double*, size_t, size_t, double*);

template <size_t L>
void nsdf_blocked(CrossBlock block, const double* x, const double* p, size_t n, size_t top,
                  double* values) {
    auto store = [&](size_t tau, double cross) {
        // m = sum over the overlap of x[i]^2 + x[i+tau]^2, from prefix sums.
        const double m = p[n - tau] + (p[n] - p[tau]);
        values[tau] = m > 0.0 ? 2.0 * cross / m : 0.0;
    };
    double c[L];
    size_t tau = 2;
    // Blocks only while the overlap is long enough for their vector loops to matter.
    for (; tau + L - 1 <= top && n - tau >= L + 16; tau += L) {
        block(x, n, tau, c);
        for (size_t k = 0; k < L; ++k) store(tau + k, c[k]);
    }
    for (; tau <= top; ++tau) store(tau, cross_one(x, n, tau));
}

NsdfKernel detect_best_kernel() {
#if WS_NSDF_AVX2
    __builtin_cpu_init();
    if (__builtin_cpu_supports("avx2") && __builtin_cpu_supports("fma")) return NsdfKernel::avx2;
#endif
#if WS_NSDF_SSE2
    return NsdfKernel::sse2;
#else
    return NsdfKernel::scalar;
#endif
}

NsdfKernel best_kernel() {
    static const NsdfKernel best = detect_best_kernel();
    return best;
}

std::atomic<int32_t>& active_kernel() {
    static std::atomic<int32_t> active{static_cast<int32_t>(best_kernel())};
    return active;
}

}  // namespace

bool nsdf_kernel_supported(NsdfKernel kernel) {
    switch (kernel) {
    case NsdfKernel::scalar:
        return true;
    case NsdfKernel::sse2:
        return WS_NSDF_SSE2 != 0;
    case NsdfKernel::avx2:
        return best_kernel() == NsdfKernel::avx2;
    }
    return false;
}

NsdfKernel nsdf_kernel() {
    return static_cast<NsdfKernel>(active_kernel().load(std::memory_order_relaxed));
}

bool pin_nsdf_kernel(NsdfKernel kernel) {
    if (!nsdf_kernel_supported(kernel)) return false;
    active_kernel().store(static_cast<int32_t>(kernel), std::memory_order_relaxed);
    return true;
}

void nsdf_values(NsdfKernel kernel, const double* x, const double* prefix, size_t n, size_t top,
                 double* values) {
    if (n < 2) return;
    top = std::min(top, n - 1);
    switch (kernel) {
#if WS_NSDF_AVX2
    case NsdfKernel::avx2:
        nsdf_blocked<kAvx2Lags>(cross_block_avx2, x, prefix, n, top, values);
        return;
#endif
#if WS_NSDF_SSE2
    case NsdfKernel::sse2:
        nsdf_blocked<kSse2Lags>(cross_block_sse2, x, prefix, n, top, values);
        return;
#endif
    default:
        nsdf_blocked<kScalarLags>(cross_block_scalar, x, prefix, n, top, values);
        return;
    }
}

void PitchDetector::compute_nsdf(size_t n) {
    nsdf_values(nsdf_kernel(), centred_.data(), energy_.data(), n, static_cast<size_t>(max_lag_),
                values_.data());
}

PitchEstimate PitchDetector::detect(const float* x, size_t n) {
    if (n < 256 || n != n_ || n_ == 0) return {};
    double sum = 0.0;
    for (size_t i = 0; i < n; ++i) sum += x[i];
    const double mean = sum / static_cast<double>(n);
    double* c = centred_.data();
    double* p = energy_.data();
    p[0] = 0.0;
    for (size_t i = 0; i < n; ++i) {
        c[i] = static_cast<double>(x[i]) - mean;
        p[i + 1] = p[i] + c[i] * c[i];
    }
    const double rms = std::sqrt(p[n] / static_cast<double>(n));
    if (kSilenceThreshold > rms) return {};

    compute_nsdf(n);
    if (max_lag_ < 3) return {};

    // Key maxima: skip the lobe around lag 0, then keep the best lag of each
    // positive lobe (earliest on ties).
    const double* v = values_.data();
    maxima_.clear();
    int32_t tau = 2;
    while (v[tau] > 0.0 && tau < max_lag_) ++tau;
    int32_t best = -1;
    for (; tau < max_lag_; ++tau) {
        if (v[tau] > 0.0) {
            if (best < 0 || v[tau] > v[best]) best = tau;
        } else if (best >= 0) {
            if (best >= min_lag_) maxima_.push_back(best);
            best = -1;
        }
    }
    if (best >= 0 && best >= min_lag_) maxima_.push_back(best);
    if (maxima_.empty()) return {};

    double highest = 0.0;
    for (int32_t lag : maxima_) highest = std::max(highest, v[lag]);
    if (kClarityThreshold > highest) return {};

    // The shortest period that is nearly as periodic as the best keeps
    // sub-octave errors out.
    int32_t chosen = maxima_.front();
    for (int32_t lag : maxima_) {
        if (v[lag] >= 0.9 * highest) {
            chosen = lag;
            break;
        }
    }
    // An upper note over a quieter one an octave or a twelfth below it
    // (what leak removal leaves of a backing, say) repeats fully only at two
    // or three of its own periods. At its own period the rest, a share s of
    // the power, takes the value down by about 2s (octave) or 1.5s (twelfth),
    // so a value within 70 % of the best leaves s under 15..20 %: the shorter
    // period is taken, and the octave below is then weighed by its odd
    // harmonics like any other. A tone with 80 % of its power at harmonics 3,
    // 6, 9, ... of its period is no instrument's.
    for (bool shorter = true; shorter;) {
        shorter = false;
        const int32_t reach = std::max(2, chosen / 16);
        for (int32_t lag : maxima_) {
            if (lag >= chosen) break;
            const bool divides = std::abs(2 * lag - chosen) <= reach || std::abs(3 * lag - chosen) <= reach;
            if (divides && v[lag] >= std::max(kShorterClarity * highest, kClarityThreshold)) {
                chosen = lag;
                shorter = true;
                break;
            }
        }
    }
    auto refine = [&](int32_t lag) {
        if (lag < 1 || lag >= max_lag_) return static_cast<double>(lag);
        const double a = v[lag - 1], b = v[lag], cc = v[lag + 1];
        const double den = a - 2.0 * b + cc;
        return den != 0.0 ? lag + (a - cc) * 0.5 / den : static_cast<double>(lag);
    };
    double refined = refine(chosen);

    // A string with a weak fundamental and a weak third harmonic is nearly
    // periodic at half its period. Its odd harmonics tell it from a true tone
    // an octave up, which has no power at all between its own harmonics.
    lower_hz_ = 0.0;
    share_ = 0.0;
    second_ = 0.0;
    for (;;) {
        const int32_t reach = std::max(2, chosen / 16);
        int32_t lower = -1;
        for (int32_t lag : maxima_) {
            if (std::abs(lag - 2 * chosen) <= reach && (lower < 0 || v[lag] > v[lower])) lower = lag;
        }
        if (lower < 0 || v[lower] < 0.9 * highest) break;
        // Odd harmonics of the lower period change sign over the chosen one,
        // so a share s of them pulls its value down by about 2s: a value this
        // close to 1 leaves no room for a share at the threshold (and saves
        // the transform on clean tones).
        if (1.0 - v[chosen] < kLowerOctaveShare) break;
        const double period = refine(lower);
        const OddHarmonics odd = odd_harmonics(centred_.data(), n, period);
        if (lower_hz_ == 0.0) {
            lower_hz_ = rate_ / period;
            share_ = odd.share;
            second_ = odd.second;
        }
        // A lower note is heard through several of its odd harmonics; one
        // partial alone at one of them is an interval over the upper note
        // (a fifth above it, say), not a note below it.
        if (odd.share < kLowerOctaveShare || odd.second < kLowerOctaveSecond) break;
        chosen = lower;
        refined = period;
    }
    if (!(refined > 0.0)) return {};
    return {rate_ / refined, v[chosen]};
}

OddHarmonics odd_harmonics(const double* x, size_t n, double period) {
    constexpr double kTwoPi = 6.283185307179586;
    OddHarmonics out;
    if (!(period > 0.0)) return out;
    const double periods = std::floor(static_cast<double>(n) / period);
    if (periods < 2.0) return out;
    // Whole periods put every harmonic of the period on a zero of the Hann
    // window's spectrum but its own, so the even harmonics (a true tone an
    // octave up) leak nothing into the odd ones, and make the plain sum of
    // squares the power of the harmonics.
    const size_t len = std::min(n, static_cast<size_t>(std::lround(periods * period)));
    const double* y = x + (n - len) / 2;
    // Bins m = periods apart hold the harmonics; from m = 4 on, a bin half
    // way between two of them (rounded down) is 2 or more bins from every
    // harmonic and holds only what is not a harmonic at all: the floor.
    const int32_t m = static_cast<int32_t>(periods);
    const double half = m >= 4 ? static_cast<double>(m / 2) / periods : -1.0;
    // Slots 0..3 for harmonics 1, 3, 5 and 7, then the floor after harmonics
    // 0..7.
    constexpr int32_t kOdd = 4, kGaps = 8, kSlots = kOdd + kGaps;
    double coef[kSlots] = {};
    bool used[kSlots] = {};
    auto place = [&](int32_t slot, double harmonic) {
        const double cycles = harmonic / period;
        if (cycles < 0.45) {
            coef[slot] = 2.0 * std::cos(kTwoPi * cycles);
            used[slot] = true;
        }
    };
    for (int32_t k = 0; k < kOdd; ++k) place(k, 2.0 * k + 1.0);
    if (half > 0.0) {
        for (int32_t g = 0; g < kGaps; ++g) place(kOdd + g, g + half);
    }
    // Goertzel recurrences side by side, and the Hann window's cosine by the
    // same kind of recurrence. Each step's only dependence on the previous
    // one is one multiply-add.
    double s1[kSlots] = {}, s2[kSlots] = {};
    const double turn = 2.0 * std::cos(kTwoPi / static_cast<double>(len));
    double cos_now = 1.0, cos_before = std::cos(kTwoPi / static_cast<double>(len));
    double energy = 0.0;
    const int32_t slots = half > 0.0 ? kSlots : kOdd;
    for (size_t i = 0; i < len; ++i) {
        const double v = y[i];
        const double w = (0.5 - 0.5 * cos_now) * v;
        energy += v * v;
        for (int32_t k = 0; k < slots; ++k) {
            const double s0 = coef[k] * s1[k] + (w - s2[k]);
            s2[k] = s1[k];
            s1[k] = s0;
        }
        const double next = turn * cos_now - cos_before;
        cos_before = cos_now;
        cos_now = next;
    }
    if (!(energy > 0.0)) return out;
    // A partial of amplitude A gives |X|^2 = (A len / 4)^2 and A^2 len / 2
    // of energy; over whole periods distinct harmonics add no cross terms.
    const double scale = 8.0 / (static_cast<double>(len) * energy);
    auto power = [&](int32_t k) { return (s1[k] * s1[k] + s2[k] * s2[k] - coef[k] * s1[k] * s2[k]) * scale; };
    double first = 0.0;
    for (int32_t k = 0; k < kOdd; ++k) {
        if (!used[k]) continue;
        // The floor of harmonic j = 2k + 1: the two nearest gaps on each side
        // of it (three for j = 1 and 7).
        double floor = 0.0;
        int32_t count = 0;
        for (int32_t g = 2 * k - 1; g <= 2 * k + 2; ++g) {
            if (g >= 0 && g < kGaps && used[kOdd + g]) {
                floor += power(kOdd + g);
                ++count;
            }
        }
        if (count > 0) floor /= count;
        // Only a peak counts, by what it stands above kFloorFactor times its
        // floor.
        const double part = std::max(0.0, power(k) - kFloorFactor * floor);
        out.share += part;
        if (part > first) {
            out.second = first;
            first = part;
        } else {
            out.second = std::max(out.second, part);
        }
    }
    return out;
}

PitchEstimate OctaveGuard::apply(PitchEstimate in) {
    if (!(in.frequency > 0.0)) {
        if (++misses_ >= 3) count_ = 0;
        return in;
    }
    misses_ = 0;
    if (count_ == 5) {
        for (int i = 0; i < 4; ++i) history_[i] = history_[i + 1];
        history_[4] = in.frequency;
    } else {
        history_[count_++] = in.frequency;
    }
    // Insertion sort of at most five values.
    double sorted[5];
    for (int32_t i = 0; i < count_; ++i) {
        int32_t j = i;
        for (; j > 0 && sorted[j - 1] > history_[i]; --j) sorted[j] = sorted[j - 1];
        sorted[j] = history_[i];
    }
    const double median = sorted[count_ / 2];
    if (std::fabs(cents_between(in.frequency, median)) > 80.0) return {median, in.clarity};
    return in;
}

}  // namespace ws::tuner
