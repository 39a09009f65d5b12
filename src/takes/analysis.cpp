#include "takes/analysis.hpp"

#include <algorithm>
#include <cmath>

#include "takes/fft.hpp"

namespace ws::takes {

std::vector<float> block_average(const float* x, size_t count, size_t factor) {
    if (factor == 0 || x == nullptr) return {};
    std::vector<float> out(count / factor);
    const float inv = static_cast<float>(factor);
    for (size_t i = 0; i < out.size(); ++i) {
        float sum = 0.0f;
        for (size_t k = 0; k < factor; ++k) sum += x[i * factor + k];
        out[i] = sum / inv;
    }
    return out;
}

void phase_transform_product(std::complex<float>* x, const std::complex<float>* y, size_t n) {
    for (size_t i = 0; i < n; ++i) {
        const float xr = x[i].real(), xi = x[i].imag();
        const float yr = y[i].real(), yi = y[i].imag();
        const float pr = xr * yr + xi * yi;
        const float pi = xi * yr - xr * yi;
        const float m = std::hypot(pr, pi);
        x[i] = static_cast<double>(m) <= 1e-12 ? std::complex<float>(0.0f, 0.0f) : std::complex<float>(pr / m, pi / m);
    }
}

namespace {

size_t next_pow2(size_t n) {
    size_t p = 1;
    while (p < n) p *= 2;
    return p;
}

int64_t div_trunc(int64_t a, int64_t b) { return a / b; }  // C++ truncates toward zero

}  // namespace

Peak find_peak(const std::complex<float>* r, size_t n, int64_t lo, int64_t hi, int64_t guard,
               int64_t min_background) {
    auto at = [&](int64_t d) -> double {
        return r[static_cast<size_t>(d >= 0 ? d : static_cast<int64_t>(n) + d)].real();
    };
    Peak p;
    double best = -1e30;
    p.lag = lo;
    for (int64_t d = lo; d <= hi; ++d) {
        if (at(d) > best) {
            best = at(d);
            p.lag = d;
        }
    }
    double sum = 0.0, sumsq = 0.0;
    int64_t count = 0;
    for (int64_t d = lo; d <= hi; ++d) {
        if (std::llabs(d - p.lag) <= guard) continue;
        const double v = at(d);
        sum += v;
        sumsq += v * v;
        ++count;
    }
    if (count < min_background) return p;
    const double mean = sum / static_cast<double>(count);
    const double variance = std::max(sumsq / static_cast<double>(count) - mean * mean, 1e-20);
    p.found = true;
    p.value = best;
    p.score = (best - mean) / std::sqrt(variance);
    return p;
}

DelayEstimate find_delay(const float* a, size_t na, const float* b, size_t nb, int64_t rate,
                         int64_t min_delay, int64_t max_delay) {
    const DelayEstimate none;
    if (a == nullptr || b == nullptr || rate <= 0 || max_delay < min_delay) return none;
    const int64_t quarter = rate / 4;
    if (static_cast<int64_t>(na) < quarter || static_cast<int64_t>(nb) < quarter) return none;

    // Coarse stage at a quarter of the rate when that still leaves 8 kHz of
    // bandwidth; at most twelve seconds of reference and the searched part
    // of the take, so the transform stays bounded for long files.
    const int64_t factor = rate >= 32000 ? 4 : 1;
    const int64_t reduced = rate / factor;
    // Only the blocks that are kept are averaged at all.
    int64_t lo = div_trunc(min_delay, factor) - 2;
    int64_t hi = div_trunc(max_delay, factor) + 2;
    const int64_t keep_a = 12 * reduced;
    const int64_t keep_b = std::max<int64_t>(hi, 0) + 4 + 12 * reduced;
    auto head = [factor](size_t n, int64_t blocks) {
        return static_cast<size_t>(std::min<uint64_t>(n, static_cast<uint64_t>(blocks) * static_cast<uint64_t>(factor)));
    };
    const std::vector<float> ra = block_average(a, head(na, keep_a), static_cast<size_t>(factor));
    const std::vector<float> rb = block_average(b, head(nb, keep_b), static_cast<size_t>(factor));

    const size_t n = next_pow2(ra.size() + rb.size());
    std::vector<std::complex<float>> x(n), y(n);
    for (size_t i = 0; i < rb.size(); ++i) x[i] = {rb[i], 0.0f};
    for (size_t i = 0; i < ra.size(); ++i) y[i] = {ra[i], 0.0f};
    fft_in_place(x.data(), n, false);
    fft_in_place(y.data(), n, false);
    phase_transform_product(x.data(), y.data(), n);
    fft_in_place(x.data(), n, true);
    std::vector<std::complex<float>>().swap(y);  // not needed any more
    lo = std::max<int64_t>(lo, 1 - static_cast<int64_t>(n / 2));
    hi = std::min<int64_t>(hi, static_cast<int64_t>(rb.size()) - 1);
    if (hi < lo) return none;
    // Background: everything outside 5 ms around the peak.
    const Peak coarse = find_peak(x.data(), n, lo, hi, 5 * reduced / 1000, 32);
    if (!coarse.found) return none;
    const int64_t peak = coarse.lag;
    const double score = coarse.score;

    // Fine stage: +-8 reduced frames around the coarse peak at the full rate,
    // over the first four seconds of the reference. Normalised by the
    // reference's energy only, so a loud musician in the take cannot pull
    // the choice towards louder stretches.
    const int64_t centre = peak * factor;
    const int64_t m = std::min<int64_t>(static_cast<int64_t>(na), 4 * rate);
    const int64_t nbi = static_cast<int64_t>(nb);
    int64_t delay = centre;
    double best_value = -1e30;
    for (int64_t d = std::max(centre - 8 * factor, -m); d <= centre + 8 * factor; ++d) {
        const int64_t i0 = std::max<int64_t>(0, -d);
        const int64_t i1 = std::min<int64_t>(m, nbi - d);
        double dot = 0.0, e = 0.0;
        for (int64_t i = i0; i < i1; ++i) {
            const double ai = a[i];
            dot += ai * static_cast<double>(b[i + d]);
            e += ai * ai;
        }
        const double value = e > 1e-12 ? dot / std::sqrt(e) : -1e30;
        if (value > best_value) {
            best_value = value;
            delay = d;
        }
    }

    DelayEstimate out;
    out.delay_frames = delay;
    out.score = score;
    out.valid = score >= kValidScore && min_delay <= delay && delay <= max_delay;
    return out;
}

}  // namespace ws::takes
