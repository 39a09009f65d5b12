// Radix-2 complex transform, in place, for arrays of std::complex<float> or
// std::complex<double> whose length is a power of two. Forward is unscaled,
// inverse is scaled by 1/N.
//
// The arithmetic is fixed, because results are compared across builds and
// platforms: twiddles come from a double-precision recurrence w *= step
// (never a sin/cos table), every butterfly forms v = a[k + half] * w in
// double from the stored values, and u + v, u - v are rounded once to the
// array's precision. The speed comes from evaluation order only:
//  - the twiddle of index k is the same in every block of a stage, so it is
//    computed once per stage and applied across all blocks (FftTable keeps
//    them for repeated transforms of one length);
//  - FftTable runs the first stages segment by segment, so each segment
//    stays in cache through several stages;
//  - the bit reversal moves whole tiles through small buffers;
//  - the butterfly passes have a vector kernel (fft.cpp) that reproduces the
//    scalar rounding exactly (no fused multiply-add).
// The transforms never throw; only building an FftTable allocates.
#pragma once

#include <algorithm>
#include <cmath>
#include <complex>
#include <cstddef>
#include <utility>
#include <vector>

namespace ws::takes {

namespace fft_detail {

inline constexpr double kTwoPi = 6.283185307179586476925286766559;
// Twiddles generated per round of a stage by fft_in_place; 4 KiB of stack.
inline constexpr size_t kTwiddleChunk = 256;
// Segment sizes (complex entries) for the cache-resident stages: the first
// stages run per L1-sized segment, the next ones per L2-sized segment.
inline constexpr size_t kSegmentSmall = 2048;
inline constexpr size_t kSegmentLarge = 65536;

// Butterflies of one stage over every block of 2 * half entries in
// a[0 .. size), for the indices k0 .. k0 + count - 1 of each block, with the
// twiddles tw[2k], tw[2k + 1] (real, imaginary) of index k0 + k.
void pass(std::complex<float>* a, size_t size, size_t half, size_t k0, size_t count,
          const double* tw) noexcept;
void pass(std::complex<double>* a, size_t size, size_t half, size_t k0, size_t count,
          const double* tw) noexcept;

// Whether this build and CPU have the vector kernel; and, for tests and
// benchmarks, switching it off and on process-wide (false, and no change,
// when asked for a kernel that is not available). Both kernels give
// bit-identical results.
bool vector_kernel_available() noexcept;
bool use_vector_kernel(bool on) noexcept;

inline size_t reverse_bits(size_t x, unsigned bits) noexcept {
    size_t r = 0;
    for (unsigned b = 0; b < bits; ++b, x >>= 1) r = (r << 1) | (x & 1u);
    return r;
}

// The bit-reversal permutation. Any order of the same moves gives the same
// result; large arrays go tile by tile (indices split as high | middle | low,
// with 5-bit high and low parts) through two small buffers, so that each
// cache line is read once and written once even though the rows of a tile lie
// a power of two apart.
template <class T>
void bit_reverse(std::complex<T>* a, size_t n) noexcept {
    unsigned bits = 0;
    while ((size_t{1} << bits) < n) ++bits;
    constexpr unsigned kTile = 5;
    if (bits < 2 * kTile + 2) {
        size_t j = 0;
        for (size_t i = 1; i < n; ++i) {
            size_t bit = n >> 1;
            for (; (j & bit) != 0; bit >>= 1) j ^= bit;
            j ^= bit;
            if (i < j) std::swap(a[i], a[j]);
        }
        return;
    }
    constexpr size_t kSide = size_t{1} << kTile;
    size_t rev[kSide];
    for (size_t t = 0; t < kSide; ++t) rev[t] = reverse_bits(t, kTile);
    const unsigned mid_bits = bits - 2 * kTile;
    const unsigned high_shift = bits - kTile;
    std::complex<T> tile_m[kSide * kSide], tile_r[kSide * kSide];
    auto gather = [&](size_t mid, std::complex<T>* tile) {
        for (size_t h = 0; h < kSide; ++h) {
            const std::complex<T>* row = a + ((h << high_shift) | (mid << kTile));
            for (size_t l = 0; l < kSide; ++l) tile[h * kSide + l] = row[l];
        }
    };
    // Entry (h, mid, l) moves to (rev l, rev mid, rev h).
    auto scatter = [&](size_t mid, const std::complex<T>* tile) {
        for (size_t h = 0; h < kSide; ++h) {
            std::complex<T>* row = a + ((h << high_shift) | (mid << kTile));
            for (size_t l = 0; l < kSide; ++l) row[l] = tile[rev[l] * kSide + rev[h]];
        }
    };
    for (size_t m = 0; m < (size_t{1} << mid_bits); ++m) {
        const size_t mr = reverse_bits(m, mid_bits);
        if (mr < m) continue;
        gather(m, tile_m);
        if (mr != m) gather(mr, tile_r);
        scatter(mr, tile_m);
        if (mr != m) scatter(m, tile_r);
    }
}

// Twiddles w_k, k = 0 .. count - 1, of the recurrence w <- w * step,
// continuing from (wr, wi); the next value is left in (wr, wi).
inline void twiddle_run(double* tw, size_t count, double& wr, double& wi, double sr,
                        double si) noexcept {
    for (size_t k = 0; k < count; ++k) {
        tw[2 * k] = wr;
        tw[2 * k + 1] = wi;
        const double nr = wr * sr - wi * si;
        wi = wr * si + wi * sr;
        wr = nr;
    }
}

inline void twiddle_step(size_t len, bool inverse, double& sr, double& si) noexcept {
    const double angle = (inverse ? kTwoPi : -kTwoPi) / static_cast<double>(len);
    sr = std::cos(angle);
    si = std::sin(angle);
}

}  // namespace fft_detail

inline bool is_power_of_two(size_t n) { return n != 0 && (n & (n - 1)) == 0; }

// Transforms a[0 .. n) in place; n must be a power of two (any other length
// leaves a as it was).
// Needs no memory beyond a few KiB of stack: each stage's twiddles are
// generated in rounds and applied across all blocks before the next round.
template <class T>
void fft_in_place(std::complex<T>* a, size_t n, bool inverse) noexcept {
    if (a == nullptr || !is_power_of_two(n)) return;
    fft_detail::bit_reverse(a, n);
    double tw[2 * fft_detail::kTwiddleChunk];
    for (size_t len = 2; len <= n; len *= 2) {
        const size_t half = len / 2;
        double sr, si, wr = 1.0, wi = 0.0;
        fft_detail::twiddle_step(len, inverse, sr, si);
        for (size_t k0 = 0; k0 < half; k0 += fft_detail::kTwiddleChunk) {
            const size_t count = std::min(fft_detail::kTwiddleChunk, half - k0);
            fft_detail::twiddle_run(tw, count, wr, wi, sr, si);
            fft_detail::pass(a, n, half, k0, count, tw);
        }
    }
    if (inverse) {
        const T scale = static_cast<T>(1.0 / static_cast<double>(n));
        for (size_t i = 0; i < n; ++i) a[i] *= scale;
    }
}

// The same transform for repeated use at one length, bit for bit: the
// twiddles of every stage (the very values of the recurrence) are kept, so
// the serial recurrence runs once per table instead of once per call, and
// the first stages run segment by segment while the segment is in cache.
// The table holds 2 x (n - 1) complex doubles (8 MiB at n = 262144).
class FftTable {
public:
    FftTable() = default;
    // n a power of two (otherwise the table transforms nothing); throws
    // std::bad_alloc when the table cannot be made.
    explicit FftTable(size_t n) : n_(is_power_of_two(n) ? n : 0) {
        if (n_ < 2) return;
        forward_.resize(2 * (n_ - 1));
        inverse_.resize(2 * (n_ - 1));
        for (size_t len = 2; len <= n_; len *= 2) {
            const size_t at = 2 * (len / 2 - 1);  // stages before hold 1 + 2 + ... + len/4
            for (bool inverse : {false, true}) {
                double sr, si, wr = 1.0, wi = 0.0;
                fft_detail::twiddle_step(len, inverse, sr, si);
                fft_detail::twiddle_run((inverse ? inverse_ : forward_).data() + at, len / 2, wr,
                                        wi, sr, si);
            }
        }
    }

    size_t size() const { return n_; }

    // a holds size() entries.
    template <class T>
    void transform(std::complex<T>* a, bool inverse) const noexcept {
        if (a == nullptr || n_ == 0) return;
        fft_detail::bit_reverse(a, n_);
        const double* table = (inverse ? inverse_ : forward_).data();
        auto stage = [&](std::complex<T>* base, size_t size, size_t len) {
            fft_detail::pass(base, size, len / 2, 0, len / 2, table + 2 * (len / 2 - 1));
        };
        size_t len = 2;
        for (size_t segment : {fft_detail::kSegmentSmall, fft_detail::kSegmentLarge}) {
            segment = std::min(n_, segment);
            if (segment < len) continue;
            for (size_t s = 0; s < n_; s += segment) {
                for (size_t l = len; l <= segment; l *= 2) stage(a + s, segment, l);
            }
            len = segment * 2;
        }
        for (; len <= n_; len *= 2) stage(a, n_, len);
        if (inverse) {
            const T scale = static_cast<T>(1.0 / static_cast<double>(n_));
            for (size_t i = 0; i < n_; ++i) a[i] *= scale;
        }
    }

private:
    size_t n_ = 0;
    std::vector<double> forward_, inverse_;
};

}  // namespace ws::takes
