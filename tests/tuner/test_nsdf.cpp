// Every NSDF kernel (portable, SSE2, AVX2+FMA) against a plain double-precision
// evaluation of the definition, on random windows and over lag ranges that
// reach the last lag of the window.
#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <limits>
#include <random>
#include <vector>

#include "tuner/detector.hpp"

namespace {

using ws::tuner::NsdfKernel;

constexpr NsdfKernel kKernels[] = {NsdfKernel::scalar, NsdfKernel::sse2, NsdfKernel::avx2};
const char* const kKernelNames[] = {"scalar", "sse2", "avx2"};

// Test windows: plain noise; a strong tone in noise, whose values come close
// to +-1; and a burst in the middle of silence, which leaves the long lags
// with no energy in their overlap at all (their value must be exactly 0).
std::vector<double> random_window(int shape, size_t n) {
    std::mt19937_64 rng(n * 3 + static_cast<size_t>(shape));
    std::uniform_real_distribution<double> u(-1.0, 1.0);
    std::vector<double> x(n, 0.0);
    for (size_t i = 0; i < n; ++i) {
        if (shape == 0) x[i] = u(rng);
        if (shape == 1) x[i] = std::sin(0.05 * static_cast<double>(i)) + 0.05 * u(rng);
        if (shape == 2 && i + 20 >= n / 2 && i < n / 2 + 20) x[i] = u(rng);
    }
    return x;
}

struct Reference {
    double value;
    double tolerance;
};

// The definition, summed term by term. A different summation order moves a
// sum by a few ulps of the sum of its terms' magnitudes, not of its result,
// so the tolerance scales with that; the m term comes from differences of
// prefix sums, which lose precision in proportion to total energy over m.
Reference naive(const std::vector<double>& x, double energy, size_t tau) {
    double c = 0.0, m = 0.0, magnitude = 0.0;
    for (size_t i = 0; i + tau < x.size(); ++i) {
        c += x[i] * x[i + tau];
        m += x[i] * x[i] + x[i + tau] * x[i + tau];
        magnitude += std::fabs(x[i] * x[i + tau]);
    }
    if (!(m > 0.0)) return {0.0, 0.0};
    const double value = 2.0 * c / m;
    return {value, 1e-12 * (2.0 * magnitude / m + std::fabs(value) * energy / m)};
}

// Lag ranges for a window of n: short ones, the analyser's, and ones whose
// last lags have an overlap of a few dozen samples down to one. For a short
// window every range is tried, which moves the end of the range across every
// block and vector boundary.
std::vector<size_t> lag_ranges(size_t n) {
    std::vector<size_t> tops;
    if (n <= 300) {
        for (size_t top = 2; top < n; ++top) tops.push_back(top);
        return tops;
    }
    tops = {2, 3, 10, 17, 40, 873 % n, n / 2 + 3, n - 1};
    if (n <= 2048) {
        for (size_t back : {40, 31, 25, 24, 23, 17, 9, 8, 2}) tops.push_back(n - back);
    }
    return tops;
}

TEST(NsdfKernels, MatchTheDefinitionUpToTheLastLag) {
    EXPECT_TRUE(ws::tuner::nsdf_kernel_supported(ws::tuner::nsdf_kernel()));  // detect()'s choice
    const double kUnwritten = std::numeric_limits<double>::quiet_NaN();
    // Window lengths the analyser uses, plus two that leave remainders after
    // every block and vector width.
    for (size_t n : {size_t{1024}, size_t{2048}, size_t{8192}, size_t{300}, size_t{1031}}) {
        for (int shape = 0; shape < 3; ++shape) {
            const std::vector<double> x = random_window(shape, n);
            std::vector<double> prefix(n + 1, 0.0);  // sums of x^2, as the detector keeps them
            for (size_t i = 0; i < n; ++i) prefix[i + 1] = prefix[i] + x[i] * x[i];
            std::vector<Reference> ref(n);
            for (size_t tau = 2; tau < n; ++tau) ref[tau] = naive(x, prefix[n], tau);
            std::vector<double> values(n + 1);
            for (NsdfKernel kernel : kKernels) {
                if (!ws::tuner::nsdf_kernel_supported(kernel)) continue;
                for (size_t top : lag_ranges(n)) {
                    if (top < 2) continue;
                    SCOPED_TRACE(testing::Message() << kKernelNames[static_cast<int>(kernel)] << ", n " << n
                                                    << ", shape " << shape << ", top " << top);
                    std::fill(values.begin(), values.end(), kUnwritten);
                    ws::tuner::nsdf_values(kernel, x.data(), prefix.data(), n, top, values.data());
                    ASSERT_TRUE(std::isnan(values[0]) && std::isnan(values[1])) << "lags 0 and 1 are written";
                    for (size_t tau = top + 1; tau <= n; ++tau) {
                        ASSERT_TRUE(std::isnan(values[tau])) << "written beyond the top lag at " << tau;
                    }
                    for (size_t tau = 2; tau <= top; ++tau) {
                        ASSERT_NEAR(values[tau], ref[tau].value, ref[tau].tolerance) << "lag " << tau;
                        if (ref[tau].tolerance == 0.0) {
                            ASSERT_EQ(values[tau], 0.0) << "lag " << tau;
                        }
                    }
                }
            }
        }
    }
}

}  // namespace
