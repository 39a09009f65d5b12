// The practice report on generated takes whose answer is known: seeded
// melodies of 16..32 notes at 60..180 BPM on an eighth-note grid, each note
// displaced from its grid position by a known -60..+60 ms and detuned by a
// known -30..+30 cents, some steps left as rests. A backing (drums, bass,
// chords) plays through a room into the take under the player, with noise,
// on 16 bits; the take tools find its delay and remove its leak
// (ta_analyze, ta_clean, as a host would), and the report reads what the
// cleaning leaves. Prints the figures; then the cost of the pitch track
// against one tn_offline_process, and of a whole report, on 3 minutes.
//   bench_report [melodies=20] [seed=1] [player over the leak, dB = 8]
// NOLEAK=1: the player alone.
#include <algorithm>
#include <chrono>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <random>
#include <string>
#include <vector>

#include "take_scenes.hpp"
#include "takes/report.hpp"
#include "woodshed/takes.h"
#include "woodshed/tuner.h"

namespace {

constexpr double kRate = 44100.0;
constexpr double kPi = 3.141592653589793;
constexpr int64_t kDelay = 1234;  // the round trip, frames

struct Truth {
    int64_t onset;
    int64_t length;
    int note;
    double cents;
};

// A plucked-and-held tone: harmonics 1..6 at 1/h, 4 ms attack, decay to a
// sustain of 0.6, 25 ms release.
void add_note(std::vector<float>& x, int64_t at, int64_t length, double hz, double amp) {
    const int64_t attack = int64_t(0.004 * kRate), release = int64_t(0.025 * kRate);
    for (int64_t i = 0; i < length + release && at + i < int64_t(x.size()); ++i) {
        const double t = double(i) / kRate;
        double env = i < attack ? double(i) / attack : 0.6 + 0.4 * std::exp(-(t - 0.004) * 12.0);
        if (i >= length) env *= 1.0 - double(i - length) / release;
        double v = 0.0;
        for (int h = 1; h <= 6; ++h) {
            if (hz * h < 0.45 * kRate) v += std::sin(2 * kPi * hz * h * t) / h;
        }
        x[size_t(at + i)] += float(amp * env * v * 0.45);
    }
}

struct Take {
    std::vector<float> audio;
    std::vector<Truth> notes;
    ws::takes::ReportGrid grid;
    std::vector<std::pair<int64_t, int64_t>> rests;  // spans with no note sounding
};

Take make_take(std::mt19937& rng) {
    std::uniform_int_distribution<int> count_d(16, 32), tempo_d(60, 180), note_d(45, 76);
    std::uniform_real_distribution<double> shift_d(-60.0, 60.0), cents_d(-30.0, 30.0),
        legato_d(0.55, 0.9), u(0.0, 1.0);
    Take take;
    const int count = count_d(rng);
    take.grid.tempo_bpm = tempo_d(rng);
    take.grid.subdivision = 2;
    take.grid.first_beat_frame = 0.5 * kRate;
    const double step = 60.0 / take.grid.tempo_bpm / 2 * kRate;
    int position = 0;
    std::vector<std::pair<int64_t, int64_t>> sounding;
    for (int i = 0; i < count; ++i) {
        if (u(rng) < 0.15) position += 2;  // a rest of a beat
        const int steps = u(rng) < 0.5 ? 2 : 1;
        Truth t;
        t.onset = int64_t(std::llround(take.grid.first_beat_frame + position * step +
                                       shift_d(rng) * kRate / 1000.0));
        // Notes are shortened so the next one, however displaced, starts
        // after this one's release.
        t.length = int64_t(std::max(0.06 * kRate, steps * step * legato_d(rng) - 0.14 * kRate));
        t.note = note_d(rng);
        t.cents = cents_d(rng);
        take.notes.push_back(t);
        sounding.push_back({t.onset, t.onset + t.length + int64_t(0.03 * kRate)});
        position += steps;
    }
    const size_t frames = size_t(take.grid.first_beat_frame + (position + 4) * step);
    take.audio.assign(frames, 0.0f);
    for (const Truth& t : take.notes) {
        add_note(take.audio, t.onset, t.length, 440.0 * std::exp2((t.note - 69 + t.cents / 100) / 12),
                 0.5 + 0.5 * u(rng));
    }
    for (size_t i = 0; i + 1 < sounding.size(); ++i) {
        if (sounding[i + 1].first - sounding[i].second > int64_t(0.15 * kRate)) {
            take.rests.push_back({sounding[i].second, sounding[i + 1].first});
        }
    }
    return take;
}

double rms(const std::vector<float>& x) {
    return std::sqrt(ws::bench::energy(x.data(), x.size()) / static_cast<double>(std::max<size_t>(x.size(), 1)));
}

// The take as recorded beside a backing `player_db` under the player, in a
// usual room (RT60 0.25 s), and cleaned by the take tools. Returns the
// leak's reduction the cleaning reached (dB; the leak's energy over what is
// left of it with the noise), or NaN when it failed (a take left alone
// comes out a little under 0 dB: the noise stays in it).
double through_leak(Take& take, double player_db, unsigned seed, const std::filesystem::path& dir) {
    const size_t n = take.audio.size();
    std::vector<float> backing = ws::bench::backing_music(n, kRate, seed);
    const std::vector<float> heard = ws::bench::fast_convolve(backing, ws::bench::room(kRate, 0.25, 0.35, seed));
    const double gain = rms(take.audio) / std::max(rms(heard), 1e-12) * std::pow(10.0, -player_db / 20.0);
    std::vector<float> leak(n, 0.0f);
    for (size_t i = 0; i + kDelay < n; ++i) leak[i + kDelay] = static_cast<float>(heard[i] * gain);
    std::vector<float> recorded(n);
    std::normal_distribution<double> noise(0.0, 0.0003);
    std::mt19937 nrng(seed);
    double peak = 0.0;
    for (size_t i = 0; i < n; ++i) {
        recorded[i] = take.audio[i] + leak[i] + static_cast<float>(noise(nrng));
        peak = std::max(peak, std::fabs(static_cast<double>(recorded[i])));
    }
    // Recorded below full scale; the truth is scaled with it.
    const float scale = static_cast<float>(peak > 0.9 ? 0.9 / peak : 1.0);
    for (float& v : recorded) v = std::round(v * scale * 32767.0f) / 32767.0f;
    for (float& v : take.audio) v *= scale;
    for (float& v : leak) v *= scale;
    for (float& v : backing) v = std::round(v * 32767.0f) / 32767.0f;
    const std::string backing_path = (dir / "backing.wav").string(), take_path = (dir / "take.wav").string();
    TakeAnalysis a{};
    TakeCleaning c{};
    if (!ws::bench::write_wav16(backing_path, backing, uint32_t(kRate)) ||
        !ws::bench::write_wav16(take_path, recorded, uint32_t(kRate)) ||
        ta_analyze(backing_path.c_str(), take_path.c_str(), 0, 0, 500, &a) != ws_ok || !a.valid ||
        ta_clean(backing_path.c_str(), take_path.c_str(), 0, a.delay_frames, &c) != ws_ok) {
        return std::nan("");
    }
    const std::vector<float> cleaned = ws::bench::read_wav16(take_path);
    if (cleaned.size() != n) return std::nan("");
    std::vector<float> left(n);
    for (size_t i = 0; i < n; ++i) left[i] = cleaned[i] - take.audio[i];
    take.audio = cleaned;
    return 10.0 * std::log10(ws::bench::energy(leak.data(), n) / std::max(ws::bench::energy(left.data(), n), 1e-30));
}

double seconds_since(std::chrono::steady_clock::time_point t0) {
    return std::chrono::duration<double>(std::chrono::steady_clock::now() - t0).count();
}

}  // namespace

int main(int argc, char** argv) {
    const int melodies = argc > 1 ? std::atoi(argv[1]) : 20;
    std::mt19937 rng(argc > 2 ? unsigned(std::atoi(argv[2])) : 1u);
    const double player_db = argc > 3 ? std::atof(argv[3]) : 8.0;
    const bool leak = std::getenv("NOLEAK") == nullptr;
    const auto dir = std::filesystem::temp_directory_path() / ("woodshed-bench-report-" + std::to_string(std::random_device{}()));
    std::filesystem::create_directories(dir);
    size_t truth_notes = 0, found_notes = 0, phantoms = 0, unplayed = 0;
    double matched = 0, onset_ok = 0, held = 0, cents_ok = 0;
    std::vector<double> onset_err, cents_err, reductions;
    for (int m = 0; m < melodies; ++m) {
        Take take = make_take(rng);
        if (leak) {
            const double reduction = through_leak(take, player_db, unsigned(m + 1), dir);
            if (std::isnan(reduction)) {
                std::printf("melody %d: the take tools failed\n", m);
                return 1;
            }
            reductions.push_back(reduction);
            if (std::getenv("MISS") != nullptr) std::printf("melody %d: leak down %.1f dB\n", m, reduction);
        }
        const auto notes = ws::takes::report_notes(take.audio.data(), take.audio.size(), uint32_t(kRate),
                                                   nullptr, take.grid);
        truth_notes += take.notes.size();
        if (std::getenv("DUMP") != nullptr && m == std::atoi(std::getenv("DUMP"))) {
            for (const Truth& t : take.notes) std::printf("truth %lld %lld %d %.1f\n", (long long)t.onset, (long long)t.length, t.note, t.cents);
            for (const auto& n : notes) std::printf("found %lld %lld %d %.1f\n", (long long)n.onset_frame, (long long)n.duration_frames, n.note, n.cents);
        }
        found_notes += notes.size();
        for (const auto& n : notes) {
            for (const auto& r : take.rests) {
                if (n.onset_frame > r.first + int64_t(0.02 * kRate) && n.onset_frame < r.second - int64_t(0.02 * kRate)) {
                    ++phantoms;
                    if (std::getenv("MISS") != nullptr) {
                        std::printf("phantom melody %d at %.3f s: note %d\n", m, double(n.onset_frame) / kRate, n.note);
                    }
                }
            }
        }
        for (const auto& n : notes) {
            const bool near = std::any_of(take.notes.begin(), take.notes.end(), [&](const Truth& t) {
                return std::llabs(n.onset_frame - t.onset) < int64_t(0.05 * kRate);
            });
            if (near) continue;
            ++unplayed;
            if (std::getenv("MISS") != nullptr) {
                std::printf("extra melody %d at %.3f s: note %d\n", m, double(n.onset_frame) / kRate, n.note);
            }
        }
        for (const Truth& t : take.notes) {
            const ws::takes::ReportNote* best = nullptr;
            for (const auto& n : notes) {
                if (std::llabs(n.onset_frame - t.onset) < int64_t(0.05 * kRate) &&
                    (best == nullptr || std::llabs(n.onset_frame - t.onset) < std::llabs(best->onset_frame - t.onset))) {
                    best = &n;
                }
            }
            if (best == nullptr || best->note != t.note) {
                if (std::getenv("MISS") != nullptr) {
                    std::printf("missed melody %d at %.3f s: note %d, %.0f ms, %.1f cents; reported %s\n", m,
                                double(t.onset) / kRate, t.note, double(t.length) * 1000 / kRate, t.cents,
                                best ? std::to_string(best->note).c_str() : "nothing near");
                }
                continue;
            }
            ++matched;
            const double err_ms = double(best->onset_frame - t.onset) * 1000.0 / kRate;
            onset_err.push_back(err_ms);
            onset_ok += std::fabs(err_ms) <= 5.0 ? 1 : 0;
            if (t.length >= int64_t(0.15 * kRate)) {
                ++held;
                cents_err.push_back(best->cents - t.cents);
                cents_ok += std::fabs(best->cents - t.cents) <= 3.0 ? 1 : 0;
            }
        }
    }
    std::error_code ec;
    std::filesystem::remove_all(dir, ec);
    if (leak) {
        std::sort(reductions.begin(), reductions.end());
        std::printf("player %.0f dB over the backing's leak; the cleaning took it down %.1f..%.1f dB (median %.1f)\n",
                    player_db, reductions.front(), reductions.back(), reductions[reductions.size() / 2]);
    }
    std::printf("melodies %d: notes %zu, reported %zu, found with the right note %.0f (%.1f %%)\n",
                melodies, truth_notes, found_notes, matched, 100.0 * matched / double(truth_notes));
    std::printf("onsets within +-5 ms: %.1f %% of found notes\n", 100.0 * onset_ok / std::max(matched, 1.0));
    std::printf("cents within +-3 (notes held >= 150 ms, %.0f): %.1f %%\n", held,
                100.0 * cents_ok / std::max(held, 1.0));
    std::printf("phantom notes in rests: %zu; reported notes 50 ms or more from any played: %zu\n", phantoms,
                unplayed);
    if (argc > 4) {
        for (double e : onset_err) std::printf("%.1f ", e);
        std::printf("\n");
        for (double e : cents_err) std::printf("%.1f ", e);
        std::printf("\n");
    }

    // Cost on 3 minutes: repeat generated melodies up to length.
    std::vector<float> three;
    while (three.size() < size_t(180 * kRate)) {
        const Take take = make_take(rng);
        three.insert(three.end(), take.audio.begin(), take.audio.end());
    }
    three.resize(size_t(180 * kRate));
    const int32_t frames = int32_t(three.size());
    // The best of three of each, alternated: the machine may be shared.
    TunerReading single{};
    int32_t count = 0;
    tn_offline_track(nullptr, three.data(), frames, 1, kRate, nullptr, &count);
    std::vector<TunerReading> track(static_cast<size_t>(count));
    double process_s = 1e9, track_s = 1e9;
    for (int round = 0; round < 3; ++round) {
        auto t0 = std::chrono::steady_clock::now();
        tn_offline_process(nullptr, three.data(), frames, 1, kRate, &single);
        process_s = std::min(process_s, seconds_since(t0));
        t0 = std::chrono::steady_clock::now();
        tn_offline_track(nullptr, three.data(), frames, 1, kRate, track.data(), &count);
        track_s = std::min(track_s, seconds_since(t0));
    }
    std::printf("3 min: tn_offline_process %.3f s, tn_offline_track %.3f s (%d readings, %+.1f %%)\n",
                process_s, track_s, count, 100.0 * (track_s / process_s - 1.0));
    const TakeReportGrid grid{120000000, 0, 4, 2};
    std::vector<TakeReportNote> notes(4096);
    int32_t room = 4096;
    TakeReportSummary summary{};
    const auto t0 = std::chrono::steady_clock::now();
    ta_report_buffer(three.data(), frames, int32_t(kRate), nullptr, &grid, notes.data(), &room, &summary);
    std::printf("3 min: ta_report_buffer %.3f s (%d notes)\n", seconds_since(t0), summary.notes);
    return 0;
}
