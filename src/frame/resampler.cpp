#include "frame/resampler.hpp"

#include <algorithm>
#include <cmath>
#include <cstring>
#include <numbers>
#include <numeric>

namespace ws::frame {

namespace {

// Design targets: 100 dB of stop band (a margin over the 90 dB promised,
// for the coefficients' float rounding), a transition band from 0.45 to
// 0.5 of the lower rate, so nothing at or above the lower rate's Nyquist
// frequency survives, in either direction.
constexpr double kStopBandDb = 100.0;
constexpr double kPassEdge = 0.45;
constexpr double kStopEdge = 0.5;
// Ratios with more phases than this (rates with no large common divisor)
// interpolate linearly between neighbouring phases of a finer table.
constexpr uint64_t kMaxPhases = 4096;
constexpr size_t kTapAlign = 8;

double bessel_i0(double x) {
    double sum = 1.0, term = 1.0;
    const double q = x * x / 4.0;
    for (int k = 1; k < 200; ++k) {
        term *= q / (static_cast<double>(k) * k);
        sum += term;
        if (term < sum * 1e-17) break;
    }
    return sum;
}

}  // namespace

struct ResamplerKernel {
    uint64_t L = 1, M = 1;   // out / in = L / M, in lowest terms
    size_t taps = 0;         // K, a multiple of 8: input frames one output reads
    uint64_t phases = 0;     // rows in the table, P (== L when exact)
    std::vector<float> table;  // (P + 1) rows of K taps

    ResamplerKernel(uint32_t in_rate, uint32_t out_rate) {
        const uint64_t g = std::gcd(uint64_t{in_rate}, uint64_t{out_rate});
        L = out_rate / g;
        M = in_rate / g;
        const double fin = in_rate;
        const double fmin = std::min(in_rate, out_rate);
        // Kaiser's estimate of the length for the stop band and transition.
        const double dw = 2.0 * std::numbers::pi * (kStopEdge - kPassEdge) * fmin / fin;
        const auto need = static_cast<size_t>(std::ceil((kStopBandDb - 8.0) / (2.285 * dw)));
        taps = (need + kTapAlign - 1) / kTapAlign * kTapAlign;
        phases = std::min(L, kMaxPhases);
        const double beta = 0.1102 * (kStopBandDb - 8.7);
        const double cutoff = (kPassEdge + kStopEdge) / 2.0 * fmin / fin;  // of the input rate
        const double half = static_cast<double>(taps) / 2.0;
        const double i0_beta = bessel_i0(beta);
        table.resize((phases + 1) * taps);
        for (uint64_t p = 0; p <= phases; ++p) {
            const double frac = static_cast<double>(p) / static_cast<double>(phases);
            float* row = table.data() + p * taps;
            double sum = 0.0;
            std::vector<double> h(taps);
            for (size_t i = 0; i < taps; ++i) {
                // Tap i reads input frame floor(t) - K/2 + 1 + i, which lies
                // tau before the output's position t.
                const double tau = frac + half - 1.0 - static_cast<double>(i);
                const double x = 2.0 * cutoff * tau;
                const double sinc = x == 0.0 ? 1.0 : std::sin(std::numbers::pi * x) / (std::numbers::pi * x);
                const double r = tau / half;
                const double w = r * r < 1.0 ? bessel_i0(beta * std::sqrt(1.0 - r * r)) / i0_beta : 0.0;
                h[i] = 2.0 * cutoff * sinc * w;
                sum += h[i];
            }
            // Every phase passes DC at exactly unit gain: no ripple that
            // moves with the phase, hence no spurs from it.
            for (size_t i = 0; i < taps; ++i) row[i] = static_cast<float>(h[i] / sum);
        }
    }
};

Resampler::Resampler(uint32_t in_rate, uint32_t out_rate)
    : in_rate_(in_rate), out_rate_(out_rate) {
    if (!identity()) kernel_ = std::make_shared<const ResamplerKernel>(in_rate, out_rate);
    reset();
}

Resampler::~Resampler() = default;
Resampler::Resampler(Resampler&&) noexcept = default;
Resampler& Resampler::operator=(Resampler&&) noexcept = default;

void Resampler::reset() {
    consumed_ = produced_ = 0;
    pos_int_ = 0;
    pos_frac_ = 0;
    history_.clear();
    if (kernel_) {
        // Silence before the first frame, as far back as the filter reads.
        history_.assign(kernel_->taps, 0.0f);
        base_ = -static_cast<int64_t>(kernel_->taps);
    }
}

uint64_t Resampler::output_frames(uint64_t n, uint32_t in_rate, uint32_t out_rate) {
    const uint64_t g = std::gcd(uint64_t{in_rate}, uint64_t{out_rate});
    const uint64_t L = out_rate / g, M = in_rate / g;
    // ceil(n * L / M) without overflow for any realistic n.
    const uint64_t q = n / M, r = n % M;
    return q * L + (r * L + M - 1) / M;
}

size_t Resampler::max_output(size_t n) const {
    if (!kernel_) return n;
    return static_cast<size_t>((uint64_t{n} + kernel_->taps) * kernel_->L / kernel_->M + 2);
}

float Resampler::compute(size_t at, uint64_t frac) const {
    const ResamplerKernel& k = *kernel_;
    const size_t K = k.taps;
    const float* x = history_.data() + at;
    float acc[kTapAlign] = {};
    if (k.phases == k.L) {
        const float* h = k.table.data() + frac * K;
        for (size_t i = 0; i < K; i += kTapAlign) {
            for (size_t j = 0; j < kTapAlign; ++j) acc[j] += x[i + j] * h[i + j];
        }
    } else {
        const double pos = static_cast<double>(frac) * static_cast<double>(k.phases) / static_cast<double>(k.L);
        const auto row = static_cast<uint64_t>(pos);
        const auto w = static_cast<float>(pos - static_cast<double>(row));
        const float* a = k.table.data() + row * K;
        const float* b = a + K;
        for (size_t i = 0; i < K; i += kTapAlign) {
            for (size_t j = 0; j < kTapAlign; ++j) acc[j] += x[i + j] * (a[i + j] + w * (b[i + j] - a[i + j]));
        }
    }
    float s = 0.0f;
    for (float v : acc) s += v;
    return s;
}

size_t Resampler::run(float* out, uint64_t limit) {
    const ResamplerKernel& k = *kernel_;
    const auto half = static_cast<int64_t>(k.taps / 2);
    const int64_t end = base_ + static_cast<int64_t>(history_.size());
    size_t n = 0;
    while (produced_ < limit && pos_int_ + half < end) {
        out[n++] = compute(static_cast<size_t>(pos_int_ - half + 1 - base_), pos_frac_);
        ++produced_;
        pos_frac_ += k.M;
        pos_int_ += static_cast<int64_t>(pos_frac_ / k.L);
        pos_frac_ %= k.L;
    }
    // Let go of input no later output reads, in large steps.
    const int64_t keep_from = pos_int_ - half + 1;
    const auto spent = static_cast<size_t>(std::clamp<int64_t>(keep_from - base_, 0, static_cast<int64_t>(history_.size())));
    if (spent >= 8192 && spent * 2 >= history_.size()) {
        history_.erase(history_.begin(), history_.begin() + static_cast<std::ptrdiff_t>(spent));
        base_ += static_cast<int64_t>(spent);
    }
    return n;
}

size_t Resampler::process(const float* in, size_t n, float* out) {
    if (!kernel_) {
        if (n > 0) std::memmove(out, in, n * sizeof(float));
        consumed_ += n;
        produced_ += n;
        return n;
    }
    history_.insert(history_.end(), in, in + n);
    consumed_ += n;
    return run(out, UINT64_MAX);
}

size_t Resampler::flush(float* out) {
    size_t n = 0;
    if (kernel_) {
        // Silence after the end, as far ahead as the filter reads.
        history_.resize(history_.size() + kernel_->taps / 2 + 1, 0.0f);
        n = run(out, output_frames(consumed_, in_rate_, out_rate_));
    }
    reset();
    return n;
}

std::vector<float> Resampler::convert(const float* in, size_t n, uint32_t in_rate, uint32_t out_rate) {
    Resampler r(in_rate, out_rate);
    constexpr size_t kBlock = 65536;
    std::vector<float> out(static_cast<size_t>(output_frames(n, in_rate, out_rate)) + r.max_output(kBlock));
    size_t written = 0;
    for (size_t at = 0; at < n; at += kBlock) {
        written += r.process(in + at, std::min(kBlock, n - at), out.data() + written);
    }
    written += r.flush(out.data() + written);
    out.resize(written);
    return out;
}

}  // namespace ws::frame
