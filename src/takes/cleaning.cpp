#include "takes/cleaning.hpp"

#include <algorithm>
#include <cmath>
#include <complex>
#include <functional>
#include <numeric>

#include "takes/analysis.hpp"

namespace ws::takes {

namespace {

using cfloat = std::complex<float>;
using cdouble = std::complex<double>;

constexpr size_t kBigFft = 262144;
constexpr int64_t kSearch = kJumpSearch;
constexpr size_t kCurve = 2 * static_cast<size_t>(kSearch) + 1;  // lags -2S .. 0
constexpr size_t kCheckChunk = 16384;  // take frames per never-worse decision
constexpr size_t kCheckReach = 2;      // chunks either side that the decision also weighs
constexpr double kPriorDecayDb = 80.0; // the prior ends this far down
constexpr double kDefaultRt60 = 0.3;
constexpr size_t kHoldRun = 65536;     // take frames per held-out run
constexpr int kIterations = 80;        // conjugate-gradient steps per solve (passes 1 and 2)

size_t next_pow2(size_t n) {
    size_t p = 1;
    while (p < n) p *= 2;
    return p;
}

void fill_real(cfloat* dst, const float* src, size_t count, size_t n) {
    for (size_t i = 0; i < count; ++i) dst[i] = {src[i], 0.0f};
    std::fill(dst + count, dst + n, cfloat(0.0f, 0.0f));
}

// x[i] = x[i] * conj(y[i]), plainly.
void multiply_conj(cfloat* x, const cfloat* y, size_t n) {
    for (size_t i = 0; i < n; ++i) {
        const float xr = x[i].real(), xi = x[i].imag();
        const float yr = y[i].real(), yi = y[i].imag();
        x[i] = {xr * yr + xi * yi, xi * yr - xr * yi};
    }
}

double median(std::vector<double> v) {
    if (v.empty()) return 0.0;
    std::sort(v.begin(), v.end());
    return v[v.size() / 2];
}

// One segment's phase-transform correlation with the reference around the
// given delay: the curve over lags -2S .. 0 (residual delay = lag + S).
struct Segment {
    int64_t start = 0;
    bool valid = false;
    double residual = 0.0;  // frames, refined by a parabola through the peak
    double best = 0.0;
    std::vector<float> curve;
    bool present(double residual_at) const {
        const auto c = static_cast<int64_t>(std::llround(residual_at)) + kSearch;
        float v = -1e30f;
        for (int64_t i = std::max<int64_t>(c - 2, 0); i <= std::min<int64_t>(c + 2, kCurve - 1); ++i) {
            v = std::max(v, curve[static_cast<size_t>(i)]);
        }
        return v >= 0.3 * best;
    }
};

// Segments of kSegment frames, one after another along the take; the
// reference is read at take position t * scale - lag (through the
// resampler when `resample`).
std::vector<Segment> measure_segments(const float* a, size_t na, const float* b, size_t nb,
                                      int64_t lag, double scale, bool resample,
                                      const FftTable& big) {
    std::vector<Segment> segs(nb / kSegment);
    if (segs.size() < 2) return {};
    const size_t ref_len = kSegment + 2 * static_cast<size_t>(kSearch);
    std::vector<cfloat> t(kBigFft), r(kBigFft);
    for (size_t k = 0; k < segs.size(); ++k) {
        Segment& sg = segs[k];
        sg.start = static_cast<int64_t>(k * kSegment);
        fill_real(t.data(), b + sg.start, kSegment, kBigFft);
        for (size_t u = 0; u < ref_len; ++u) {
            const int64_t take_pos = sg.start + static_cast<int64_t>(u) - kSearch;
            float v;
            if (resample) {
                v = catmull_rom(a, na, static_cast<double>(take_pos) * scale - static_cast<double>(lag));
            } else {
                const int64_t q = take_pos - lag;
                v = q >= 0 && static_cast<uint64_t>(q) < na ? a[q] : 0.0f;
            }
            r[u] = {v, 0.0f};
        }
        std::fill(r.begin() + static_cast<int64_t>(ref_len), r.end(), cfloat(0.0f, 0.0f));
        big.transform(t.data(), false);
        big.transform(r.data(), false);
        phase_transform_product(t.data(), r.data(), kBigFft);
        big.transform(t.data(), true);
        sg.curve.resize(kCurve);
        for (size_t i = 0; i < kCurve; ++i) sg.curve[i] = t[(kBigFft - 2 * kSearch + i) % kBigFft].real();
        const Peak p = find_peak(t.data(), kBigFft, -2 * kSearch, 0, 64, 64);
        if (!p.found || p.score < kValidScore || p.lag <= -2 * kSearch || p.lag >= 0) continue;
        const double ym = t[static_cast<size_t>(static_cast<int64_t>(kBigFft) + p.lag - 1)].real();
        const double yp = t[static_cast<size_t>(static_cast<int64_t>(kBigFft) + p.lag + 1)].real();
        const double den = ym - 2.0 * p.value + yp;
        const double delta = den == 0.0 ? 0.0 : std::clamp(0.5 * (ym - yp) / den, -0.5, 0.5);
        sg.valid = true;
        sg.best = p.value;
        sg.residual = static_cast<double>(p.lag + kSearch) + delta;
    }
    return segs;
}

// Valid segment indices, grouped by stretch: a new group starts where the
// delay steps by more than drift explains and the arrival seen on either
// side is missing on the other.
std::vector<std::vector<size_t>> group_segments(const std::vector<Segment>& segs) {
    std::vector<size_t> valid;
    for (size_t i = 0; i < segs.size(); ++i) {
        if (segs[i].valid) valid.push_back(i);
    }
    std::vector<std::vector<size_t>> groups;
    if (valid.empty()) return groups;
    std::vector<double> steps;
    for (size_t k = 1; k < valid.size(); ++k) {
        const Segment &p = segs[valid[k - 1]], &q = segs[valid[k]];
        steps.push_back((q.residual - p.residual) / static_cast<double>(q.start - p.start));
    }
    const double slope = median(steps);
    groups.push_back({valid[0]});
    for (size_t k = 1; k < valid.size(); ++k) {
        const Segment &p = segs[valid[k - 1]], &q = segs[valid[k]];
        const double expected = slope * static_cast<double>(q.start - p.start);
        const double step = q.residual - p.residual - expected;
        const bool same_room = q.present(p.residual + expected) && p.present(q.residual - expected);
        // Before a drift is corrected its smear makes single steps uneven.
        if (std::fabs(step) > 3.0 + std::fabs(expected) && !same_room) groups.emplace_back();
        groups.back().push_back(valid[k]);
    }
    return groups;
}

// Median of the pairwise slopes of residual against position, pairs taken
// within a group only (a jump is not a drift).
double slope_within(const std::vector<Segment>& segs, const std::vector<std::vector<size_t>>& groups) {
    std::vector<double> slopes;
    size_t points = 0;
    for (const auto& g : groups) {
        std::vector<size_t> v;
        for (size_t i : g) {
            if (segs[i].valid) v.push_back(i);
        }
        points += v.size();
        for (size_t x = 0; x < v.size(); ++x) {
            for (size_t y = x + 1; y < v.size(); ++y) {
                slopes.push_back((segs[v[y]].residual - segs[v[x]].residual) /
                                 static_cast<double>(segs[v[y]].start - segs[v[x]].start));
            }
        }
    }
    return points < 3 ? 0.0 : median(slopes);
}

// Sum of a group's curves; the lag of its maximum (as a residual).
std::vector<double> group_curve(const std::vector<Segment>& segs, const std::vector<size_t>& g) {
    std::vector<double> c(kCurve, 0.0);
    for (size_t i : g) {
        if (segs[i].curve.empty()) continue;
        for (size_t k = 0; k < kCurve; ++k) c[k] += segs[i].curve[k];
    }
    return c;
}

int64_t argmax(const std::vector<double>& c) {
    return static_cast<int64_t>(std::max_element(c.begin(), c.end()) - c.begin());
}

// The shift s maximising sum_d x[d] y[d + s] (|s| < kCurve).
int64_t best_shift(const std::vector<double>& x, const std::vector<double>& y) {
    const size_t n = next_pow2(2 * kCurve);
    const FftTable table(n);
    std::vector<cdouble> fx(n), fy(n);
    for (size_t i = 0; i < kCurve; ++i) {
        fx[i] = {x[i], 0.0};
        fy[i] = {y[i], 0.0};
    }
    table.transform(fx.data(), false);
    table.transform(fy.data(), false);
    for (size_t i = 0; i < n; ++i) fy[i] *= std::conj(fx[i]);
    table.transform(fy.data(), true);
    int64_t best = 0;
    double value = -1e300;
    for (int64_t s = -static_cast<int64_t>(kCurve) + 1; s < static_cast<int64_t>(kCurve); ++s) {
        const double v = fy[static_cast<size_t>(s >= 0 ? s : static_cast<int64_t>(n) + s)].real();
        if (v > value) {
            value = v;
            best = s;
        }
    }
    return best;
}

// ---- estimation -------------------------------------------------------------------

struct Accumulator {
    std::vector<double> cross, autoc;
    double take_frames = 0.0;
};

// cross[k] += sum_u ref(u) b(u + base + k), autoc[k] += sum_u ref(u)
// ref(u + k), over the reference frames u whose take frames u + base lie in
// t0 .. t1 (the take side runs `taps` further).
void accumulate(const ReferenceReader& ref, const float* b, size_t nb, int64_t t0, int64_t t1,
                const FftTable& big, Accumulator& acc) {
    const size_t taps = acc.cross.size();
    const size_t len_max = kBigFft - taps;
    std::vector<cfloat> r1(kBigFft), x(kBigFft);
    std::vector<float> refs(kBigFft);
    for (int64_t s = t0; s < t1; s += static_cast<int64_t>(len_max)) {
        const size_t len = std::min<size_t>(len_max, static_cast<size_t>(t1 - s));
        const size_t take_len = std::min<size_t>(len + taps, nb - static_cast<size_t>(s));
        ref.read(s - ref.base(), len + taps, refs.data());
        fill_real(r1.data(), refs.data(), len, kBigFft);
        big.transform(r1.data(), false);

        fill_real(x.data(), b + s, take_len, kBigFft);
        big.transform(x.data(), false);
        multiply_conj(x.data(), r1.data(), kBigFft);
        big.transform(x.data(), true);
        for (size_t k = 0; k < taps; ++k) acc.cross[k] += x[k].real();

        fill_real(x.data(), refs.data(), len + taps, kBigFft);
        big.transform(x.data(), false);
        multiply_conj(x.data(), r1.data(), kBigFft);
        big.transform(x.data(), true);
        for (size_t k = 0; k < taps; ++k) acc.autoc[k] += x[k].real();
        acc.take_frames += static_cast<double>(len);
    }
}

// y[t] = sum_k h[k] ref(t - base - k) for t in t0 .. t1, handed out block by
// block to fn(first frame, y, count): overlap-save with the big transform.
template <class Fn>
void predict(const ReferenceReader& ref, const std::vector<double>& h, int64_t t0, int64_t t1,
             const FftTable& big, Fn&& fn) {
    const size_t taps = h.size();
    const size_t hop = kBigFft - taps;
    std::vector<cfloat> hf(kBigFft, cfloat(0.0f, 0.0f)), x(kBigFft);
    for (size_t k = 0; k < taps; ++k) hf[k] = {static_cast<float>(h[k]), 0.0f};
    big.transform(hf.data(), false);
    std::vector<float> refs(kBigFft), y(hop);
    for (int64_t s = t0; s < t1; s += static_cast<int64_t>(hop)) {
        const size_t m = std::min<size_t>(hop, static_cast<size_t>(t1 - s));
        // The first `taps` outputs wrap around and are dropped.
        ref.read(s - static_cast<int64_t>(taps) - ref.base(), kBigFft, refs.data());
        fill_real(x.data(), refs.data(), kBigFft, kBigFft);
        big.transform(x.data(), false);
        for (size_t i = 0; i < kBigFft; ++i) x[i] *= hf[i];
        big.transform(x.data(), true);
        for (size_t k = 0; k < m; ++k) y[k] = x[taps + k].real();
        fn(s, y.data(), m);
    }
}

// Decay of |h|^2 after its peak, from the windows that stand above the
// estimate's own noise floor (the median of the last quarter): RT60 in
// seconds, or the default when too little stands out.
double fit_rt60(const std::vector<double>& h, size_t peak, double rate) {
    constexpr size_t kWindow = 1024;
    const size_t windows = h.size() / kWindow;
    if (windows < 8) return kDefaultRt60;
    std::vector<double> e(windows, 0.0);
    for (size_t k = 0; k < windows * kWindow; ++k) e[k / kWindow] += h[k] * h[k];
    const std::vector<double> tail(e.end() - static_cast<int64_t>(windows / 4), e.end());
    const double floor = median(tail);
    // How far the estimate's noise scatters a window's level, dB.
    double scatter = 0.0;
    for (double v : tail) {
        const double d = v > 0.0 && floor > 0.0 ? 10.0 * std::log10(v / floor) : 0.0;
        scatter += d * d;
    }
    scatter = std::sqrt(scatter / static_cast<double>(tail.size()));
    double sx = 0, sy = 0, sxx = 0, sxy = 0;
    int n = 0;
    for (size_t w = peak / kWindow + 1; w < windows && e[w] > 4.0 * floor && e[w] > 0.0; ++w) {
        const double x = static_cast<double>(w * kWindow + kWindow / 2) / rate;
        const double y = 10.0 * std::log10(e[w]);
        sx += x, sy += y, sxx += x * x, sxy += x * y;
        ++n;
    }
    if (n < 2) return kDefaultRt60;
    const double spread = n * sxx - sx * sx;
    const double slope = (n * sxy - sx * sy) / spread;  // dB per second
    // A decay the scatter could have drawn by itself (a short take's noisy
    // estimate) says nothing of the room.
    const double slope_sd = scatter * std::sqrt(static_cast<double>(n) / spread);
    if (!(slope < -2.0 * slope_sd)) return kDefaultRt60;
    return std::clamp(-60.0 / slope, 0.05, 1.5);
}

// ---- pass 3: the fit where the player rests -----------------------------------------

constexpr size_t kRestBlock = 4096;     // take frames per rest decision
constexpr double kSpecFloor = 1e-3;     // spectral floor of the preconditioner, of the mean
constexpr double kRestRatio = 0.3;      // a rest: residual this far under the predicted leak
constexpr double kRefitRestRatio = 0.05;  // the same through the rests' own filter
constexpr int kRestIterations = 10;     // preconditioned steps from pass 2's filter, a minute or more of take
constexpr int kMaxRestIterations = 40;  // the most a short take gets
constexpr int kRoundIterations = 20;    // steps a round needs before the rests are chosen again
constexpr double kRestBudgetSeconds = 60.0;  // shorter takes get more steps for the same work

// One stretch's estimation range, read through its own alignment.
struct RestPiece {
    ReferenceReader ref;
    int64_t start, end;
};

// One transform's worth of take (hop frames from `start`): the reference
// under it and the runs of rest frames inside it.
struct RestSegment {
    int64_t start = 0;
    std::vector<cfloat> half;  // the hop's reference spectrum, bins 0..n/2
    std::vector<std::pair<uint32_t, uint32_t>> runs;
};

// The filter that fits the take only in its rests, under the same prior:
// minimise sum_{t in S} (b - A h)^2 / sigma^2 + sum h^2 / (s0^2 d^2). Its
// normal matrix A^T W A is not Toeplitz (the rests are a few thousand frames
// each), so it is applied as it stands, by convolution and correlation over
// the rest frames only; conjugate gradients start from `h` and are
// preconditioned by the rests' reference spectrum and take `steps` steps.
// A rest is a block whose residual through `h` is under `ratio` of its
// predicted leak. `h` comes back unchanged when the take has too few rests
// to support the filter.
std::vector<double> fit_on_rests(const std::vector<RestPiece>& pieces, const float* b, size_t nb,
                                 const std::vector<double>& h, const std::vector<double>& sd, double sd_sum,
                                 const std::function<bool(int64_t)>& usable, double ratio, int steps,
                                 const FftTable& big) {
    const size_t taps = h.size();
    // Rests: blocks whose residual through `h` lies well under its predicted leak.
    const size_t blocks = nb / kRestBlock + 1;
    std::vector<double> be(blocks, 0.0), by(blocks, 0.0);
    for (const RestPiece& p : pieces) {
        predict(p.ref, h, p.start, p.end, big, [&](int64_t t, const float* y, size_t m) {
            for (size_t k = 0; k < m; ++k) {
                const size_t f = static_cast<size_t>(t) + k;
                const double e = static_cast<double>(b[f]) - y[k];
                be[f / kRestBlock] += e * e;
                by[f / kRestBlock] += static_cast<double>(y[k]) * y[k];
            }
        });
    }
    std::vector<char> rest(blocks, 0);
    for (size_t i = 0; i < blocks; ++i) {
        rest[i] = by[i] > 0.0 && be[i] < ratio * by[i] && usable(static_cast<int64_t>(i * kRestBlock));
    }

    const size_t n = std::max<size_t>(65536, next_pow2(2 * taps));
    const size_t hop = n - taps;
    const FftTable table(n);
    std::vector<RestSegment> segs;
    std::vector<float> refs(n);
    std::vector<cfloat> full(n);
    double frames = 0.0, ref_e = 0.0, res_e = 0.0, leak_e = 0.0;
    for (const RestPiece& p : pieces) {
        for (int64_t s = p.start; s < p.end; s += static_cast<int64_t>(hop)) {
            const int64_t e = std::min<int64_t>(s + static_cast<int64_t>(hop), p.end);
            RestSegment sg;
            sg.start = s;
            for (int64_t t = s; t < e;) {
                const size_t blk = static_cast<size_t>(t) / kRestBlock;
                const int64_t next = std::min<int64_t>(static_cast<int64_t>((blk + 1) * kRestBlock), e);
                if (rest[blk]) {
                    const auto a0 = static_cast<uint32_t>(t - s), a1 = static_cast<uint32_t>(next - s);
                    if (!sg.runs.empty() && sg.runs.back().second == a0) {
                        sg.runs.back().second = a1;
                    } else {
                        sg.runs.emplace_back(a0, a1);
                    }
                    frames += static_cast<double>(next - t);
                    res_e += be[blk] * static_cast<double>(next - t) / kRestBlock;
                    leak_e += by[blk] * static_cast<double>(next - t) / kRestBlock;
                }
                t = next;
            }
            if (sg.runs.empty()) continue;
            // The transform of the reference from take frame start - taps on.
            p.ref.read(s - static_cast<int64_t>(taps) - p.ref.base(), n, refs.data());
            for (const auto& r : sg.runs) {
                for (uint32_t j = r.first; j < r.second; ++j) ref_e += static_cast<double>(refs[taps + j]) * refs[taps + j];
            }
            fill_real(full.data(), refs.data(), n, n);
            table.transform(full.data(), false);
            // A real signal's spectrum: half of it says all.
            sg.half.assign(full.begin(), full.begin() + static_cast<int64_t>(n / 2 + 1));
            segs.push_back(std::move(sg));
        }
    }
    if (!(frames > 0.0) || !(leak_e > 0.0) || !(ref_e > 0.0)) return h;
    const double mu = (res_e / frames) * ref_e * sd_sum / leak_e;
    // The rests must outnumber fourfold the taps the data decides (phi
    // below summed): the prior holds the rest, so counting every tap would
    // turn away a 6 s take whose rests are plenty for the room.
    double free_taps = 0.0;
    for (size_t k = 0; k < taps; ++k) free_taps += sd[k] * sd[k] * ref_e / (sd[k] * sd[k] * ref_e + mu);
    if (frames < 4.0 * free_taps) return h;

    const auto bin = [n](const RestSegment& sg, size_t f) {
        return f < sg.half.size() ? sg.half[f] : std::conj(sg.half[n - f]);
    };
    // out = A^T W (A x), or A^T W b when x is null. Two segments share each
    // transform pair: predictions as the real and imaginary parts of one
    // inverse transform, residuals split again by conjugate symmetry.
    std::vector<cfloat> xf(n), w(n), z(n);
    std::vector<cdouble> acc(n);
    auto apply = [&](const std::vector<double>* x, std::vector<double>& out) {
        if (x != nullptr) {
            for (size_t k = 0; k < taps; ++k) xf[k] = {static_cast<float>((*x)[k]), 0.0f};
            std::fill(xf.begin() + static_cast<int64_t>(taps), xf.end(), cfloat(0.0f, 0.0f));
            table.transform(xf.data(), false);
        }
        std::fill(acc.begin(), acc.end(), cdouble(0.0, 0.0));
        for (size_t i = 0; i < segs.size(); i += 2) {
            const RestSegment& s1 = segs[i];
            const RestSegment* s2 = i + 1 < segs.size() ? &segs[i + 1] : nullptr;
            if (x != nullptr) {
                const cfloat j1(0.0f, 1.0f);
                for (size_t f = 0; f < n; ++f) w[f] = (bin(s1, f) + (s2 ? j1 * bin(*s2, f) : cfloat(0.0f, 0.0f))) * xf[f];
                table.transform(w.data(), true);
            }
            std::fill(z.begin(), z.end(), cfloat(0.0f, 0.0f));
            for (const auto& r : s1.runs) {
                for (uint32_t j = r.first; j < r.second; ++j) {
                    z[taps + j].real(x ? w[taps + j].real() : b[s1.start + j]);
                }
            }
            if (s2) {
                for (const auto& r : s2->runs) {
                    for (uint32_t j = r.first; j < r.second; ++j) {
                        z[taps + j].imag(x ? w[taps + j].imag() : b[s2->start + j]);
                    }
                }
            }
            table.transform(z.data(), false);
            for (size_t f = 0; f < n; ++f) {
                const cdouble zf(z[f]), zc = std::conj(cdouble(z[(n - f) % n]));
                const cdouble e1 = 0.5 * (zf + zc);
                cdouble v = std::conj(cdouble(bin(s1, f))) * e1;
                if (s2) v += std::conj(cdouble(bin(*s2, f))) * (cdouble(0.0, -0.5) * (zf - zc));
                acc[f] += v;
            }
        }
        table.transform(acc.data(), true);
        for (size_t k = 0; k < taps; ++k) out[k] = acc[k].real();
    };

    // In g = h / d: (D A^T W A D + mu I) g = D A^T W b. With E the
    // diagonal (d^2 r0 + mu) and phi = d^2 r0 / (d^2 r0 + mu), the scaled
    // matrix E^-1/2 K E^-1/2 is about phi^1/2 (R / r0) phi^1/2 where the
    // data rule and about I where the prior does; R is about the circulant
    // of the rests' reference spectrum. So the preconditioner is
    //   M^-1 = E^-1/2 (phi^1/2 C^-1 phi^1/2 + I - phi) E^-1/2,
    // C^-1 applied by one transform pair on the zero-padded vector.
    std::vector<double> g(taps), r(taps), q(taps), zz(taps), p(taps), v(taps), escale(taps), phi(taps);
    for (size_t k = 0; k < taps; ++k) {
        g[k] = h[k] / sd[k];
        const double a = sd[k] * sd[k] * ref_e;
        escale[k] = 1.0 / std::sqrt(a + mu);
        phi[k] = a / (a + mu);
    }
    std::vector<double> inv_spec(n, 0.0);
    {
        double mean = 0.0;
        for (const RestSegment& sg : segs) {
            double used = 0.0;
            for (const auto& rr : sg.runs) used += rr.second - rr.first;
            for (size_t f = 0; f < n; ++f) inv_spec[f] += used * std::norm(bin(sg, f));
        }
        for (size_t f = 0; f < n; ++f) mean += inv_spec[f];
        mean /= static_cast<double>(n);
        for (size_t f = 0; f < n; ++f) inv_spec[f] = 1.0 / (inv_spec[f] / std::max(mean, 1e-300) + kSpecFloor);
    }
    std::vector<cfloat> pw(n);
    auto precondition = [&](const std::vector<double>& in, std::vector<double>& out) {
        for (size_t k = 0; k < taps; ++k) pw[k] = {static_cast<float>(in[k] * escale[k] * std::sqrt(phi[k])), 0.0f};
        std::fill(pw.begin() + static_cast<int64_t>(taps), pw.end(), cfloat(0.0f, 0.0f));
        table.transform(pw.data(), false);
        for (size_t f = 0; f < n; ++f) pw[f] *= static_cast<float>(inv_spec[f]);
        table.transform(pw.data(), true);
        for (size_t k = 0; k < taps; ++k) {
            const double u = in[k] * escale[k];
            out[k] = escale[k] * (std::sqrt(phi[k]) * pw[k].real() + (1.0 - phi[k]) * u);
        }
    };
    auto op = [&](const std::vector<double>& in, std::vector<double>& out) {
        for (size_t k = 0; k < taps; ++k) v[k] = sd[k] * in[k];
        apply(&v, out);
        for (size_t k = 0; k < taps; ++k) out[k] = sd[k] * out[k] + mu * in[k];
    };
    auto dot = [](const std::vector<double>& x, const std::vector<double>& y) {
        return std::inner_product(x.begin(), x.end(), y.begin(), 0.0);
    };
    apply(nullptr, r);
    op(g, q);
    for (size_t k = 0; k < taps; ++k) {
        r[k] = sd[k] * r[k] - q[k];
    }
    precondition(r, zz);
    p = zz;
    double rz = dot(r, zz);
    for (int it = 0; it < steps && rz > 0.0; ++it) {
        op(p, q);
        const double pq = dot(p, q);
        if (!(pq > 0.0)) break;
        const double alpha = rz / pq;
        for (size_t k = 0; k < taps; ++k) {
            g[k] += alpha * p[k];
            r[k] -= alpha * q[k];
        }
        precondition(r, zz);
        const double rz_new = dot(r, zz);
        const double beta = rz_new / rz;
        for (size_t k = 0; k < taps; ++k) p[k] = zz[k] + beta * p[k];
        rz = rz_new;
    }
    for (size_t k = 0; k < taps; ++k) g[k] *= sd[k];
    return g;
}

}  // namespace

int64_t taps_before_delay(double rate) { return static_cast<int64_t>(std::lround(2048.0 * rate / 44100.0)); }

size_t max_taps(double rate) {
    const auto taps = static_cast<size_t>(taps_before_delay(rate)) + static_cast<size_t>(std::ceil(0.8 * rate));
    return (taps + 1023) / 1024 * 1024;
}

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
    first -= shift_;
    // Zeros before and after the reference, one copy for the part inside.
    const int64_t c = static_cast<int64_t>(count);
    const int64_t j0 = std::clamp<int64_t>(-first, 0, c);
    const int64_t j1 = std::clamp<int64_t>(static_cast<int64_t>(n_) - first, j0, c);
    std::fill(out, out + j0, 0.0f);
    std::copy(a_ + (first + j0), a_ + (first + j1), out + j0);
    std::fill(out + j1, out + count, 0.0f);
}

std::vector<float> resample(const float* a, size_t na, double stretch, size_t count) {
    constexpr int kHalf = 16;
    constexpr int kPhases = 1024;
    constexpr double kPi = 3.14159265358979323846;
    // Blackman-windowed sinc, kPhases fractional offsets of 2 kHalf taps.
    std::vector<float> table(static_cast<size_t>(kPhases + 1) * 2 * kHalf);
    for (int f = 0; f <= kPhases; ++f) {
        for (int j = 0; j < 2 * kHalf; ++j) {
            const double u = static_cast<double>(j - kHalf + 1) - static_cast<double>(f) / kPhases;
            const double w = 0.42 + 0.5 * std::cos(kPi * u / kHalf) + 0.08 * std::cos(2.0 * kPi * u / kHalf);
            table[static_cast<size_t>(f * 2 * kHalf + j)] =
                static_cast<float>(std::fabs(u) >= kHalf ? 0.0 : u == 0.0 ? 1.0 : w * std::sin(kPi * u) / (kPi * u));
        }
    }
    std::vector<float> out(count, 0.0f);
    for (size_t i = 0; i < count; ++i) {
        const double x = static_cast<double>(i) / stretch;
        const double fl = std::floor(x);
        const auto i0 = static_cast<int64_t>(fl);
        const auto f = static_cast<size_t>(std::lround((x - fl) * kPhases));
        const float* taps = table.data() + f * 2 * kHalf;
        double v = 0.0;
        for (int j = 0; j < 2 * kHalf; ++j) {
            const int64_t k = i0 + j - kHalf + 1;
            if (k >= 0 && static_cast<uint64_t>(k) < na) v += static_cast<double>(a[k]) * taps[j];
        }
        out[i] = static_cast<float>(v);
    }
    return out;
}

Alignment find_alignment(const float* a, size_t na, const float* b, size_t nb, int64_t lag,
                         const FftTable& big) {
    Alignment al;
    const auto whole = [&](int64_t delay) {
        al.stretches.assign(1, Stretch{0, static_cast<int64_t>(nb), delay, false});
        return al;
    };
    std::vector<Segment> segs = measure_segments(a, na, b, nb, lag, 1.0, false, big);
    auto groups = group_segments(segs);
    if (groups.empty()) return whole(lag);

    // Drift within the stretches: below 4 ppm it would not matter, above
    // 400 ppm the recordings are not what this tool is for. A second look
    // through the corrected reference catches what the first slope missed.
    if (nb >= kMinDriftFrames) {
        const double d1 = slope_within(segs, groups);
        if (std::fabs(d1) >= 4e-6 && std::fabs(d1) <= 4e-4) {
            // A remainder larger than half the first estimate (and over
            // 20 ppm) means the first one was wrong: it is kept as it was.
            double drift = d1;
            std::vector<Segment> last;
            for (int look = 0; look < 2; ++look) {
                auto again = measure_segments(a, na, b, nb, lag, 1.0 / (1.0 + drift), true, big);
                const double d2 = slope_within(again, groups);
                if (std::fabs(d2) > std::max(2e-5, 0.5 * std::fabs(drift))) break;
                drift += d2;
                last = std::move(again);
                if (std::fabs(d2) < 2e-6) break;
            }
            if (std::fabs(drift) <= 4e-4) {
                al.drift = drift;
                if (!last.empty()) {
                    segs = std::move(last);
                    groups = group_segments(segs);
                    if (groups.empty()) return whole(lag);
                }
            }
        }
    }

    // Each stretch's delay: the first from its summed curve, the others by
    // how far the whole pattern of arrivals moved from the stretch before.
    std::vector<double> prev = group_curve(segs, groups[0]);
    int64_t residual = argmax(prev) - kSearch;
    for (size_t g = 0; g < groups.size(); ++g) {
        std::vector<double> cur = g == 0 ? prev : group_curve(segs, groups[g]);
        if (g > 0) {
            residual += best_shift(prev, cur);
            const int64_t z0 = segs[groups[g - 1].back()].start;
            const int64_t z1 = segs[groups[g].front()].start + static_cast<int64_t>(kSegment);
            al.zone_start.push_back(z0);
            al.zone_end.push_back(z1);
            al.stretches.back().end = (z0 + z1) / 2;
        }
        al.stretches.push_back(Stretch{g == 0 ? 0 : al.stretches.back().end, static_cast<int64_t>(nb),
                                       lag + residual, false});
        prev = std::move(cur);
    }
    return al;
}

std::vector<double> solve_leak_filter(const std::vector<double>& autoc,
                                      const std::vector<double>& cross,
                                      const std::vector<double>& prior_sd, double mu,
                                      int iterations) {
    const size_t taps = autoc.size();
    std::vector<double> g(taps, 0.0);
    // Toeplitz(autoc) v is the first `taps` entries of a circular
    // convolution of the zero-padded v with autoc laid out symmetrically:
    // no taps x taps matrix is ever formed.
    const size_t n = next_pow2(2 * taps);
    const FftTable table(n);
    std::vector<cdouble> c(n, cdouble(0.0, 0.0)), work(n);
    for (size_t k = 0; k < taps; ++k) c[k] = {autoc[k], 0.0};
    for (size_t k = 1; k < taps; ++k) c[n - k] = {autoc[k], 0.0};
    table.transform(c.data(), false);
    // The system in g = h / prior_sd: (D T D + mu I) g = D cross.
    auto apply = [&](const std::vector<double>& v, std::vector<double>& out) {
        for (size_t k = 0; k < taps; ++k) work[k] = {v[k] * prior_sd[k], 0.0};
        std::fill(work.begin() + static_cast<int64_t>(taps), work.end(), cdouble(0.0, 0.0));
        table.transform(work.data(), false);
        for (size_t i = 0; i < n; ++i) work[i] *= c[i];
        table.transform(work.data(), true);
        for (size_t k = 0; k < taps; ++k) out[k] = mu * v[k] + prior_sd[k] * work[k].real();
    };
    auto dot = [](const std::vector<double>& x, const std::vector<double>& y) {
        return std::inner_product(x.begin(), x.end(), y.begin(), 0.0);
    };
    std::vector<double> r(taps), q(taps);
    for (size_t k = 0; k < taps; ++k) r[k] = prior_sd[k] * cross[k];
    std::vector<double> p(r);
    double rr = dot(r, r);
    if (rr < 1e-30) return g;
    const double tol = 1e-14 * rr;
    int it = 0;
    for (; it < iterations && rr > tol; ++it) {
        apply(p, q);
        const double pq = dot(p, q);
        if (!(pq > 0.0)) break;
        const double alpha = rr / pq;
        for (size_t k = 0; k < taps; ++k) {
            g[k] += alpha * p[k];
            r[k] -= alpha * q[k];
        }
        const double rr_new = dot(r, r);
        const double beta = rr_new / rr;
        for (size_t k = 0; k < taps; ++k) p[k] = r[k] + beta * p[k];
        rr = rr_new;
    }
    for (size_t k = 0; k < taps; ++k) g[k] *= prior_sd[k];
    return g;
}

bool clean_take(const float* a, size_t na, std::vector<float>& b, int64_t lag, double rate,
                CleanReport& report) {
    report = CleanReport{};
    if (a == nullptr || b.size() < kMinCleanFrames || na == 0) return false;
    if (!(rate >= 1.0)) rate = 44100.0;
    const size_t nb = b.size();
    const int64_t nbi = static_cast<int64_t>(nb);
    const int64_t pre = taps_before_delay(rate);
    const FftTable big(kBigFft);

    Alignment al = find_alignment(a, na, b.data(), nb, lag, big);
    report.drift = al.drift;
    report.stretches = al.stretches;
    // With a drift the reference is brought onto the take's clock once:
    // stretch s then reads a(t / (1 + drift) - base) at take frame t, which
    // is the resampled reference shifted by base * drift (to the frame; the
    // filter takes up the fraction).
    std::vector<float> resampled;
    if (al.drift != 0.0) {
        resampled = resample(a, na, 1.0 + al.drift, static_cast<size_t>(std::ceil(static_cast<double>(na) * (1.0 + al.drift))) + 1);
    }
    auto reader = [&](const Stretch& s) {
        if (resampled.empty()) return ReferenceReader(a, na, s.delay - pre, 1.0, false);
        return ReferenceReader(resampled.data(), resampled.size(), s.delay - pre, 1.0, false,
                               std::llround(static_cast<double>(s.delay - pre) * al.drift));
    };
    // Estimation leaves out the zones where a jump lies somewhere.
    std::vector<std::pair<int64_t, int64_t>> ranges;
    for (size_t j = 0; j < al.stretches.size(); ++j) {
        ranges.emplace_back(j == 0 ? 0 : al.zone_end[j - 1], j + 1 < al.stretches.size() ? al.zone_start[j] : nbi);
    }

    // Every fourth run of kHoldRun frames can be held out of the estimate.
    const bool holdout_possible = nb >= 8 * kHoldRun;
    const auto held_out = [](int64_t t) { return (t / static_cast<int64_t>(kHoldRun)) % 4 == 3; };
    const auto estimate = [&](size_t taps, bool holdout) {
        Accumulator acc{std::vector<double>(taps, 0.0), std::vector<double>(taps, 0.0), 0.0};
        for (size_t j = 0; j < al.stretches.size(); ++j) {
            for (int64_t t = ranges[j].first; t < ranges[j].second;) {
                const int64_t run_end = std::min<int64_t>((t / kHoldRun + 1) * kHoldRun, ranges[j].second);
                if (!(holdout && held_out(t))) {
                    // Consecutive kept runs go in one piece.
                    int64_t end = run_end;
                    while (end < ranges[j].second && !(holdout && held_out(end))) {
                        end = std::min<int64_t>(end + static_cast<int64_t>(kHoldRun), ranges[j].second);
                    }
                    accumulate(reader(al.stretches[j]), b.data(), nb, t, end, big, acc);
                    t = end;
                } else {
                    t = run_end;
                }
            }
        }
        return acc;
    };
    // Residual and predicted-leak energy of a filter over the whole take.
    const auto energies = [&](const std::vector<double>& h, double& pe, double& py) {
        pe = py = 0.0;
        for (const Stretch& s : al.stretches) {
            predict(reader(s), h, s.start, s.end, big, [&](int64_t t, const float* y, size_t m) {
                for (size_t k = 0; k < m; ++k) {
                    const double e = static_cast<double>(b[static_cast<size_t>(t) + k]) - y[k];
                    pe += e * e;
                    py += static_cast<double>(y[k]) * y[k];
                }
            });
        }
    };

    // Pass 1: every frame alike, a flat prior as strong as if take and
    // leak were equally loud. Its filter shows where the room's energy
    // stands above the estimate's noise, and its residual where the player is.
    // A short take cannot support a long filter: at most a quarter of it.
    const size_t taps1 = std::min(max_taps(rate), std::max(static_cast<size_t>(pre) + 2048, (nb / 4 + 1023) / 1024 * 1024));
    const Accumulator first = estimate(taps1, false);
    if (first.autoc[0] < 1e-9 || first.take_frames < 1.0) return true;  // silent reference
    const double ref_energy = first.autoc[0];
    const std::vector<double> flat(taps1, 1.0);
    const auto h1 = solve_leak_filter(first.autoc, first.cross, flat, 0.01 * ref_energy * static_cast<double>(taps1) / first.take_frames, kIterations);
    size_t peak = 0;
    for (size_t k = 0; k < taps1; ++k) {
        if (std::fabs(h1[k]) > std::fabs(h1[peak])) peak = k;
    }
    const double rt60 = fit_rt60(h1, peak, rate);

    // The prior: flat from a little before the strongest arrival through
    // the early reflections (30 ms), then decaying by 60 dB per rt60, cut
    // where it is kPriorDecayDb down.
    const size_t early_end = peak + static_cast<size_t>(0.03 * rate);
    const double tail = rt60 * rate * kPriorDecayDb / 60.0;
    const size_t taps = std::min(taps1, (early_end + static_cast<size_t>(tail) + 1023) / 1024 * 1024);
    std::vector<double> sd(taps, 1.0);
    double sd_sum = 0.0;
    for (size_t k = 0; k < taps; ++k) {
        if (k + 256 < peak) sd[k] = std::exp(-static_cast<double>(peak - 256 - k) / 128.0);
        if (k > early_end) sd[k] = std::exp(-6.907755 * static_cast<double>(k - early_end) / (rt60 * rate));
        sd_sum += sd[k] * sd[k];
    }
    report.taps = taps;
    report.rt60 = rt60;

    // Pass 2: under the prior, its strength from pass 1's residual against
    // its predicted leak. Every fourth run of kHoldRun frames is held out
    // of it (when the take has enough of them), so that the result can be
    // checked where it was not fitted.
    double pe_total = 0.0, py_total = 0.0;
    energies(h1, pe_total, py_total);
    if (!(py_total > 0.0)) return true;
    const bool partial = holdout_possible;
    const Accumulator acc = estimate(taps, partial);
    const double est_frames = acc.take_frames;
    const double mu = (pe_total / static_cast<double>(nb)) * ref_energy * sd_sum / py_total;
    std::vector<double> h = solve_leak_filter(acc.autoc, acc.cross, sd, mu, kIterations);

    // Jumps placed to the frame: the split between two alignments that
    // leaves the least energy.
    for (size_t j = 1; j < al.stretches.size(); ++j) {
        const int64_t z0 = std::max<int64_t>(al.zone_start[j - 1], al.stretches[j - 1].start);
        const int64_t z1 = std::min<int64_t>(al.zone_end[j - 1], al.stretches[j].end);
        if (z1 <= z0) continue;
        std::vector<double> diff(static_cast<size_t>(z1 - z0), 0.0);
        predict(reader(al.stretches[j - 1]), h, z0, z1, big, [&](int64_t t, const float* y, size_t m) {
            for (size_t k = 0; k < m; ++k) {
                const double e = static_cast<double>(b[static_cast<size_t>(t) + k]) - y[k];
                diff[static_cast<size_t>(t - z0) + k] += e * e;
            }
        });
        predict(reader(al.stretches[j]), h, z0, z1, big, [&](int64_t t, const float* y, size_t m) {
            for (size_t k = 0; k < m; ++k) {
                const double e = static_cast<double>(b[static_cast<size_t>(t) + k]) - y[k];
                diff[static_cast<size_t>(t - z0) + k] -= e * e;
            }
        });
        double run = 0.0, best = 0.0;
        int64_t split = z0;
        for (size_t k = 0; k < diff.size(); ++k) {
            run += diff[k];
            if (run < best) {
                best = run;
                split = z0 + static_cast<int64_t>(k) + 1;
            }
        }
        al.stretches[j - 1].end = split;
        al.stretches[j].start = split;
    }

    // Pass 3: the same prior, fitted where the player rests (and not in
    // the held-out runs, which stay for the check below).
    {
        std::vector<RestPiece> pieces;
        for (size_t j = 0; j < al.stretches.size(); ++j) {
            const int64_t s0 = std::max(ranges[j].first, al.stretches[j].start);
            const int64_t s1 = std::min(ranges[j].second, al.stretches[j].end);
            if (s1 > s0) pieces.push_back(RestPiece{reader(al.stretches[j]), s0, s1});
        }
        // A step costs in proportion to the take. A short take starts
        // further off (pass 2 has less of it to average the player away)
        // and gets the steps a minute's work buys, up to a limit.
        const int steps = static_cast<int>(
            std::clamp(std::lround(kRestIterations * kRestBudgetSeconds * rate / static_cast<double>(nb)),
                       static_cast<long>(kRestIterations), static_cast<long>(kMaxRestIterations)));
        const auto usable = [&](int64_t t) { return !(partial && held_out(t)); };
        // With steps for two full rounds, the rests are chosen again
        // through the first round's filter, more strictly: in the true
        // rests it leaves almost nothing (pass 2's left up to the ratio),
        // so the player's quiet passages, which the first round fitted as
        // leak, drop out. A round cut short does worse than the same steps
        // in one (conjugate gradients start over).
        if (steps >= 2 * kRoundIterations) {
            h = fit_on_rests(pieces, b.data(), nb, h, sd, sd_sum, usable, kRestRatio, kRoundIterations, big);
            h = fit_on_rests(pieces, b.data(), nb, h, sd, sd_sum, usable, kRefitRestRatio,
                             steps - kRoundIterations, big);
        } else {
            h = fit_on_rests(pieces, b.data(), nb, h, sd, sd_sum, usable, kRestRatio, steps, big);
        }
    }

    double before = 0.0, after = 0.0;
    // Never worse. Nothing is changed unless subtraction lowers the whole
    // take's energy by more than a fit of that many taps to that much take
    // could by chance, and lowers it where the filter was not fitted (the
    // passages left out of the estimate), which a fit to the player alone
    // does not. That chance figure is the take's average: asked of each
    // chunk, it let chance fits through where they happened to do well and
    // kept true leak wherever a loud player hid it. Then a chunk is changed
    // where subtraction lowers the energy of it and its neighbours
    // (kCheckReach chunks either side): over one chunk a loud player's chance
    // correlation with the leak can outweigh the leak itself, and removing
    // the leak exactly would then raise the chunk's energy.
    const double margin = static_cast<double>(taps) / std::max(est_frames, 1.0);
    double outside = 0.0;
    std::vector<double> e0s, e1s;
    std::vector<char> keep;
    for (int apply = 0; apply < 2; ++apply) {
        size_t chunk = 0;
        for (Stretch& s : al.stretches) {
            predict(reader(s), h, s.start, s.end, big, [&](int64_t t, const float* y, size_t m) {
                for (size_t c = 0; c < m; c += kCheckChunk, ++chunk) {
                    const size_t len = std::min(kCheckChunk, m - c);
                    float* x = b.data() + t + static_cast<int64_t>(c);
                    if (apply == 1) {
                        if (!keep[chunk]) continue;
                        for (size_t k = 0; k < len; ++k) x[k] -= y[c + k];
                        s.cleaned = true;
                        continue;
                    }
                    double e0 = 0.0, e1 = 0.0;
                    for (size_t k = 0; k < len; ++k) {
                        const double v = x[k];
                        const double w = static_cast<double>(x[k] - y[c + k]);
                        e0 += v * v;
                        e1 += w * w;
                    }
                    if (partial && held_out(t + static_cast<int64_t>(c))) outside += e0 - e1;
                    e0s.push_back(e0);
                    e1s.push_back(e1);
                }
            });
        }
        if (apply == 0) {
            keep.assign(e0s.size(), 0);
            const double all0 = std::accumulate(e0s.begin(), e0s.end(), 0.0);
            const double all1 = std::accumulate(e1s.begin(), e1s.end(), 0.0);
            const bool beyond_chance = all1 < all0 * (1.0 - margin);
            for (size_t c = 0; c < e0s.size(); ++c) {
                const size_t lo = c >= kCheckReach ? c - kCheckReach : 0;
                const size_t hi = std::min(e0s.size(), c + kCheckReach + 1);
                double w0 = 0.0, w1 = 0.0;
                for (size_t i = lo; i < hi; ++i) {
                    w0 += e0s[i];
                    w1 += e1s[i];
                }
                keep[c] = beyond_chance && w1 < w0;
                if (keep[c]) {
                    before += e0s[c];
                    after += e1s[c];
                }
            }
            if ((partial && !(outside > 0.0)) || !(before > 0.0)) {
                before = after = 0.0;
                break;
            }
        }
    }
    report.stretches = al.stretches;
    report.changed = before > 0.0;
    if (before > 1e-12 && after > 1e-12) report.reduction_db = 10.0 * std::log10(before / after);
    return true;
}

}  // namespace ws::takes
