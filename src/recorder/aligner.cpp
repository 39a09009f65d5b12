#include "recorder/aligner.hpp"

#include <algorithm>
#include <cmath>

namespace ws::recorder {

namespace {
// Normalised correlation of input and backing: at or above kHeard the
// backing is taken as heard at that lag; a lag that keeps at least kHolds
// still holds (a loud player or a quiet bar lowers it, a moved round trip
// takes it near zero).
constexpr double kHeard = 0.5;
constexpr double kHolds = 0.3;
// A repair needs the backing found clearly at the new lag.
constexpr double kMoved = 0.8;
// How far around the lag a small step is looked for, and by how much the
// new peak must beat the old lag to count.
constexpr int64_t kNear = 32;
constexpr double kMargin = 0.01;
// A peak counts only when nothing further than kDistinct frames from it
// comes within kAmbiguous of its score.
constexpr int64_t kDistinct = 16;
constexpr double kAmbiguous = 0.98;
// Below this mean square (-80 dBFS) a block says nothing either way.
constexpr double kQuiet = 1e-8;

double dot(const float* a, const float* b, size_t n) {
    float acc[8] = {};
    size_t i = 0;
    for (; i + 8 <= n; i += 8) {
        for (size_t j = 0; j < 8; ++j) acc[j] += a[i + j] * b[i + j];
    }
    double s = 0.0;
    for (; i < n; ++i) s += static_cast<double>(a[i]) * b[i];
    for (float v : acc) s += v;
    return s;
}
}  // namespace

void Aligner::prepare(const float* backing, int64_t backing_frames, int64_t start_frame, uint32_t rate) {
    backing_ = backing_frames > 0 ? backing : nullptr;
    backing_frames_ = backing_frames;
    start_ = start_frame;
    rate_ = rate;
    // About 43 ms per block at any rate.
    block_ = std::max<size_t>(256, (static_cast<size_t>(rate) * 2048 / 48000 + 7) / 8 * 8);
    staging_.clear();
    base_ = received_ = emitted_ = next_block_ = 0;
    edits_.clear();
    lag_ = -1;
    suspect_ = -1;
    candidate_ = -1;
    next_acquire_ = next_search_ = 0;
    repairs_ = 0;
}

void Aligner::push(const float* x, size_t n) {
    staging_.insert(staging_.end(), x, x + n);
    received_ += static_cast<int64_t>(n);
}

float Aligner::ref_at(int64_t raw, int64_t lag) const {
    const int64_t i = start_ + raw - lag;
    if (i < 0 || i >= backing_frames_) return 0.0f;
    return backing_[2 * i] + backing_[2 * i + 1];
}

int64_t Aligner::settled() const {
    if (backing_ == nullptr) return received_;
    if (lag_ < 0) return next_block_;
    int64_t limit = next_block_ - 2 * static_cast<int64_t>(block_);
    if (suspect_ >= 0) limit = std::min(limit, suspect_ - static_cast<int64_t>(block_));
    return std::max(limit, emitted_);
}

double Aligner::score(int64_t a, size_t n, int64_t lag) const {
    double xr = 0, xx = 0, rr = 0;
    for (size_t i = 0; i < n; ++i) {
        const double x = in_at(a + static_cast<int64_t>(i));
        const double r = ref_at(a + static_cast<int64_t>(i), lag);
        xr += x * r;
        xx += x * x;
        rr += r * r;
    }
    return xx > 0 && rr > 0 ? xr / std::sqrt(xx * rr) : 0.0;
}

bool Aligner::search(int64_t a, size_t n, int64_t lo, int64_t hi, int64_t& best_lag, double& best) const {
    lo = std::max<int64_t>(lo, 0);
    if (hi < lo) return false;
    // The backing from the earliest to the latest frame any lag reads.
    const size_t span = n + static_cast<size_t>(hi - lo);
    std::vector<float> ref(span);
    for (size_t k = 0; k < span; ++k) ref[k] = ref_at(a - hi + static_cast<int64_t>(k), 0);
    std::vector<float> x(n);
    double xx = 0;
    for (size_t i = 0; i < n; ++i) {
        x[i] = in_at(a + static_cast<int64_t>(i));
        xx += double(x[i]) * x[i];
    }
    // Energy of the backing window at lag hi, then slid towards lo.
    double rr = 0;
    for (size_t i = 0; i < n; ++i) rr += double(ref[i]) * ref[i];
    best = 0.0;
    std::vector<double> scores(static_cast<size_t>(hi - lo + 1));
    for (int64_t lag = hi;; --lag) {
        const size_t off = static_cast<size_t>(hi - lag);
        const double c = rr > 1e-12 ? dot(x.data(), ref.data() + off, n) / std::sqrt(xx * rr) : 0.0;
        scores[static_cast<size_t>(lag - lo)] = c;
        if (c > best) {
            best = c;
            best_lag = lag;
        }
        if (lag == lo) break;
        rr += double(ref[off + n]) * ref[off + n] - double(ref[off]) * ref[off];
    }
    // A backing that repeats within the range (a held tone, a loop) matches
    // at more than one lag: such a peak says nothing about the round trip.
    for (int64_t lag = lo; lag <= hi; ++lag) {
        if (std::llabs(lag - best_lag) > kDistinct && scores[static_cast<size_t>(lag - lo)] > kAmbiguous * best) {
            return false;
        }
    }
    return best > 0.0;
}

int64_t Aligner::find_seam(int64_t lo, int64_t hi, int64_t old_lag, int64_t new_lag) const {
    // The input is the backing at the old lag up to the seam and at the new
    // one after it; a round trip that grew by d has d frames of whatever the
    // server played meanwhile (silence, mostly) in between, which the repair
    // drops. The seam is where the squared misfit of that model is least,
    // with the gain of the backing in the input fitted first.
    const int64_t grow = std::max<int64_t>(new_lag - old_lag, 0);
    const auto n = static_cast<size_t>(hi - lo);
    double xr = 0, rr = 0;
    for (int64_t j = lo; j < hi; ++j) {
        const double r = ref_at(j, j < (lo + hi) / 2 ? old_lag : new_lag);
        xr += in_at(j) * r;
        rr += r * r;
    }
    const double g = rr > 0 ? xr / rr : 0.0;
    std::vector<double> before(n + 1, 0.0), after(n + 1, 0.0);  // misfit of [lo, lo+k) at the old lag, of [lo+k, hi) at the new
    for (size_t k = 0; k < n; ++k) {
        const int64_t j = lo + static_cast<int64_t>(k);
        const double e = in_at(j) - g * ref_at(j, old_lag);
        before[k + 1] = before[k] + e * e;
    }
    for (size_t k = n; k-- > 0;) {
        const int64_t j = lo + static_cast<int64_t>(k);
        const double e = in_at(j) - g * ref_at(j, new_lag);
        after[k] = after[k + 1] + e * e;
    }
    int64_t seam = lo;
    double least = -1;
    for (size_t k = 0; k + static_cast<size_t>(grow) <= n; ++k) {
        const double cost = before[k] + after[k + static_cast<size_t>(grow)];
        if (least < 0 || cost < least) {
            least = cost;
            seam = lo + static_cast<int64_t>(k);
        }
    }
    return seam;
}

void Aligner::analyse_block(int64_t a) {
    const size_t n = block_;
    double xx = 0;
    for (size_t i = 0; i < n; ++i) xx += double(in_at(a + static_cast<int64_t>(i))) * in_at(a + static_cast<int64_t>(i));
    if (xx < kQuiet * static_cast<double>(n)) return;
    const int64_t second = rate_;
    if (lag_ < 0) {
        // Look for the backing once a second during the first ten seconds,
        // then every five: a take on headphones never finds it, and the
        // search is the costly part.
        if (a < next_acquire_) return;
        next_acquire_ = a + (a < 10 * second ? second : 5 * second);
        int64_t lag = -1;
        double best = 0;
        if (search(a, n, 0, second / 2, lag, best) && best >= kHeard) lag_ = lag;
        return;
    }
    // Near the lag first: a step of a few frames leaves a bass-heavy
    // backing almost as well matched at the old lag as at the new one, so
    // the peak is looked for, not only the score at the lag.
    int64_t near_lag = -1;
    double near = 0;
    search(a, n, lag_ - kNear, lag_ + kNear, near_lag, near);
    const double at_lag = score(a, n, lag_);
    if (at_lag >= kHolds && (near_lag == lag_ || near < at_lag + kMargin)) {
        suspect_ = -1;
        candidate_ = -1;
        return;
    }
    double rr = 0;
    for (size_t i = 0; i < n; ++i) rr += double(ref_at(a + static_cast<int64_t>(i), lag_)) * ref_at(a + static_cast<int64_t>(i), lag_);
    if (rr < kQuiet * static_cast<double>(n)) return;  // the backing is silent here
    const int64_t seen = near >= kMoved ? near_lag : -1;
    if (suspect_ < 0) {
        // The seam may lie inside this block: the new lag must show again
        // in the next one, wholly after it.
        suspect_ = a;
        candidate_ = seen;
        return;
    }
    int64_t lag = -1;
    double best = 0;
    if (seen >= 0 && seen == candidate_) {
        lag = seen;
    } else if (a >= next_search_) {
        if (!search(a, n, lag_ - second / 4, lag_ + second / 4, lag, best) || best < kMoved) {
            lag = -1;
            next_search_ = a + second / 8;
        }
    }
    candidate_ = seen;
    if (lag >= 0 && lag != lag_) {
        const int64_t seam = find_seam(std::max(emitted_, suspect_ - static_cast<int64_t>(n)),
                                       a + static_cast<int64_t>(n), lag_, lag);
        edits_.push_back({seam, lag - lag_});
        ++repairs_;
        lag_ = lag;
        suspect_ = -1;
        candidate_ = -1;
        return;
    }
    // A lag that neither holds nor moves for two seconds: the backing is
    // drowned out; go on by the frame counts.
    if (a - suspect_ > 2 * second) suspect_ = -1;
}

}  // namespace ws::recorder
