// Every NSDF kernel (portable, SSE2, AVX2+FMA) against a plain double-precision
// evaluation of the definition, on random windows and over lag ranges that
// reach the last lag of the window.
#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <limits>
#include <map>
#include <random>
#include <string>
#include <utility>
#include <vector>

#include "tuner/detector.hpp"

namespace {

using ws::tuner::NsdfKernel;

const char* kernel_name(NsdfKernel k) {
    static const char* const names[] = {"scalar", "sse2", "avx2"};
    return names[static_cast<int>(k)];
}

struct Window {
    std::vector<double> x;
    std::vector<double> prefix;  // n + 1 prefix sums of x^2, as the detector keeps them
};

Window make_window(std::vector<double> x) {
    Window w{std::move(x), {}};
    w.prefix.assign(w.x.size() + 1, 0.0);
    for (size_t i = 0; i < w.x.size(); ++i) w.prefix[i + 1] = w.prefix[i] + w.x[i] * w.x[i];
    return w;
}

// Test windows: plain noise; a strong tone in noise, whose values come close
// to +-1; and a burst in the middle of silence, which leaves the long lags
// with no energy in their overlap at all (their value must be exactly 0).
enum class Shape { noise, tone, burst };

Window random_window(Shape shape, size_t n, unsigned seed) {
    std::mt19937_64 rng(seed);
    std::uniform_real_distribution<double> u(-1.0, 1.0);
    std::vector<double> x(n, 0.0);
    for (size_t i = 0; i < n; ++i) {
        switch (shape) {
        case Shape::noise: x[i] = u(rng); break;
        case Shape::tone: x[i] = std::sin(0.05 * static_cast<double>(i)) + 0.05 * u(rng); break;
        case Shape::burst:
            if (i >= n / 2 - 20 && i < n / 2 + 20) x[i] = u(rng);
            break;
        }
    }
    return make_window(std::move(x));
}

struct Reference {
    double value;
    double tolerance;
};

// The definition, summed term by term. A different summation order moves a
// sum by a few ulps of the sum of its terms' magnitudes, not of its result,
// so the tolerance scales with that; the m term comes from differences of
// prefix sums, which lose precision in proportion to total energy over m.
Reference naive(const Window& w, size_t tau) {
    const size_t n = w.x.size();
    const double* x = w.x.data();
    double c = 0.0, m = 0.0, magnitude = 0.0;
    for (size_t i = 0; i + tau < n; ++i) {
        c += x[i] * x[i + tau];
        m += x[i] * x[i] + x[i + tau] * x[i + tau];
        magnitude += std::fabs(x[i] * x[i + tau]);
    }
    if (!(m > 0.0)) return {0.0, 0.0};
    const double value = 2.0 * c / m;
    const double scale = 2.0 * magnitude / m + std::fabs(value) * w.prefix[n] / m;
    return {value, 1e-12 * scale};
}

struct Case {
    Window window;
    std::vector<Reference> reference;  // by lag, from 2 to n - 1
};

// Windows and their references, computed once and shared by the kernels.
const Case& test_case(size_t n, Shape shape) {
    static std::map<std::pair<size_t, Shape>, Case> cases;
    auto [it, fresh] = cases.try_emplace({n, shape});
    if (fresh) {
        it->second.window = random_window(shape, n, static_cast<unsigned>(n * 3 + static_cast<size_t>(shape)));
        it->second.reference.resize(n);
        for (size_t tau = 2; tau < n; ++tau) it->second.reference[tau] = naive(it->second.window, tau);
    }
    return it->second;
}

class NsdfKernelTest : public testing::TestWithParam<NsdfKernel> {
protected:
    void SetUp() override {
        if (!ws::tuner::nsdf_kernel_supported(GetParam())) {
            GTEST_SKIP() << kernel_name(GetParam()) << " is not available in this build or on this CPU";
        }
    }
};

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

TEST_P(NsdfKernelTest, MatchesTheDefinitionUpToTheLastLag) {
    const NsdfKernel kernel = GetParam();
    const double kUnwritten = std::numeric_limits<double>::quiet_NaN();
    // Window lengths the analyser uses, plus two that leave remainders after
    // every block and vector width.
    for (size_t n : {size_t{1024}, size_t{2048}, size_t{8192}, size_t{300}, size_t{1031}}) {
        for (Shape shape : {Shape::noise, Shape::tone, Shape::burst}) {
            const Window& w = test_case(n, shape).window;
            const std::vector<Reference>& ref = test_case(n, shape).reference;
            std::vector<double> values(n + 1);
            for (size_t top : lag_ranges(n)) {
                if (top < 2) continue;
                SCOPED_TRACE(testing::Message() << "n " << n << ", shape " << static_cast<int>(shape)
                                                << ", top " << top);
                std::fill(values.begin(), values.end(), kUnwritten);
                ws::tuner::nsdf_values(kernel, w.x.data(), w.prefix.data(), n, top, values.data());
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

INSTANTIATE_TEST_SUITE_P(Kernels, NsdfKernelTest,
                         testing::Values(NsdfKernel::scalar, NsdfKernel::sse2, NsdfKernel::avx2),
                         [](const testing::TestParamInfo<NsdfKernel>& p) {
                             return std::string(kernel_name(p.param));
                         });

// Pinning a kernel reaches detect(), every kernel finds the same pitch in a
// tone of known frequency, and an unsupported kernel is refused.
TEST(NsdfKernelChoice, PinnedKernelsAgreeInDetection) {
    const NsdfKernel automatic = ws::tuner::nsdf_kernel();
    EXPECT_TRUE(ws::tuner::nsdf_kernel_supported(automatic));
    const double rate = 48000.0, f = 220.0;
    std::vector<float> x(2048);
    for (size_t i = 0; i < x.size(); ++i) {
        const double ph = 2.0 * 3.14159265358979323846 * f * static_cast<double>(i) / rate;
        x[i] = static_cast<float>(0.5 * std::sin(ph) + 0.25 * std::sin(2.0 * ph));
    }
    std::vector<double> found;
    for (NsdfKernel k : {NsdfKernel::scalar, NsdfKernel::sse2, NsdfKernel::avx2}) {
        if (!ws::tuner::nsdf_kernel_supported(k)) {
            EXPECT_FALSE(ws::tuner::pin_nsdf_kernel(k));
            continue;
        }
        ASSERT_TRUE(ws::tuner::pin_nsdf_kernel(k));
        EXPECT_EQ(ws::tuner::nsdf_kernel(), k);
        ws::tuner::PitchDetector d;
        d.configure(rate, 55.0, 1200.0, x.size());
        found.push_back(d.detect(x.data(), x.size()).frequency);
        EXPECT_NEAR(ws::tuner::cents_between(found.back(), f), 0.0, 1.0) << kernel_name(k);
    }
    for (double g : found) EXPECT_NEAR(g, found.front(), 1e-9 * found.front());
    ASSERT_TRUE(ws::tuner::pin_nsdf_kernel(automatic));
}

}  // namespace
