// woodshed demo: a practice session from start to end through the library's
// C interface. It writes a backing track and a "musician" line of known
// notes, records a take while the backing plays (the line sounds on a second
// output stream, as a player would into the microphone), finds the backing's
// delay in the take, removes its leak, names the notes of the cleaned take,
// plays two bars of click with a count-in and ends with the practice report
// of the cleaned take (its picture beside the files). Without sound hardware it runs
// everything on a private sound server whose null sink's monitor is the
// input, so the take hears exactly what was played.
#include <algorithm>
#include <atomic>
#include <climits>
#include <cmath>
#include <cstdint>
#include <cstdio>
#include <filesystem>
#include <memory>
#include <numbers>
#include <string>
#include <vector>

#include <miniaudio.h>

#include "cli.hpp"
#include "live.hpp"
#include "report_view.hpp"
#include "sound_server.hpp"
#include "synth.hpp"
#include "wav_file.hpp"
#include "woodshed/woodshed.h"

namespace cli {
namespace {

constexpr OptionSpec kSpecs[] = {{"dir", true}};

constexpr uint32_t kRate = SD_SAMPLE_RATE;  // the recorder's rate, so the take tools compare like with like
constexpr double kBpm = 120.0;
constexpr double kBeat = 60.0 / kBpm;
constexpr int kBars = 4;
constexpr double kBackingSeconds = kBars * 4 * kBeat;
constexpr double kTail = 0.5;  // recorded past the backing's end
constexpr int kPollMs = 50;
constexpr int kAttempts = 3;
constexpr int32_t kLateMs = 5000;  // where the delay is checked a second time

// The musician's line: notes with rests between them, so that two notes
// never run into each other and each can be named on its own. It enters in
// the second bar: in the first only the backing sounds, which is where the
// leak's reduction can be measured directly. The player sounds well below
// the backing, as one does beside a loud speaker; the raw take then names
// the backing's notes as often as hers. She plays on beats 2 and 4: a line
// struck with the bass on 1 and 3 is read an octave off where the cleaning
// leaves a little of the bass under it. Some notes are played off the beat
// and off the note by known amounts, for the report to find.
struct LineNote {
    int midi;
    int beat;        // the backing's beat it is played on, from 0
    double late_ms;  // off that beat (negative: early)
    double cents;    // off the note (negative: flat)
    double seconds;
    double start() const { return beat * kBeat + late_ms / 1000.0; }  // s from the backing's start
};
constexpr LineNote kLine[] = {
    {64, 5, 0.0, 0.0, 0.8},     // E4 on bar 2's second beat
    {67, 7, 30.0, 12.0, 0.8},   // G4 late and sharp
    {69, 9, -20.0, -8.0, 0.8},  // A4 early and flat
    {72, 11, 0.0, 0.0, 0.8},    // C5
    {74, 13, 45.0, 20.0, 1.0},  // D5 late and sharp
};
// The player's stream opens this long before the take (a stream joining the
// sink during a take can shift the take's round trip, and the take tools
// model one delay per take) and plays silence until the backing starts.
constexpr int kPlayerLeadMs = 250;
constexpr double kLinePeak = 0.12;
constexpr double kBackingPeak = 0.45;
constexpr double kBackingOnly = 2.0;  // s: the first bar

struct Files {
    std::string backing, line, take, cleaned, picture;
};

std::string path_in(const std::filesystem::path& dir, const char* name) { return utf8_text(dir / name); }

// ---- the signals ---------------------------------------------------------

// A deterministic noise source, so every run writes the same files.
struct Noise {
    uint32_t state = 0x2545F491u;
    float next() {
        state = state * 1664525u + 1013904223u;
        return static_cast<float>(static_cast<int32_t>(state)) / 2147483648.0f;
    }
};

void add(std::vector<float>& stereo, double at, const std::vector<float>& mono, float left, float right) {
    const auto start = static_cast<size_t>(std::llround(at * kRate));
    for (size_t i = 0; i < mono.size() && start + i < stereo.size() / 2; ++i) {
        stereo[2 * (start + i)] += mono[i] * left;
        stereo[2 * (start + i) + 1] += mono[i] * right;
    }
}

std::vector<float> drum(double seconds, double decay, double f_start, double f_end, double noise_share,
                        Noise& noise) {
    std::vector<float> out(static_cast<size_t>(seconds * kRate));
    double phase = 0.0;
    for (size_t i = 0; i < out.size(); ++i) {
        const double t = static_cast<double>(i) / kRate;
        const double f = f_end + (f_start - f_end) * std::exp(-t / 0.03);
        phase += 2.0 * std::numbers::pi * f / kRate;
        const double body = (1.0 - noise_share) * std::sin(phase) + noise_share * noise.next();
        out[i] = static_cast<float>(body * std::exp(-t / decay));
    }
    return out;
}

// Four bars of A minor at 120 BPM: bass on beats 1 and 3, kick, snare and
// eighth-note hats. The drums make the track broadband, which is what lets
// the delay be found to the frame.
std::vector<float> make_backing() {
    std::vector<float> stereo(static_cast<size_t>(kBackingSeconds * kRate) * 2, 0.0f);
    Noise noise;
    const int bass[kBars] = {45, 41, 48, 43};  // A2 F2 C3 G2
    const auto kick = drum(0.25, 0.08, 150.0, 50.0, 0.05, noise);
    const auto snare = drum(0.2, 0.05, 220.0, 180.0, 0.7, noise);
    for (int bar = 0; bar < kBars; ++bar) {
        const std::vector<float> note = pluck(note_frequency(bass[bar], 440.0), 2 * kBeat, kRate, 0.5);
        for (int beat = 0; beat < 4; ++beat) {
            const double t = (bar * 4 + beat) * kBeat;
            if (beat % 2 == 0) {
                add(stereo, t, note, 0.6f, 0.6f);
                add(stereo, t, kick, 0.5f, 0.5f);
            } else {
                add(stereo, t, snare, 0.3f, 0.35f);
            }
            for (int half = 0; half < 2; ++half) {
                add(stereo, t + half * kBeat / 2, drum(0.05, 0.012, 8000.0, 8000.0, 1.0, noise), 0.12f, 0.08f);
            }
        }
    }
    float peak = 0.0f;
    for (float v : stereo) peak = std::max(peak, std::fabs(v));
    for (float& v : stereo) v *= static_cast<float>(kBackingPeak) / peak;
    return stereo;
}

std::vector<float> make_line() {
    const LineNote& last = kLine[std::size(kLine) - 1];
    std::vector<float> mono(static_cast<size_t>((last.start() + last.seconds) * kRate), 0.0f);
    for (const LineNote& n : kLine) {
        const auto note = pluck(note_frequency(n.midi, 440.0) * std::exp2(n.cents / 1200.0), n.seconds, kRate,
                                kLinePeak);
        std::copy(note.begin(), note.end(),
                  mono.begin() + static_cast<std::ptrdiff_t>(std::llround(n.start() * kRate)));
    }
    return mono;
}

std::string line_names() {
    std::string names;
    for (const LineNote& n : kLine) {
        if (!names.empty()) names += ' ';
        names += note_name(n.midi);
    }
    return names;
}

// ---- the musician ----------------------------------------------------------

// Plays the line once on the default output, on its own stream, from the
// moment begin() is called: the backing's start, as near as two streams of
// one sound server allow.
class LinePlayer {
public:
    explicit LinePlayer(const std::vector<float>& line) : line_(line) {}
    ~LinePlayer() {
        if (open_) {
            ma_device_stop(&device_);
            ma_device_uninit(&device_);
        }
    }
    LinePlayer(const LinePlayer&) = delete;
    LinePlayer& operator=(const LinePlayer&) = delete;

    bool start() {
        ma_device_config cfg = ma_device_config_init(ma_device_type_playback);
        cfg.playback.format = ma_format_f32;
        cfg.playback.channels = 1;
        cfg.sampleRate = kRate;
        cfg.dataCallback = on_data;
        cfg.pUserData = this;
        if (ma_device_init(nullptr, &cfg, &device_) != MA_SUCCESS) return false;
        open_ = true;
        return ma_device_start(&device_) == MA_SUCCESS;
    }
    void begin() { begin_.store(position_.load(std::memory_order_relaxed), std::memory_order_relaxed); }

private:
    static void on_data(ma_device* device, void* output, const void*, ma_uint32 frames) {
        auto* self = static_cast<LinePlayer*>(device->pUserData);
        auto* out = static_cast<float*>(output);
        size_t at = self->position_.load(std::memory_order_relaxed);
        const size_t begin = self->begin_.load(std::memory_order_relaxed);
        for (ma_uint32 i = 0; i < frames; ++i, ++at) {
            out[i] = at >= begin && at - begin < self->line_.size() ? self->line_[at - begin] : 0.0f;
        }
        self->position_.store(at, std::memory_order_relaxed);
    }
    const std::vector<float>& line_;
    std::atomic<size_t> position_{0};
    std::atomic<size_t> begin_{SIZE_MAX};  // silence until begin()
    ma_device device_{};
    bool open_ = false;
};

// ---- the steps -------------------------------------------------------------

struct TakeRecorded {
    double loudest;   // peak input level
    int32_t repairs;  // re-alignments the recorder made
};

// Records the take.
TakeRecorded record_take(const Files& f, const std::vector<float>& line) {
    const FamilyInstance recorder(sd_create, sd_destroy, "recorder");
    LinePlayer musician(line);
    if (!musician.start()) throw Failure("cannot open an output stream for the musician's line");
    sleep_ms(kPlayerLeadMs);
    const int32_t started = sd_start(f.backing.c_str(), f.take.c_str(), nullptr, 0);
    if (started != ws_ok) {
        remove_file(f.take);
        throw Failure("cannot open the default duplex device: " + result_text(started));
    }
    musician.begin();
    std::printf("   duplex device at %d Hz; the take is written at %u Hz\n", sd_device_rate(), kRate);
    std::fflush(stdout);
    LiveDisplay display;
    RecorderState st{};
    double loudest = 0.0, done_at = -1.0, last_plain = -1.0;
    for (;;) {
        sd_get_state(&st);
        const double elapsed = static_cast<double>(st.captured_frames) / kRate;
        loudest = std::max(loudest, st.input_peak);
        if (st.playback_done && done_at < 0) done_at = elapsed;
        if (interrupted() || (done_at >= 0 && elapsed >= done_at + kTail)) break;
        char text[96];
        std::snprintf(text, sizeof text, "   recording %4.1f s, backing at %4.1f of %.1f s, input %6.1f dBFS",
                      elapsed, static_cast<double>(st.play_position) / kRate, kBackingSeconds,
                      st.input_peak > 1e-6 ? 20.0 * std::log10(st.input_peak) : -120.0);
        if (display.in_place()) {
            display.draw({text});
        } else if (elapsed - last_plain >= 2.0) {
            std::printf("%s\n", text);
            std::fflush(stdout);
            last_plain = elapsed;
        }
        sleep_ms(kPollMs);
    }
    const int64_t ms = sd_stop();
    display.finish();
    if (ms < 0) throw Failure("the take did not end cleanly: " + result_text(static_cast<int32_t>(ms)));
    std::printf("   take: %s, %.2f s, loudest input %.1f dBFS\n", f.take.c_str(), static_cast<double>(ms) / 1000.0,
                loudest > 1e-6 ? 20.0 * std::log10(loudest) : -120.0);
    const int32_t repairs = sd_repair_count();
    std::printf("   alignment repairs: %d%s\n", repairs,
                repairs > 0 ? " (the sound server fell behind; the take was re-aligned where it did)" : "");
    return {loudest, repairs};
}

// A whole recording, decoded.
struct Recording {
    std::vector<float> samples;  // interleaved
    size_t channels;
    double rate;
};

Recording load(const std::string& path) {
    AudioReader reader(path, 8000, 384000, 48000);
    Recording r{{}, reader.channels(), static_cast<double>(reader.sample_rate())};
    while (reader.read(r.samples, 65536) > 0) {
    }
    return r;
}

// The notes of a recording as the tuner names them: readings every 20 ms
// over the preceding quarter second; a run of one pitched note lasting
// 0.2 s or more counts as a note played.
// A note whose run breaks for under 0.3 s is still one note: a reading
// lost to the leak's remainder, or a seam where the take was re-aligned,
// disturbs every reading whose quarter-second window spans it. (The line
// never plays one note twice in a row.)
struct HeardNote {
    int midi;
    double start, cents, end;
};

std::vector<HeardNote> notes_in(const std::string& path) {
    const Recording rec = load(path);
    const std::vector<float>& audio = rec.samples;
    const size_t channels = rec.channels;
    const double rate = rec.rate;
    const auto hop = static_cast<size_t>(0.02 * rate);
    const auto context = static_cast<size_t>(0.25 * rate);
    const TunerConfig cfg{440.0, 55.0, 1200.0, 5.0, -1, 0};

    std::vector<HeardNote> heard;
    int run_note = -1;
    double run_start = 0.0, run_end = 0.0;
    std::vector<double> run_cents;
    const auto close_run = [&] {
        if (run_note >= 0 && run_cents.size() >= 10) {
            std::nth_element(run_cents.begin(), run_cents.begin() + static_cast<std::ptrdiff_t>(run_cents.size() / 2),
                             run_cents.end());
            if (!heard.empty() && heard.back().midi == run_note && run_start - heard.back().end < 0.3) {
                heard.back().end = run_end;
            } else {
                heard.push_back({run_note, run_start, run_cents[run_cents.size() / 2], run_end});
            }
        }
        run_note = -1;
        run_cents.clear();
    };
    const size_t frames = audio.size() / channels;
    for (size_t end = context; end <= frames; end += hop) {
        TunerReading r{};
        const int32_t got = tn_offline_process(&cfg, audio.data() + (end - context) * channels,
                                               static_cast<int32_t>(context), static_cast<int32_t>(channels), rate, &r);
        const bool pitched = got == 1 && (r.state == tn_state_pitched || r.state == tn_state_in_tune);
        const int note = pitched ? r.note : -1;
        if (note != run_note) {
            close_run();
            run_note = note;
            run_start = static_cast<double>(end) / rate;
        }
        if (note >= 0) {
            run_cents.push_back(r.cents);
            run_end = static_cast<double>(end) / rate;
        }
    }
    close_run();
    return heard;
}

void analyse(const Files& f, int32_t offset_ms, int32_t min_ms, int32_t max_ms, TakeAnalysis& out) {
    const int32_t r = ta_analyze(f.backing.c_str(), f.take.c_str(), offset_ms, min_ms, max_ms, &out);
    if (r != ws_ok) throw Failure("the take tools could not read the files: " + result_text(r));
}

// Mean energy of a mono recording between two moments.
double energy(const std::string& path, double from, double to) {
    const Recording rec = load(path);
    const std::vector<float>& audio = rec.samples;
    const size_t channels = rec.channels;
    const size_t frames = audio.size() / channels;
    const auto begin = std::min(frames, static_cast<size_t>(from * rec.rate));
    const auto end = std::min(frames, static_cast<size_t>(to * rec.rate));
    double sum = 0.0;
    for (size_t i = begin * channels; i < end * channels; ++i) sum += static_cast<double>(audio[i]) * audio[i];
    return end > begin ? sum / static_cast<double>((end - begin) * channels) : 0.0;
}

double db(double ratio) { return 10.0 * std::log10(std::max(ratio, 1e-30)); }

std::string describe(const std::vector<HeardNote>& notes) {
    std::string text;
    for (const HeardNote& n : notes) {
        char buf[48];
        std::snprintf(buf, sizeof buf, "%s%s (%+.0f c)", text.empty() ? "" : "  ", note_name(n.midi).c_str(),
                      std::fabs(n.cents) < 0.5 ? 0.0 : n.cents);
        text += buf;
    }
    return text.empty() ? "no notes" : text;
}

bool as_played(const std::vector<HeardNote>& notes) {
    if (notes.size() != std::size(kLine)) return false;
    for (size_t i = 0; i < notes.size(); ++i) {
        if (notes[i].midi != kLine[i].midi) return false;
    }
    return true;
}

// The practice report of the cleaned take on the backing's grid: beat 1 is
// the backing's first frame, heard `delay` frames into the take. The line's
// stream starts beside the backing's, not with it, so every note is found
// off its beat by the line's own offset plus the amount it was played off;
// the offset is taken as the median of the differences, and each note must
// then lie within 5 cents and 30 ms of how it was played. Not closer in
// time: a sound server that falls behind can move one stream against the
// other in mid-take by a period, which no take tool sees (the bench holds
// the report's timing to 5 ms on takes whose truth is exact).
bool report_step(const Files& f, const TakeAnalysis& a) {
    const MonoTake take = read_mono_take(f.cleaned);
    const TunerConfig tuner{440.0, 55.0, 1200.0, 5.0, -1, 0};
    const TakeReportGrid grid{static_cast<int64_t>(kBpm * 1e6), a.delay_frames * take.rate / a.sample_rate, 4, 1};
    const PracticeReport report = make_report(take, tuner, grid);
    print_report(report, take.rate, true, "   ");
    write_report_svg(f.picture, take, report, tuner, grid);
    std::printf("   %s: the picture of it\n", f.picture.c_str());

    // Each note played is the reported one of its name whose onset is
    // nearest to where it was played; any other is one the cleaning's
    // remainder made. By onset, not by deviation: a deviation is from the
    // nearest beat, and a remainder of a held note on the next beat can lie
    // nearer its played deviation than the note itself.
    std::vector<const TakeReportNote*> found;
    std::vector<double> offsets;
    for (const LineNote& played : kLine) {
        const double at = static_cast<double>(grid.first_beat_frame) + played.start() * take.rate;
        const TakeReportNote* best = nullptr;
        for (const TakeReportNote& n : report.notes) {
            if (n.note == played.midi &&
                (best == nullptr || std::fabs(static_cast<double>(n.onset_frame) - at) <
                                        std::fabs(static_cast<double>(best->onset_frame) - at))) {
                best = &n;
            }
        }
        if (best == nullptr) {
            std::printf("   %s, played, is not in the report\n", note_name(played.midi).c_str());
            return false;
        }
        found.push_back(best);
        offsets.push_back(best->deviation_ms - played.late_ms);
    }
    std::nth_element(offsets.begin(), offsets.begin() + static_cast<std::ptrdiff_t>(offsets.size() / 2), offsets.end());
    const double offset = offsets[offsets.size() / 2];
    double timing = 0.0, tuning = 0.0;
    for (size_t i = 0; i < found.size(); ++i) {
        timing = std::max(timing, std::fabs(found[i]->deviation_ms - kLine[i].late_ms - offset));
        tuning = std::max(tuning, std::fabs(found[i]->cents - kLine[i].cents));
    }
    std::printf("   as played: the line sounded %+.1f ms from the backing's start; each note's timing within "
                "%.1f ms and its cents within %.1f of how it was played\n",
                offset, timing, tuning);
    const size_t extra = report.notes.size() - found.size();
    if (extra > 0) {
        std::printf("   and %zu note%s where the line rests: what the cleaning left of the backing\n", extra,
                    extra == 1 ? "" : "s");
    }
    return timing <= 30.0 && tuning <= 5.0;
}

// Two bars after a one-bar count-in; one line per beat, read from the
// metronome's own position snapshots. Returns the beats seen.
int play_click() {
    MetronomeConfig cfg{};
    cfg.tempo_ubpm = static_cast<int64_t>(kBpm * 1e6);
    cfg.beats_per_bar = 4;
    cfg.subdivisions = 1;
    cfg.beat_divisor = 1;
    cfg.beat_multiplier = 1;
    cfg.swing = 0.5;
    cfg.master_gain = 0.8;
    cfg.accent_gain = 1.0;
    cfg.beat_gain = 0.7;
    cfg.subdivision_gain = 0.5;
    cfg.count_in_bars = 1;
    cfg.ramp_interval_bars = 1;
    cfg.accent_pattern[0] = mn_level_accent;
    for (int i = 1; i < 4; ++i) cfg.accent_pattern[i] = mn_level_normal;

    const FamilyInstance metronome(mn_create, mn_destroy, "metronome");
    const int32_t started = mn_start(&cfg, "");
    if (started != ws_ok) throw Failure("cannot open the default output: " + result_text(started));
    int beats = 0;
    int64_t last_bar = INT64_MIN;
    int32_t last_beat = -1;
    for (;;) {
        MetronomeSnapshot s{};
        if (mn_get_snapshot(&s) == 1 && s.run_id >= 1 && s.state != mn_state_stopped) {
            if (s.bar >= 2 || interrupted()) break;
            if (s.bar != last_bar || s.beat != last_beat) {
                last_bar = s.bar;
                last_beat = s.beat;
                ++beats;
                std::printf("   %6.3f s  %s\n", static_cast<double>(s.frame_clock) / s.sample_rate,
                            metronome_position(s, cfg.count_in_bars, cfg.beats_per_bar).c_str());
                std::fflush(stdout);
            }
        }
        sleep_ms(5);
    }
    mn_stop();
    sleep_ms(100);  // the fade and what the device already holds
    return beats;
}

int run_demo(std::span<const std::string> args) {
    const Options opts("demo", args, kSpecs);
    if (opts.help()) {
        std::fputs(kDemoCommand.help, stdout);
        return kExitOk;
    }
    opts.expect_positionals(0, "no arguments besides the options");
    const std::string dir_text = opts.value("dir").value_or("woodshed-demo");
    const std::filesystem::path dir = fs_path(dir_text);
    std::error_code ec;
    std::filesystem::create_directories(dir, ec);
    if (ec) throw Failure("cannot create '" + dir_text + "': " + ec.message());
    const Files f{path_in(dir, "backing.wav"), path_in(dir, "line.wav"), path_in(dir, "take.wav"),
                  path_in(dir, "take-cleaned.wav"), path_in(dir, "take-cleaned.svg")};
    install_interrupt_handler();

    std::printf("woodshed demo: a practice session, end to end through the library (version %d interface)\n",
                tn_abi_version());
    std::unique_ptr<PrivateSoundServer> server;
    if (!sound_system_available()) {
        server = PrivateSoundServer::start();
        std::printf("no sound hardware: running a private sound server with a null sink for this demo "
                    "(the take hears its monitor)\n");
    }
    std::fflush(stdout);

    std::printf("\n1. backing and line\n");
    const std::vector<float> backing = make_backing();
    const std::vector<float> line = make_line();
    write_wav16(f.backing, backing, 2, kRate);
    write_wav16(f.line, line, 1, kRate);
    std::printf("   %s: %.1f s, 4 bars of A minor at %.0f BPM, 16-bit stereo %u Hz\n", f.backing.c_str(),
                kBackingSeconds, kBpm, kRate);
    std::printf("   %s: the musician's line, %s\n", f.line.c_str(), line_names().c_str());

    std::printf("\n2. recording a take on the default duplex device while the backing plays\n");
    std::fflush(stdout);
    // The take tools model one delay per take. A sound server that falls
    // behind (a loaded machine) can shift the round trip in mid-take; the
    // recorder re-aligns the take with the backing where it did, but the
    // musician's line plays on a stream of its own that nothing re-aligns,
    // so a take that needed repairs, or whose delay still differs further
    // on, is recorded again.
    TakeAnalysis a{}, late{};
    int64_t moved = 0;
    for (int attempt = 1; attempt <= kAttempts; ++attempt) {
        const TakeRecorded took = record_take(f, line);
        const double loudest = took.loudest;
        if (interrupted()) {
            std::fputs("woodshed: interrupted; the take is complete\n", stderr);
            return kExitInterrupted;
        }
        if (loudest < 0.001) {
            throw Failure("the take is silent: the input hears nothing of the output (with speakers and a "
                          "microphone, turn the volume up)");
        }
        analyse(f, 0, 0, 1000, a);
        if (!a.valid) throw Failure("no clear delay: the take does not hold the backing");
        analyse(f, kLateMs, kLateMs - 100, kLateMs + 1000, late);
        moved = late.delay_frames - a.delay_frames - int64_t{kLateMs} * kRate / 1000;
        if (late.valid && std::llabs(moved) <= 2 && (took.repairs == 0 || attempt == kAttempts)) {
            if (attempt > 1) std::printf("   recorded in %d attempts\n", attempt);
            break;
        }
        if (attempt < kAttempts && late.valid && std::llabs(moved) <= 2) {
            std::printf("   the line's own stream may have slipped where the server fell behind; recording again\n");
        } else if (attempt < kAttempts) {
            std::printf("   the round trip moved by %lld frames during the take (the sound server fell behind); "
                        "recording again\n",
                        static_cast<long long>(moved));
        }
    }

    std::printf("\n3. finding the backing in the take\n");
    std::printf("   the backing is heard %.2f ms late (%lld frames at %u Hz), score %.1f\n",
                1000.0 * static_cast<double>(a.delay_frames) / a.sample_rate, static_cast<long long>(a.delay_frames),
                a.sample_rate, a.score);
    if (late.valid && std::llabs(moved) <= 2) {
        std::printf("   %d s later the same delay (%+lld frames), score %.1f\n", kLateMs / 1000,
                    static_cast<long long>(moved), late.score);
    } else {
        std::printf("   %d s later the delay differs by %lld frames: the cleaning below suffers from it\n",
                    kLateMs / 1000, static_cast<long long>(moved));
    }

    std::printf("\n4. removing the backing's leak\n");
    std::filesystem::copy_file(fs_path(f.take), fs_path(f.cleaned), std::filesystem::copy_options::overwrite_existing,
                               ec);
    if (ec) throw Failure("cannot copy the take to '" + f.cleaned + "': " + ec.message());
    TakeCleaning c{};
    const int32_t cleaned = ta_clean(f.backing.c_str(), f.cleaned.c_str(), 0, a.delay_frames, &c);
    if (cleaned != ws_ok) throw Failure("the take could not be cleaned: " + result_text(cleaned));
    // The first bar holds the backing alone: what is left there is leak.
    const double before = energy(f.take, 0.1, kBackingOnly), after = energy(f.cleaned, 0.1, kBackingOnly);
    std::printf("   %s: %.1f dB removed where the backing sounds (the library's figure, player included)\n",
                f.cleaned.c_str(), c.reduction_db);
    std::printf("   first bar, backing alone: %.1f dBFS before, %.1f dBFS after: the leak is %.1f dB quieter\n",
                db(before), db(after), db(before / std::max(after, 1e-30)));

    std::printf("\n5. naming the notes (offline tuner)\n");
    const std::vector<HeardNote> raw = notes_in(f.take);
    const std::vector<HeardNote> clean = notes_in(f.cleaned);
    std::printf("   played:        %s\n", line_names().c_str());
    std::printf("   raw take:      %s\n", describe(raw).c_str());
    std::printf("   cleaned take:  %s\n", describe(clean).c_str());
    const bool named = as_played(clean);
    std::printf("   %s\n", named ? "the cleaned take's notes are named as played"
                                 : "the cleaned take's notes differ from those played");

    std::printf("\n6. two bars of click after a one-bar count-in, %.0f BPM\n", kBpm);
    std::fflush(stdout);
    const int beats = play_click();
    if (interrupted()) {
        std::fputs("woodshed: interrupted\n", stderr);
        return kExitInterrupted;
    }
    std::printf("   %d beats shown\n", beats);
    server.reset();

    std::printf("\n7. the practice report of the cleaned take: %.0f BPM, 4/4, beat 1 where the backing begins\n",
                kBpm);
    const bool reported = report_step(f, a);

    const bool worked = named && beats == 12 && reported;
    std::printf("\ndone: %s\n", worked ? "every step worked" : "some steps fell short (see above)");
    std::printf("files: %s\n", dir_text.c_str());
    return worked ? kExitOk : kExitFailure;
}

}  // namespace

const Command kDemoCommand = {
    "demo",
    "demo [--dir DIR]",
    "a practice session end to end: record, align, clean, tune, click, report",
    "usage: woodshed demo [--dir DIR]\n"
    "\n"
    "Walks through a practice session with the library and prints what\n"
    "happened, with the figures:\n"
    "  1. writes a backing track and a musician's line of known notes\n"
    "  2. records a take on the default duplex device while the backing plays\n"
    "     (the line plays on a second output stream, as a player would sound)\n"
    "  3. finds the backing's delay in the take\n"
    "  4. removes the backing's leak from a copy of the take\n"
    "  5. names the notes of both takes with the offline tuner\n"
    "  6. plays two bars of click after a one-bar count-in, showing bar and beat\n"
    "  7. reports the cleaned take's notes against the backing's beat: timing\n"
    "     in ms and cents for each, the summary, and take-cleaned.svg\n"
    "On a machine without sound hardware it runs on a private sound server with\n"
    "a null sink (Linux, needs pulseaudio), whose monitor is the input, and\n"
    "stops it at the end. Takes about 20 seconds; it plays sound.\n"
    "\n"
    "options:\n"
    "  --dir DIR          where to write the files (default ./woodshed-demo)\n"
    "  -h, --help         show this help\n"
    "\n"
    "Exit status: 0 every step worked, 1 a step failed or named or reported\n"
    "the wrong notes, 2 bad usage, 130 stopped by Ctrl-C.\n",
    run_demo,
};

}  // namespace cli
