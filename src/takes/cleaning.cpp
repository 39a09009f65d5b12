#include "takes/cleaning.hpp"

#include <algorithm>
#include <cmath>
#include <complex>

#include "takes/analysis.hpp"

namespace ws::takes {

namespace {

using cfloat = std::complex<float>;
using cdouble = std::complex<double>;

constexpr size_t kBigFft = 262144;
constexpr size_t kBlock = 131072;  // take frames per correlation block and drift segment
constexpr size_t kDriftRefFrames = kBlock + 4096;
constexpr int64_t kDriftSearch = 4096;
constexpr size_t kMaxSegments = 8;
constexpr size_t kSmallFft = 8192;
constexpr size_t kHop = kSmallFft - kTaps;  // overlap-save output per block
constexpr int kMaxIterations = 96;

// x[i] = x[i] * conj(y[i]), plainly.
void multiply_conj(cfloat* x, const cfloat* y, size_t n) {
    for (size_t i = 0; i < n; ++i) {
        const float xr = x[i].real(), xi = x[i].imag();
        const float yr = y[i].real(), yi = y[i].imag();
        x[i] = {xr * yr + xi * yi, xi * yr - xr * yi};
    }
}

void fill_real(cfloat* dst, const float* src, size_t count, size_t n) {
    for (size_t i = 0; i < count; ++i) dst[i] = {src[i], 0.0f};
    std::fill(dst + count, dst + n, cfloat(0.0f, 0.0f));
}

// One segment's residual delay, or false when its correlation peak is not
// clear enough to trust.
bool segment_residual(const std::vector<cfloat>& r, double& residual) {
    const size_t n = r.size();
    auto at = [&](int64_t d) -> double {
        return r[static_cast<size_t>(d >= 0 ? d : static_cast<int64_t>(n) + d)].real();
    };
    double best = -1e30;
    int64_t peak = -kDriftSearch;
    for (int64_t d = -kDriftSearch; d <= 0; ++d) {
        if (at(d) > best) {
            best = at(d);
            peak = d;
        }
    }
    if (peak < -(kDriftSearch - 1) || peak > -1) return false;
    double sum = 0.0, sumsq = 0.0;
    int64_t count = 0;
    for (int64_t d = -kDriftSearch; d <= 0; ++d) {
        if (std::llabs(d - peak) <= 64) continue;
        const double v = at(d);
        sum += v;
        sumsq += v * v;
        ++count;
    }
    if (count < 64) return false;
    const double mean = sum / static_cast<double>(count);
    const double variance = std::max(sumsq / static_cast<double>(count) - mean * mean, 1e-20);
    if ((best - mean) / std::sqrt(variance) < 8.0) return false;
    // Parabola through the peak and its neighbours.
    const double ym = at(peak - 1), y0 = at(peak), yp = at(peak + 1);
    const double den = ym - 2.0 * y0 + yp;
    const double delta = den == 0.0 ? 0.0 : std::clamp(0.5 * (ym - yp) / den, -0.5, 0.5);
    residual = static_cast<double>(peak + 2048) + delta;
    return true;
}

}  // namespace

float catmull_rom(const float* a, size_t n, double x) {
    const double fi = std::floor(x);
    const double t = x - fi;
    // Positions far outside the array read zeros; clamp before converting.
    const double lim = static_cast<double>(n) + 4.0;
    const int64_t i = static_cast<int64_t>(fi >= -4.0 ? std::min(fi, lim) : -4.0);
    auto s = [&](int64_t k) -> double {
        return k >= 0 && static_cast<uint64_t>(k) < n ? static_cast<double>(a[k]) : 0.0;
    };
    const double p0 = s(i - 1), p1 = s(i), p2 = s(i + 1), p3 = s(i + 2);
    return static_cast<float>(0.5 * (2.0 * p1 + (p2 - p0) * t +
                                     (2.0 * p0 - 5.0 * p1 + 4.0 * p2 - p3) * t * t +
                                     (3.0 * p1 - p0 - 3.0 * p2 + p3) * t * t * t));
}

void ReferenceReader::read(int64_t first, size_t count, float* out) const {
    if (resample_) {
        for (size_t j = 0; j < count; ++j) out[j] = at(first + static_cast<int64_t>(j));
        return;
    }
    // Zeros before and after the reference, one copy for the part inside.
    const int64_t c = static_cast<int64_t>(count);
    const int64_t j0 = std::clamp<int64_t>(-first, 0, c);
    const int64_t j1 = std::clamp<int64_t>(static_cast<int64_t>(n_) - first, j0, c);
    std::fill(out, out + j0, 0.0f);
    std::copy(a_ + (first + j0), a_ + (first + j1), out + j0);
    std::fill(out + j1, out + count, 0.0f);
}

std::vector<DriftPoint> drift_points(const float* a, size_t na, const float* b, size_t nb,
                                     int64_t lag, double ratio, const FftTable& big) {
    std::vector<DriftPoint> points;
    if (nb < kMinDriftFrames) return points;
    const size_t segments = std::min(nb / kBlock, kMaxSegments);
    const size_t step = (nb - kBlock) / (segments - 1);
    std::vector<cfloat> t(kBigFft), r(kBigFft);
    for (size_t k = 0; k < segments; ++k) {
        const size_t p = k * step;
        fill_real(t.data(), b + p, kBlock, kBigFft);
        const int64_t first = static_cast<int64_t>(p) - lag - 2048;
        for (size_t u = 0; u < kDriftRefFrames; ++u) {
            const int64_t q = first + static_cast<int64_t>(u);
            float v;
            if (ratio == 0.0) {
                v = q >= 0 && static_cast<uint64_t>(q) < na ? a[q] : 0.0f;
            } else {
                v = catmull_rom(a, na, static_cast<double>(q) * ratio);
            }
            r[u] = {v, 0.0f};
        }
        std::fill(r.begin() + kDriftRefFrames, r.end(), cfloat(0.0f, 0.0f));
        big.transform(t.data(), false);
        big.transform(r.data(), false);
        phase_transform_product(t.data(), r.data(), kBigFft);
        big.transform(t.data(), true);
        double residual = 0.0;
        if (segment_residual(t, residual)) {
            points.push_back({static_cast<double>(p + kBlock / 2), residual});
        }
    }
    return points;
}

double robust_slope(const std::vector<DriftPoint>& points) {
    if (points.size() < 3) return 0.0;
    std::vector<double> slopes;
    for (size_t i = 0; i < points.size(); ++i) {
        for (size_t j = i + 1; j < points.size(); ++j) {
            const double dx = points[j].position - points[i].position;
            if (std::fabs(dx) > 1.0) slopes.push_back((points[j].residual - points[i].residual) / dx);
        }
    }
    if (slopes.empty()) return 0.0;
    std::sort(slopes.begin(), slopes.end());
    return slopes[slopes.size() / 2];
}

double estimate_drift(const float* a, size_t na, const float* b, size_t nb, int64_t lag,
                      const FftTable& big) {
    // Below 4 ppm the correction would not matter; above 400 ppm the
    // recordings are not what this tool is for and the estimate is suspect.
    const double d1 = robust_slope(drift_points(a, na, b, nb, lag, 0.0, big));
    if (std::fabs(d1) < 4e-6 || std::fabs(d1) > 4e-4) return 0.0;
    // A second look through the corrected reference catches what the first
    // slope missed; a large remainder means the first one was wrong.
    double d2 = robust_slope(drift_points(a, na, b, nb, lag, 1.0 / (1.0 + d1), big));
    if (std::fabs(d2) > 2e-5) d2 = 0.0;
    const double drift = d1 + d2;
    return std::fabs(drift) > 4e-4 ? 0.0 : drift;
}

void accumulate_correlations(const ReferenceReader& ref, const float* b, size_t nb,
                             const FftTable& big, double* cross, double* autoc) {
    std::vector<cfloat> r1(kBigFft), x(kBigFft);
    std::vector<float> refs(kBlock + kTaps);
    for (size_t s = 0; s < nb; s += kBlock) {
        const size_t len = std::min(kBlock, nb - s);
        const size_t len2 = std::min(len + kTaps, nb - s);
        ref.read(static_cast<int64_t>(s) - ref.base(), len2, refs.data());
        fill_real(r1.data(), refs.data(), len, kBigFft);
        big.transform(r1.data(), false);

        fill_real(x.data(), b + s, len2, kBigFft);
        big.transform(x.data(), false);
        multiply_conj(x.data(), r1.data(), kBigFft);
        big.transform(x.data(), true);
        for (size_t k = 0; k < kTaps; ++k) cross[k] += x[k].real();

        fill_real(x.data(), refs.data(), len2, kBigFft);
        big.transform(x.data(), false);
        multiply_conj(x.data(), r1.data(), kBigFft);
        big.transform(x.data(), true);
        for (size_t k = 0; k < kTaps; ++k) autoc[k] += x[k].real();
    }
}

std::vector<double> solve_leak_filter(const double* autoc, const double* cross) {
    std::vector<double> h(kTaps, 0.0);
    const double lambda = 2e-5 * autoc[0];
    // Toeplitz(autoc) v is the first kTaps entries of a circular convolution
    // of the zero-padded v with autoc laid out symmetrically: no 2048 x 2048
    // matrix is ever formed.
    const FftTable table(kSmallFft);
    std::vector<cdouble> c(kSmallFft, cdouble(0.0, 0.0)), work(kSmallFft);
    for (size_t k = 0; k < kTaps; ++k) c[k] = {autoc[k], 0.0};
    for (size_t k = 1; k < kTaps; ++k) c[kSmallFft - k] = {autoc[k], 0.0};
    table.transform(c.data(), false);
    auto apply = [&](const std::vector<double>& v, std::vector<double>& out) {
        for (size_t k = 0; k < kTaps; ++k) work[k] = {v[k], 0.0};
        std::fill(work.begin() + kTaps, work.end(), cdouble(0.0, 0.0));
        table.transform(work.data(), false);
        for (size_t i = 0; i < kSmallFft; ++i) {
            const double wr = work[i].real(), wi = work[i].imag();
            const double cr = c[i].real(), ci = c[i].imag();
            work[i] = {wr * cr - wi * ci, wr * ci + wi * cr};
        }
        table.transform(work.data(), true);
        for (size_t k = 0; k < kTaps; ++k) out[k] = lambda * v[k] + work[k].real();
    };
    auto dot = [](const std::vector<double>& x, const std::vector<double>& y) {
        double s = 0.0;
        for (size_t k = 0; k < kTaps; ++k) s += x[k] * y[k];
        return s;
    };

    std::vector<double> r(cross, cross + kTaps), p(r), q(kTaps);
    double rr = dot(r, r);
    if (rr < 1e-30) return h;
    const double tol = 1e-14 * rr;
    for (int it = 0; it < kMaxIterations; ++it) {
        if (rr <= tol) break;
        apply(p, q);
        const double pq = dot(p, q);
        if (!(pq > 0.0)) break;
        const double alpha = rr / pq;
        for (size_t k = 0; k < kTaps; ++k) {
            h[k] += alpha * p[k];
            r[k] -= alpha * q[k];
        }
        const double rr_new = dot(r, r);
        const double beta = rr_new / rr;
        for (size_t k = 0; k < kTaps; ++k) p[k] = r[k] + beta * p[k];
        rr = rr_new;
    }
    return h;
}

void subtract_leak(const ReferenceReader& ref, float* b, size_t nb, const double* h,
                   double& before, double& after) {
    const FftTable table(kSmallFft);
    std::vector<cfloat> hf(kSmallFft, cfloat(0.0f, 0.0f)), x(kSmallFft);
    for (size_t k = 0; k < kTaps; ++k) hf[k] = {static_cast<float>(h[k]), 0.0f};
    table.transform(hf.data(), false);
    std::vector<float> refs(kSmallFft);
    for (size_t s = 0; s < nb; s += kHop) {
        const size_t m = std::min(kHop, nb - s);
        // Overlap-save: the first kTaps outputs wrap around and are dropped.
        ref.read(static_cast<int64_t>(s) - static_cast<int64_t>(kTaps) - ref.base(), kSmallFft,
                 refs.data());
        float e = 0.0f;
        for (size_t u = kTaps; u < m + kTaps; ++u) e += refs[u] * refs[u];
        if (!(e > 1e-8f)) continue;  // nothing of the reference here to remove
        fill_real(x.data(), refs.data(), kSmallFft, kSmallFft);
        table.transform(x.data(), false);
        for (size_t i = 0; i < kSmallFft; ++i) {
            const float xr = x[i].real(), xi = x[i].imag();
            const float hr = hf[i].real(), hi = hf[i].imag();
            x[i] = {xr * hr - xi * hi, xr * hi + xi * hr};
        }
        table.transform(x.data(), true);
        for (size_t k = 0; k < m; ++k) {
            float& v = b[s + k];
            before += static_cast<double>(v) * static_cast<double>(v);
            v -= x[kTaps + k].real();
            after += static_cast<double>(v) * static_cast<double>(v);
        }
    }
}

bool clean_take(const float* a, size_t na, std::vector<float>& b, int64_t lag, CleanReport& report) {
    report = CleanReport{};
    if (a == nullptr || b.size() < kMinCleanFrames || na == 0) return false;
    const size_t nb = b.size();
    const int64_t base = lag - kTapsBeforeDelay;
    const FftTable big(kBigFft);

    report.drift = estimate_drift(a, na, b.data(), nb, lag, big);
    const ReferenceReader ref(a, na, base, 1.0 / (1.0 + report.drift), report.drift != 0.0);

    std::vector<double> cross(kTaps, 0.0), autoc(kTaps, 0.0);
    accumulate_correlations(ref, b.data(), nb, big, cross.data(), autoc.data());
    if (autoc[0] < 1e-9) return true;  // silent reference: nothing leaked

    const std::vector<double> h = solve_leak_filter(autoc.data(), cross.data());
    double before = 0.0, after = 0.0;
    subtract_leak(ref, b.data(), nb, h.data(), before, after);
    if (before > 1e-12 && after > 1e-12) report.reduction_db = 10.0 * std::log10(before / after);
    return true;
}

}  // namespace ws::takes
