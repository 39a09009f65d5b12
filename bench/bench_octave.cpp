// Octave errors and cents accuracy of the offline tuner on generated notes
// whose pitch is known: low strings with a weak fundamental and a weak third
// harmonic (the profiles measured on recorded nylon- and steel-string low E
// notes, and variations of them), and plain synthetic kinds that must stay at
// their own pitch, also as decaying upper tones over a music-like broadband
// background or over a backing's leftover notes ("below" counts readings an
// octave or more low). Every file goes through tn_offline_process, the public
// path; the material is the same on every run (fixed seed).
// With --shares it also prints, per kind, how far the detector's evidence for
// the octave below stood from its thresholds (the lesser of the odd-harmonic
// share's and the second odd harmonic's margins, dB) over the frames of each
// file: the smallest for the low strings (which must stay above 0), the
// largest for the true tones (which must stay below it).
//   bench_octave [--quick] [--shares]
#include <algorithm>
#include <chrono>
#include <cmath>
#include <cstdio>
#include <cstring>
#include <map>
#include <random>
#include <string>
#include <vector>

#include "tuner/analyser.hpp"
#include "woodshed/tuner.h"

namespace {

constexpr double kTwoPi = 6.283185307179586;

double midi_hz(double note) { return 440.0 * std::pow(2.0, (note - 69.0) / 12.0); }
double db(double v) { return std::pow(10.0, v / 20.0); }

// One note to render: partial k (from 1) at k f sqrt(1 + B k^2) with amplitude
// amps[k - 1], phase phases[k - 1] and decay time decay[k - 1] (0: steady).
struct Note {
    double f = 0.0;
    double rate = 48000.0;
    std::vector<double> amps, phases, decay;
    double inharmonicity = 0.0;
    double vibrato_cents = 0.0, vibrato_hz = 0.0;
    double attack_s = 0.0;  // a plucked note: rendered from its attack...
    double skip_s = 0.0;    // ...and analysed from this far after it
    double seconds = 1.0;   // length analysed
    double snr_db = 0.0;    // white noise this far below the signal's power; 0: none
    bool music = false;     // ...or, if set, a music-like background instead
};

// A broadband background like what leak removal leaves of a band: pink
// noise (three-pole approximation) whose level follows a random envelope of
// eighth-note hits (level jumps up to 12 dB, 0.1 s decay).
std::vector<double> music_background(size_t count, double rate, std::mt19937_64& rng) {
    std::normal_distribution<double> g(0.0, 1.0);
    std::uniform_real_distribution<double> u(0.0, 1.0);
    std::vector<double> out(count);
    double b0 = 0, b1 = 0, b2 = 0, env = 1.0, power = 0.0;
    const size_t beat = static_cast<size_t>(0.25 * rate);
    const double fall = std::exp(-1.0 / (0.1 * rate));
    for (size_t i = 0; i < count; ++i) {
        if (i % beat == 0) env = std::pow(10.0, 12.0 * u(rng) / 20.0);
        env = 1.0 + (env - 1.0) * fall;
        const double w = g(rng);
        b0 = 0.99765 * b0 + w * 0.0990460;
        b1 = 0.96300 * b1 + w * 0.2965164;
        b2 = 0.57000 * b2 + w * 1.0526913;
        out[i] = env * (b0 + b1 + b2 + w * 0.1848);
        power += out[i] * out[i];
    }
    for (double& v : out) v /= std::sqrt(power / double(count));
    return out;
}

std::vector<float> render(const Note& n, std::mt19937_64& rng) {
    const size_t skip = static_cast<size_t>(n.skip_s * n.rate);
    const size_t count = static_cast<size_t>(n.seconds * n.rate);
    std::vector<double> x(count, 0.0);
    const double nyquist = n.rate / 2.0;
    for (size_t k = 1; k <= n.amps.size(); ++k) {
        const double kd = static_cast<double>(k);
        const double fk = kd * n.f * std::sqrt(1.0 + n.inharmonicity * kd * kd);
        if (fk >= 0.95 * nyquist || n.amps[k - 1] == 0.0) continue;
        const double a = n.amps[k - 1], tau = n.decay.empty() ? 0.0 : n.decay[k - 1];
        if (n.vibrato_cents > 0.0) {
            // Frequency fk 2^(d sin(2 pi v t) / 1200), integrated (small d).
            const double depth = fk * (std::pow(2.0, n.vibrato_cents / 1200.0) - 1.0);
            for (size_t i = 0; i < count; ++i) {
                const double t = double(i + skip) / n.rate;
                const double phase = kTwoPi * fk * t + n.phases[k - 1] +
                                     depth / n.vibrato_hz * (1.0 - std::cos(kTwoPi * n.vibrato_hz * t));
                x[i] += a * std::sin(phase);
            }
            continue;
        }
        // A rotating phasor and a decaying envelope, both by recurrence.
        const double t0 = double(skip) / n.rate, step = kTwoPi * fk / n.rate;
        double re = std::cos(kTwoPi * fk * t0 + n.phases[k - 1]), im = std::sin(kTwoPi * fk * t0 + n.phases[k - 1]);
        const double c = std::cos(step), s = std::sin(step);
        double env = tau > 0.0 ? std::exp(-t0 / tau) : 1.0;
        const double fall = tau > 0.0 ? std::exp(-1.0 / (tau * n.rate)) : 1.0;
        for (size_t i = 0; i < count; ++i) {
            double gain = env;
            const double t = t0 + double(i) / n.rate;
            if (n.attack_s > 0.0 && t < n.attack_s) gain *= t / n.attack_s;
            x[i] += a * gain * im;
            const double r2 = re * c - im * s;
            im = re * s + im * c;
            re = r2;
            env *= fall;
        }
    }
    double power = 0.0, peak = 0.0;
    for (double v : x) {
        power += v * v;
        peak = std::max(peak, std::fabs(v));
    }
    power /= double(count);
    if (n.snr_db > 0.0 && n.music) {
        const std::vector<double> b = music_background(count, n.rate, rng);
        const double gain = std::sqrt(power / std::pow(10.0, n.snr_db / 10.0));
        for (size_t i = 0; i < count; ++i) x[i] += gain * b[i];
    } else if (n.snr_db > 0.0) {
        std::normal_distribution<double> gauss(0.0, std::sqrt(power / std::pow(10.0, n.snr_db / 10.0)));
        for (double& v : x) v += gauss(rng);
    }
    // Peak near -6 dBFS, as a recording would be.
    const double scale = peak > 0.0 ? 0.5 / peak : 1.0;
    std::vector<float> out(count);
    for (size_t i = 0; i < count; ++i) out[i] = static_cast<float>(x[i] * scale);
    return out;
}

std::vector<double> random_phases(size_t k, std::mt19937_64& rng) {
    std::uniform_real_distribution<double> u(0.0, kTwoPi);
    std::vector<double> p(k);
    for (double& v : p) v = u(rng);
    return p;
}

// Harmonic amplitudes in dB relative to the strongest, measured on recorded
// low E strings; harmonics 9..12 continue the fall.
const double kNylon[12] = {-20, 0, -10, -18, -26, -25, -29, -24, -28, -30, -32, -34};
const double kSteel[12] = {-24, 0, -21, -11, -18, -27, -27, -25, -28, -30, -32, -34};

// A plucked low string: the given profile, or (variation) a random one of the
// two with the fundamental at -15..-30 dB, the third harmonic at -8..-25 dB,
// the rest within +-2 dB, inharmonicity up to `max_b`; partials decay faster
// the higher they are.
Note low_string(double f, double rate, int profile, double max_b, std::mt19937_64& rng) {
    std::uniform_real_distribution<double> u(0.0, 1.0);
    const bool nylon = profile == 0 || (profile == 2 && u(rng) < 0.5);
    Note n;
    n.f = f;
    n.rate = rate;
    const double* base = nylon ? kNylon : kSteel;
    const double tau1 = 1.0 + 2.0 * u(rng);
    for (int k = 1; k <= 12; ++k) {
        double level = base[k - 1];
        if (profile == 2 && k != 2) {
            if (k == 1) level = -15.0 - 15.0 * u(rng);
            else if (k == 3) level = -8.0 - 17.0 * u(rng);
            else level += 4.0 * u(rng) - 2.0;
        }
        n.amps.push_back(db(level));
        n.decay.push_back(tau1 / (1.0 + 0.15 * (k - 1)));
    }
    n.phases = random_phases(12, rng);
    n.inharmonicity = profile == 2 ? max_b * u(rng) : 0.0;
    n.attack_s = 0.004;
    n.skip_s = 0.3;
    n.seconds = 1.0;
    return n;
}

enum Kind { sine, harmonic, weak_fundamental, missing_fundamental, inharmonic, vibrato, odd, kinds };
const char* kKindNames[kinds] = {"sine", "harmonic", "weak fundamental", "missing fundamental",
                                 "inharmonic", "vibrato", "odd harmonics"};

Note synthetic(Kind kind, double f, double rate, std::mt19937_64& rng) {
    Note n;
    n.f = f;
    n.rate = rate;
    n.seconds = 0.5;
    const size_t count = kind == sine ? 1 : 10;
    for (size_t k = 1; k <= count; ++k) {
        double a = 1.0 / double(k);
        if (kind == weak_fundamental && k == 1) a = db(-20.0);
        if (kind == missing_fundamental && k == 1) a = 0.0;
        if (kind == odd && k % 2 == 0) a = 0.0;
        n.amps.push_back(a);
    }
    n.phases = random_phases(count, rng);
    if (kind == inharmonic) n.inharmonicity = 0.0004;
    if (kind == vibrato) {
        n.vibrato_cents = 20.0;
        n.vibrato_hz = 5.5;
    }
    return n;
}

struct Tally {
    int files = 0, octave = 0, below = 0, off50 = 0, silent = 0;
    std::vector<double> cents;  // |error| of the files read in the right octave
    double worst = 0.0;         // largest |error| in the right octave
    std::vector<double> shares;  // dB, per file where the lower octave was weighed
};

bool g_shares = false;

// The margin of the true note's octave (low strings) or of the octave below
// the true note (true tones) over the frames of a file, in dB: the smallest
// for the low strings, the largest for true tones.
void record_share(Tally& t, const TunerConfig& cfg, const std::vector<float>& x, double rate, double truth,
                  bool lowest) {
    ws::tuner::PitchAnalyser a(&cfg);
    a.reset(rate);
    const size_t hop = static_cast<size_t>(a.hop() * a.decimation());
    double pick = std::nan("");
    for (size_t i = 0; i < x.size(); i += hop) {
        const uint64_t before = i;  // samples pushed so far
        a.push(x.data() + i, std::min(hop, x.size() - i));
        // How far the weighed octave stood from being taken: the lesser of
        // its share's and its second odd harmonic's margins over their thresholds.
        const auto& d = a.detector();
        const double s = std::min(d.lower_octave_share() / d.kLowerOctaveShare,
                                  d.lower_octave_second() / d.kLowerOctaveSecond);
        const double lower = a.detector().lower_octave_hz() * (lowest ? 1.0 : 2.0);
        if (before + 1 >= a.window() && lower > 0.0 && std::fabs(std::log2(lower / truth)) < 0.1) {
            const double v = 10.0 * std::log10(std::max(s, 1e-12));
            pick = std::isnan(pick) ? v : lowest ? std::min(pick, v) : std::max(pick, v);
        }
    }
    if (!std::isnan(pick)) t.shares.push_back(pick);
}

// The reading's frequency as the user sees it (target note and cents), in
// cents from the truth.
double error_cents(const TunerReading& r, double truth) {
    return 1200.0 * std::log2(r.target_hz / truth) + r.cents;
}

void measure(Tally& t, const TunerConfig& cfg, const std::vector<float>& x, double rate, double truth,
             double fixed_truth_cents = std::nan(""), bool low = false) {
    if (g_shares) record_share(t, cfg, x, rate, truth, low);
    TunerReading r{};
    ++t.files;
    if (tn_offline_process(&cfg, x.data(), int32_t(x.size()), 1, rate, &r) != 1 || r.note < 0) {
        ++t.silent;
        return;
    }
    const double e = std::isnan(fixed_truth_cents) ? error_cents(r, truth) : r.cents - fixed_truth_cents;
    if (std::fabs(e) > 600.0) {
        ++t.octave;
        if (e < 0.0) ++t.below;
        return;
    }
    if (std::fabs(e) > 50.0) ++t.off50;
    t.cents.push_back(std::fabs(e));
    t.worst = std::max(t.worst, std::fabs(e));
}

double quantile(std::vector<double> v, double q) {
    if (v.empty()) return std::nan("");
    std::sort(v.begin(), v.end());
    const double pos = q * double(v.size() - 1);
    const size_t lo = static_cast<size_t>(pos);
    const size_t hi = std::min(lo + 1, v.size() - 1);
    return v[lo] + (v[hi] - v[lo]) * (pos - double(lo));
}

void print(const std::string& name, const Tally& t) {
    std::printf("%-34s %6d %7d %6d %6d %7d %9.3f %9.3f %9.3f", name.c_str(), t.files, t.octave, t.below, t.off50,
                t.silent, quantile(t.cents, 0.5), quantile(t.cents, 0.95), t.worst);
    if (g_shares && !t.shares.empty()) {
        std::printf("   margin dB: %zu files, min %.1f, 5%% %.1f, median %.1f, 95%% %.1f, max %.1f", t.shares.size(),
                    quantile(t.shares, 0.0), quantile(t.shares, 0.05), quantile(t.shares, 0.5),
                    quantile(t.shares, 0.95), quantile(t.shares, 1.0));
    }
    std::printf("\n");
}

}  // namespace

int main(int argc, char** argv) {
    bool quick = false;
    for (int i = 1; i < argc; ++i) {
        quick = quick || std::strcmp(argv[i], "--quick") == 0;
        g_shares = g_shares || std::strcmp(argv[i], "--shares") == 0;
    }
    const auto start = std::chrono::steady_clock::now();
    std::mt19937_64 rng(20261124);
    std::uniform_real_distribution<double> u(0.0, 1.0);
    const double rates[] = {44100.0, 48000.0};
    const double snrs[] = {0.0, 40.0, 20.0};  // 0: no noise
    const TunerConfig wide{440.0, 30.0, 1300.0, 5.0, -1, 0};
    const TunerConfig standard{440.0, 55.0, 1200.0, 5.0, -1, 0};
    const int variations = quick ? 1 : 2;
    const int per_kind = quick ? 8 : 30;

    std::printf("%-34s %6s %7s %6s %6s %7s %9s %9s %9s\n", "kind", "files", "octave", "below", ">50c", "silent",
                "median", "p95", "worst");

    // Low strings, E1..A3, each note 20 cents either side at random.
    std::map<std::string, Tally> low;
    for (int note = 28; note <= 57; ++note) {
        for (double rate : rates) {
            for (double snr : snrs) {
                for (int v = 0; v < 2 + variations; ++v) {
                    const int profile = std::min(v, 2);
                    const double f = midi_hz(note + (u(rng) - 0.5) * 0.4);
                    Note n = low_string(f, rate, profile, 0.0003, rng);
                    n.snr_db = snr;
                    const auto x = render(n, rng);
                    const std::string name = profile == 0 ? "low string nylon" : profile == 1 ? "low string steel"
                                                                                              : "low string varied";
                    measure(low[name + " 30..1300"], wide, x, rate, f, std::nan(""), true);
                    if (f >= 60.0) measure(low[name + " 55..1200"], standard, x, rate, f, std::nan(""), true);
                }
            }
        }
    }
    for (const auto& [name, t] : low) print(name, t);

    // Fixed-note E2 on low E strings of the measured profiles and varied ones.
    Tally fixed;
    for (double rate : rates) {
        for (double snr : snrs) {
            for (int v = 0; v < 6; ++v) {
                const double detune = (u(rng) - 0.5) * 40.0;
                Note n = low_string(midi_hz(40 + detune / 100.0), rate, std::min(v, 2), 0.0001, rng);
                n.snr_db = snr;
                const auto x = render(n, rng);
                const TunerConfig cfg{440.0, 55.0, 1200.0, 5.0, 40, 0};
                measure(fixed, cfg, x, rate, n.f, detune, true);
            }
        }
    }
    print("fixed-note E2 (cents vs truth)", fixed);

    // Synthetic kinds, 41..1200 Hz (log-uniform), in the wide range.
    for (int k = 0; k < kinds; ++k) {
        Tally t, by_snr[3];
        for (int i = 0; i < per_kind; ++i) {
            const double f = 41.0 * std::pow(1200.0 / 41.0, u(rng));
            for (double rate : rates) {
                for (int s = 0; s < 3; ++s) {
                    Note n = synthetic(Kind(k), f, rate, rng);
                    n.snr_db = snrs[s];
                    const auto x = render(n, rng);
                    measure(t, wide, x, rate, f);
                    if (g_shares) record_share(by_snr[s], wide, x, rate, f, false);
                }
            }
        }
        print(kKindNames[k], t);
        for (int s = 0; s < 3 && g_shares; ++s) {
            by_snr[s].files = t.files / 3;
            print(std::string("  ") + (s == 0 ? "clean" : s == 1 ? "40 dB SNR" : "20 dB SNR"), by_snr[s]);
        }
    }
    // Upper tones 200..1200 Hz (sine and harmonic), decaying 10 dB/s, over a
    // music-like broadband background: none may read an octave low.
    for (double snr : {20.0, 15.0, 10.0}) {
        Tally t;
        for (int i = 0; i < per_kind; ++i) {
            const double f = 200.0 * std::pow(6.0, u(rng));
            for (double rate : rates) {
                for (Kind k : {sine, harmonic}) {
                    Note n = synthetic(k, f, rate, rng);
                    n.decay.assign(n.amps.size(), 20.0 / 10.0 / std::log(10.0));
                    n.snr_db = snr;
                    n.music = true;
                    measure(t, wide, render(n, rng), rate, f);
                }
            }
        }
        print("decaying upper tone, music " + std::to_string(int(snr)) + " dB", t);
    }
    // The same tones (clean) over what leak removal leaves of a backing's
    // notes, steady at 10..20 dB below the tone's power: a partial a fifth
    // above it (the third harmonic of the octave below), or a note a twelfth
    // below it (harmonics 1..4 at 1/k; its third is the tone's fundamental).
    for (int shape = 0; shape < 2; ++shape) {
        Tally t;
        for (int i = 0; i < per_kind; ++i) {
            const double f = 200.0 * std::pow(6.0, u(rng));
            for (double rate : rates) {
                for (Kind k : {sine, harmonic}) {
                    Note n = synthetic(k, f, rate, rng);
                    n.decay.assign(n.amps.size(), 20.0 / 10.0 / std::log(10.0));
                    std::vector<float> x = render(n, rng);
                    Note b;
                    b.f = shape == 0 ? 1.5 * f : f / 3.0;
                    b.rate = rate;
                    b.seconds = n.seconds;
                    b.amps = shape == 0 ? std::vector<double>{1.0} : std::vector<double>{1.0, 0.5, 1.0 / 3.0, 0.25};
                    b.phases = random_phases(b.amps.size(), rng);
                    const std::vector<float> y = render(b, rng);
                    double px = 0.0, py = 0.0;
                    for (size_t j = 0; j < x.size(); ++j) {
                        px += double(x[j]) * x[j];
                        py += double(y[j]) * y[j];
                    }
                    const double gain = std::sqrt(px / py) * db(-10.0 - 10.0 * u(rng));
                    for (size_t j = 0; j < x.size(); ++j) x[j] = static_cast<float>(0.7 * (x[j] + gain * y[j]));
                    measure(t, wide, x, rate, f);
                }
            }
        }
        print(shape == 0 ? "decaying upper tone, fifth above" : "decaying upper tone, twelfth below", t);
    }
    const double secs = std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
    std::printf("(%.1f s)\n", secs);
    return 0;
}
