// The shared transform: answers against a direct DFT, and bit-for-bit
// agreement of every fast path (twiddle table, segments, tiles, vector
// kernel) with the plain textbook loop it replaces.
#include <gtest/gtest.h>

#include <cmath>
#include <complex>
#include <cstring>
#include <random>
#include <vector>

#include "takes/fft.hpp"

namespace {

using ws::takes::FftTable;
using ws::takes::fft_in_place;
namespace detail = ws::takes::fft_detail;

constexpr double kTwoPi = 6.283185307179586476925286766559;

template <class T>
std::vector<std::complex<T>> random_signal(size_t n, unsigned seed) {
    std::mt19937 rng(seed);
    std::uniform_real_distribution<double> d(-1.0, 1.0);
    std::vector<std::complex<T>> x(n);
    for (auto& v : x) v = {static_cast<T>(d(rng)), static_cast<T>(d(rng))};
    return x;
}

// The transform as first written: swaps in bit-reversed counting, then per
// stage and per block a twiddle recurrence restarted at 1. Every fast path
// must reproduce it exactly.
template <class T>
void textbook(std::vector<std::complex<T>>& a, bool inverse) {
    const size_t n = a.size();
    for (size_t i = 1, j = 0; i < n; ++i) {
        size_t bit = n >> 1;
        for (; j & bit; bit >>= 1) j ^= bit;
        j ^= bit;
        if (i < j) std::swap(a[i], a[j]);
    }
    for (size_t len = 2; len <= n; len <<= 1) {
        const double angle = (inverse ? kTwoPi : -kTwoPi) / static_cast<double>(len);
        const double sr = std::cos(angle), si = std::sin(angle);
        for (size_t b = 0; b < n; b += len) {
            double wr = 1.0, wi = 0.0;
            for (size_t k = 0; k < len / 2; ++k) {
                const std::complex<T> u = a[b + k], x = a[b + k + len / 2];
                const double vr = static_cast<double>(x.real()) * wr - static_cast<double>(x.imag()) * wi;
                const double vi = static_cast<double>(x.real()) * wi + static_cast<double>(x.imag()) * wr;
                a[b + k] = {static_cast<T>(u.real() + vr), static_cast<T>(u.imag() + vi)};
                a[b + k + len / 2] = {static_cast<T>(u.real() - vr), static_cast<T>(u.imag() - vi)};
                const double nr = wr * sr - wi * si;
                wi = wr * si + wi * sr;
                wr = nr;
            }
        }
    }
    if (inverse) {
        for (auto& v : a) v *= static_cast<T>(1.0 / static_cast<double>(n));
    }
}

template <class T>
bool same_bits(const std::vector<std::complex<T>>& a, const std::vector<std::complex<T>>& b) {
    return a.size() == b.size() && std::memcmp(a.data(), b.data(), a.size() * sizeof a[0]) == 0;
}

// Restores the automatic kernel choice after a test pins one.
struct KernelGuard {
    ~KernelGuard() { detail::use_vector_kernel(detail::vector_kernel_available()); }
};

template <class T>
void check_all_paths_match_textbook(size_t n) {
    KernelGuard guard;
    for (bool inverse : {false, true}) {
        const auto input = random_signal<T>(n, static_cast<unsigned>(n) + (inverse ? 7u : 0u));
        auto expected = input;
        textbook(expected, inverse);
        const FftTable table(n);
        for (bool vector : {false, true}) {
            if (vector && !detail::vector_kernel_available()) continue;
            detail::use_vector_kernel(vector);
            auto plain = input;
            fft_in_place(plain.data(), n, inverse);
            EXPECT_TRUE(same_bits(plain, expected)) << "plain n=" << n << " inverse=" << inverse
                                                    << " vector=" << vector;
            auto tabled = input;
            table.transform(tabled.data(), inverse);
            EXPECT_TRUE(same_bits(tabled, expected)) << "table n=" << n << " inverse=" << inverse
                                                     << " vector=" << vector;
        }
    }
}

TEST(Fft, EveryPathIsBitIdenticalToTheTextbookLoop) {
    // Sizes below, at and above the tile, segment and twiddle-round limits.
    for (size_t n : {1u, 2u, 4u, 8u, 16u, 512u, 1024u, 2048u, 4096u, 8192u, 131072u}) {
        check_all_paths_match_textbook<float>(n);
    }
    for (size_t n : {1u, 2u, 8u, 256u, 4096u, 8192u, 65536u}) check_all_paths_match_textbook<double>(n);
}

// Direct DFT in long double.
std::vector<std::complex<long double>> dft(const std::vector<std::complex<double>>& x, bool inverse) {
    const size_t n = x.size();
    std::vector<std::complex<long double>> roots(n), out(n);
    for (size_t m = 0; m < n; ++m) {
        const long double ang = (inverse ? 1.0L : -1.0L) * 2.0L * 3.14159265358979323846264338L *
                                static_cast<long double>(m) / static_cast<long double>(n);
        roots[m] = {std::cos(ang), std::sin(ang)};
    }
    for (size_t k = 0; k < n; ++k) {
        std::complex<long double> s = 0;
        for (size_t t = 0; t < n; ++t) {
            s += std::complex<long double>(x[t].real(), x[t].imag()) * roots[(k * t) % n];
        }
        out[k] = inverse ? s / static_cast<long double>(n) : s;
    }
    return out;
}

TEST(Fft, AgreesWithTheDirectTransform) {
    struct Row { size_t n; double float_tolerance; };
    const Row rows[] = {{2, 1e-6}, {16, 2e-6}, {256, 4e-6}, {1024, 5e-6}};
    for (const auto& r : rows) {
        const auto xd = random_signal<double>(r.n, 3);
        for (bool inverse : {false, true}) {
            const auto expected = dft(xd, inverse);
            auto d = xd;
            fft_in_place(d.data(), r.n, inverse);
            std::vector<std::complex<float>> f(r.n);
            for (size_t i = 0; i < r.n; ++i) f[i] = std::complex<float>(xd[i]);
            fft_in_place(f.data(), r.n, inverse);
            // Errors relative to the signal's scale: sqrt(n) forward, 1/sqrt(n) inverse.
            const double scale = inverse ? 1.0 / std::sqrt(static_cast<double>(r.n))
                                         : std::sqrt(static_cast<double>(r.n));
            double worst_d = 0.0, worst_f = 0.0;
            for (size_t k = 0; k < r.n; ++k) {
                const std::complex<long double> e = expected[k];
                worst_d = std::max(worst_d, static_cast<double>(std::abs(std::complex<long double>(d[k]) - e)));
                worst_f = std::max(worst_f, static_cast<double>(std::abs(
                                                std::complex<long double>(f[k].real(), f[k].imag()) - e)));
            }
            EXPECT_LT(worst_d / scale, 1e-13) << r.n;
            EXPECT_LT(worst_f / scale, r.float_tolerance) << r.n;
        }
    }
}

}  // namespace
