// The resampler against what a sine must become: the same sine at the new
// rate, at its own level and phase, with everything else (images, aliases)
// below -90 dB; and the same output however the input is cut into blocks.
#include <gtest/gtest.h>

#include <cmath>
#include <numbers>
#include <random>
#include <vector>

#include "frame/resampler.hpp"
#include "signals.hpp"

namespace {

using ws::frame::Resampler;

// A sine of amplitude 0.5 at the given phase.
std::vector<float> sine(double freq, double rate, size_t n, double phase = 0.0) {
    return ws::test::harmonic(freq, rate, n, {0.5}, phase);
}

// Least-squares fit of a sine of known frequency over [from, to): its
// amplitude, phase, and the level of what is left, in dB against the
// fitted amplitude.
struct Fit {
    double amp, phase, residual_db;
};
Fit fit(const std::vector<float>& x, double freq, double rate, size_t from, size_t to) {
    double ss = 0, sc = 0, cc = 0, xs = 0, xc = 0;
    for (size_t i = from; i < to; ++i) {
        const double w = 2.0 * std::numbers::pi * freq * static_cast<double>(i) / rate;
        const double s = std::sin(w), c = std::cos(w);
        ss += s * s; sc += s * c; cc += c * c; xs += x[i] * s; xc += x[i] * c;
    }
    const double det = ss * cc - sc * sc;
    const double a = (xs * cc - xc * sc) / det, b = (xc * ss - xs * sc) / det;  // x ~ a sin + b cos
    double res = 0;
    for (size_t i = from; i < to; ++i) {
        const double w = 2.0 * std::numbers::pi * freq * static_cast<double>(i) / rate;
        const double e = x[i] - a * std::sin(w) - b * std::cos(w);
        res += e * e;
    }
    const double rms = std::sqrt(res / static_cast<double>(to - from));
    const double amp = std::hypot(a, b);
    return {amp, std::atan2(b, a), 20.0 * std::log10(std::max(rms, 1e-300) / (amp / std::sqrt(2.0)))};
}

TEST(Resampler, ARoundTripThroughADeviceRateKeepsPhaseAndLevel) {
    for (double f : {100.0, 1000.0, 15000.0}) {
        SCOPED_TRACE(f);
        const std::vector<float> x = sine(f, 44100, 44100, 0.3);
        const std::vector<float> up = Resampler::convert(x.data(), x.size(), 44100, 48000);
        ASSERT_EQ(up.size(), 48000u);
        const std::vector<float> back = Resampler::convert(up.data(), up.size(), 48000, 44100);
        ASSERT_EQ(back.size(), 44100u);
        // Away from the ends, where the filter reads the silence around the signal.
        const Fit mid = fit(up, f, 48000, 2000, 46000);
        EXPECT_NEAR(mid.amp, 0.5, 0.5 * 1e-4);  // 0.001 dB
        EXPECT_NEAR(mid.phase, 0.3, 1e-4);
        const Fit r = fit(back, f, 44100, 2000, 42000);
        EXPECT_NEAR(r.amp, 0.5, 0.5 * 1e-4);
        EXPECT_NEAR(r.phase, 0.3, 1e-4);
        EXPECT_LT(r.residual_db, -90.0);
    }
}

TEST(Resampler, ImagesAndAliasesStayBelowMinus90dB) {
    struct Row { uint32_t in, out; double f; bool passes; };
    const Row rows[] = {
        {44100, 48000, 10000, true},   // its image at 34.1 kHz would fold to 13.9 kHz
        {44100, 48000, 19000, true},
        {48000, 44100, 23000, false},  // above the output's Nyquist: must vanish
        {96000, 44100, 30000, false},
        {44100, 96000, 19000, true},
        {44100, 47999, 5000, true},    // no large common divisor: interpolated phases
        {47999, 44100, 22500, false},
    };
    for (const Row& r : rows) {
        SCOPED_TRACE(testing::Message() << r.in << " -> " << r.out << " at " << r.f);
        const std::vector<float> x = sine(r.f, r.in, r.in);
        const std::vector<float> y = Resampler::convert(x.data(), x.size(), r.in, r.out);
        const size_t from = r.out / 20, to = y.size() - r.out / 20;
        if (r.passes) {
            const Fit ft = fit(y, r.f, r.out, from, to);
            EXPECT_NEAR(ft.amp, 0.5, 0.5 * 1e-3);
            EXPECT_LT(ft.residual_db, -90.0);
        } else {
            double e = 0;
            for (size_t i = from; i < to; ++i) e += double(y[i]) * y[i];
            EXPECT_LT(10.0 * std::log10(e / static_cast<double>(to - from) / (0.5 * 0.5 / 2)), -90.0);
        }
    }
}

TEST(Resampler, AnyBlockSplitGivesTheSameOutput) {
    std::mt19937 gen(5);
    std::uniform_real_distribution<float> noise(-1.0f, 1.0f);
    std::vector<float> x(30011);
    for (float& v : x) v = noise(gen);
    for (auto [in, out] : {std::pair{44100u, 48000u}, {48000u, 44100u}, {8000u, 48000u}, {44100u, 44100u}}) {
        SCOPED_TRACE(testing::Message() << in << " -> " << out);
        const std::vector<float> whole = Resampler::convert(x.data(), x.size(), in, out);
        ASSERT_EQ(whole.size(), Resampler::output_frames(x.size(), in, out));
        Resampler r(in, out);
        std::vector<float> got, buf;
        std::uniform_int_distribution<size_t> block(0, 3000);
        for (size_t at = 0; at < x.size();) {
            const size_t n = std::min(block(gen), x.size() - at);
            buf.resize(r.max_output(n));
            const size_t k = r.process(x.data() + at, n, buf.data());
            got.insert(got.end(), buf.begin(), buf.begin() + static_cast<std::ptrdiff_t>(k));
            at += n;
        }
        buf.resize(r.max_output(0));
        const size_t k = r.flush(buf.data());
        got.insert(got.end(), buf.begin(), buf.begin() + static_cast<std::ptrdiff_t>(k));
        EXPECT_EQ(got, whole);  // bit for bit
        if (in == out) {
            EXPECT_EQ(got, x);
        }
    }
}

}  // namespace
