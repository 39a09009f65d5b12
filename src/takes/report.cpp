#include "takes/report.hpp"

#include <algorithm>
#include <cmath>
#include <complex>
#include <optional>
#include <tuple>

#include "takes/fft.hpp"
#include "tuner/config.hpp"
#include "tuner/detector.hpp"
#include "tuner/note_tracker.hpp"
#include "tuner/offline.hpp"

namespace ws::takes {

namespace {

// Spectral flux frames: about 23 ms long, a quarter of that apart.
struct FluxFrames {
    size_t length = 0;
    size_t hop = 0;
};

FluxFrames flux_frames(uint32_t rate) {
    size_t f = 256;
    while (f < 8192 && static_cast<double>(f) < rate * 0.0232 * 0.75) f *= 2;
    return {f, f / 4};
}

// Frame k ends at input frame k * hop: its window is [k * hop - length,
// k * hop), zero before the start, so a note at frame 0 has an onset too.
std::vector<double> spectral_flux(const float* x, size_t n, const FluxFrames& ff) {
    const size_t frames = n / ff.hop + 1;
    std::vector<double> flux(frames, 0.0);
    const FftTable table(ff.length);
    std::vector<std::complex<float>> buf(ff.length);
    std::vector<float> window(ff.length), prev(ff.length / 2, 0.0f), cur(ff.length / 2);
    for (size_t i = 0; i < ff.length; ++i) {
        window[i] = static_cast<float>(0.5 - 0.5 * std::cos(2.0 * 3.141592653589793 *
                                                             static_cast<double>(i) /
                                                             static_cast<double>(ff.length)));
    }
    for (size_t k = 0; k < frames; ++k) {
        const int64_t start = static_cast<int64_t>(k * ff.hop) - static_cast<int64_t>(ff.length);
        for (size_t i = 0; i < ff.length; ++i) {
            const int64_t at = start + static_cast<int64_t>(i);
            const float v = at >= 0 && at < static_cast<int64_t>(n) ? x[at] : 0.0f;
            buf[i] = {v * window[i], 0.0f};
        }
        table.transform(buf.data(), false);
        double sum = 0.0;
        // Log magnitude: a rise counts by its ratio, so a quiet note's
        // attack counts as much as a loud one's, and noise far below barely.
        for (size_t b = 1; b < ff.length / 2; ++b) {
            cur[b] = std::log1p(std::sqrt(std::norm(buf[b])));
            sum += std::max(0.0f, cur[b] - prev[b]);
        }
        flux[k] = sum;
        std::swap(cur, prev);
    }
    return flux;
}

// Mean power of x over [t - w/2, t + w/2) from prefix sums of x^2.
struct Energy {
    std::vector<double> prefix;  // over [from, to)
    int64_t from = 0;
    double at(int64_t t, int64_t w) const {
        const int64_t last = from + static_cast<int64_t>(prefix.size()) - 1;
        const int64_t a = std::clamp(t - w / 2, from, last), b = std::clamp(t + w - w / 2, from, last);
        return (prefix[static_cast<size_t>(b - from)] - prefix[static_cast<size_t>(a - from)]) /
               static_cast<double>(w);
    }
};

Energy energy(const float* x, size_t n, int64_t from, int64_t to) {
    Energy e;
    e.from = std::max<int64_t>(0, from);
    to = std::min<int64_t>(static_cast<int64_t>(n), to);
    e.prefix.assign(static_cast<size_t>(std::max<int64_t>(to - e.from, 0)) + 1, 0.0);
    for (int64_t t = e.from; t < to; ++t) {
        const double v = x[t];
        e.prefix[static_cast<size_t>(t - e.from + 1)] = e.prefix[static_cast<size_t>(t - e.from)] + v * v;
    }
    return e;
}

// Places the onset of flux frame k: the new sound entered its window, so the
// energy rises somewhere in it. From where the 4 ms energy first climbs a
// tenth of the way from the quietest point before the rise to the loudest
// after it, walk back to where it last stood within 0.2 % of the rise:
// that is where the note entered the energy window, half a window before its
// centre. A rise of under 6 dB (one note sliding into the next) leaves the
// flux frame's own estimate: the new note has reached the middle of its
// window, where the window weighs most.
int64_t place_onset(const float* x, size_t n, uint32_t rate, const FluxFrames& ff, size_t k) {
    const int64_t end = static_cast<int64_t>(k * ff.hop);
    const int64_t from = end - static_cast<int64_t>(ff.length + ff.hop);
    const int64_t to = end + static_cast<int64_t>(ff.hop);
    const int64_t w = std::max<int64_t>(8, rate / 250);
    const int64_t after = rate / 50;
    const int64_t last = static_cast<int64_t>(n);
    const int64_t fallback = std::clamp<int64_t>(end - static_cast<int64_t>(ff.length / 2), 0, last);
    const Energy e = energy(x, n, from - w, to + after + w);
    const int64_t lo = std::max<int64_t>(from, 0), hi = std::min<int64_t>(to, last);
    if (hi <= lo) return fallback;
    int64_t peak_at = lo;
    double peak = -1.0;
    for (int64_t t = lo; t < std::min<int64_t>(hi + after, last); ++t) {
        const double v = e.at(t, w);
        if (v > peak) peak = v, peak_at = t;
    }
    int64_t quiet_at = lo;
    double quiet = peak;
    for (int64_t t = lo; t <= peak_at; ++t) {
        const double v = e.at(t, w);
        if (v < quiet) quiet = v, quiet_at = t;
    }
    if (!(peak > 4.0 * quiet) || peak <= 1e-12) return fallback;
    const double rise = 0.1 * (peak - quiet) + quiet, still = 0.002 * (peak - quiet) + quiet;
    int64_t t = quiet_at;
    while (t < peak_at && e.at(t, w) < rise) ++t;
    while (t > quiet_at && e.at(t, w) > still) --t;
    return std::clamp<int64_t>(t + w / 2, 0, last);
}

// How far a note struck at `at` lifts the sound: the power of the 40 ms
// after it over that of the quietest 10 ms of the 40 ms before it (the gap,
// however short, that the previous note left or a damped string makes).
// What the cleaning leaves of a drum hit over a held note adds a flux peak
// but barely any energy.
double attack_rise(const float* x, size_t n, uint32_t rate, int64_t at) {
    const int64_t w = std::max<int64_t>(2, rate / 100), span = 4 * w;
    const Energy e = energy(x, n, at - span, at + span);
    double before = e.at(at - w / 2, w);
    for (int64_t c = at - span + w / 2; c < at - w / 2; c += w / 2) before = std::min(before, e.at(c, w));
    return e.at(at + span / 2, span) / std::max(before, 1e-20);
}

struct FluxPeak {
    size_t frame;
    double value;
};

// Local maxima within +-30 ms that stand above the mean of the surrounding
// 200 ms by a twelfth of the take's largest flux.
std::vector<FluxPeak> flux_peaks(const std::vector<double>& flux, uint32_t rate, const FluxFrames& ff) {
    std::vector<FluxPeak> peaks;
    if (flux.empty()) return peaks;
    const double top = *std::max_element(flux.begin(), flux.end());
    if (!(top > 0.0)) return peaks;
    const size_t near = std::max<size_t>(1, static_cast<size_t>(0.03 * rate / static_cast<double>(ff.hop)));
    const size_t around = std::max<size_t>(2, static_cast<size_t>(0.1 * rate / static_cast<double>(ff.hop)));
    const double delta = top / 12.0;
    std::vector<double> prefix(flux.size() + 1, 0.0);
    for (size_t i = 0; i < flux.size(); ++i) prefix[i + 1] = prefix[i] + flux[i];
    for (size_t k = 0; k < flux.size(); ++k) {
        const size_t a = k >= near ? k - near : 0, b = std::min(flux.size() - 1, k + near);
        bool is_max = true;
        for (size_t j = a; j <= b && is_max; ++j) {
            if (flux[j] > flux[k] || (flux[j] == flux[k] && j < k)) is_max = false;
        }
        if (!is_max) continue;
        const size_t c = k >= around ? k - around : 0, d = std::min(flux.size(), k + around + 1);
        const double mean = (prefix[d] - prefix[c]) / static_cast<double>(d - c);
        if (flux[k] >= mean + delta) peaks.push_back({k, flux[k]});
    }
    return peaks;
}

// A struck note lifts the sound at least this much (power, 12 dB) over the
// quietest moment just before it; the leftovers of a backing's drums under a
// held note, and flux from the tracker's own slips, stay far under it.
constexpr double kStruckRise = 16.0;
// The same note struck again over its own release: 6 dB.
constexpr double kRestruckRise = 4.0;
// How clearly the detector must read a note the tracker's guard held back.
constexpr double kGuardedClarity = 0.9;

double percentile(std::vector<double> v, double p) {
    if (v.empty()) return 0.0;
    std::sort(v.begin(), v.end());
    const double at = p * static_cast<double>(v.size() - 1);
    const size_t i = static_cast<size_t>(at);
    const double frac = at - static_cast<double>(i);
    return i + 1 < v.size() ? v[i] + (v[i + 1] - v[i]) * frac : v[i];
}

// The note a reading's own frequency is nearest to (the tracker's note may
// still be the previous one for a frame), and its cents from it.
struct Pitch {
    int note = -1;
    double cents = 0.0;
};

Pitch pitch_of(const TunerReading& r) {
    if (r.state < tn_state_pitched || !(r.frequency_hz > 0.0) || !(r.target_hz > 0.0) || r.note < 0) {
        return {};
    }
    const double from_target = 12.0 * std::log2(r.frequency_hz / r.target_hz);
    const int step = static_cast<int>(std::lround(from_target));
    return {r.note + step, 100.0 * (from_target - step)};
}

struct Run {
    size_t first, last;  // readings
    int note;
    int octaves_up = 0;  // the note lies this many octaves over what its readings say
};

// Power of x[0..n) at `hz` through a Hann window (Goertzel).
double power_at(const float* x, size_t n, double hz, double rate) {
    const double w = 2.0 * 3.141592653589793 * hz / rate, c = 2.0 * std::cos(w);
    double s1 = 0.0, s2 = 0.0;
    for (size_t i = 0; i < n; ++i) {
        const double hann =
            0.5 - 0.5 * std::cos(2.0 * 3.141592653589793 * static_cast<double>(i) / static_cast<double>(n));
        const double s0 = hann * x[i] + c * s1 - s2;
        s2 = s1;
        s1 = s0;
    }
    return s1 * s1 + s2 * s2 - c * s1 * s2;
}

}  // namespace

std::vector<int64_t> detect_onsets(const float* x, size_t n, uint32_t rate) {
    std::vector<int64_t> out;
    if (x == nullptr || n == 0 || rate == 0) return out;
    const FluxFrames ff = flux_frames(rate);
    const auto flux = spectral_flux(x, n, ff);
    for (const FluxPeak& p : flux_peaks(flux, rate, ff)) out.push_back(place_onset(x, n, rate, ff, p.frame));
    return out;
}

std::vector<ReportNote> report_notes(const float* x, size_t n, uint32_t rate,
                                     const TunerConfig* tuner, const ReportGrid& grid) {
    std::vector<ReportNote> notes;
    if (x == nullptr || n == 0 || rate == 0) return notes;
    TunerConfig cfg = tuner != nullptr ? *tuner : TunerConfig{440.0, 55.0, 1200.0, 5.0, -1, 0};
    cfg.fixed_note = -1;
    const auto framing = ws::tuner::offline_frames(&cfg, rate);
    std::vector<TunerReading> track(ws::tuner::offline_reading_count(&cfg, n, rate));
    if (track.empty()) return notes;
    track.resize(ws::tuner::analyse_offline(&cfg, x, n, 1, rate, track.data(), track.size(), nullptr));

    // Runs of readings pitched on one note; a run broken by at most two
    // readings and taken up again on the same note is one run. A note of
    // 60 ms may give a single pitched reading: such a run counts only where
    // a note is plainly struck (below).
    std::vector<Run> runs;
    for (size_t k = 0; k < track.size();) {
        const Pitch p = pitch_of(track[k]);
        if (p.note < 0) {
            ++k;
            continue;
        }
        size_t last = k;
        while (last + 1 < track.size() && pitch_of(track[last + 1]).note == p.note) ++last;
        if (!runs.empty() && runs.back().note == p.note && k - runs.back().last <= 3) {
            runs.back().last = last;
        } else {
            runs.push_back({k, last, p.note});
        }
        k = last + 1;
    }

    // A run whose typical (median) window stays 40 dB under the take's loud
    // pitched windows (their 90th percentile) is too faint to be played. Not
    // its loudest: a faint leak is read as soon as a note's tail fades, so
    // its first windows still hold that tail. What the cleaning leaves of a
    // backing is often only 15-25 dB under the player, so the median alone
    // does not tell it from a soft note: the attack does (below), and a run
    // whose loudest window never comes within 20 dB of the loud ones is
    // dropped too, since a leftover's own attacks (a chord's, a bass's) are
    // struck as a note's are.
    // Window powers come from the audio: the readings' own levels are per
    // pushed chunk, which may hold the end of the previous note.
    const FluxFrames ff = flux_frames(rate);
    const auto flux = spectral_flux(x, n, ff);
    const auto peaks = flux_peaks(flux, rate, ff);
    const int64_t hop = static_cast<int64_t>(framing.hop), window = static_cast<int64_t>(framing.window);
    const auto flux_frame_of = [&](int64_t frame) {
        return static_cast<size_t>(std::clamp<int64_t>(frame, 0, static_cast<int64_t>(n)) /
                                   static_cast<int64_t>(ff.hop));
    };
    // A short note struck over the end of the one before lifts the sound
    // little, and the tracker's octave guard holds the earlier note for its
    // first readings: its run is a single reading that comes late. It is a
    // note when the detector alone, on a window from the onset on, reads
    // the run's note clearly.
    const TunerConfig clean_cfg = ws::tuner::sanitise(&cfg);
    ws::tuner::PitchDetector detector;
    bool detector_ready = false;
    // The detector's reading of the window from `at` on, with no tracker.
    const auto detected = [&](int64_t at) {
        if (at < 0 || at + window > static_cast<int64_t>(n)) return ws::tuner::PitchEstimate{};
        if (!detector_ready) {
            detector.configure(rate, clean_cfg.lowest_hz, clean_cfg.highest_hz,
                               static_cast<uint64_t>(window));
            detector_ready = true;
        }
        return detector.detect(x + at, static_cast<size_t>(window));
    };
    const auto note_at = [&](const ws::tuner::PitchEstimate& e) {
        return e.frequency > 0.0 ? ws::tuner::note_of(e.frequency, clean_cfg.a4_hz) : -1;
    };
    const auto hidden_by_guard = [&](const Run& run, int64_t onset) {
        if (static_cast<int64_t>(run.first) <= (onset + hop - 1) / hop) return false;
        // The earlier note's release may still fill the first window.
        for (const int64_t later : {int64_t{0}, hop / 2, hop}) {
            const ws::tuner::PitchEstimate e = detected(onset + later);
            if (e.clarity >= kGuardedClarity && note_at(e) == run.note) return true;
        }
        return false;
    };
    // A short run of one or two readings whose note the guard held back:
    // the flux frame of its largest flux after input frame `from`, to where
    // its first window's onset can lie, when the detector confirms the note
    // there (a short low note after a brighter one adds little flux).
    const auto guarded_onset = [&](const Run& run, int64_t from) -> std::optional<size_t> {
        if (run.last - run.first > 1) return std::nullopt;
        const size_t k0 = flux_frame_of(from) + 1;
        const size_t k1 =
            std::min(flux.size() - 1, flux_frame_of(static_cast<int64_t>(run.first) * hop + window +
                                                    static_cast<int64_t>(ff.length / 2)));
        size_t k = k0;
        for (size_t j = k0; j <= k1; ++j) k = flux[j] > flux[k] ? j : k;
        if (k0 > k1 || !(flux[k] > 0.0) || !hidden_by_guard(run, place_onset(x, n, rate, ff, k)))
            return std::nullopt;
        return k;
    };

    double floor_power = 0.0;
    {
        const size_t h = static_cast<size_t>(framing.hop);
        std::vector<double> block(n / h + 2, 0.0);
        for (size_t t = 0; t < n; ++t) block[t / h] += static_cast<double>(x[t]) * x[t];
        const auto power = [&](size_t k) { return block[k] + block[k + 1]; };  // window = 2 hops
        std::vector<double> pitched;
        for (size_t k = 0; k < track.size(); ++k) {
            if (pitch_of(track[k]).note >= 0) pitched.push_back(power(k));
        }
        floor_power = 1e-4 * percentile(pitched, 0.9);
        // A run's last two windows may already hold the next note, read as
        // this one while the guard waits: they do not count for its loudest.
        std::erase_if(runs, [&](const Run& run) {
            std::vector<double> own;
            for (size_t k = run.first; k <= run.last; ++k) own.push_back(power(k));
            const size_t own_end = run.last - run.first > 2 ? own.size() - 2 : 1;
            return percentile(own, 0.5) < floor_power ||
                   *std::max_element(own.begin(), own.begin() + static_cast<int64_t>(own_end)) <
                       100.0 * floor_power;
        });

        // What the cleaning leaves of a drum hit or a bass note under a held
        // note can make the tracker slip an octave or two for a few readings,
        // or read a stray note just before the next one starts. A run an
        // octave or two from the run it follows without a gap, whose first
        // windows are no louder than that run's last and where nothing is
        // struck (a note played adds energy), is that note still: the
        // readings on the other octave count for nothing, as cents come from
        // the run's own note. A run of one or two readings that the next run
        // takes over without a gap is that run's beginning: its onset search
        // then starts early enough.
        std::vector<Run> joined;
        for (const Run& run : runs) {
            if (!joined.empty()) {
                Run& prev = joined.back();
                const int apart = std::abs(run.note - prev.note);
                const bool adjacent = run.first <= prev.last + 3;
                const double rise = std::max(power(run.first), power(run.first + 1)) /
                                    std::max(power(prev.last), 1e-30);
                const auto struck_near = [&] {
                    // Where the onset search below looks for this run's onset.
                    const int64_t a = static_cast<int64_t>(run.first) * hop - 3 * hop;
                    const int64_t b =
                        static_cast<int64_t>(run.first) * hop + window + static_cast<int64_t>(ff.length / 2);
                    for (const FluxPeak& p : peaks) {
                        const int64_t at = static_cast<int64_t>(p.frame * ff.hop);
                        if (at > a && at <= b &&
                            attack_rise(x, n, rate, place_onset(x, n, rate, ff, p.frame)) >= kStruckRise) {
                            return true;
                        }
                    }
                    return false;
                };
                // A short note an octave from the one before, struck over its
                // release and held back by the guard, is a note.
                const bool slip = (apart == 12 || apart == 24) && rise < 2.0 && !struck_near() &&
                                  !guarded_onset(run, static_cast<int64_t>(run.first) * hop - 3 * hop);
                if (adjacent && (apart == 0 || slip)) {
                    prev.last = std::max(prev.last, run.last);
                    // The note is the octave most of its readings hold.
                    size_t on_prev = 0, on_run = 0;
                    for (size_t k = prev.first; k <= prev.last; ++k) {
                        const int note = pitch_of(track[k]).note;
                        on_prev += note == prev.note ? 1 : 0;
                        on_run += note == run.note ? 1 : 0;
                    }
                    if (on_run > on_prev) prev.note = run.note;
                    continue;
                }
                if (run.first <= prev.last + 2 && prev.last - prev.first <= 1 && run.last - run.first >= 3) {
                    prev = {prev.first, run.last, run.note};
                    continue;
                }
            }
            joined.push_back(run);
        }
        runs = std::move(joined);
    }

    // What the cleaning leaves of a bass can give a note's period the odd
    // harmonics of the octave below, and the detector then reads that lower
    // note. A note played there has its fundamental in the window from its
    // onset; one read there by mistake has next to nothing at it (20 dB
    // under the octave above).
    const auto octave_above = [&](const Run& run, int64_t onset) {
        std::vector<double> hz;
        for (size_t k = run.first; k <= run.last; ++k) {
            if (pitch_of(track[k]).note == run.note) hz.push_back(track[k].frequency_hz);
        }
        const double f = percentile(hz, 0.5);
        if (!(f > 0.0) || 2.0 * f > 0.45 * rate || onset < 0 || onset + window > static_cast<int64_t>(n))
            return false;
        const size_t m = static_cast<size_t>(window);
        return power_at(x + onset, m, f, rate) < 0.01 * power_at(x + onset, m, 2.0 * f, rate);
    };

    struct Found {
        int64_t onset;
        size_t run;
    };
    std::vector<Found> found;
    int64_t previous_onset = -(int64_t{1} << 40);
    const int64_t min_gap = rate / 20;
    for (size_t r = 0; r < runs.size(); ++r) {
        const Run& run = runs[r];
        // The note sounds in the first window that reads it: its onset lies
        // before that window's end, and at most three hops before its start
        // (an octave leap waits out the octave guard's median). The
        // strongest flux peak there after the previous onset is its onset; a
        // flux frame ends after the onset, within one frame length. A peak
        // placed past the window's end is taken only when there is no other:
        // it is more likely the next note's (a short note read late).
        const int64_t a = std::max(static_cast<int64_t>(run.first) * hop - 3 * hop,
                                   previous_onset + min_gap);
        const int64_t b = static_cast<int64_t>(run.first) * hop + window;
        // Where there are several, one after which the detector reads the
        // run's note comes first, then one where it reads its octave: two
        // short notes can share the span.
        size_t best = flux_frame_of(a + static_cast<int64_t>(ff.hop));
        bool from_peak = false;
        struct Candidate {
            size_t frame;
            double value;
            bool inside;
            int reads;  // 2 the run's note, 1 its octave, 0 neither
        };
        std::vector<Candidate> candidates;
        for (const FluxPeak& p : peaks) {
            const int64_t at = static_cast<int64_t>(p.frame * ff.hop);
            if (at <= a || at > b + static_cast<int64_t>(ff.length / 2)) continue;
            const bool inside = at <= b || place_onset(x, n, rate, ff, p.frame) < b;
            candidates.push_back({p.frame, p.value, inside, 2});
        }
        if (candidates.size() > 1) {
            for (Candidate& c : candidates) {
                const int d = note_at(detected(place_onset(x, n, rate, ff, c.frame)));
                c.reads = d == run.note ? 2 : std::abs(d - run.note) == 12 ? 1 : 0;
            }
        }
        const auto better = [](const Candidate& c, const Candidate& d) {
            return std::tie(c.reads, c.inside, c.value) > std::tie(d.reads, d.inside, d.value);
        };
        if (!candidates.empty()) {
            best = std::max_element(candidates.begin(), candidates.end(),
                                    [&](const Candidate& c, const Candidate& d) { return better(d, c); })
                       ->frame;
            from_peak = true;
        }
        // A run without an attack where it begins was begun by something
        // already sounding: what the cleaning left of the backing (its bass
        // holds a note for bars), which a note played on the same pitch then
        // joins. Such a note starts at the first flux peak inside the run
        // that lifts the sound as a struck note does, and that three windows
        // of the run wholly after it still read.
        const int64_t run_end = static_cast<int64_t>(run.last) * hop;
        const auto struck = [&](const FluxPeak& p, int64_t& at, double rise = kStruckRise) {
            at = place_onset(x, n, rate, ff, p.frame);
            return at >= previous_onset + min_gap && at <= run_end - 2 * hop &&
                   attack_rise(x, n, rate, at) >= rise;
        };
        int64_t onset = 0;
        if (from_peak) {
            onset = place_onset(x, n, rate, ff, best);
        } else {
            for (const FluxPeak& p : peaks) {
                const int64_t at = static_cast<int64_t>(p.frame * ff.hop);
                if (at <= b + static_cast<int64_t>(ff.length / 2)) continue;
                if (at > run_end) break;
                if (struck(p, onset)) {
                    best = p.frame, from_peak = true;
                    break;
                }
            }
        }
        if (!from_peak) {
            if (const auto k = guarded_onset(run, a)) {
                best = *k, from_peak = true;
                onset = place_onset(x, n, rate, ff, best);
            }
        }
        if (!from_peak) {
            // Nothing was struck: the backing's leftovers, or the tracker
            // settling on the note the previous run began, its first
            // readings still mixed with the tail of the note before: then
            // the note is the settled one.
            if (!found.empty()) {
                Run& prev = runs[found.back().run];
                if (run.first <= prev.last + 3 && prev.last - prev.first <= 2 &&
                    run.last - run.first >= prev.last - prev.first) {
                    prev.last = run.last;
                    prev.note = run.note;
                }
            }
            continue;
        }
        if (run.first == run.last && attack_rise(x, n, rate, onset) < kStruckRise &&
            !hidden_by_guard(run, onset)) {
            continue;
        }
        if (onset < previous_onset + min_gap) onset = previous_onset + min_gap;
        if (run.octaves_up == 0 && octave_above(run, onset)) {
            runs[r].note += 12;
            runs[r].octaves_up = 1;
        }
        found.push_back({onset, r});
        previous_onset = onset;
        // The same note struck again inside the run: a flux peak of at least
        // a quarter of this note's own onset that lifts the sound by
        // kRestruckRise. Struck over its own release, a short note rises
        // less than one struck after a gap, but the leftovers of a drum under
        // a held note barely lift it at all. Three windows of the run wholly
        // after it must still read the note, or the peak is the next note's
        // arrival, read as this one for up to two frames while the octave
        // guard's median catches up.
        for (const FluxPeak& p : peaks) {
            if (p.frame <= best || p.value < 0.25 * flux[best]) continue;
            if (static_cast<int64_t>(p.frame * ff.hop) > run_end) break;
            int64_t at = 0;
            if (!struck(p, at, kRestruckRise)) continue;
            found.push_back({at, r});
            previous_onset = at;
        }
    }

    // A short note struck over the release of the one before, whose
    // readings the guard held back until it had all but faded, leaves a run
    // too faint to keep. A flux peak that no note claims is that note where
    // the window from it holds a played note's power, the detector alone
    // reads it clearly, and the tracker reads that note within three hops
    // but not at once.
    const size_t kept = found.size();
    for (const FluxPeak& p : peaks) {
        const int64_t t = place_onset(x, n, rate, ff, p.frame);
        const auto k0 = static_cast<size_t>((t + hop - 1) / hop);
        if (t + window > static_cast<int64_t>(n) || k0 + 1 >= track.size() ||
            std::any_of(found.begin(), found.end(),
                        [&](const Found& f) { return std::llabs(f.onset - t) < min_gap; })) {
            continue;
        }
        double e = 0.0;
        for (int64_t j = t; j < t + window; ++j) e += static_cast<double>(x[j]) * x[j];
        if (e < 100.0 * floor_power) continue;
        const ws::tuner::PitchEstimate est = detected(t);
        const int note = note_at(est);
        if (est.clarity < kGuardedClarity || note < 0 || pitch_of(track[k0]).note == note) continue;
        for (size_t k = k0 + 1; k <= k0 + 3 && k < track.size(); ++k) {
            if (pitch_of(track[k]).note != note) continue;
            runs.push_back({k, k, note});
            found.push_back({t, runs.size() - 1});
            break;
        }
    }
    if (found.size() > kept) {
        std::sort(found.begin(), found.end(),
                  [](const Found& a, const Found& b) { return a.onset < b.onset; });
    }

    const double step_frames = 60.0 * rate / (grid.tempo_bpm * grid.subdivision);
    for (size_t i = 0; i < found.size(); ++i) {
        const Run& run = runs[found[i].run];
        ReportNote note;
        note.onset_frame = found[i].onset;
        note.note = run.note;
        // The note lasts until the next one begins or its energy has fallen
        // 20 dB below its loudest 10 ms, whichever comes first, and at most
        // to the end of the last window that read it.
        int64_t end = std::min<int64_t>(static_cast<int64_t>(run.last) * hop + window, static_cast<int64_t>(n));
        if (i + 1 < found.size()) end = std::min(end, found[i + 1].onset);
        const int64_t block = std::max<int64_t>(1, rate / 100);
        double loudest = 0.0;
        for (int64_t t = note.onset_frame; t + block <= end; t += block) {
            double s = 0.0;
            for (int64_t j = t; j < t + block; ++j) s += static_cast<double>(x[j]) * x[j];
            if (s > loudest) {
                loudest = s;
            } else if (s < 0.01 * loudest) {
                end = t;
                break;
            }
        }
        note.duration_frames = std::max<int64_t>(0, end - note.onset_frame);

        // Cents from the readings whose windows lie inside the note; a note
        // too short for any takes every reading of its run on its note.
        std::vector<double> cents, hz;
        for (int pass = 0; pass < 2 && cents.empty(); ++pass) {
            for (size_t k = run.first; k <= run.last; ++k) {
                const int64_t w0 = static_cast<int64_t>(k) * hop;
                if (pass == 0 && (w0 < note.onset_frame || w0 + window > end)) continue;
                const Pitch p = pitch_of(track[k]);
                if (p.note + 12 * run.octaves_up != run.note) continue;
                cents.push_back(p.cents);
                hz.push_back(std::ldexp(track[k].frequency_hz, run.octaves_up));
            }
        }
        note.cents = percentile(cents, 0.5);
        note.cents_spread = percentile(cents, 0.75) - percentile(cents, 0.25);
        note.frequency_hz = percentile(hz, 0.5);

        const double steps = (static_cast<double>(note.onset_frame) - grid.first_beat_frame) / step_frames;
        note.grid_index = static_cast<int64_t>(std::llround(steps));
        const double grid_at = grid.first_beat_frame + static_cast<double>(note.grid_index) * step_frames;
        note.grid_frame = static_cast<int64_t>(std::llround(grid_at));
        note.deviation_ms = (static_cast<double>(note.onset_frame) - grid_at) * 1000.0 / rate;
        notes.push_back(note);
    }
    return notes;
}

ReportSummary summarise(const std::vector<ReportNote>& notes) {
    ReportSummary s;
    if (notes.empty()) return s;
    double dev = 0.0, cents = 0.0;
    size_t in_time = 0, in_tune = 0;
    for (const ReportNote& n : notes) {
        dev += std::fabs(n.deviation_ms);
        cents += std::fabs(n.cents);
        in_time += std::fabs(n.deviation_ms) <= 20.0 ? 1 : 0;
        in_tune += std::fabs(n.cents) <= 10.0 ? 1 : 0;
    }
    const double count = static_cast<double>(notes.size());
    s.mean_abs_deviation_ms = dev / count;
    s.share_within_20ms = static_cast<double>(in_time) / count;
    s.mean_abs_cents = cents / count;
    s.share_within_10_cents = static_cast<double>(in_tune) / count;
    return s;
}

}  // namespace ws::takes
