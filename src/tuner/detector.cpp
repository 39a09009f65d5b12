#include "tuner/detector.hpp"

#include <algorithm>
#include <cmath>

#if defined(__SSE2__) || defined(_M_X64)
#  include <emmintrin.h>
#  define WS_HAVE_SSE2 1
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

// Cross sums c_k = sum_{i < n - tau - k} x[i] * x[i + tau + k] for k = 0..3.
// Four lags share each load of x[i]; two independent accumulator sets per lag
// keep the add latency hidden. Only the summation order differs from the
// plain loop.
void cross4(const double* x, size_t n, size_t tau, double out[4]) {
    const size_t common = n - tau - 3;  // every one of the four lags is valid below this
    const double* y = x + tau;
    size_t i = 0;
#if WS_HAVE_SSE2
    __m128d a0 = _mm_setzero_pd(), a1 = a0, a2 = a0, a3 = a0;
    __m128d b0 = a0, b1 = a0, b2 = a0, b3 = a0;
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
    const __m128d s0 = _mm_add_pd(a0, b0), s1 = _mm_add_pd(a1, b1);
    const __m128d s2 = _mm_add_pd(a2, b2), s3 = _mm_add_pd(a3, b3);
    double acc[4] = {_mm_cvtsd_f64(s0) + _mm_cvtsd_f64(_mm_unpackhi_pd(s0, s0)),
                     _mm_cvtsd_f64(s1) + _mm_cvtsd_f64(_mm_unpackhi_pd(s1, s1)),
                     _mm_cvtsd_f64(s2) + _mm_cvtsd_f64(_mm_unpackhi_pd(s2, s2)),
                     _mm_cvtsd_f64(s3) + _mm_cvtsd_f64(_mm_unpackhi_pd(s3, s3))};
#else
    double acc[4] = {0.0, 0.0, 0.0, 0.0};
#endif
    for (; i < common; ++i) {
        const double xi = x[i];
        acc[0] += xi * y[i];
        acc[1] += xi * y[i + 1];
        acc[2] += xi * y[i + 2];
        acc[3] += xi * y[i + 3];
    }
    // Shorter lags run a few terms longer than the common part.
    for (size_t k = 0; k < 3; ++k) {
        for (size_t j = common; j < n - tau - k; ++j) acc[k] += x[j] * y[j + k];
    }
    for (size_t k = 0; k < 4; ++k) out[k] = acc[k];
}

double cross1(const double* x, size_t n, size_t tau) {
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

}  // namespace

void PitchDetector::compute_nsdf(size_t n) {
    const double* x = centred_.data();
    const double* p = energy_.data();
    const size_t top = static_cast<size_t>(max_lag_);
    double c[4];
    auto store = [&](size_t tau, double cross) {
        // m = sum over the overlap of x[i]^2 + x[i+tau]^2, from prefix sums.
        const double m = p[n - tau] + (p[n] - p[tau]);
        values_[tau] = m > 0.0 ? 2.0 * cross / m : 0.0;
    };
    size_t tau = 2;
    for (; tau + 3 <= top && n - tau >= 3 + 4; tau += 4) {
        cross4(x, n, tau, c);
        for (size_t k = 0; k < 4; ++k) store(tau + k, c[k]);
    }
    for (; tau <= top; ++tau) store(tau, cross1(x, n, tau));
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
    double refined = chosen;
    if (chosen >= 1 && chosen < max_lag_) {
        const double a = v[chosen - 1], b = v[chosen], cc = v[chosen + 1];
        const double den = a - 2.0 * b + cc;
        if (den != 0.0) refined = chosen + (a - cc) * 0.5 / den;
    }
    if (!(refined > 0.0)) return {};
    return {rate_ / refined, v[chosen]};
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
